// SPDX-License-Identifier: MIT
#include "store_test.h"

namespace
{

using EntryPoints = StoreTest;

TEST_F(EntryPoints, SupportListIsTheSameThreeTextsInTheSameOrderEveryTime)
{
    const QStringList expected{"history"_q, "alarm"_q, "operatorLog"_q};
    EXPECT_EQ(library::supportList(), expected);
    EXPECT_EQ(library::supportList(), expected);
}

TEST_F(EntryPoints, SupportListBelongsToTheCaller)
{
    library::supportList().clear();
    QStringList changed = library::supportList();
    changed[0] = "mine"_q;
    EXPECT_EQ(library::supportList().first(), "history"_q);
}

TEST_F(EntryPoints, EachKeyMakesItsOwnKindOfStore)
{
    const struct {
        const char *key;
        const char *createTable;
    } kinds[] = {
        {"historyDB", "create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"},
        {"alarmDB",
         "create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)"},
        {"operatorLogDB",
         "create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)"},
    };
    for (const auto &kind : kinds) {
        SCOPED_TRACE(kind.key);
        const library::StorePtr store = library::store(kind.key);
        ASSERT_TRUE(store);
        EXPECT_EQ(store->openDB(path(kind.key)), 0);
        trace.take();
        EXPECT_TRUE(store->createTable("T"_q, "N"_q));
        EXPECT_TRUE(trace.take().contains(QString::fromLatin1(kind.createTable)));
    }
}

TEST_F(EntryPoints, ANewStoreIsClosed)
{
    for (const char *key : {"historyDB", "alarmDB", "operatorLogDB"}) {
        SCOPED_TRACE(key);
        const library::StorePtr store = library::store(key);
        EXPECT_EQ(store->closeDB(), 0);
        EXPECT_FALSE(store->vacuumSqliteDB());
    }
    EXPECT_TRUE(trace.take().isEmpty());
}

TEST_F(EntryPoints, AnyOtherKeyMakesNothingAndSaysNothing)
{
    const char *keys[] = {
        "",
        "history",
        "alarm",
        "operatorLog",
        "operatorlogDB",
        "operatorLogDb",
        "HistoryDB",
        "historydb",
        "historyDb",
        "AlarmDB",
        "ALARMDB",
        "alarmdb",
        "historyDB ",
        " historyDB",
        "history",
        "historyDB1",
        "xhistoryDB",
        "alarmDB\n",
        "DB",
        "historyD",
        "history DB",
        "logDB",
        "operatorDB",
        "alarm_db",
        "operatorLogDB2",
        "OperatorLogDB",
        "OPERATORLOGDB",
        "interface_data_base",
    };
    for (const char *key : keys)
        EXPECT_EQ(library::create(QString::fromLatin1(key)), nullptr) << '"' << key << '"';
    EXPECT_EQ(library::create(QString()), nullptr);
    EXPECT_EQ(library::create(QString("historyDB"_q).append(QChar(0))), nullptr);
    EXPECT_TRUE(log.take().isEmpty());
}

TEST_F(EntryPoints, TheWordsOfTheSupportListAreNoKeys)
{
    for (const QString &kind : library::supportList()) {
        EXPECT_EQ(library::create(kind), nullptr) << qPrintable(kind);
        const library::StorePtr store(library::create(kind + "DB"_q));
        EXPECT_TRUE(store) << qPrintable(kind);
    }
}

TEST_F(EntryPoints, ClosingNullDoesNothing)
{
    library::close(nullptr);
    EXPECT_TRUE(log.take().isEmpty());
}

TEST_F(EntryPoints, ClosingAStoreSaysSoOnceAndClosesItsFile)
{
    for (const char *key : {"historyDB", "alarmDB", "operatorLogDB"}) {
        SCOPED_TRACE(key);
        open(key);
        const sqlite3_int64 opened = sqlite3_memory_used();
        closeStore();
        EXPECT_EQ(log.take(), QStringList{"~interface_data_base"_q});
        EXPECT_LT(sqlite3_memory_used(), opened);

        library::store(key).reset(); // never opened
        EXPECT_EQ(log.take(), QStringList{"~interface_data_base"_q});
    }
}

TEST_F(EntryPoints, StoresOfOneKindAreIndependentAlsoOnTheSameFile)
{
    const library::StorePtr first = library::store("historyDB");
    const library::StorePtr second = library::store("historyDB");
    const library::StorePtr elsewhere = library::store("historyDB");
    ASSERT_NE(first.get(), second.get());
    EXPECT_EQ(first->openDB(path()), 0);
    EXPECT_EQ(second->openDB(path()), 0);
    EXPECT_EQ(elsewhere->openDB(path("other.db")), 0);

    EXPECT_TRUE(first->createTable("T"_q, "N"_q));
    EXPECT_TRUE(second->tableIsExist("T"_q));
    EXPECT_FALSE(elsewhere->tableIsExist("T"_q));

    EXPECT_EQ(first->closeDB(), 0);
    EXPECT_TRUE(second->tableIsExist("T"_q));
}

} // namespace
