// SPDX-License-Identifier: MIT
#include "device/recorder.h"

#include "kind.h"
#include "schema.h"
#include "worker.h"

#include <QEvent>
#include <QThread>

namespace device
{

Recorder::Recorder(const Library &library, const QString &path, const RecorderOptions &options, QObject *parent)
    : QObject(parent), m_worker(std::make_unique<Worker>(this, library, path, options))
{
    qRegisterMetaType<Error>();
    qRegisterMetaType<Alarm>();
    qRegisterMetaType<LocalTime>();
}

Recorder::~Recorder()
{
    stopNow();
}

void Recorder::stopNow()
{
    for (bool delivered = false; !delivered;) {
        try {
            (void)stop(m_worker->options().stopWithin); // what it loses is reported
            delivered = true;
        } catch (const std::exception &thrown) { // it would end the program if it left a destructor
            qWarning("%s: a slot threw while its recorder was destroyed: %s", qPrintable(path()), thrown.what());
        } catch (...) {
            qWarning("%s: a slot threw while its recorder was destroyed", qPrintable(path()));
        }
    }
}

QString Recorder::path() const
{
    return m_worker->path();
}

Health Recorder::health() const
{
    return m_worker->health();
}

Status Recorder::start()
{
    return m_worker->start();
}

void Recorder::flushSoon()
{
    m_worker->flushSoon();
}

Settled Recorder::flush(std::chrono::milliseconds deadline)
{
    const Settled settled = m_worker->flush(deadline);
    deliver();
    return settled;
}

Settled Recorder::stop(std::chrono::milliseconds deadline)
{
    const Settled settled = m_worker->stop(deadline);
    deliver();
    return settled;
}

Settled Recorder::cancel()
{
    return stop(std::chrono::milliseconds(0));
}

void Recorder::customEvent(QEvent *)
{
    m_worker->wokenByEvent();
    deliver();
}

void Recorder::deliver()
{
    if (thread() != QThread::currentThread())
        return;
    const QPointer<Recorder> self(this); // a receiver may delete it
    while (self) {
        const Letter letter = m_worker->takeMail();
        if (!letter)
            return;
        letter();
    }
}

Status Recorder::refuse(const Error &why)
{
    m_worker->countRefused();
    Q_EMIT refused(why.table(), why);
    return why;
}

Status Recorder::accept(Item item)
{
    const QString table = item.write.table;
    Status taken = m_worker->accept(std::move(item));
    if (!taken)
        Q_EMIT refused(table, taken.error());
    return taken;
}

void Recorder::create(const TableName &table, Step step, Created done)
{
    Item item;
    item.write.kind = Write::CreateTable;
    item.write.table = table.text();
    item.write.create = std::move(step);
    item.afterwards = [done](qint64 made) { done(made != 0); };
    item.failed = [done](const Error &why) { done(why); };
    m_worker->createTable(std::move(item));
}

void Recorder::keep(const TableName &table, const Keep &keep, Created answer)
{
    create(
        table, [table, keep](Connection &connection) { return setKeep(connection, table, keep); },
        [this, answer](const Result<bool> &set) {
            mailAnswer(answer, set);
            if (!set)
                m_worker->tell(&Recorder::retentionHeld, set.error());
        });
}

void Recorder::hold(const TableName &table, const QString &owner, qint64 throughId)
{
    m_worker->retention().hold(table.text(), owner, throughId);
    m_worker->wake();
}

void Recorder::release(const TableName &table, const QString &owner)
{
    m_worker->retention().release(table.text(), owner);
    m_worker->wake();
}

void Recorder::trimNow(const TableName &table)
{
    m_worker->retention().allow(table.text());
    m_worker->wake();
}

void Recorder::mailAnswer(const Created &answer, const Result<bool> &created)
{
    if (answer)
        m_worker->mail([answer, created] { answer(created); });
}

Question Recorder::post(Asking asking)
{
    const Question handle;
    m_worker->ask(std::move(asking), handle);
    return handle;
}

namespace
{

template<typename Record>
Result<QString> rowText(const TableName &table, const Record &record)
{
    RowText row;
    Kind<Record>::encode(record, row);
    return row.take(QStringLiteral("record"), table.text());
}

template<typename Record>
LocalTime timeOf(const Record &record)
{
    if constexpr (std::is_same_v<Record, Alarm>)
        return record.start;
    else
        return record.time;
}

Item itemOf(Write::Kind kind, const TableName &table, QString text)
{
    Item item;
    item.write.kind = kind;
    item.write.table = table.text();
    item.write.text = std::move(text);
    return item;
}

} // namespace

Question Recorder::remove(const Result<Removal> &removal, QObject *context, Removed answer)
{
    const auto answered = [guard = QPointer<QObject>(context), hasContext = context != nullptr,
                           answer = std::move(answer)](const Result<qint64> &removed) -> Letter {
        if (!answer)
            return {};
        return [=] {
            if (guard || !hasContext)
                answer(removed);
        };
    };
    Question handle;
    if (!removal) {
        m_worker->mail(answered(removal.error()));
    } else if (removal->keep < 0) {
        m_worker->remove(*removal, answered, handle);
    } else {
        // The oldest row to keep is looked for where questions are answered, so that no row waits for it.
        m_worker->ask(
            [this, removal = *removal, answered,
             handle](const Result<std::shared_ptr<Connection>> &connection) mutable {
                if (!connection)
                    return answered(connection.error());
                const auto newest = newestToRemove(**connection, removal);
                if (!newest)
                    return answered(newest.error());
                if (*newest < 0)
                    return answered(0);
                removal.last = *newest;
                m_worker->remove(removal, answered, handle);
                return Letter();
            },
            handle);
    }
    return handle;
}

template<typename Record>
Status RecorderOf<Record>::record(const TableName &table, const Record &row)
{
    auto text = rowText(table, row);
    if (!text)
        return refuse(text.error());
    Item item = itemOf(Write::Row, table, std::move(text.value()));
    item.time = timeOf(row);
    return accept(std::move(item));
}

template<typename Record>
void RecorderOf<Record>::createTable(const TableName &table, const SeriesInfo &info, Created answer)
{
    create(
        table, [table, info](Connection &connection) { return makeTable<Record>(connection, table, info); },
        [this, text = table.text(), answer](const Result<bool> &made) {
            mailAnswer(answer, made);
            if (made)
                worker().tell(&Recorder::tableReady, text);
            else
                worker().tell(&Recorder::tableFailed, text, made.error());
        });
}

template<typename Record>
Question RecorderOf<Record>::removeBefore(const TableName &table, LocalTime time, QObject *context, Removed answer)
{
    Removal removal(table);
    return remove(removal.before(time, Kind<Record>::milliseconds), context, std::move(answer));
}

template<typename Record>
Question RecorderOf<Record>::keepNewest(const TableName &table, qint64 keep, QObject *context, Removed answer)
{
    return remove(Removal(table).keeping(keep), context, std::move(answer));
}

template<typename Record>
Question RecorderOf<Record>::clear(const TableName &table, QObject *context, Removed answer)
{
    Removal removal(table);
    removal.resetsIds = true;
    return remove(removal, context, std::move(answer));
}

void HistoryRecorder::keepTrend(const TableName &table, const TrendOptions &options, Created answer)
{
    create(
        table, [table, options](Connection &connection) { return beginRollups(connection, table, options); },
        [this, answer](const Result<bool> &begun) { trendIsSet(begun, answer); });
}

void HistoryRecorder::dropTrend(const TableName &table, Created answer)
{
    create(
        table, [table](Connection &connection) { return endRollups(connection, table); },
        [this, answer](const Result<bool> &ended) { trendIsSet(ended, answer); });
}

void HistoryRecorder::trendIsSet(const Result<bool> &done, const Created &answer)
{
    mailAnswer(answer, done);
    if (done)
        worker().lookForRollups();
    else
        worker().tell(&Recorder::trendFailed, done.error());
}

AlarmRecorder::~AlarmRecorder()
{
    stopNow(); // raised() and ended() are emitted until then
}

Status AlarmRecorder::raise(const TableName &table, const Alarm &alarm)
{
    auto text = rowText(table, alarm);
    if (!text)
        return refuse(text.error());
    Item item = itemOf(Write::Row, table, std::move(text.value()));
    item.time = alarm.start;
    item.afterwards = [this, alarm](qint64) { worker().tell(&AlarmRecorder::raised, alarm); };
    return accept(std::move(item));
}

Status AlarmRecorder::raiseUnlessActive(const TableName &table, const Alarm &alarm)
{
    auto statement = raisingStatement(QStringLiteral("raise"), table.text(), alarm);
    if (!statement)
        return refuse(statement.error());
    Item item = itemOf(Write::Change, table, std::move(statement.value()));
    item.time = alarm.start;
    item.afterwards = [this, alarm](qint64 inserted) {
        if (inserted > 0)
            worker().tell(&AlarmRecorder::raised, alarm);
    };
    return accept(std::move(item));
}

Status AlarmRecorder::end(const TableName &table, const QString &object, const QString &type, LocalTime when)
{
    auto statement = endingStatement(QStringLiteral("end"), table.text(), object, type, when);
    if (!statement)
        return refuse(statement.error());
    Item item = itemOf(Write::Change, table, std::move(statement.value()));
    item.time = when;
    item.afterwards = [this, object, type, when](qint64 changed) {
        if (changed > 0)
            worker().tell(&AlarmRecorder::ended, object, type, when);
    };
    return accept(std::move(item));
}

Question AlarmRecorder::removeEndedAndBefore(const TableName &table, LocalTime time, QObject *context, Removed answer)
{
    Removal removal(table);
    removal.alternative = QStringLiteral("EndDate!='' and EndTime!=''");
    return remove(removal.before(time, false), context, std::move(answer));
}

template class RecorderOf<Sample>;
template class RecorderOf<Alarm>;
template class RecorderOf<LogEntry>;

} // namespace device
