// SPDX-License-Identifier: MIT
//
// What holds for every operation alike: opening and closing, how texts enter the SQL, how rows come back.
#include "kind_test.h"

#include <QFile>

#include <climits>
#include <fstream>
#include <vector>

namespace
{

using Store = interface_data_base;
using Rows = QList<QStringList>;

QByteArray bytesOf(const QString &path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

std::string settingOf(sqlite3 *connection, const std::string &name)
{
    sqlite3_stmt *statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(connection, ("PRAGMA " + name).c_str(), -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const std::string value = reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
    sqlite3_finalize(statement);
    return value;
}

class Opening : public KindTest
{
};
INSTANTIATE_TEST_SUITE_P(Kinds, Opening, everyKind(), nameOfKind);

TEST_P(Opening, ReturnsSqlitesCodeAndKeepsTheHandleAlsoWhenItFails)
{
    const library::StorePtr store = library::store(key());
    EXPECT_EQ(store->openDB(path("no folder/store.db")), SQLITE_CANTOPEN);
    EXPECT_EQ(log.take(), QStringList());
    // A closed store would be silent.
    EXPECT_EQ(store->getDataCountOfTable("T"_q), 0);
    EXPECT_EQ(log.take().size(), 1);
    EXPECT_EQ(store->closeDB(), 0);
    EXPECT_EQ(store->getDataCountOfTable("T"_q), 0);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Opening, RunsNothingAndSetsNothing)
{
    PlainConnection(path()).run("PRAGMA journal_mode=persist; create table T(a)"_q);
    const QByteArray before = bytesOf(path());

    const library::StorePtr store = library::store(key());
    trace.take();
    EXPECT_EQ(store->openDB(path()), 0);
    EXPECT_EQ(trace.take(), QStringList());
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(bytesOf(path()), before);

    // The settings that a connection has by itself.
    PlainConnection plain(path("plain.db"));
    sqlite3 *const plainHandle = plain.handle();
    EXPECT_EQ(store->closeDB(), 0);
    EXPECT_EQ(store->openDB(path("plain.db")), 0);
    sqlite3 *const handle = trace.connection();
    ASSERT_NE(handle, plainHandle);
    for (const char *setting : {"busy_timeout", "journal_mode", "synchronous", "foreign_keys", "locking_mode",
                                "cache_size", "temp_store", "wal_autocheckpoint", "auto_vacuum", "encoding"})
        EXPECT_EQ(settingOf(handle, setting), settingOf(plainHandle, setting)) << setting;
}

TEST_P(Opening, MakesAnEmptyFileAtOnce)
{
    Store &store = open();
    EXPECT_EQ(bytesOf(path()), QByteArray());
    EXPECT_TRUE(store.createTable("T"_q, "N"_q));
    EXPECT_NE(bytesOf(path()), QByteArray());
}

TEST_P(Opening, TakesThePathAsUtf8)
{
    const QString file = path() + "-Мощность-功率-ä.db"_q;
    const library::StorePtr store = library::store(key());
    EXPECT_EQ(store->openDB(file), 0);
    EXPECT_TRUE(store->createTable("T"_q, "N"_q));
    EXPECT_TRUE(std::ifstream(file.toUtf8().constData()).is_open()); // QFile would use the locale
    EXPECT_EQ(QByteArray(sqlite3_db_filename(trace.connection(), "main")), file.toUtf8());
}

TEST_P(Opening, ASecondTimeForgetsTheFirstFileWithoutClosingIt)
{
    PlainConnection(path("second.db")).run("create table Second(a)"_q);
    Store &store = open();
    sqlite3 *const first = trace.connection();
    EXPECT_EQ(store.openDB(path("second.db")), 0);
    ASSERT_NE(trace.connection(), first);
    EXPECT_TRUE(store.tableIsExist("Second"_q));

    EXPECT_EQ(sqlite3_exec(first, "create table Alive(a)", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_close(first), SQLITE_OK);
    EXPECT_EQ(store.closeDB(), 0);
    EXPECT_EQ(store.closeDB(), 0);
}

TEST_P(Opening, ClosingTwiceIsTheCloseResultAndThenZero)
{
    Store &store = open();
    EXPECT_EQ(store.closeDB(), 0);
    EXPECT_EQ(store.closeDB(), 0);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Opening, ClosedAlsoWhenSqliteRefusedToClose)
{
    Store &store = open();
    sqlite3 *const handle = trace.connection();
    sqlite3_stmt *unfinished = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(handle, "select 1", -1, &unfinished, nullptr), SQLITE_OK);
    EXPECT_EQ(store.closeDB(), SQLITE_BUSY);
    EXPECT_EQ(store.closeDB(), 0);
    EXPECT_FALSE(store.vacuumSqliteDB());
    EXPECT_EQ(log.take(), QStringList());
    // SQLite kept the connection; nobody else has it any more.
    sqlite3_finalize(unfinished);
    EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
}

TEST_P(Opening, DestroyingSaysSoOnceAndClosesTheFile)
{
    open().createTable("T"_q, "N"_q);
    sqlite3_exec(trace.connection(), "begin exclusive", nullptr, nullptr, nullptr);
    log.take();
    closeStore();
    EXPECT_EQ(log.take(), QStringList{"~interface_data_base"_q});
    EXPECT_EQ(valueOf(path(), "select count(*) from T"_q), "0"_q); // was locked
}

/// The operations of every store that take a table, on tables with all the columns that they read.
class Texts : public KindTest
{
protected:
    void SetUp() override
    {
        QString sql;
        for (const QString &table : {"T"_q, "Tä"_q, "TÃ¤"_q})
            sql += "create table [%1](ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME text,EndDate text,EndTime text);"
                   "insert into [%1] values(NULL,'2024','','');"_q.arg(table);
        prepare(sql);
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, Texts, everyKind(), nameOfKind);

struct TableOperation {
    const char *name;
    bool (*rereads)(Kind); ///< Reads the table name's UTF-8 bytes once more as Latin-1; else takes it as it is.
    void (*call)(Store &store, const QString &table, Rows &rows);
};

bool always(Kind)
{
    return true;
}

bool never(Kind)
{
    return false;
}

const TableOperation tableOperations[] = {
    {"tableIsExist", never, [](Store &s, const QString &t, Rows &) { s.tableIsExist(t); }},
    {"resetID", never, [](Store &s, const QString &t, Rows &) { s.resetID(t); }},
    {"getDataCountOfTable", always, [](Store &s, const QString &t, Rows &) { s.getDataCountOfTable(t); }},
    {"getDataCountOfTableEndDate", always,
     [](Store &s, const QString &t, Rows &) { s.getDataCountOfTableEndDate(t, "2025"_q); }},
    {"getDataCountOfTimeQuery", never,
     [](Store &s, const QString &t, Rows &) { s.getDataCountOfTimeQuery("2023"_q, "2025"_q, t); }},
    {"selectNewDataOfRows", never, [](Store &s, const QString &t, Rows &r) { s.selectNewDataOfRows(t, 1, r); }},
    {"selectOldDataOfRows", never, [](Store &s, const QString &t, Rows &r) { s.selectOldDataOfRows(t, 1, r); }},
    {"selectDataOfRows", always, [](Store &s, const QString &t, Rows &r) { s.selectDataOfRows(t, 0, 1, r, true); }},
    {"selectDataOfDateRows", always,
     [](Store &s, const QString &t, Rows &r) { s.selectDataOfDateRows(t, "2025"_q, 0, 1, r, true); }},
    {"findNoRecoveryAlarm", never, [](Store &s, const QString &t, Rows &r) { s.findNoRecoveryAlarm(r, t); }},
    {"deleteTable", [](Kind kind) { return kind == Alarm; },
     [](Store &s, const QString &t, Rows &) { s.deleteTable(t, "2023"_q); }},
    {"deleteDataForMax", always, [](Store &s, const QString &t, Rows &) { s.deleteDataForMax(1, t); }},
};

TEST_P(Texts, ATableNameIsRereadOrTakenAsItIs)
{
    Store &store = open();
    for (const TableOperation &operation : tableOperations) {
        SCOPED_TRACE(operation.name);
        Rows rows;
        operation.call(store, "Tä"_q, rows);
        const QStringList seen = trace.take();
        ASSERT_EQ(seen.size(), 1);
        const bool rereads = operation.rereads(GetParam());
        EXPECT_EQ(seen.first().contains("'TÃ¤'"_q), rereads) << qPrintable(seen.first());
        EXPECT_EQ(seen.first().contains("'Tä'"_q), !rereads) << qPrintable(seen.first());
    }
    EXPECT_EQ(log.take(), QStringList());
}

// A NUL ends a reread name; in a name that is taken as it is, it ends the whole statement.
TEST_P(Texts, ANulEndsARereadNameButCutsTheStatementOfAnyOther)
{
    Store &store = open();
    const QString name = "T"_q + QChar(0) + "junk"_q;
    for (const TableOperation &operation : tableOperations) {
        SCOPED_TRACE(operation.name);
        Rows rows;
        operation.call(store, name, rows);
        const QStringList seen = trace.take();
        if (operation.rereads(GetParam())) {
            ASSERT_EQ(seen.size(), 1);
            EXPECT_TRUE(seen.first().contains("'T'"_q)) << qPrintable(seen.first());
        } else {
            EXPECT_EQ(seen, QStringList());
        }
    }
}

// Each argument is filled in before the next one: a marker inside an argument is filled by those behind it.
TEST_P(Texts, AMarkerInsideAnArgumentIsFilledByTheNextOne)
{
    prepare("create table [T8](ID integer primary key, DATETIME text)"_q);
    Store &store = open();
    Rows rows;
    store.getDataCountOfTableEndDate("T%2"_q, "8"_q);
    store.selectNewDataOfRows("T%2"_q, 8, rows);
    store.selectOldDataOfRows("T%2"_q, 8, rows);
    store.selectDataOfRows("T%2"_q, 8, 9, rows, true);
    store.selectDataOfDateRows("T%2"_q, "8"_q, 1, 2, rows, false);
    store.selectDataOfDateRows("T8"_q, "%3"_q, 1, 2, rows, true);
    store.deleteDataForMax(8, "T%3"_q);
    const QStringList expected{
        "select count(*) from 'T8' where DATETIME <= '8'"_q,
        "select * from 'T8' order by DATETIME desc limit 0,'8' "_q,
        "select * from 'T8' order by DATETIME asc limit 0,'8' "_q,
        "select * from 'T8' order by DATETIME desc , ID limit 8,9 "_q,
        "select * from 'T8' where DATETIME <= '8' order by DATETIME , ID limit 1,2 "_q,
        "select * from 'T8' where DATETIME <= '1' order by DATETIME desc , ID limit 1,2 "_q,
        "delete from 'T8' where ID in (select ID from T8 order by ID limit 0,8);"_q,
    };
    EXPECT_EQ(trace.take(), expected);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Texts, NothingIsEscaped)
{
    Store &store = open();
    for (const TableOperation &operation : tableOperations) {
        SCOPED_TRACE(operation.name);
        Rows rows;
        operation.call(store, "it's"_q, rows);
        EXPECT_EQ(trace.take(), QStringList());
        EXPECT_EQ(rows, Rows());
        const bool silent = QByteArray(operation.name) == "tableIsExist";
        EXPECT_EQ(log.take().isEmpty(), silent);
    }
}

struct Selection {
    const char *name;
    void (*call)(Store &store, const QString &table, Rows &rows);
};

/// The operations of every store that give rows.
const Selection selections[] = {
    {"selectNewDataOfRows", [](Store &s, const QString &t, Rows &r) { s.selectNewDataOfRows(t, 9, r); }},
    {"selectOldDataOfRows", [](Store &s, const QString &t, Rows &r) { s.selectOldDataOfRows(t, 9, r); }},
    {"selectDataOfRows, newest first",
     [](Store &s, const QString &t, Rows &r) { s.selectDataOfRows(t, 0, 9, r, true); }},
    {"selectDataOfRows", [](Store &s, const QString &t, Rows &r) { s.selectDataOfRows(t, 0, 9, r, false); }},
    {"selectDataOfDateRows, newest first",
     [](Store &s, const QString &t, Rows &r) { s.selectDataOfDateRows(t, "2025"_q, 0, 9, r, true); }},
    {"selectDataOfDateRows",
     [](Store &s, const QString &t, Rows &r) { s.selectDataOfDateRows(t, "2025"_q, 0, 9, r, false); }},
    {"findNoRecoveryAlarm", [](Store &s, const QString &t, Rows &r) { s.findNoRecoveryAlarm(r, t); }},
};

class ResultRows : public KindTest
{
protected:
    static QString columns() { return "ID integer primary key, DATETIME text, EndDate text, EndTime text"_q; }
};
INSTANTIATE_TEST_SUITE_P(Kinds, ResultRows, everyKind(), nameOfKind);

TEST_P(ResultRows, AreAppendedBehindWhatTheListHeld)
{
    prepare("create table T(%1); insert into T values(1,'2024','','')"_q.arg(columns()));
    Store &store = open();
    const QStringList old{"old"_q};
    const QStringList row{"1"_q, "2024"_q, ""_q, ""_q};
    for (const Selection &selection : selections) {
        SCOPED_TRACE(selection.name);
        Rows rows{old};
        selection.call(store, "T"_q, rows);
        EXPECT_EQ(rows, (Rows{old, row}));
        selection.call(store, "T"_q, rows);
        EXPECT_EQ(rows, (Rows{old, row, row}));
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(ResultRows, NoRowsOrAFailureLeaveTheListAsItWas)
{
    prepare("create table T(%1)"_q.arg(columns()));
    Store &store = open();
    const Rows old{{"old"_q, "row"_q}, {"older"_q}};
    for (const Selection &selection : selections) {
        SCOPED_TRACE(selection.name);
        Rows rows = old;
        selection.call(store, "T"_q, rows);
        EXPECT_EQ(rows, old);
        EXPECT_EQ(log.take(), QStringList());
        selection.call(store, "Missing"_q, rows);
        EXPECT_EQ(rows, old);
        EXPECT_NE(log.take(), QStringList());
    }
}

TEST_P(ResultRows, HoldEveryColumnInTableOrderAndNoHeader)
{
    prepare("create table T(c1, EndTime, ID integer, c2, c3, DATETIME, c4, c5, c6, c7, EndDate, c8);"
            "insert into T values('a','',7,1.5,-3,'2024','','e','','g','','h')"_q);
    Store &store = open();
    const Rows expected{{"a"_q, ""_q, "7"_q, "1.5"_q, "-3"_q, "2024"_q, ""_q, "e"_q, ""_q, "g"_q, ""_q, "h"_q}};
    for (const Selection &selection : selections) {
        SCOPED_TRACE(selection.name);
        Rows rows;
        selection.call(store, "T"_q, rows);
        EXPECT_EQ(rows, expected);
    }
}

TEST_P(ResultRows, AnSqlNullIsANullTextAndAnEmptyCellIsNot)
{
    prepare("create table T(%1, a, b); insert into T values(1,'2024','','',NULL,'')"_q.arg(columns()));
    Store &store = open();
    for (const Selection &selection : selections) {
        SCOPED_TRACE(selection.name);
        Rows rows;
        selection.call(store, "T"_q, rows);
        ASSERT_EQ(rows.size(), 1);
        ASSERT_EQ(rows.first().size(), 6);
        EXPECT_TRUE(rows.first().at(4).isNull());
        EXPECT_TRUE(rows.first().at(5).isEmpty());
        EXPECT_FALSE(rows.first().at(5).isNull());
    }
}

TEST_P(ResultRows, CellsAreUtf8)
{
    const QString text = "Überdruck 高压 Давление 🚨 “it's”\n\t\\"_q;
    prepare("create table T(%1, a); insert into T values(1,'2024','','','%2')"_q.arg(columns()).arg(
        QString(text).replace("'"_q, "''"_q)));
    Store &store = open();
    for (const Selection &selection : selections) {
        SCOPED_TRACE(selection.name);
        Rows rows;
        selection.call(store, "T"_q, rows);
        ASSERT_EQ(rows.size(), 1);
        EXPECT_EQ(rows.first().last(), text);
    }
}

TEST_P(ResultRows, ComeAllOfThem)
{
    prepare("create table T(%1); with recursive n(i) as (select 1 union all select i + 1 from n where i < 1000)"
            " insert into T select i, '2024-' || (10000 + i), '', '' from n"_q.arg(columns()));
    Store &store = open();
    Rows rows;
    store.selectDataOfRows("T"_q, 0, INT_MAX, rows, false);
    ASSERT_EQ(rows.size(), 1000);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(rows.at(i), (QStringList{QString::number(i + 1), "2024-%1"_q.arg(10001 + i), ""_q, ""_q}));
}

} // namespace
