// SPDX-License-Identifier: MIT
#include "worker.h"

#include <QCoreApplication>
#include <QEvent>
#include <QFileInfo>

#include <algorithm>
#include <system_error>

namespace device
{

namespace
{

constexpr std::chrono::seconds warningPause{1};
constexpr qint64 leastCapacityBytes = 4096;

QString recording()
{
    return QStringLiteral("record");
}

double quantile(std::vector<double> values, double part)
{
    if (values.empty())
        return 0;
    const auto at = values.begin() + std::ptrdiff_t(double(values.size() - 1) * part);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

} // namespace

thread_local const Recorder::Worker *Recorder::Worker::t_ofThisThread = nullptr;

Recorder::Worker::Worker(Recorder *recorder, const Library &library, const QString &path,
                         const RecorderOptions &options)
    // Absolute: it is opened again and again, wherever the application has changed to by then.
    : m_recorder(recorder),
      m_library(library),
      m_path(path.isEmpty() ? path : QFileInfo(path).absoluteFilePath()),
      m_options(options),
      m_retention(m_path, options.retention, options.batchRows)
{
}

Status Recorder::Worker::start()
{
    const Site site{QStringLiteral("start %1").arg(m_path), QString()};
    const auto refused = [&](const char *option, const QString &why) {
        return site.error(Error::OptionRefused, QLatin1String(option) + QLatin1Char(' ') + why);
    };
    const auto tooSmall = [&](const char *option, qint64 value, qint64 least) {
        return refused(option, QStringLiteral("is %1; the least is %2").arg(value).arg(least));
    };
    const std::lock_guard lock(m_mutex);
    if (m_stopping)
        return stopped(site.operation);
    if (m_started)
        return site.error(Error::Failed, QStringLiteral("it was started already"));
    if (m_path.isEmpty() || m_path.contains(QChar(0)))
        return refused("path", QStringLiteral("is not a file name"));
    if (m_options.batchRows < 1)
        return tooSmall("batchRows", m_options.batchRows, 1);
    if (m_options.capacity < 1)
        return tooSmall("capacity", m_options.capacity, 1);
    if (m_options.capacityBytes < leastCapacityBytes)
        return tooSmall("capacityBytes", m_options.capacityBytes, leastCapacityBytes);
    if (m_options.whenFull < WhenFull::Wait || m_options.whenFull > WhenFull::DropOldest)
        return refused("whenFull", QStringLiteral("is none of its values"));
    if (const Status checked = checkOptions(site, m_options.file); !checked)
        return site.error(Error::OptionRefused, QLatin1String("file.") + checked.error().cause());
    if (const Status checked = Room::check(site, m_options, m_path); !checked)
        return checked;
    if (m_options.file.cancel)
        return refused("file.cancel", QStringLiteral("is set; a recorder has its own, see cancel()"));

    m_options.file.cancel = &m_cancel;
    try {
        m_writer = std::thread([this] { write(); });
    } catch (const std::system_error &error) {
        return site.error(Error::Failed,
                          QStringLiteral("the system starts no thread: ") + QString::fromLocal8Bit(error.what()));
    }
    m_started = true;
    return {};
}

// --- From any thread

Health Recorder::Worker::health() const
{
    std::vector<double> latencies;
    Health health;
    {
        const std::lock_guard lock(m_mutex);
        health = m_health;
        health.depth = depth();
        if (m_trouble)
            health.trouble = m_trouble->text();
        latencies = m_latencies;
    }
    health.latencyP50 = quantile(latencies, 0.50);
    health.latencyP99 = quantile(std::move(latencies), 0.99);
    return health;
}

void Recorder::Worker::countRefused()
{
    const std::lock_guard lock(m_mutex);
    ++m_health.refused;
}

bool Recorder::Worker::hasRoom(const Item &item) const
{
    return depth() < m_options.capacity && m_bytes + item.bytes() <= m_options.capacityBytes;
}

Status Recorder::Worker::accept(Item item)
{
    const QString table = item.write.table;
    const Error noRoom = full(item);
    std::map<QString, int> displaced;
    bool taken = false;
    {
        std::unique_lock lock(m_mutex);
        if (m_options.whenFull == WhenFull::Wait && !hasRoom(item))
            Deadline(m_options.waitAtMost).wait(m_room, lock, [&] { return m_stopping || hasRoom(item); });
        if (m_stopping) {
            ++m_health.refused;
            return Error(Error::Stopped, recording(), table, QStringLiteral("the recorder was stopped"));
        }
        if (m_options.whenFull == WhenFull::DropOldest)
            displaced = makeRoom(item, noRoom);
        taken = hasRoom(item);
        if (taken) {
            item.number = m_taken++;
            item.taken = Clock::now();
            m_bytes += item.bytes();
            ++m_rowsWaiting;
            ++m_health.accepted;
            m_waiting.push_back(std::move(item));
            if (m_waiting.size() == 1 || m_rowsWaiting >= m_options.batchRows || isFull())
                m_wake.notify_one();
        } else {
            ++m_health.refused;
        }
    }
    for (const auto &[from, rows] : displaced)
        reportLoss(from, rows, noRoom, true);
    return taken ? Status() : noRoom;
}

// With the mutex held: drops the oldest rows until there is room; how many of each table.
std::map<QString, int> Recorder::Worker::makeRoom(const Item &item, const Error &why)
{
    std::map<QString, int> displaced;
    if (item.bytes() > m_options.capacityBytes)
        return displaced; // no room would be enough
    for (auto oldest = m_waiting.begin(); !hasRoom(item) && oldest != m_waiting.end();) {
        if (!oldest->isRow()) {
            ++oldest;
            continue;
        }
        ++displaced[oldest->write.table];
        m_bytes -= oldest->bytes();
        --m_rowsWaiting;
        countDropped(1, why);
        oldest = m_waiting.erase(oldest);
    }
    m_settled.notify_all();
    return displaced;
}

void Recorder::Worker::createTable(Item item)
{
    std::unique_lock lock(m_mutex);
    if (m_stopping) {
        lock.unlock();
        item.failed(stopped(QStringLiteral("create")));
        return;
    }
    item.taken = Clock::now();
    item.number = m_taken++;
    m_tablesThrough = m_flushThrough = m_taken;
    m_waiting.push_back(std::move(item));
    m_wake.notify_one();
}

void Recorder::Worker::ask(Asking asking, const Question &handle)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_stopping) {
            m_questions.push_back({std::move(asking), handle, m_tablesThrough});
            m_wake.notify_one();
            m_asked.notify_one();
            return;
        }
    }
    mail(asking(stopped(QStringLiteral("ask"))));
}

