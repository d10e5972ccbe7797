// SPDX-License-Identifier: MIT
//
// The failures that docs/reliability.md tells one by one, and how a host of each kind of store gets out of them.
#include "fault_test.h"

namespace
{

using Store = interface_data_base;

class Failures : public FaultTest
{
protected:
    library::StorePtr opened()
    {
        library::StorePtr store = library::store(keyOf(GetParam()));
        EXPECT_EQ(store->openDB(storePath), SQLITE_OK);
        log.take();
        return store;
    }

    void insert(Store &store, const QStringList &marks)
    {
        QList<QStringList> rows;
        for (const QString &mark : marks) {
            rows.append(Outcome(GetParam()).input.first());
            freeText(rows.last()) = mark;
        }
        store.insertManyDatas(rows, "AlarmData"_q);
    }

    /// The marks that other connections see, without that of the prepared row.
    QStringList stored()
    {
        const char *const column = GetParam() == History ? "Value"
                                   : GetParam() == Alarm ? "AlarmDescription"
                                                         : "message";
        QStringList marks;
        for (const QStringList &row :
             rowsOf(storePath, "select %1 from AlarmData where ID > 1 order by ID"_q.arg(QLatin1String(column))))
            marks.append(row.first());
        return marks;
    }

    /// What a store logs whose batch was not committed.
    QStringList commitFailed() const { return {meaningOf("insertManyDatas", GetParam())->commitFailure}; }

    /// As a host chooses it: the operator log runs no statements, so a history store does it on the same file.
    void chooseWriteAheadLog()
    {
        const library::StorePtr store = library::store(GetParam() == Alarm ? "alarmDB" : "historyDB");
        EXPECT_EQ(store->openDB(storePath), SQLITE_OK);
        Rows rows;
        EXPECT_TRUE(store->execSQL({"PRAGMA journal_mode=WAL"_q}, rows, 1));
        EXPECT_EQ(rows, (Rows{{"wal"_q}}));
    }

    /// A connection that reads and does not end its transaction.
    std::unique_ptr<PlainConnection> reader()
    {
        auto connection = std::make_unique<PlainConnection>(storePath);
        connection->run("begin; select count(*) from AlarmData"_q);
        return connection;
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, Failures, everyKind(), nameOfKind);

TEST_P(Failures, WithARollbackJournalAReaderMakesCommitsFailUntilOneCoversAll)
{
    prepare(Journal::Delete);
    const library::StorePtr store = opened();
    const auto reading = reader();
    insert(*store, {"first"_q});
    EXPECT_EQ(log.take(), commitFailed());
    insert(*store, {"second"_q});
    EXPECT_EQ(log.take(), commitFailed());
    EXPECT_EQ(store->getDataCountOfTable("AlarmData"_q), 3); // the store itself sees them
    reading->run("commit"_q);

    Rows rows;
    if (GetParam() == Alarm) // an empty batch does nothing here
        EXPECT_TRUE(store->execSQL({"commit transaction"_q}, rows, 0));
    else
        insert(*store, {});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), (QStringList{"first"_q, "second"_q}));
}

TEST_P(Failures, WithAWriteAheadLogAReaderDisturbsNobody)
{
    prepare(Journal::Delete);
    chooseWriteAheadLog();
    const auto reading = reader();
    const library::StorePtr store = opened();
    insert(*store, {"first"_q});
    store->dbWalCheckPoint();
    insert(*store, {"second"_q});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), (QStringList{"first"_q, "second"_q}));
    EXPECT_EQ(reading->value("select count(*) from AlarmData"_q), "1"_q);
}

TEST_P(Failures, WithAWriteAheadLogTheLastToCloseLocksTheFileForAMoment)
{
    prepare(Journal::WriteAhead);
    auto reading = std::make_unique<PlainConnection>(storePath);
    insert(*opened(), {"first"_q}); // closed at once, and the reader is the last
    EXPECT_EQ(reading->value("select count(*) from AlarmData"_q), "2"_q);
    int logsRemoved = 0;
    disk.beforeRemove([&](const QByteArray &name) {
        logsRemoved += name.endsWith("-wal");
        const library::StorePtr store = opened();
        insert(*store, {"second"_q});
        EXPECT_EQ(log.take(), QStringList());
    });
    reading.reset();
    disk.beforeRemove({});
    EXPECT_EQ(logsRemoved, 1);
    EXPECT_EQ(stored(), QStringList{"first"_q});
}

