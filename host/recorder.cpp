// SPDX-License-Identifier: MIT
#include "device/recorder.h"

#include "connection.h"
#include "kind.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace device
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds retryPause{100};
constexpr size_t latenciesKept = 1000;

double quantile(std::vector<double> values, double part)
{
    if (values.empty())
        return 0;
    const auto at = values.begin() + std::ptrdiff_t(double(values.size() - 1) * part);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

} // namespace

// The thread and all that it shares with the callers. Standard threads and mutexes: they are the ones that
// race detectors see.
class Recorder::Worker
{
public:
    struct Item {
        QString table; ///< For the reports.
        Write write;
        Afterwards afterwards;
        Clock::time_point taken;
    };

    Worker(Recorder *recorder, Library library, QString path, const RecorderOptions &options)
        : m_recorder(recorder), m_library(std::move(library)), m_path(std::move(path)), m_options(options)
    {
        m_options.file.cancel = &m_cancel;
        m_thread = std::thread([this] { run(); });
    }

    QString path() const { return m_path; }
    std::chrono::milliseconds stopWithin() const { return m_options.stopWithin; }

    void countRefused()
    {
        const std::lock_guard lock(m_mutex);
        ++m_health.refused;
    }

    Status accept(Item item)
    {
        std::optional<Item> displaced;
        {
            std::unique_lock lock(m_mutex);
            if (m_options.whenFull == WhenFull::Wait)
                m_room.wait_for(lock, m_options.waitAtMost, [this] { return m_stopping || hasRoom(); });
            if (m_stopping) {
                ++m_health.refused;
                return Error(Error::Cancelled, QStringLiteral("record"), item.table,
                             QStringLiteral("the recorder was stopped"));
            }
            if (!hasRoom()) {
                if (m_options.whenFull != WhenFull::DropOldest || m_waiting.empty()) {
                    ++m_health.refused;
                    return full(item.table);
                }
                displaced = std::move(m_waiting.front());
                m_waiting.pop_front();
                ++m_health.dropped;
            }
            item.taken = Clock::now();
            m_waiting.push_back(std::move(item));
            ++m_health.accepted;
            if (m_waiting.size() == 1 || m_waiting.size() >= size_t(m_options.batchRows))
                m_wake.notify_one();
        }
        if (displaced)
            Q_EMIT m_recorder->dropped(displaced->table, 1, full(displaced->table));
        return {};
    }

    void post(Task task)
    {
        const std::lock_guard lock(m_mutex);
        m_tasks.push_back(std::move(task));
        m_wake.notify_one();
    }

    // Puts what is to be done in the recorder's own thread into its mail; a Qt event only says that there is some.
    // It is made and posted under the lock that the receiver takes, so what orders the two threads is not Qt's alone.
    void mail(std::function<void()> letter)
    {
        const std::lock_guard lock(m_mutex);
        if (m_mail.empty())
            QCoreApplication::postEvent(m_recorder, new QEvent(QEvent::User));
        m_mail.push_back(std::move(letter));
    }

    // The oldest letter; empty when there is none.
    std::function<void()> takeMail()
    {
        const std::lock_guard lock(m_mutex);
        if (m_mail.empty())
            return {};
        std::function<void()> letter = std::move(m_mail.front());
        m_mail.pop_front();
        return letter;
    }

    Status flush(std::chrono::milliseconds deadline)
    {
        std::unique_lock lock(m_mutex);
        const qint64 all = m_health.accepted;
        m_flushThrough = all;
        m_wake.notify_one();
        const bool done = m_settled.wait_for(lock, deadline, [&] { return m_told >= all; });
        if (done)
            return {};
        return Error(Error::Locked, QStringLiteral("flush %1").arg(m_path), QString(),
                     QStringLiteral("%1 rows still wait at the deadline").arg(depth()));
    }

    void flushSoon()
    {
        const std::lock_guard lock(m_mutex);
        m_flushThrough = m_health.accepted;
        m_wake.notify_one();
    }

