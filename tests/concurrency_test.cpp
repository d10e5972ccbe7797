// SPDX-License-Identifier: MIT
//
// Several threads on one store, and on several stores.
#include "operations.h"

#include <QFile>
#include <QRegularExpression>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace
{

using Store = interface_data_base;
using namespace std::chrono_literals;

/// SQLite's own mutex on each connection would stand in for a missing lock, so it is off: the store's mutex alone
/// keeps the threads apart. Must happen before SQLite starts.
const int withoutSqlitesMutex = sqlite3_config(SQLITE_CONFIG_MULTITHREAD);

/// Time for an operation that nothing holds back. When it is too short, a fault goes unseen; none is ever invented.
const auto shortTime = 20ms;
/// Only a fault takes that long.
const auto longTime = 60s;

/// A call on a thread of its own, joined at the end.
class OtherThread
{
public:
    template<typename Function>
    explicit OtherThread(Function call) : m_end(std::async(std::launch::async, call))
    {
    }
    bool endsWithin(std::chrono::milliseconds time) const { return m_end.wait_for(time) == std::future_status::ready; }

private:
    std::future<void> m_end;
};

class Concurrency : public KindTest
{
protected:
    void SetUp() override { ASSERT_EQ(withoutSqlitesMutex, SQLITE_OK); }
    void TearDown() override { trace.onStart(nullptr); }

    /// Opens the store and spares the disk.
    Store &open()
    {
        Store &store = KindTest::open();
        EXPECT_EQ(sqlite3_exec(trace.connection(), "PRAGMA synchronous=off", nullptr, nullptr, nullptr), SQLITE_OK);
        trace.take();
        return store;
    }

    /// Runs `meanwhile` from inside the first statement of `operation`.
    template<typename Operation, typename Meanwhile>
    void during(Operation operation, Meanwhile meanwhile)
    {
        const auto thisThread = std::this_thread::get_id();
        bool ran = false;
        trace.onStart([&](sqlite3 *, const QString &) {
            if (ran || std::this_thread::get_id() != thisThread)
                return;
            ran = true;
            meanwhile();
        });
        operation();
        trace.onStart(nullptr);
        EXPECT_TRUE(ran);
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, Concurrency, everyKind(), nameOfKind);

TEST_P(Concurrency, TheStoresMutexIsTheOnlyOne)
{
    open();
    EXPECT_EQ(sqlite3_db_mutex(trace.connection()), nullptr);
}

TEST_P(Concurrency, WhileAStatementRunsEveryOtherOperationOfTheStoreWaits)
{
    for (const Call<Store> &call : calls<Store>()) {
        SCOPED_TRACE(call.name);
        QFile::remove(path());
        prepareFile(path(), GetParam());
        Store &store = open();
        const Meaning *meaning = meaningOf(call.name, GetParam());
        Outcome outcome(GetParam());
        std::unique_ptr<OtherThread> other;
        during([&] { EXPECT_TRUE(store.tableIsExist("AlarmData"_q)); },
               [&] {
                   trace.take();
                   other = std::make_unique<OtherThread>([&] { call.on(store, outcome); });
                   // An operation without a meaning takes no lock.
                   EXPECT_EQ(other->endsWithin(meaning ? shortTime : longTime), !meaning);
                   EXPECT_EQ(trace.take(), QStringList());
               });
        EXPECT_TRUE(other->endsWithin(longTime));
        other.reset();
        EXPECT_EQ(outcome.answer(), meaning ? meaning->answer : call.refusal);
        EXPECT_EQ(trace.take(), meaning ? meaning->statements : QStringList());
        closeStore();
    }
}

// The lock comes before the look at the arguments, but for a batch of no alarms.
TEST_P(Concurrency, WhileAStatementRunsAlsoCallsThatRunNothingWait)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    const struct {
        int kinds;
        bool waits;
        void (*call)(Store &);
    } rows[] = {
        {EveryKind, true,
         [](Store &s) {
             QList<QStringList> result;
             s.selectDataOfDateRows(""_q, ""_q, 0, 1, result, true);
         }},
        {History | Alarm, true,
         [](Store &s) {
             QList<QStringList> result;
             EXPECT_TRUE(s.execSQL({"select 1"_q}, result, 7));
         }},
        {History | Alarm, true,
         [](Store &s) {
             QList<QStringList> result;
             EXPECT_FALSE(s.execSQL({}, result, 0));
         }},
        {Alarm, false,
         [](Store &s) {
             QList<QStringList> none;
             s.insertManyDatas(none, ""_q);
         }},
    };
    for (const auto &row : rows) {
        if (!(row.kinds & GetParam()))
            continue;
        SCOPED_TRACE(&row - rows);
        std::unique_ptr<OtherThread> other;
        during([&] { EXPECT_TRUE(store.tableIsExist("AlarmData"_q)); },
               [&] {
                   other = std::make_unique<OtherThread>([&] { row.call(store); });
                   EXPECT_EQ(other->endsWithin(row.waits ? shortTime : longTime), !row.waits);
               });
        EXPECT_TRUE(other->endsWithin(longTime));
    }
}

TEST_P(Concurrency, WhileAStatementRunsClosingWaits)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    std::unique_ptr<OtherThread> closing;
    during([&] { EXPECT_TRUE(store.tableIsExist("AlarmData"_q)); },
           [&] {
               closing = std::make_unique<OtherThread>([&] { EXPECT_EQ(store.closeDB(), 0); });
               EXPECT_FALSE(closing->endsWithin(shortTime));
           });
    EXPECT_TRUE(closing->endsWithin(longTime));
    closing.reset();
    EXPECT_FALSE(store.tableIsExist("AlarmData"_q));
}

