// SPDX-License-Identifier: MIT
#ifndef DEVICE_WORKER_H
#define DEVICE_WORKER_H

#include "batch.h"
#include "deadline.h"
#include "device/recorder.h"
#include "removal.h"
#include "retention.h"
#include "rollups.h"
#include "trend_audit.h"

#include <QMetaMethod>

#include <atomic>
#include <deque>
#include <map>
#include <thread>
#include <vector>

namespace device
{

/// A row or another step on its way into the file.
struct Item {
    Write write;
    LocalTime time;                                 ///< Of a row's record.
    std::function<void(qint64 changed)> afterwards; ///< Called by the worker once the step is in the file.
    std::function<void(const Error &)> failed;      ///< Called by the worker when the step is dropped.
    qint64 number = 0;                              ///< In the order in which steps were taken.
    Clock::time_point taken = {};

    bool isRow() const { return write.kind != Write::CreateTable; }
    qint64 bytes() const { return qint64(write.text.size()) * 2 + overhead; }

private:
    static constexpr qint64 overhead = 200; // about what an item takes beside its text
};

/// The threads of a Recorder and all that they share with its callers.
///
/// The writer's thread owns the connection that stores. In write-ahead mode a second thread answers questions on a
/// connection of its own; in the other journal modes, where a reader would make commits fail, the writer answers them
/// between two batches. Standard threads and mutexes: they are the ones that race detectors see.
class Recorder::Worker
{
public:
    Worker(Recorder *recorder, const Library &library, const QString &path, const RecorderOptions &options);

    QString path() const { return m_path; }
    const RecorderOptions &options() const { return m_options; }
    Health health() const;

    Status start();
    Status accept(Item item);
    void createTable(Item item);
    void countRefused();
    void ask(Asking asking, const Question &handle);
    void remove(const Removal &removal, std::function<Letter(const Result<qint64> &)> answer, const Question &handle);
    /// From Item::afterwards: tables began or ended to have rollups.
    void lookForRollups() { m_rollupsAreKnown = false; }
    Retention &retention() { return m_retention; }
    void wake();

    void flushSoon();
    Settled flush(std::chrono::milliseconds deadline);
    Settled stop(std::chrono::milliseconds deadline);

    /// Queues a call for the recorder's thread; the posted event only wakes it.
    void mail(Letter letter);
    /// The oldest letter; empty when there is none.
    Letter takeMail();
    void wokenByEvent();
    /// Emits a signal in the recorder's thread. Without a receiver nothing is queued: a program may have no event loop
    /// that would take it out.
    template<typename Emitter, typename... Parameters, typename... Arguments>
    void tell(void (Emitter::*signal)(Parameters...), const Arguments &...arguments)
    {
        if (m_recorder->isSignalConnected(QMetaMethod::fromSignal(signal))) {
            mail([recorder = static_cast<Emitter *>(m_recorder), signal, arguments...] {
                Q_EMIT(recorder->*signal)(arguments...);
            });
        }
    }

private:
    struct Asked {
        Asking asking;
        Question handle;
        qint64 after; ///< It begins when every step with a lower number is settled: it sees the tables made before.
    };
    struct Removing {
        Removal removal;
        std::function<Letter(const Result<qint64> &)> answer;
        Question handle;
        qint64 after; ///< As in Asked.
    };

    // With the mutex held.
    int depth() const { return m_rowsWaiting + m_rowsInBatch; }
    bool hasRoom(const Item &item) const;
    bool isFull() const { return depth() >= m_options.capacity || m_bytes >= m_options.capacityBytes; }
    bool isDue() const;
    bool hasDuty();
    bool mayBegin(qint64 after) const;
    bool removalWaits() const { return !m_removals.empty() && mayBegin(m_removals.front().after); }
    qint64 oldestUnsettled() const;
    qint64 rowsBefore(qint64 number) const;
    std::map<QString, int> makeRoom(const Item &item, const Error &why);
    void countDropped(qint64 rows, const Error &why);
    Settled account(const QString &operation, qint64 waiting);
    void postEvent();

