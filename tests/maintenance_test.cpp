// SPDX-License-Identifier: MIT
//
// The operations that look after any table of any store.
#include "kind_test.h"

#include <QFile>
#include <QFileInfo>

#include <climits>

namespace
{

using Store = interface_data_base;

class Maintenance : public KindTest
{
protected:
    /// Runs SQL on the store's own connection.
    void onTheStoresConnection(const char *sql)
    {
        EXPECT_EQ(sqlite3_exec(trace.connection(), sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql;
        trace.take();
    }

    /// Table T with the rows 1 to `count`, the oldest last.
    void prepareRows(int count)
    {
        prepare("create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME text);"
                "with recursive n(i) as (select 1 union all select i + 1 from n where i < %1)"
                " insert into T select NULL, 9999 - i from n"_q.arg(count));
    }
    QString idsLeft() { return valueOf(path(), "select group_concat(ID) from (select ID from T order by ID)"_q); }
    QString counter() { return valueOf(path(), "select seq from sqlite_sequence where name = 'T'"_q); }
};
INSTANTIATE_TEST_SUITE_P(Kinds, Maintenance, everyKind(), nameOfKind);

// tableIsExist

TEST_P(Maintenance, TableIsExistAsksTheSchema)
{
    open().tableIsExist("Table 1"_q);
    EXPECT_EQ(trace.take(),
              QStringList{"select count(type) from sqlite_master where type='table' and name ='Table 1'"_q});
}

TEST_P(Maintenance, TableIsExistIsTrueForATableAlone)
{
    prepare("create table T(a); create index AnIndex on T(a); create view AView as select a from T;"
            "create trigger ATrigger after insert on T begin select 1; end; create table [Größe](a)"_q);
    Store &store = open();
    EXPECT_TRUE(store.tableIsExist("T"_q));
    EXPECT_TRUE(store.tableIsExist("Größe"_q));
    for (const char *name : {"", "AnIndex", "AView", "ATrigger", "Missing", "t", "T ", " T", "%", "T%", "_"})
        EXPECT_FALSE(store.tableIsExist(QString::fromLatin1(name))) << '"' << name << '"';
    EXPECT_FALSE(store.tableIsExist(QString()));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Maintenance, TableIsExistFailsSilently)
{
    prepare("create table T(a)"_q);
    Store &store = open();
    EXPECT_FALSE(store.tableIsExist("it's"_q));
    PlainConnection other(path());
    other.run("begin exclusive"_q);
    EXPECT_FALSE(store.tableIsExist("T"_q));
    other.run("commit"_q);
    EXPECT_TRUE(store.tableIsExist("T"_q));
    EXPECT_EQ(log.take(), QStringList());
}

// Names can only be pasted; these reach the answer's text.
TEST_P(Maintenance, TableIsExistLooksAtTheFirstCharacterOfTheLastAnswer)
{
    Store &store = open();
    const struct {
        const char *answer;
        bool exists;
    } rows[] = {{"1", true}, {"10", true}, {"'x'", true}, {"''", true}, {"-1", true}, {"0", false}, {"'01'", false}};
    for (const auto &row : rows)
        EXPECT_EQ(store.tableIsExist("' union all select %1 --"_q.arg(QString::fromLatin1(row.answer))), row.exists)
            << row.answer;
    EXPECT_FALSE(store.tableIsExist("' union all select NULL --"_q));
}

// vacuumSqliteDB

TEST_P(Maintenance, VacuumCompactsTheFile)
{
    prepareRows(5000);
    prepare("delete from T"_q);
    Store &store = open();
    const qint64 before = QFileInfo(path()).size();
    EXPECT_TRUE(store.vacuumSqliteDB());
    EXPECT_LT(QFileInfo(path()).size(), before);
    EXPECT_EQ(trace.take(), QStringList{"VACUUM"_q});
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Maintenance, AFailingVacuumSaysSoWithoutSqlitesText)
{
    Store &store = open();
    onTheStoresConnection("begin");
    EXPECT_FALSE(store.vacuumSqliteDB());
    EXPECT_EQ(log.take(), QStringList{"VACUUM fail!"_q});
    onTheStoresConnection("commit");
}

// resetID

TEST_P(Maintenance, ResetIdMakesTheIdsOfAnEmptiedTableStartAtOne)
{
    prepareRows(5);
    prepare("delete from T; create table Other(ID INTEGER PRIMARY KEY AUTOINCREMENT); insert into Other values(7)"_q);
    Store &store = open();
    EXPECT_TRUE(store.resetID("T"_q));
    EXPECT_EQ(trace.take(), QStringList{"update sqlite_sequence SET seq = 0 where name = 'T';"_q});
    EXPECT_EQ(log.take(), QStringList());
    prepare("insert into T values(NULL,'2024')"_q);
    EXPECT_EQ(idsLeft(), "1"_q);
    EXPECT_EQ(valueOf(path(), "select seq from sqlite_sequence where name = 'Other'"_q), "7"_q);
}

TEST_P(Maintenance, ResetIdOfATableNeverWrittenIsTrue)
{
    prepare("create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME text); create table Plain(a)"_q);
    Store &store = open();
    EXPECT_TRUE(store.resetID("T"_q));
    EXPECT_TRUE(store.resetID("Plain"_q));
    EXPECT_TRUE(store.resetID("Missing"_q));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Maintenance, AFailingResetIdNamesTheTableWithoutSqlitesText)
{
    Store &store = open(); // no AUTOINCREMENT table was ever made here: there is no sqlite_sequence
    for (const QString &table : {"T"_q, ""_q, "Größe"_q, "a \"b\"\\\n"_q}) {
        EXPECT_FALSE(store.resetID(table));
        EXPECT_EQ(log.take(), QStringList{streamed("reset ", table, " ID fail!")});
    }
}

// dbWalCheckPoint

TEST_P(Maintenance, CheckpointMovesTheLogIntoTheFile)
{
    prepareRows(1);
    PlainConnection writer(path());
    writer.run("PRAGMA journal_mode=wal; insert into T values(NULL,'2024')"_q);
    Store &store = open();
    const auto rowsInTheFileAlone = [this](const char *copy) {
        QFile::copy(path(), path(copy));
        return valueOf(path(copy), "select count(*) from T"_q);
    };
    EXPECT_EQ(rowsInTheFileAlone("before.db"), "1"_q);
    trace.take();
    store.dbWalCheckPoint();
    EXPECT_EQ(trace.take(), QStringList{"PRAGMA wal_checkpoint = passive;"_q});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(rowsInTheFileAlone("after.db"), "2"_q);
}

TEST_P(Maintenance, CheckpointOfAFileWithoutALogDoesNothing)
{
    prepareRows(1);
    open().dbWalCheckPoint();
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(valueOf(path(), "PRAGMA journal_mode"_q), "delete"_q);
}

TEST_P(Maintenance, AFailingCheckpointSaysSqlitesTextAlone)
{
    prepareRows(1);
    PlainConnection(path()).run("PRAGMA journal_mode=wal"_q);
    Store &store = open();
    onTheStoresConnection("begin immediate");
    store.dbWalCheckPoint();
    EXPECT_EQ(log.take(), QStringList{streamed("database table is locked")});
    onTheStoresConnection("commit");
}

TEST_P(Maintenance, ACheckpointInATransactionThatHasReadOrWrittenFailsInEveryJournalMode)
{
    prepareRows(1);
    for (const char *mode : {"delete", "wal"}) {
        PlainConnection(path()).run("PRAGMA journal_mode=%1"_q.arg(QLatin1String(mode)));
        Store &store = open();
        onTheStoresConnection("begin");
        store.dbWalCheckPoint();
        EXPECT_EQ(log.take(), QStringList()) << mode;
        for (const char *statement : {"select * from T", "insert into T values(NULL,'2024')"}) {
            onTheStoresConnection(statement);
            store.dbWalCheckPoint();
            EXPECT_EQ(log.take(), QStringList{streamed("database table is locked")}) << mode << ": " << statement;
        }
        onTheStoresConnection("rollback");
        closeStore();
    }
}

// deleteDataForMax

TEST_P(Maintenance, TrimmingPastesTheTableTwiceAndTheNumberUnchanged)
{
    prepare("create table T(ID integer primary key)"_q);
    Store &store = open();
    for (int count : {0, 1, 100000, -1, INT_MAX, INT_MIN}) {
        EXPECT_TRUE(store.deleteDataForMax(count, "T"_q));
        EXPECT_EQ(trace.take(),
                  QStringList{"delete from 'T' where ID in (select ID from T order by ID limit 0,%1);"_q.arg(count)});
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Maintenance, TrimmingTakesTheSmallestIdsWhateverTheirTimes)
{
    prepareRows(5);
    EXPECT_TRUE(open().deleteDataForMax(3, "T"_q));
    EXPECT_EQ(idsLeft(), "4,5"_q);
}

TEST_P(Maintenance, TrimmingNoRowsDeletesNothingAndIsTrue)
{
    prepareRows(5);
    EXPECT_TRUE(open().deleteDataForMax(0, "T"_q));
    EXPECT_EQ(idsLeft(), "1,2,3,4,5"_q);
}

TEST_P(Maintenance, TrimmingMoreRowsThanThereAreDeletesAll)
{
    prepareRows(5);
    EXPECT_TRUE(open().deleteDataForMax(6, "T"_q));
    EXPECT_TRUE(idsLeft().isNull());
}

TEST_P(Maintenance, TrimmingANegativeNumberDeletesAll)
{
    prepareRows(5);
    EXPECT_TRUE(open().deleteDataForMax(-1, "T"_q));
    EXPECT_TRUE(idsLeft().isNull());
}

// The second place of the name is not quoted.
TEST_P(Maintenance, TrimmingATableWhoseNameNeedsQuotesFails)
{
    prepare("create table [T 1](ID integer primary key); insert into [T 1] values(1)"_q);
    EXPECT_FALSE(open().deleteDataForMax(1, "T 1"_q));
    EXPECT_EQ(valueOf(path(), "select count(*) from [T 1]"_q), "1"_q);
}

TEST_P(Maintenance, AFailingTrimSaysSoWithoutSqlitesText)
{
    EXPECT_FALSE(open().deleteDataForMax(1, "Missing"_q));
    EXPECT_EQ(log.take(), QStringList{"Delete many data fail"_q});
}

// deleteTable, which alarms replace with their purge

class Clearing : public Maintenance
{
};
INSTANTIATE_TEST_SUITE_P(Kinds, Clearing, ::testing::Values(History, OperatorLog), nameOfKind);

TEST_P(Clearing, DeletesEveryRowWhateverTheSecondTextSays)
{
    for (const char *ignored : {"", "0001-01-01", "it's", "%1"}) {
        SCOPED_TRACE(ignored);
        prepare("drop table if exists T"_q);
        prepareRows(5);
        Store &store = open();
        EXPECT_TRUE(store.deleteTable("T"_q, QString::fromLatin1(ignored)));
        EXPECT_EQ(trace.take(), QStringList{"delete from 'T'"_q});
        EXPECT_TRUE(idsLeft().isNull());
        EXPECT_TRUE(store.deleteTable("T"_q, QString::fromLatin1(ignored))); // also when there is nothing to delete
        EXPECT_EQ(log.take(), QStringList());
        closeStore();
    }
}

TEST_P(Clearing, KeepsTheIdCounter)
{
    prepareRows(5);
    EXPECT_TRUE(open().deleteTable("T"_q, ""_q));
    EXPECT_EQ(counter(), "5"_q);
    prepare("insert into T values(NULL,'2024')"_q);
    EXPECT_EQ(idsLeft(), "6"_q);
}

TEST_P(Clearing, FollowedByResetIdStartsTheIdsAtOne)
{
    prepareRows(5);
    Store &store = open();
    EXPECT_TRUE(store.deleteTable("T"_q, ""_q));
    EXPECT_TRUE(store.resetID("T"_q));
    prepare("insert into T values(NULL,'2024')"_q);
    EXPECT_EQ(idsLeft(), "1"_q);
}

TEST_P(Clearing, OfAMissingTableFailsAndNamesIt)
{
    Store &store = open();
    for (const QString &table : {"Missing"_q, ""_q, "Größe"_q, "it's"_q, "a \"b\"\\\n"_q}) {
        EXPECT_FALSE(store.deleteTable(table, ""_q));
        EXPECT_EQ(log.take(), QStringList{streamed("delete Table ", table, " fail!")});
    }
}

// None of these opens a transaction: each statement is in the file when the operation returns.
TEST_P(Maintenance, EveryStatementCommitsOnItsOwn)
{
    prepareRows(5);
    Store &store = open();
    store.deleteDataForMax(1, "T"_q);
    store.deleteDataForMax(1, "Missing"_q);
    store.resetID("T"_q);
    store.vacuumSqliteDB();
    store.dbWalCheckPoint();
    store.deleteTable("T"_q, "0001"_q);
    for (const QString &statement : trace.take())
        EXPECT_FALSE(statement.contains("transaction"_q)) << qPrintable(statement);
    EXPECT_NE(sqlite3_get_autocommit(trace.connection()), 0);
}

} // namespace