    Status stop(std::chrono::milliseconds deadline)
    {
        qint64 droppedBefore = 0;
        {
            std::unique_lock lock(m_mutex);
            if (!m_thread.joinable())
                return {};
            droppedBefore = m_health.dropped;
            m_stopping = true;
            m_wake.notify_one();
            m_room.notify_all();
            if (!m_settled.wait_for(lock, deadline, [this] { return m_finished; })) {
                m_cancel = true;
                m_wake.notify_one();
            }
        }
        m_thread.join();
        const qint64 lost = m_health.dropped - droppedBefore;
        if (lost == 0)
            return {};
        return Error(Error::Cancelled, QStringLiteral("stop %1").arg(m_path), QString(),
                     QStringLiteral("%1 rows were not stored by the deadline").arg(lost));
    }

    Health health() const
    {
        std::vector<double> latencies;
        Health health;
        {
            const std::lock_guard lock(m_mutex);
            health = m_health;
            health.depth = depth();
            latencies = m_latencies;
        }
        health.latencyP50 = quantile(latencies, 0.50);
        health.latencyP99 = quantile(std::move(latencies), 0.99);
        return health;
    }

private:
    // With the mutex held.
    int depth() const { return int(m_waiting.size() + m_batch.size()); }
    bool hasRoom() const { return depth() < m_options.capacity; }
    bool due() const
    {
        return m_stopping || m_waiting.size() >= size_t(m_options.batchRows) ||
               m_flushThrough > m_health.stored + m_health.dropped ||
               Clock::now() >= m_waiting.front().taken + m_options.batchTime;
    }

    Error full(const QString &table) const
    {
        return Error(Error::QueueFull, QStringLiteral("record"), table,
                     QStringLiteral("%1 rows wait already").arg(m_options.capacity));
    }

    void run()
    {
        if (open())
            serve();
        dropAll();
        m_connection.reset();
        const std::lock_guard lock(m_mutex);
        m_finished = true;
        m_settled.notify_all();
    }

    bool open()
    {
        for (;;) {
            const auto connection = Connection::open(m_library, m_path, m_options.file);
            if (connection) {
                m_connection = *connection;
                m_bytesBefore = usedBytes();
                works();
                m_recorder->tell(&Recorder::ready);
                return true;
            }
            fails(connection.error());
            std::unique_lock lock(m_mutex);
            m_wake.wait_for(lock, retryPause, [this] { return m_cancel.load(); });
            if (m_cancel || (m_stopping && m_waiting.empty()))
                return false;
        }
    }

    void serve()
    {
        std::unique_lock lock(m_mutex);
        while (!m_cancel) {
            if (!m_tasks.empty()) {
                const Task task = std::move(m_tasks.front());
                m_tasks.pop_front();
                lock.unlock();
                task(m_connection);
                lock.lock();
            } else if (!m_batch.empty()) {
                if (m_wake.wait_until(lock, m_nextTry, [this] { return m_cancel || !m_tasks.empty(); }))
                    continue;
                lock.unlock();
                storeBatch();
                lock.lock();
            } else if (!m_waiting.empty() && due()) {
                const size_t rows = std::min(m_waiting.size(), size_t(m_options.batchRows));
                const auto end = m_waiting.begin() + std::ptrdiff_t(rows);
                m_batch.assign(std::make_move_iterator(m_waiting.begin()), std::make_move_iterator(end));
                m_waiting.erase(m_waiting.begin(), end);
                m_firstTry = m_nextTry = Clock::now();
            } else if (!m_waiting.empty()) {
                m_wake.wait_until(lock, m_waiting.front().taken + m_options.batchTime);
            } else if (m_stopping) {
                return;
            } else {
                m_wake.wait(lock);
            }
        }
    }