    // On the writer's thread.
    void write();
    bool open();
    Status openFile();
    Status remakeTables(Connection &connection);
    void serve();
    size_t stepsOfABatch();
    size_t stepsThatFit(size_t most) const;
    qint64 bytesOfBatch() const;
    void takeBatch();
    void storeBatch();
    Status tryToStore();
    Status makeRoomInFile();
    void reopen();
    Error leftBehind();
    void lookForFile();
    void settleBatch();
    void dropBatch(const Error &why);
    void duty(std::unique_lock<std::mutex> &lock);
    void removeSlice(Removing &removing);
    void lookWhetherMoved(const Status &done);
    bool rollupsWait() const;
    bool rollupsAreDue() const;
    void keepRollups();
    Status writeRollups();
    Clock::time_point nextAudit() const;
    void auditTrends();
    bool retentionIsDue();
    Clock::time_point nextRetention();
    Status trim(Connection &connection, qint64 rows);
    void keepRows();
    qint64 tellOfRetention();
    void finish();

    // On the reader's thread.
    void read();

    void answer(const Asked &asked, const std::shared_ptr<Connection> &connection);
    void answerAll(const Error &why);
    void tellStored(const std::map<QString, int> &rows);
    void reportLoss(const QString &table, int rows, const Error &why, bool here);
    void warn(bool now);
    void fails(const Error &why);
    void works();
    Error full(const Item &item) const;
    Error stopped(const QString &operation) const;
    Settled calledFromWithin(const QString &operation) const;

    static constexpr std::chrono::milliseconds retryPause{100};
    static constexpr std::chrono::milliseconds retentionPause{60000}; ///< Nothing could go.
    static constexpr std::chrono::seconds quietTime{2};               ///< Without rows for so long, old rows go alone.
    static thread_local const Worker *t_ofThisThread; ///< A call that would wait for itself is known by it.

    Recorder *const m_recorder;
    const Library m_library;
    const QString m_path;
    RecorderOptions m_options;
    std::atomic_bool m_cancel{false};

    // Of the writer's thread alone.
    std::shared_ptr<Connection> m_connection;
    Batch m_tried; ///< The batch under way, as the connection knows it.
    Deadline m_giveUp{Clock::time_point::max()};
    Clock::time_point m_nextTry;
    std::vector<Write> m_tables; ///< Made again in a file that takes the place of a lost one.
    qint64 m_bytesBefore = 0;
    qint64 m_storedInFile = 0;
    bool m_dutyFirst = false;
    Rollups m_rollups;
    bool m_rollupsAreKnown = false;
    Clock::time_point m_nextRollups; ///< Not tried again before.
    TrendAudit m_audit;
    Clock::time_point m_nextAudit; ///< As m_nextRollups.
    Retention m_retention;
    Clock::time_point m_nextRetention; ///< As m_nextRollups.
    Clock::time_point m_lastStored;    ///< When rows were stored last.

    mutable std::mutex m_mutex;        // guards all below; held for moments only, never while the file is used
    std::condition_variable m_wake;    ///< For the writer: rows, questions, stop.
    std::condition_variable m_asked;   ///< For the reader: questions, stop.
    std::condition_variable m_room;    ///< For callers: there is room.
    std::condition_variable m_settled; ///< For callers: rows were settled and reported; the thread ended.
    std::deque<Item> m_waiting;
    std::vector<Item> m_batch;         ///< Taken out to be stored; changed by the writer alone.
    std::optional<qint64> m_reporting; ///< The first step of a batch that is settled and not yet reported.
    int m_rowsWaiting = 0;
    int m_rowsInBatch = 0;
    qint64 m_bytes = 0;
    qint64 m_taken = 0; ///< Steps, of every kind.
    qint64 m_flushThrough = 0;
    qint64 m_tablesThrough = 0; ///< The number after that of the last table to make.
    std::deque<Asked> m_questions;
    std::deque<Removing> m_removals;
    std::optional<Question> m_running;
    std::deque<Letter> m_mail;
    bool m_eventPosted = false;
    std::map<QString, int> m_storedRows; ///< Of the one letter that is on its way.
    std::vector<double> m_latencies;
    Health m_health;
    std::optional<Error> m_trouble;
    // What flush() and stop() have not returned yet.
    qint64 m_newlyStored = 0;
    qint64 m_newlyDropped = 0;
    std::optional<Error> m_lastLoss;
    // Losses without a receiver.
    qint64 m_unheardRows = 0;
    std::optional<Error> m_unheardLoss;
    Clock::time_point m_nextWarning = {};
    int m_openings = 0;  ///< The reader follows them,
    FileIdentity m_file; ///< to this file.
    bool m_readsApart = false;
    bool m_fileIsMissed = false; ///< The reader found another file than that.
    bool m_started = false;
    bool m_stopping = false;
    bool m_finished = false;

    std::mutex m_joining;
    std::thread m_reader; // last: they use all of the above
    std::thread m_writer;
};

} // namespace device

#endif