void Recorder::Worker::remove(const Removal &removal, std::function<Letter(const Result<qint64> &)> answer,
                              const Question &handle)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_stopping) {
            m_removals.push_back({removal, std::move(answer), handle, m_tablesThrough});
            m_wake.notify_one();
            return;
        }
    }
    mail(answer(stopped(removal.site.operation)));
}

void Recorder::Worker::wake()
{
    const std::lock_guard lock(m_mutex);
    m_wake.notify_one();
}

void Recorder::Worker::flushSoon()
{
    const std::lock_guard lock(m_mutex);
    m_flushThrough = m_taken;
    m_wake.notify_one();
}

Settled Recorder::Worker::flush(std::chrono::milliseconds deadline)
{
    const QString operation = QStringLiteral("flush %1").arg(m_path);
    if (t_ofThisThread == this)
        return calledFromWithin(operation);
    std::unique_lock lock(m_mutex);
    const qint64 all = m_taken;
    m_flushThrough = all;
    m_wake.notify_one();
    if (m_started)
        Deadline(deadline).wait(m_settled, lock, [&] { return oldestUnsettled() >= all || m_finished; });
    return account(operation, rowsBefore(all));
}

Settled Recorder::Worker::stop(std::chrono::milliseconds deadline)
{
    const QString operation = QStringLiteral("stop %1").arg(m_path);
    if (t_ofThisThread == this)
        return calledFromWithin(operation);
    {
        std::unique_lock lock(m_mutex);
        m_stopping = true;
        if (m_running)
            m_running->cancel();
        m_wake.notify_all();
        m_asked.notify_all();
        m_room.notify_all();
        if (m_started && !Deadline(deadline).wait(m_settled, lock, [this] { return m_finished; })) {
            m_cancel = true;
            m_wake.notify_all();
        }
    }
    const std::lock_guard joining(m_joining);
    if (m_writer.joinable())
        m_writer.join();
    if (m_reader.joinable())
        m_reader.join();
    if (!m_started)
        finish();
    const std::lock_guard lock(m_mutex);
    return account(operation, 0);
}

// With the mutex held: every step with a lower number is settled, and its report is in the mail.
qint64 Recorder::Worker::oldestUnsettled() const
{
    if (m_reporting)
        return *m_reporting;
    if (!m_batch.empty())
        return m_batch.front().number;
    return m_waiting.empty() ? m_taken : m_waiting.front().number;
}

// With the mutex held.
qint64 Recorder::Worker::rowsBefore(qint64 number) const
{
    const auto counts = [number](const Item &item) { return item.isRow() && item.number < number; };
    return std::count_if(m_batch.begin(), m_batch.end(), counts) +
           std::count_if(m_waiting.begin(), m_waiting.end(), counts);
}

// With the mutex held.
Settled Recorder::Worker::account(const QString &operation, qint64 waiting)
{
    Settled settled;
    settled.stored = std::exchange(m_newlyStored, 0);
    settled.dropped = std::exchange(m_newlyDropped, 0);
    settled.waiting = waiting;
    if (settled.dropped > 0)
        settled.why = m_lastLoss;
    else if (waiting > 0 && !m_started)
        settled.why = Error(Error::NotStarted, operation, QString(),
                            QStringLiteral("%1 rows wait for a recorder that was not started").arg(waiting));
    else if (waiting > 0 && m_trouble)
        settled.why = m_trouble;
    else if (waiting > 0)
        settled.why = Error(Error::TimedOut, operation, QString(),
                            QStringLiteral("%1 rows still wait at the deadline").arg(waiting));
    return settled;
}

