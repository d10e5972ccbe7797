// SPDX-License-Identifier: MIT
#ifndef DEVICE_RECORDER_H
#define DEVICE_RECORDER_H

#include "retention.h"
#include "store.h"

#include <QObject>
#include <QPointer>

#include <exception>
#include <functional>
#include <type_traits>

namespace device
{

struct Item;
struct Removal;

/// What happens to a row that comes while the queue is full.
enum class WhenFull {
    Wait,      ///< The caller waits for room, up to RecorderOptions::waitAtMost. Not for an event loop.
    Refuse,    ///< The new row is refused and counted.
    DropOldest ///< The oldest waiting rows are dropped and counted.
};

/// Checked by Recorder::start(). Of every time, a negative one and milliseconds::max() mean for ever.
struct RecorderOptions {
    OpenOptions file;                         ///< Its deadline is that of one try; its cancel stays null.
    int batchRows = 500;                      ///< Rows are stored once this many are waiting ...
    std::chrono::milliseconds batchTime{500}; ///< ... or once the oldest has waited this long.
    int capacity = 20000;                     ///< Rows that may wait ...
    qint64 capacityBytes = 16 * 1024 * 1024;  ///< ... and the memory they may take.
    WhenFull whenFull = WhenFull::Refuse;
    std::chrono::milliseconds waitAtMost{1000};
    /// A batch that could not be stored for this long is dropped and counted. 0: never while the recorder runs.
    std::chrono::milliseconds giveUpAfter{0};
    std::chrono::milliseconds stopWithin{5000}; ///< What the destructor gives stop().
    RetentionOptions retention;
    /// Between two slices, of some milliseconds each, that compare the sums of trends with their rows: all of them
    /// once after the file was opened, and again when another program has written into it. For ever: none.
    std::chrono::milliseconds auditPause{1000};
};

/// The counters since start(). At every moment accepted = stored + dropped + depth.
struct Health {
    bool open = false;        ///< The file is open, or was when the recorder stopped.
    QString trouble;          ///< Why opening or storing fails at present; empty while all goes well.
    qint64 accepted = 0;      ///< Rows taken into the queue.
    qint64 stored = 0;        ///< Rows in the file, each exactly once; of alarms, ends and raiseUnlessActive() too.
    qint64 refused = 0;       ///< Rows not taken: no room, or a text or time that cannot be held.
    qint64 dropped = 0;       ///< Rows taken but not stored; each was reported.
    qint64 movedAway = 0;     ///< Of those stored: rows in a file that was moved or deleted afterwards.
    qint64 batches = 0;       ///< Transactions that stored rows.
    qint64 failedBatches = 0; ///< Tries that stored nothing; the rows stayed waiting.
    qint64 failedCommits = 0; ///< Commits that failed at first, mostly healed within the same try.
    int depth = 0;            ///< Rows waiting, those being stored included.
    double latencyP50 = 0;    ///< Milliseconds from being taken to being in the file, of the last 1000 batches'
    double latencyP99 = 0;    ///< oldest rows.
    double bytesPerRow = 0;   ///< What the file grew by since it was opened, per stored row.
    qint64 trimmed = 0;       ///< Rows that retention removed.
    qint64 fileBytes = 0;     ///< Of the file and of its log or journal, after the last batch.
    qint64 logBytes = 0;
    qint64 mended = 0; ///< Sums of trends made anew: another program had changed them or their rows.
};

/// What became of the rows since the last flush() or stop(), or since start().
struct [[nodiscard]] Settled {
    qint64 stored = 0;
    qint64 dropped = 0;
    qint64 waiting = 0; ///< Of the rows that waited when it was called: not stored at the deadline. 0 after stop().
    std::optional<Error> why; ///< The cause of the last loss, or of the waiting; empty when every row was stored.

    bool ok() const { return !why; }
    explicit operator bool() const { return ok(); }
};

/// A question on its way, to cancel it. Copies are the same question.
class DEVICE_HOST_EXPORT Question
{
public:
    /// Answered with Error::Cancelled instead, unless it is too late. A statement that runs is not interrupted: this
    /// takes effect before a question begins and between two of its statements.
    void cancel() const { *m_cancelled = true; }
    bool isCancelled() const { return *m_cancelled; }

private:
    friend class Recorder;
    std::shared_ptr<std::atomic_bool> m_cancelled = std::make_shared<std::atomic_bool>(false);
};

/// One file on a thread of its own: rows are handed over in microseconds, from any thread, and stored in groups.
/// HistoryRecorder, AlarmRecorder and LogRecorder are the ones to use.
///
/// Make it, connect to its signals, start() it. A file that cannot be opened or written is tried again until it can
/// be; rows wait in the meantime. refused(), and dropped() for want of room, are emitted in the thread that hands the
/// row over. All other signals, and the answers to questions, come in the thread of this object: by its event loop,
/// or by flush() and stop() there. What a slot throws comes out of whatever delivers its signal, the signals after it
/// are delivered by the next.
class DEVICE_HOST_EXPORT Recorder : public QObject
{
    Q_OBJECT

public:
    ~Recorder() override;