    void storeBatch()
    {
        QVector<Write> writes;
        writes.reserve(int(m_batch.size()));
        for (const Item &item : m_batch)
            writes.append(item.write);
        const auto written = m_connection->write({QStringLiteral("record"), QString()}, writes);
        if (!written) {
            const bool over = m_options.giveUpAfter.count() > 0 && Clock::now() >= m_firstTry + m_options.giveUpAfter;
            {
                const std::lock_guard lock(m_mutex);
                ++m_health.failedBatches;
                m_health.failedCommits = m_connection->failedCommits();
                m_nextTry = Clock::now() + retryPause;
            }
            fails(written.error());
            if (over)
                dropBatch(written.error());
            return;
        }
        works();

        std::vector<Item> batch;
        qint64 settled = 0;
        const double bytes = usedBytes() - m_bytesBefore;
        {
            const std::lock_guard lock(m_mutex);
            batch.swap(m_batch);
            ++m_health.batches;
            m_health.stored += written->stored;
            m_health.dropped += written->refused.size();
            m_health.failedCommits = m_connection->failedCommits();
            if (m_health.stored > 0)
                m_health.bytesPerRow = bytes / double(m_health.stored);
            const std::chrono::duration<double, std::milli> latency = Clock::now() - batch.front().taken;
            if (m_latencies.size() < latenciesKept)
                m_latencies.push_back(latency.count());
            else
                m_latencies[size_t(m_health.batches) % latenciesKept] = latency.count();
            settled = m_health.stored + m_health.dropped;
            m_room.notify_all();
        }
        report(batch, *written);
        told(settled);
    }

    void report(const std::vector<Item> &batch, const Written &written)
    {
        std::map<QString, int> storedRows;
        auto refusal = written.refused.begin();
        auto changed = written.changed.begin();
        for (size_t i = 0; i < batch.size(); ++i) {
            const Item &item = batch[i];
            const qint64 rows = item.write.table.isEmpty() ? *changed++ : 1;
            if (refusal != written.refused.end() && size_t(refusal->row) == i) {
                m_recorder->tell(&Recorder::dropped, item.table, 1, refusal->error);
                ++refusal;
                continue;
            }
            ++storedRows[item.table];
            if (item.afterwards)
                item.afterwards(rows);
        }
        for (const auto &[table, rows] : storedRows)
            m_recorder->tell(&Recorder::stored, table, rows);
    }

    void dropBatch(const Error &why)
    {
        std::map<QString, int> rows;
        qint64 settled = 0;
        {
            const std::lock_guard lock(m_mutex);
            for (const Item &item : m_batch)
                ++rows[item.table];
            m_health.dropped += qint64(m_batch.size());
            m_batch.clear();
            settled = m_health.stored + m_health.dropped;
            m_room.notify_all();
        }
        for (const auto &[table, count] : rows)
            m_recorder->tell(&Recorder::dropped, table, count, why);
        told(settled);
    }

    // A flush ends when its rows are stored or dropped and the signals that say so are in the mail.
    void told(qint64 settled)
    {
        const std::lock_guard lock(m_mutex);
        m_told = settled;
        m_settled.notify_all();
    }

    void dropAll()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_batch.insert(m_batch.end(), std::make_move_iterator(m_waiting.begin()),
                           std::make_move_iterator(m_waiting.end()));
            m_waiting.clear();
            m_tasks.clear();
        }
        dropBatch(Error(Error::Cancelled, QStringLiteral("record"), QString(),
                        QStringLiteral("the recorder was stopped before they could be stored")));
    }

    void fails(const Error &why)
    {
        if (setTrouble(why.text()) != why.text())
            m_recorder->tell(&Recorder::troubled, why);
    }

    void works()
    {
        if (!setTrouble(QString()).isEmpty())
            m_recorder->tell(&Recorder::recovered);
    }

    QString setTrouble(const QString &text)
    {
        const std::lock_guard lock(m_mutex);
        m_health.open = m_connection != nullptr;
        return std::exchange(m_health.trouble, text);
    }

    double usedBytes()
    {
        const auto bytes = m_connection->usedBytes();
        return bytes ? double(*bytes) : m_bytesBefore;
    }

    Recorder *const m_recorder;
    const Library m_library;
    const QString m_path;
    RecorderOptions m_options;
    std::atomic_bool m_cancel{false};

    // Of the thread alone.
    std::shared_ptr<Connection> m_connection;
    Clock::time_point m_firstTry;
    Clock::time_point m_nextTry;
    double m_bytesBefore = 0;

    mutable std::mutex m_mutex;        // guards all below; held for moments only, never while the file is used
    std::condition_variable m_wake;    ///< For the thread: rows, tasks, stop.
    std::condition_variable m_room;    ///< For callers: there is room.
    std::condition_variable m_settled; ///< For callers: rows were settled and reported; the thread ended.
    std::deque<Item> m_waiting;
    std::vector<Item> m_batch; ///< Taken out to be stored; changed by the thread alone.
    std::deque<Task> m_tasks;
    std::deque<std::function<void()>> m_mail;
    std::vector<double> m_latencies;
    Health m_health;
    qint64 m_flushThrough = 0;
    qint64 m_told = 0; ///< Rows settled and reported.
    bool m_stopping = false;
    bool m_finished = false;

    std::thread m_thread; // last: it uses all of the above
};