Settled Recorder::Worker::calledFromWithin(const QString &operation) const
{
    Settled none;
    none.why = Error(Error::Failed, operation, QString(),
                     QStringLiteral("a question cannot wait for the recorder that runs it"));
    return none;
}

Error Recorder::Worker::full(const Item &item) const
{
    if (item.bytes() > m_options.capacityBytes)
        return Error(Error::QueueFull, recording(), item.write.table,
                     QStringLiteral("the row takes %1 bytes, more than capacityBytes allows").arg(item.bytes()));
    return Error(Error::QueueFull, recording(), item.write.table,
                 QStringLiteral("no room: %1 rows or %2 bytes may wait")
                     .arg(QString::number(m_options.capacity), QString::number(m_options.capacityBytes)));
}

Error Recorder::Worker::stopped(const QString &operation) const
{
    return Error(Error::Stopped, operation, QString(), QStringLiteral("the recorder was stopped"));
}

// --- Reports

// The event is posted under the lock that the receiver takes, so what orders the two threads is not Qt's alone.
void Recorder::Worker::mail(Letter letter)
{
    if (!letter)
        return;
    const std::lock_guard lock(m_mutex);
    m_mail.push_back(std::move(letter));
    postEvent();
}

void Recorder::Worker::postEvent()
{
    if (!std::exchange(m_eventPosted, true))
        QCoreApplication::postEvent(m_recorder, new QEvent(QEvent::User));
}

void Recorder::Worker::wokenByEvent()
{
    const std::lock_guard lock(m_mutex);
    m_eventPosted = false;
}

Recorder::Letter Recorder::Worker::takeMail()
{
    const std::lock_guard lock(m_mutex);
    if (m_mail.empty())
        return {};
    Letter letter = std::move(m_mail.front());
    m_mail.pop_front();
    // Posted before the letter runs: its receiver may run an event loop of its own, or throw.
    if (!m_mail.empty())
        postEvent();
    return letter;
}

// One letter carries the counts of all tables until it is delivered, however many batches that takes.
void Recorder::Worker::tellStored(const std::map<QString, int> &rows)
{
    if (rows.empty() || !m_recorder->isSignalConnected(QMetaMethod::fromSignal(&Recorder::stored)))
        return;
    {
        const std::lock_guard lock(m_mutex);
        const bool onItsWay = !m_storedRows.empty();
        for (const auto &[table, count] : rows)
            m_storedRows[table] += count;
        if (onItsWay)
            return;
    }
    mail([this] {
        const QPointer<Recorder> recorder(m_recorder);
        std::map<QString, int> all;
        {
            const std::lock_guard lock(m_mutex);
            all.swap(m_storedRows);
        }
        for (const auto &[table, count] : all) {
            if (recorder) // a receiver may delete it
                Q_EMIT recorder->stored(table, count);
        }
    });
}

// With the mutex held.
void Recorder::Worker::countDropped(qint64 rows, const Error &why)
{
    m_health.dropped += rows;
    m_newlyDropped += rows;
    m_lastLoss = why;
}

// Rows that were counted as dropped. `here`: the signal is emitted in this thread.
void Recorder::Worker::reportLoss(const QString &table, int rows, const Error &why, bool here)
{
    if (m_recorder->isSignalConnected(QMetaMethod::fromSignal(&Recorder::dropped))) {
        if (here)
            Q_EMIT m_recorder->dropped(table, rows, why);
        else
            tell(&Recorder::dropped, table, rows, why);
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_unheardRows += rows;
        m_unheardLoss = why;
    }
    warn(false);
}

// A loss that no receiver hears of is written to the log, once a second at most.
void Recorder::Worker::warn(bool now)
{
    qint64 rows = 0;
    QString why;
    {
        const std::lock_guard lock(m_mutex);
        if (m_unheardRows == 0 || (!now && Clock::now() < m_nextWarning))
            return;
        rows = std::exchange(m_unheardRows, 0);
        why = m_unheardLoss->text();
        m_nextWarning = Clock::now() + warningPause;
    }
    qWarning("device::Recorder %s: %lld rows are lost: %s", qPrintable(m_path), rows, qPrintable(why));
}

void Recorder::Worker::fails(const Error &why)
{
    {
        const std::lock_guard lock(m_mutex);
        m_health.open = m_connection != nullptr;
        const bool isNews = !m_trouble || m_trouble->text() != why.text();
        m_trouble = why;
        m_asked.notify_all(); // questions no longer wait for tables
        if (!isNews)
            return;
    }
    tell(&Recorder::troubled, why);
}

void Recorder::Worker::works()
{
    {
        const std::lock_guard lock(m_mutex);
        m_health.open = m_connection != nullptr;
        if (!m_trouble)
            return;
        m_trouble.reset();
    }
    tell(&Recorder::recovered);
}

} // namespace device