    QString path() const;
    Health health() const;

    /// Checks every option and starts the thread. An Error names the option that cannot work; nothing was started
    /// then. Rows that were handed over before wait. Only once.
    Status start();

    /// Stores what waits now without waiting for a full group.
    void flushSoon();
    /// The same, and returns when that is done or the deadline has passed. From any thread but the recorder's own.
    Settled flush(std::chrono::milliseconds deadline);

    /// Takes no more rows, stores all that wait and closes the file. What is not stored at the deadline is dropped,
    /// counted and reported; questions that have not begun are answered with Error::Stopped. Returns when the threads
    /// have ended: a statement or a sync that is under way is waited for, beyond the deadline if need be. May be
    /// called again and from several threads; it cannot be started again.
    Settled stop(std::chrono::milliseconds deadline);
    /// stop() without storing: ends any waiting at once.
    Settled cancel();

    /// The rows of the table are kept so from now on. Stands in the file: also for recorders that open it later. Waits
    /// its turn and is tried again as a table that is to be made; `answer`, if any, comes in the thread of this object:
    /// true if that is new.
    void keep(const TableName &table, const Keep &keep, std::function<void(const Result<bool> &)> answer = {});
    /// Rows with a higher ID are not removed by age and number: this owner has not shipped them yet. Said again
    /// whenever more is shipped, before start() too. The ceiling goes before. Not in the file: see FILE.shipped in
    /// docs/retention.md for a program of its own. From any thread.
    void hold(const TableName &table, const QString &owner, qint64 throughId);
    void release(const TableName &table, const QString &owner);
    /// The host's word after retentionHeld(): what the rules of the table say is removed now, however much that is.
    /// From any thread.
    void trimNow(const TableName &table);

Q_SIGNALS:
    void ready();                                                           ///< The file is open.
    void stored(const QString &table, int rows);                            ///< They are in the file.
    void refused(const QString &table, const device::Error &why);           ///< One row was not taken.
    void dropped(const QString &table, int rows, const device::Error &why); ///< They were taken and are lost.
    void troubled(const device::Error &why);         ///< Storing or opening failed; it is tried again.
    void recovered();                                ///< It works again.
    void removed(const QString &table, qint64 rows); ///< A deletion ended, whole or not.
    void tableReady(const QString &table);           ///< A createTable() is done: the table is in the file.
    void tableFailed(const QString &table, const device::Error &why); ///< It cannot be made; it is not tried again.
    /// A trend is not kept up: the step for it was refused, or its sums cannot be written or were changed by somebody.
    /// Rows are stored all the same.
    void trendFailed(const device::Error &why);
    void trimmed(const QString &table, qint64 rows); ///< Retention removed the oldest rows of the table.
    /// Retention removes nothing, or less than its rules say: too much at once, or a shipper that stands still.
    void retentionHeld(const device::Error &why);

protected:
    using Letter = std::function<void()>; ///< A call to make in the thread of this object.
    /// Runs on a thread of the recorder with a connection, or is given the Error why there is none. Its letter is
    /// delivered.
    using Asking = std::function<Letter(const Result<std::shared_ptr<Connection>> &)>;
    using Removed = std::function<void(const Result<qint64> &)>;

    Recorder(const Library &library, const QString &path, const RecorderOptions &options, QObject *parent);

    /// Counts and reports a refused row.
    Status refuse(const Error &why);
    /// Takes a row that is ready to be stored.
    Status accept(Item item);
    using Step = std::function<Result<bool>(Connection &)>;
    using Created = std::function<void(const Result<bool> &)>;
    /// Has a step done in its turn, and again in a file that takes the place of this one. `done` is called on the
    /// thread that stores.
    void create(const TableName &table, Step step, Created done);
    void mailAnswer(const Created &answer, const Result<bool> &created);
    Question post(Asking asking);
    /// Stops before a derived class loses what its signals need.
    void stopNow();
    Question remove(const Result<Removal> &removal, QObject *context, Removed answer);
    void customEvent(QEvent *event) override;

    class Worker;
    Worker &worker() { return *m_worker; }

private:
    void deliver();

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
class DEVICE_HOST_EXPORT RecorderOf : public Recorder
{
public:
    using StoreType = typename StoreOf<Record>::Type;
    using typename Recorder::Created;

    /// Keeps its arguments; start() is what begins.
    RecorderOf(const Library &library, const QString &path, const RecorderOptions &options = {},
               QObject *parent = nullptr)
        : Recorder(library, path, options, parent)
    {
    }

    /// Hands a row over. An Error when it was not taken; nothing is stored of it then.
    Status record(const TableName &table, const Record &row);

    /// Makes the table if it is missing, before rows that are handed over afterwards are stored and questions that are
    /// asked afterwards are answered. Waits its turn like a row and is tried again like one. `info` is for samples, as
    /// in HistoryStore::createTable(). `answer`, if any, comes in the thread of this object: true when it was made,
    /// false when it existed.
    void createTable(const TableName &table, const SeriesInfo &info = {}, Created answer = {});