TEST_P(Concurrency, WhileAStatementRunsOpeningWaits)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    sqlite3 *const first = trace.connection();
    std::unique_ptr<OtherThread> opening;
    during([&] { EXPECT_TRUE(store.tableIsExist("AlarmData"_q)); },
           [&] {
               opening = std::make_unique<OtherThread>([&] { EXPECT_EQ(store.openDB(path("other.db")), 0); });
               EXPECT_FALSE(opening->endsWithin(shortTime));
               EXPECT_EQ(trace.connection(), first);
           });
    EXPECT_TRUE(opening->endsWithin(longTime));
    opening.reset();
    EXPECT_NE(trace.connection(), first);
    EXPECT_EQ(sqlite3_close(first), SQLITE_OK); // opening over an open file forgets it
}

TEST_P(Concurrency, WhileAStatementRunsAllOtherStoresAreFree)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    for (const Kind kind : {History, Alarm, OperatorLog}) {
        const QString file = path(keyOf(kind));
        prepareFile(file, kind);
        std::unique_ptr<OtherThread> other;
        during([&] { EXPECT_TRUE(store.tableIsExist("AlarmData"_q)); },
               [&] {
                   other = std::make_unique<OtherThread>([&] {
                       const library::StorePtr otherStore = library::store(keyOf(kind));
                       EXPECT_EQ(otherStore->openDB(file), 0);
                       for (const Call<Store> &call : calls<Store>()) {
                           Outcome outcome(kind);
                           call.on(*otherStore, outcome);
                       }
                   });
                   EXPECT_TRUE(other->endsWithin(longTime));
               });
    }
}

const int batchSize = 5;

QStringList markedRow(Kind kind, const QString &mark)
{
    if (kind == History)
        return {"2024-05-06 07:08:09"_q, mark};
    if (kind == Alarm)
        return {"1"_q, "2024-05-06"_q, "07:08:09"_q, mark, ""_q, ""_q, ""_q, ""_q, ""_q, ""_q};
    return {"2024-05-06 07:08:09.123"_q, mark, ""_q, ""_q};
}

/// Gives the other threads their chance at every statement.
void pause(sqlite3 *, const QString &)
{
    std::this_thread::sleep_for(100us);
}

/// The mark <...> of a statement.
QString markOf(const QString &statement)
{
    return QRegularExpression("<.*>"_q).match(statement).captured();
}

