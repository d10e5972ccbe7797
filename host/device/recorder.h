// SPDX-License-Identifier: MIT
#ifndef DEVICE_RECORDER_H
#define DEVICE_RECORDER_H

#include "store.h"

#include <QMetaMethod>
#include <QObject>
#include <QPointer>

#include <functional>

namespace device
{

struct Write;

/// What happens to a row that comes while the queue is full.
enum class WhenFull {
    Wait,      ///< The caller waits for room, up to RecorderOptions::waitAtMost. Not for an event loop.
    Refuse,    ///< The new row is refused and counted.
    DropOldest ///< The oldest waiting row is dropped and counted.
};

struct RecorderOptions {
    OpenOptions file;                         ///< Its deadline is that of one try; its cancel is the recorder's own.
    int batchRows = 500;                      ///< So many waiting rows are stored at once ...
    std::chrono::milliseconds batchTime{500}; ///< ... or when the oldest waited so long: what a power cut can take.
    int capacity = 20000;                     ///< Rows that may wait.
    WhenFull whenFull = WhenFull::Refuse;
    std::chrono::milliseconds waitAtMost{1000};
    /// A batch that could not be stored for so long is dropped and counted. 0: never while the recorder runs.
    std::chrono::milliseconds giveUpAfter{0};
    std::chrono::milliseconds stopWithin{5000}; ///< What the destructor gives stop().
};

/// The counters since the start. At every moment accepted = stored + dropped + depth.
struct Health {
    bool open = false;        ///< The file has been opened.
    QString trouble;          ///< Why opening or storing fails at present; empty while all goes well.
    qint64 accepted = 0;      ///< Rows taken into the queue.
    qint64 stored = 0;        ///< Rows in the file, each exactly once.
    qint64 refused = 0;       ///< Rows not taken: no room, or a text or time that cannot be held.
    qint64 dropped = 0;       ///< Rows taken but not stored; each was reported by dropped().
    qint64 batches = 0;       ///< Transactions that stored rows.
    qint64 failedBatches = 0; ///< Tries that stored nothing; the rows stayed waiting.
    qint64 failedCommits = 0; ///< Commits that failed at first, mostly healed within the same try.
    int depth = 0;            ///< Rows waiting, those being stored included.
    double latencyP50 = 0;    ///< Milliseconds from being taken to being in the file, of the last 1000 batches'
    double latencyP99 = 0;    ///< oldest rows.
    double bytesPerRow = 0;   ///< What the file grew by since the start, for each stored row.
};

/// One file on a thread of its own: rows are handed over in microseconds, from any thread, and stored in
/// groups; questions are answered from the same connection, so reading and recording never lock each other
/// out. HistoryRecorder, AlarmRecorder and LogRecorder are the ones to use.
///
/// A file that cannot be opened or written is tried again until it can be; rows wait meanwhile. refused(), and
/// dropped() for want of room, are emitted in the thread that hands the row over. All other signals, and the
/// answers to ask(), come in the thread of this object: by its event loop, or by flush() and stop() there.
class DEVICE_HOST_EXPORT Recorder : public QObject
{
    Q_OBJECT

public:
    ~Recorder() override;

    QString path() const;
    Health health() const;

    /// Stores what waits now without waiting for a full group. The second form returns when that is done.
    void flushSoon();
    Status flush(std::chrono::milliseconds deadline);

    /// Takes no more rows, stores all that wait and closes the file. What is not stored at the deadline is
    /// dropped, counted and reported. A second call does nothing.
    Status stop(std::chrono::milliseconds deadline);
    /// stop() without storing: ends any waiting at once.
    void cancel();

Q_SIGNALS:
    void ready();                                                           ///< The file is open.
    void stored(const QString &table, int rows);                            ///< They are in the file.
    void refused(const QString &table, const device::Error &why);           ///< One row was not taken.
    void dropped(const QString &table, int rows, const device::Error &why); ///< They were taken and are lost.
    void troubled(const device::Error &why); ///< Storing or opening failed; it is tried again.
    void recovered();                        ///< It works again.

protected:
    using Task = std::function<void(const std::shared_ptr<Connection> &)>;
    using Afterwards = std::function<void(qint64 changed)>; ///< Told once the write is in the file.