    /// Puts `question` to a store of this file, on a thread of the recorder, and hands what it returns to `answer` in
    /// the thread of this object, unless `context`, which lives there too, is gone by then. `question` takes a
    /// StoreType & and returns a T or a Result<T>, not void; `answer` takes a const Result<T> &. Both can be copied. An
    /// answer always comes: an
    /// Error when the file cannot be opened, when the question was cancelled or threw, or when the recorder stops.
    ///
    /// A question only reads; what it writes fails with Error::ReadOnly. In write-ahead mode it has a connection of its
    /// own and holds up no row. In other journal modes rows wait while it runs: ask for pages.
    template<typename Asked, typename Answered>
    Question ask(QObject *context, Asked question, Answered answer)
    {
        using Answer = typename AnswerOf<std::invoke_result_t<Asked &, StoreType &>>::Type;
        const bool hasContext = context != nullptr;
        return post([hasContext, guard = QPointer<QObject>(context), question = std::move(question),
                     answer = std::move(answer)](const Result<std::shared_ptr<Connection>> &connection) mutable {
            return Letter(
                [hasContext, guard, answer = std::move(answer), given = given<Answer>(question, connection)]() mutable {
                    if (guard || !hasContext)
                        answer(static_cast<const Answer &>(given));
                });
        });
    }

    /// Deletes the records before `time`, in slices between batches; the answer is their number, or an Error that says
    /// how many are deleted already. Not undone when it is cancelled or fails midway.
    Question removeBefore(const TableName &table, LocalTime time, QObject *context = nullptr, Removed answer = {});
    /// Deletes all but the `keep` newest of the rows that are in the file when it begins; as removeBefore().
    Question keepNewest(const TableName &table, qint64 keep, QObject *context = nullptr, Removed answer = {});
    /// Empties the table and starts its IDs at 1 again, unless rows come in the meantime; as removeBefore().
    Question clear(const TableName &table, QObject *context = nullptr, Removed answer = {});

private:
    template<typename T>
    struct AnswerOf {
        using Type = Result<T>;
    };
    template<typename T>
    struct AnswerOf<Result<T>> {
        using Type = Result<T>;
    };

    template<typename Answer, typename Asked>
    static Answer given(Asked &question, const Result<std::shared_ptr<Connection>> &connection)
    {
        if (!connection)
            return connection.error();
        QString thrown = QStringLiteral("the question threw");
        try {
            StoreType store(*connection);
            return question(store);
        } catch (const std::exception &exception) {
            thrown += QLatin1String(": ") + QString::fromLocal8Bit(exception.what());
        } catch (...) {
        }
        return Error(Error::Failed, QStringLiteral("ask"), QString(), thrown);
    }
};

class DEVICE_HOST_EXPORT HistoryRecorder : public RecorderOf<Sample>
{
    Q_OBJECT

public:
    using RecorderOf<Sample>::RecorderOf;

    /// Keeps up sums of the table, so that HistoryStore::trend() answers in milliseconds however long the history is.
    /// Stays in the file: every recorder that opens it keeps them up. Waits its turn and is tried again as
    /// createTable(), whose table it needs; `answer` is true if they were not kept before. Rows that are there already
    /// are summed up in slices of some milliseconds between batches.
    void keepTrend(const TableName &table, const TrendOptions &options = {}, Created answer = {});
    /// Ends that; as keepTrend().
    void dropTrend(const TableName &table, Created answer = {});

private:
    void trendIsSet(const Result<bool> &done, const Created &answer);
};

class DEVICE_HOST_EXPORT LogRecorder : public RecorderOf<LogEntry>
{
    Q_OBJECT

public:
    using RecorderOf<LogEntry>::RecorderOf;
};

class DEVICE_HOST_EXPORT AlarmRecorder : public RecorderOf<Alarm>
{
    Q_OBJECT

public:
    using RecorderOf<Alarm>::RecorderOf;
    ~AlarmRecorder() override;

    /// As record(); raised() follows once it is stored.
    Status raise(const TableName &table, const Alarm &alarm);
    /// The same unless an alarm of this object and type is active; then nothing follows, and the row counts as stored.
    Status raiseUnlessActive(const TableName &table, const Alarm &alarm);
    /// Ends the active alarms of this object and type; ended() follows when there was one.
    Status end(const TableName &table, const QString &object, const QString &type, LocalTime when);
    /// Deletes the ended alarms, and the active ones that started before `time`; as removeBefore().
    Question removeEndedAndBefore(const TableName &table, LocalTime time, QObject *context = nullptr,
                                  Removed answer = {});

Q_SIGNALS:
    void raised(const device::Alarm &alarm);
    void ended(const QString &object, const QString &type, device::LocalTime when);
};

extern template class RecorderOf<Sample>;
extern template class RecorderOf<Alarm>;
extern template class RecorderOf<LogEntry>;

} // namespace device

#endif