// A count cannot tell: it is 0 then as well.
TEST_P(Failures, WithAWriteAheadLogAStoreThatHasSeenItsTableLosesNoFirstBatch)
{
    prepare(Journal::WriteAhead);
    auto last = std::make_unique<PlainConnection>(storePath);
    EXPECT_EQ(last->value("select count(*) from AlarmData"_q), "1"_q);
    int logsRemoved = 0;
    disk.beforeRemove([&](const QByteArray &name) {
        logsRemoved += name.endsWith("-wal");
        const library::StorePtr store = opened();
        EXPECT_EQ(store->getDataCountOfTable("AlarmData"_q), 0);
        EXPECT_EQ(log.take(), QStringList{streamed("database getDataCountOfTable failed;", "database is locked")});
        EXPECT_FALSE(store->tableIsExist("AlarmData"_q));
        EXPECT_EQ(log.take(), QStringList());
    });
    last.reset();
    EXPECT_EQ(logsRemoved, 1);

    const library::StorePtr store = opened();
    EXPECT_TRUE(store->tableIsExist("AlarmData"_q));
    PlainConnection(storePath).value("select count(*) from AlarmData"_q); // no longer the last when it closes
    disk.beforeRemove({});
    EXPECT_EQ(logsRemoved, 1);
    insert(*store, {"first"_q});
    EXPECT_EQ(stored(), QStringList{"first"_q});
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Failures, WhileAnotherConnectionWritesABatchVanishesWithoutAWord)
{
    for (const Journal journal : {Journal::Delete, Journal::WriteAhead}) {
        SCOPED_TRACE(nameOf(journal));
        prepare(journal);
        const library::StorePtr store = opened();
        PlainConnection writer(storePath);
        writer.run("begin immediate"_q);
        insert(*store, {"first"_q});
        writer.run("commit"_q);
        insert(*store, {"second"_q});
        EXPECT_EQ(log.take(), QStringList());
        EXPECT_EQ(stored(), QStringList{"second"_q});
    }
}

// The words are those of a commit that met a reader, but SQLite has rolled back: the batch is lost.
TEST_P(Failures, ADiskThatIsFullAtTheCommitTakesTheBatch)
{
    for (const Journal journal : {Journal::Delete, Journal::WriteAhead}) {
        SCOPED_TRACE(nameOf(journal));
        prepare(journal);
        const library::StorePtr store = opened();
        disk.failAt({"full", DiskCall::Write, SQLITE_FULL}, 1, true);
        insert(*store, {"first"_q, "second"_q});
        EXPECT_EQ(log.take(), commitFailed());
        disk.heal();
        if (GetParam() != OperatorLog) {
            Rows rows;
            EXPECT_FALSE(store->execSQL({"commit transaction"_q}, rows, 0)); // tells the two apart
            EXPECT_EQ(log.take(), QStringList{"cannot commit - no transaction is active"_q});
        }
        insert(*store, {"third"_q});
        EXPECT_EQ(log.take(), QStringList());
        EXPECT_EQ(stored(), QStringList{"third"_q});
    }
}

// Only a batch that is larger than SQLite's cache writes before its commit; here the cache is one page.
// The operator log runs no statements and cannot set it.
class FailuresInABatch : public Failures
{
};

INSTANTIATE_TEST_SUITE_P(Kinds, FailuresInABatch, ::testing::Values(History, Alarm), nameOfKind);

TEST_P(FailuresInABatch, ADiskThatIsFullTakesTheRowsInFront)
{
    prepare(Journal::Delete);
    const library::StorePtr store = opened();
    Rows rows;
    EXPECT_TRUE(store->execSQL({"PRAGMA cache_size=1"_q}, rows, 0));
    QStringList marks;
    for (int i = 0; i < 60; ++i)
        marks.append(QString::number(i).rightJustified(2000, QLatin1Char('0')));
    disk.failAt({"full", DiskCall::Write, SQLITE_FULL}, 40, false);
    insert(*store, marks);
    disk.heal();
    EXPECT_EQ(log.take(), commitFailed());
    const QStringList left = stored();
    EXPECT_GT(left.size(), 0);
    EXPECT_LT(left.size(), marks.size() - 1);
    EXPECT_EQ(left, marks.mid(marks.size() - left.size()));
}

} // namespace