Recorder::Recorder(const Library &library, const QString &path, const RecorderOptions &options, QObject *parent)
    : QObject(parent)
{
    qRegisterMetaType<Error>();
    qRegisterMetaType<Alarm>();
    m_worker = std::make_unique<Worker>(this, library, path, options);
}

Recorder::~Recorder()
{
    (void)stop(stopWithin());
}

QString Recorder::path() const
{
    return m_worker->path();
}

std::chrono::milliseconds Recorder::stopWithin() const
{
    return m_worker->stopWithin();
}

Health Recorder::health() const
{
    return m_worker->health();
}

void Recorder::flushSoon()
{
    m_worker->flushSoon();
}

Status Recorder::flush(std::chrono::milliseconds deadline)
{
    const Status flushed = m_worker->flush(deadline);
    deliver();
    return flushed;
}

Status Recorder::stop(std::chrono::milliseconds deadline)
{
    const Status stopped = m_worker->stop(deadline);
    deliver();
    return stopped;
}

void Recorder::cancel()
{
    (void)stop(std::chrono::milliseconds(0));
}

void Recorder::customEvent(QEvent *)
{
    deliver();
}

void Recorder::deliver()
{
    if (thread() != QThread::currentThread())
        return;
    const QPointer<Recorder> self(this); // a receiver may delete it
    while (self) {
        const std::function<void()> letter = m_worker->takeMail();
        if (!letter)
            return;
        letter();
    }
}

void Recorder::mail(std::function<void()> letter)
{
    m_worker->mail(std::move(letter));
}

Status Recorder::refuse(const Error &why)
{
    m_worker->countRefused();
    Q_EMIT refused(why.table(), why);
    return why;
}

Status Recorder::accept(const QString &table, Write write, Afterwards afterwards)
{
    Status taken = m_worker->accept({table, std::move(write), std::move(afterwards), {}});
    if (!taken)
        Q_EMIT refused(table, taken.error());
    return taken;
}

void Recorder::post(Task task)
{
    m_worker->post(std::move(task));
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

} // namespace

template<typename Record>
Status RecorderOf<Record>::record(const TableName &table, const Record &row)
{
    auto text = rowText(table, row);
    if (!text)
        return refuse(text.error());
    return accept(table.text(), {table.text(), std::move(text.value())});
}

AlarmRecorder::~AlarmRecorder()
{
    (void)stop(stopWithin()); // raised() and ended() are emitted until then
}

Status AlarmRecorder::raise(const TableName &table, const Alarm &alarm)
{
    auto text = rowText(table, alarm);
    if (!text)
        return refuse(text.error());
    return accept(table.text(), {table.text(), std::move(text.value())},
                  [this, alarm](qint64) { tell(&AlarmRecorder::raised, alarm); });
}

Status AlarmRecorder::end(const TableName &table, const QString &object, const QString &type, LocalTime when)
{
    const auto statement = endingStatement(QStringLiteral("end"), table.text(), object, type, when);
    if (!statement)
        return refuse(statement.error());
    return accept(table.text(), {QString(), *statement}, [this, object, type, when](qint64 changed) {
        if (changed > 0)
            tell(&AlarmRecorder::ended, object, type, when.toDateTime());
    });
}

template class DEVICE_HOST_EXPORT RecorderOf<Sample>;
template class DEVICE_HOST_EXPORT RecorderOf<Alarm>;
template class DEVICE_HOST_EXPORT RecorderOf<LogEntry>;

} // namespace device