    Recorder(const Library &library, const QString &path, const RecorderOptions &options, QObject *parent);

    std::chrono::milliseconds stopWithin() const;
    /// Counts and reports a refused row.
    Status refuse(const Error &why);
    /// Takes a row that is ready to be stored.
    Status accept(const QString &table, Write write, Afterwards afterwards = {});
    /// Runs the task on the worker's thread, before the rows that wait.
    void post(Task task);
    /// From there: runs the letter in the thread of this object.
    void mail(std::function<void()> letter);
    /// From there: emits a signal in the thread of this object. Without a receiver nothing is mailed: a program
    /// may have no event loop to take it out.
    template<typename Emitter, typename... Parameters, typename... Arguments>
    void tell(void (Emitter::*signal)(Parameters...), const Arguments &...arguments)
    {
        if (isSignalConnected(QMetaMethod::fromSignal(signal)))
            mail([this, signal, arguments...] { Q_EMIT(static_cast<Emitter *>(this)->*signal)(arguments...); });
    }
    void customEvent(QEvent *event) override;

private:
    void deliver();

    class Worker;
    std::unique_ptr<Worker> m_worker;
};

template<typename Record>
struct StoreOf;
template<>
struct StoreOf<Sample> {
    using Type = HistoryStore;
};
template<>
struct StoreOf<Alarm> {
    using Type = AlarmStore;
};
template<>
struct StoreOf<LogEntry> {
    using Type = LogStore;
};

/// The typed side of a Recorder.
template<typename Record>
class RecorderOf : public Recorder
{
public:
    using StoreType = typename StoreOf<Record>::Type;

    RecorderOf(const Library &library, const QString &path, const RecorderOptions &options = {},
               QObject *parent = nullptr)
        : Recorder(library, path, options, parent)
    {
    }

    /// Hands a row over. An Error when it was not taken; nothing is stored of it then.
    Status record(const TableName &table, const Record &row);

    /// Makes the table when it is missing, before rows that are handed over afterwards are stored.
    void createTable(const TableName &table, const QString &name = QString())
    {
        ask<Result<bool>>(
            this,
            [table, name](StoreType &store) {
                if constexpr (std::is_same_v<Record, Sample>)
                    return store.createTable(table, name);
                else
                    return store.createTable(table);
            },
            [this](const Result<bool> &created) {
                if (!created)
                    Q_EMIT troubled(created.error());
            });
    }

    /// Puts `question` to the store on the worker's thread and hands what it returns to `answer`, in the
    /// thread of this object, unless `context`, which lives there too, is gone by then.
    template<typename Answer>
    void ask(QObject *context, std::function<Answer(StoreType &)> question, std::function<void(const Answer &)> answer)
    {
        const QPointer<QObject> guard(context);
        post([this, guard, question, answer](const std::shared_ptr<Connection> &connection) {
            StoreType store(connection);
            const Answer given = question(store);
            mail([guard, answer, given] {
                if (guard)
                    answer(given);
            });
        });
    }
};

using HistoryRecorder = RecorderOf<Sample>;
using LogRecorder = RecorderOf<LogEntry>;

class DEVICE_HOST_EXPORT AlarmRecorder : public RecorderOf<Alarm>
{
    Q_OBJECT

public:
    using RecorderOf<Alarm>::RecorderOf;
    ~AlarmRecorder() override;

    /// As record(); raised() follows once it is stored.
    Status raise(const TableName &table, const Alarm &alarm);
    /// Ends the active alarms of this object and type; ended() follows when there was one.
    Status end(const TableName &table, const QString &object, const QString &type, LocalTime when);

Q_SIGNALS:
    void raised(const device::Alarm &alarm);
    void ended(const QString &object, const QString &type, const QDateTime &when);
};

extern template class DEVICE_HOST_EXPORT RecorderOf<Sample>;
extern template class DEVICE_HOST_EXPORT RecorderOf<Alarm>;
extern template class DEVICE_HOST_EXPORT RecorderOf<LogEntry>;

} // namespace device

#endif