TEST_P(Concurrency, BatchesAndQueriesOfOneStoreNeverInterleave)
{
    prepareFile(path(), GetParam());
    prepare("delete from AlarmData"_q);
    Store &store = open();
    const Kind kind = GetParam();
    const int writers = 3;
    const int batchesEach = 10;
    std::atomic<int> writing{writers};

    trace.onStart(pause);
    {
        std::vector<OtherThread> threads;
        for (int writer = 0; writer < writers; ++writer)
            threads.emplace_back([&, writer] {
                for (int batch = 0; batch < batchesEach; ++batch) {
                    const QString mark = "<%1-%2>"_q.arg(writer).arg(batch);
                    QList<QStringList> rows;
                    for (int row = 0; row < batchSize; ++row)
                        rows.append(markedRow(kind, mark));
                    store.insertManyDatas(rows, "AlarmData"_q);
                    store.insertConfig(mark, mark);
                }
                --writing;
            });
        threads.emplace_back([&] { // no batch is ever seen in part
            do {
                EXPECT_EQ(store.getDataCountOfTable("AlarmData"_q) % batchSize, 0);
                QList<QStringList> rows;
                store.selectNewDataOfRows("AlarmData"_q, -1, rows);
                EXPECT_EQ(rows.size() % batchSize, 0);
            } while (writing > 0);
        });
        if (kind != OperatorLog)
            threads.emplace_back([&] {
                for (int batch = 0; writing > 0; ++batch) {
                    const QString insert = "insert into Ended values('<sql-%1>','')"_q.arg(batch);
                    QList<QStringList> rows;
                    EXPECT_TRUE(store.execSQL({insert, insert}, rows, 2));
                }
            });
    }
    trace.onStart(nullptr);
    EXPECT_EQ(log.take(), QStringList());

    // What SQLite saw: from each "begin" to its "commit" the statements of one batch alone.
    bool inBatch = false;
    QString mark;
    for (const QString &statement : trace.take()) {
        if (statement == "begin transaction"_q) {
            EXPECT_FALSE(inBatch);
            inBatch = true;
            mark.clear();
        } else if (statement == "commit transaction"_q) {
            EXPECT_TRUE(inBatch);
            inBatch = false;
        } else if (statement.startsWith("insert"_q)) {
            EXPECT_TRUE(inBatch);
            if (mark.isEmpty())
                mark = markOf(statement);
            EXPECT_EQ(markOf(statement), mark);
        } else {
            EXPECT_FALSE(inBatch) << qPrintable(statement);
        }
    }
    EXPECT_FALSE(inBatch);

    // What the file holds: each batch's rows with IDs in a row.
    const char *column = kind == History ? "Value" : kind == Alarm ? "AlarmObject" : "userName";
    const Rows ids = rowsOf(
        path(), "select count(*), max(ID) - min(ID) from AlarmData group by %1"_q.arg(QString::fromLatin1(column)));
    EXPECT_EQ(ids.size(), writers * batchesEach);
    for (const QStringList &batch : ids)
        EXPECT_EQ(batch, (QStringList{QString::number(batchSize), QString::number(batchSize - 1)}));
    EXPECT_EQ(valueOf(path(), "select count(*) from tb_config"_q), QString::number(1 + writers * batchesEach));
}

TEST_P(Concurrency, StoresOnDifferentFilesWorkAtTheSameTime)
{
    const Kind kind = GetParam();
    trace.onStart(pause);
    {
        std::vector<OtherThread> threads;
        for (int number = 0; number < 3; ++number)
            threads.emplace_back([&, number] {
                const QString file = path() + QString::number(number);
                prepareFile(file, kind);
                const library::StorePtr store = library::store(keyOf(kind));
                EXPECT_EQ(store->openDB(file), 0);
                for (int batch = 0; batch < 10; ++batch) {
                    QList<QStringList> rows{markedRow(kind, QString::number(number))};
                    store->insertManyDatas(rows, "AlarmData"_q);
                    EXPECT_EQ(store->getDataCountOfTable("AlarmData"_q), 2 + batch);
                }
            });
    }
    trace.onStart(nullptr);
}

} // namespace
