// SPDX-License-Identifier: MIT
#include "sqlite_calls.h"
#include "store_test.h"

namespace
{

class HistoryWrite : public StoreTest
{
protected:
    HistoryWrite() { open("historyDB"); }

    /// The value table "T1", made and forgotten.
    void makeTable()
    {
        ASSERT_TRUE(store().createTable("T1"_q, "N"_q));
        log.take();
        calls.take();
    }
    void insert(Rows rows, const QString &table = "T1"_q) { store().insertManyDatas(rows, table); }
    Rows stored() { return rowsOf(path(), "select DATETIME, Value from T1 order by ID"_q); }
    Rows schema() { return rowsOf(path(), "select name, sql from sqlite_master where name not like 'sqlite_%'"_q); }
    Rows listed() { return rowsOf(path(), "select COLLECTOR, NAME from tb_config order by ID"_q); }

    SqliteCalls calls;
};

const QString isThere = "select count(type) from sqlite_master where type='table' and name ='%1'"_q;
const QString valueTable = "create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q;
const QString configTable = "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)"_q;
const QString begin = "begin transaction"_q;
const QString commit = "commit transaction"_q;

/// The schema text that SQLite keeps of a statement.
QString kept(QString create)
{
    return create.replace(0, 12, "CREATE TABLE"_q);
}

TEST_F(HistoryWrite, CreateTableMakesTheConfigurationTableOnce)
{
    EXPECT_TRUE(store().createTable("tb_config"_q, "ignored"_q));
    EXPECT_EQ(calls.take(), (QStringList{isThere.arg("tb_config"_q), configTable}));
    EXPECT_EQ(log.take(), QStringList{streamed("HisData tb_config create success!")});

    EXPECT_FALSE(store().createTable("tb_config"_q, "ignored"_q));
    EXPECT_EQ(calls.take(), QStringList{isThere.arg("tb_config"_q)});
    EXPECT_EQ(log.take(), QStringList());

    EXPECT_EQ(schema(), (Rows{{"tb_config"_q, kept(configTable)}}));
    EXPECT_EQ(listed(), Rows());
}

TEST_F(HistoryWrite, CreateTableMakesAValueTableOnceAndListsIt)
{
    EXPECT_TRUE(store().createTable("T1"_q, "N"_q));
    EXPECT_EQ(calls.take(), (QStringList{isThere.arg("T1"_q), valueTable.arg("T1"_q), isThere.arg("tb_config"_q),
                                         configTable, begin, "insert into tb_config values(NULL,'T1','N')"_q, commit}));
    EXPECT_EQ(log.take(),
              (QStringList{streamed("HisData Table create success!"), streamed("HisData tb_config create success!")}));

    EXPECT_FALSE(store().createTable("T1"_q, "N"_q));
    EXPECT_EQ(calls.take(), QStringList{isThere.arg("T1"_q)});
    EXPECT_EQ(log.take(), QStringList());

    EXPECT_EQ(schema(), (Rows{{"T1"_q, kept(valueTable.arg("T1"_q))}, {"tb_config"_q, kept(configTable)}}));
    EXPECT_EQ(listed(), (Rows{{"T1"_q, "N"_q}}));
}

TEST_F(HistoryWrite, CreateTableOfASecondValueTableOnlyListsIt)
{
    makeTable();
    EXPECT_TRUE(store().createTable("T2"_q, ""_q));
    EXPECT_EQ(calls.take(), (QStringList{isThere.arg("T2"_q), valueTable.arg("T2"_q), isThere.arg("tb_config"_q), begin,
                                         "insert into tb_config values(NULL,'T2','')"_q, commit}));
    EXPECT_EQ(log.take(), QStringList{streamed("HisData Table create success!")});
    EXPECT_EQ(listed(), (Rows{{"T1"_q, "N"_q}, {"T2"_q, ""_q}}));
}

TEST_F(HistoryWrite, CreateTableThatFailsLogsTheBareErrorTextAndListsNothing)
{
    const QByteArray error = errorOf(path(), "create table 1T(a)"_q);
    calls.take();
    EXPECT_FALSE(store().createTable("1T"_q, "N"_q));
    EXPECT_EQ(calls.take(), (QStringList{isThere.arg("1T"_q), valueTable.arg("1T"_q)}));
    EXPECT_EQ(log.take(), QStringList{streamed("HisData Table create fail!", error.constData())});
    EXPECT_EQ(schema(), Rows());
}

TEST_F(HistoryWrite, CreateTableOfTheConfigurationTableThatFailsLogsTheBareErrorText)
{
    rowsOf(path(), "create view tb_config as select 1"_q); // a view is no table, yet it holds the name
    const QByteArray error = errorOf(path(), "create table tb_config(a)"_q);
    EXPECT_FALSE(store().createTable("tb_config"_q, ""_q));
    EXPECT_EQ(log.take(), QStringList{streamed("HisData Table create fail!", error.constData())});
}

TEST_F(HistoryWrite, CreateTableIsTrueEvenWhenTheTableCannotBeListed)
{
    rowsOf(path(), "create view tb_config as select 1"_q);
    const QByteArray error = errorOf(path(), "create table tb_config(a)"_q);
    EXPECT_TRUE(store().createTable("T1"_q, "N"_q));
    EXPECT_EQ(log.take(), (QStringList{streamed("HisData Table create success!"),
                                       streamed("HisData Table create fail!", error.constData())}));
}

TEST_F(HistoryWrite, CreateTableWithAQuoteInTheConfigurationNameListsNothingSilently)
{
    EXPECT_TRUE(store().createTable("T1"_q, "it's"_q));
    EXPECT_EQ(log.take(),
              (QStringList{streamed("HisData Table create success!"), streamed("HisData tb_config create success!")}));
    EXPECT_EQ(listed(), Rows());
}

TEST_F(HistoryWrite, CreateTableTakesTheConfigurationTableByItsExactNameOnly)
{
    // To the store this is one more value table; to SQLite it is tb_config, so the listing goes into it.
    EXPECT_TRUE(store().createTable("TB_CONFIG"_q, "N"_q));
    EXPECT_EQ(log.take(), (QStringList{streamed("HisData Table create success!"),
                                       streamed("HisData Table create fail!",
                                                errorOf(path(), "create table tb_config(a)"_q).constData())}));
    EXPECT_EQ(schema(), (Rows{{"TB_CONFIG"_q, kept(valueTable.arg("TB_CONFIG"_q))}}));
    EXPECT_EQ(rowsOf(path(), "select DATETIME, Value from TB_CONFIG"_q), (Rows{{"TB_CONFIG"_q, "N"_q}}));
}

TEST_F(HistoryWrite, CreateTableKeepsANonAsciiNameAndListsItEncodedOnceMore)
{
    EXPECT_TRUE(store().createTable("Wärme"_q, "Kühler"_q));
    EXPECT_EQ(calls.take().mid(0, 2), (QStringList{isThere.arg("Wärme"_q), valueTable.arg("Wärme"_q)}));
    EXPECT_EQ(schema().first().first(), "Wärme"_q);
    EXPECT_EQ(listed(), (Rows{{QString::fromLatin1("W\xC3\xA4rme"), QString::fromLatin1("K\xC3\xBChler")}}));
    EXPECT_FALSE(store().createTable("Wärme"_q, "Kühler"_q));
}

/// One row and the statement that it becomes.
struct Insert {
    const char *name;
    QStringList row;
    QString table;
    QString sql;
};

void PrintTo(const Insert &insert, std::ostream *stream)
{
    *stream << insert.name;
}

const QString replaced = "insert into T1 values(NULL,'%1','%2')"_q;
const Insert inserts[] = {
    {"Slashes", {"2024/01/02 03:04:05"_q, "7.5"_q}, "T1"_q, replaced.arg("2024-01-02 03:04:05"_q).arg("7.5"_q)},
    {"Dashes", {"2024-01-02 03:04:05"_q, "-1"_q}, "T1"_q, replaced.arg("2024-01-02 03:04:05"_q).arg("-1"_q)},
    {"EverySlashOfTheTime", {"/a/b/"_q, "x"_q}, "T1"_q, replaced.arg("-a-b-"_q).arg("x"_q)},
    {"SlashesOfTheValueStay", {"2024/01/02"_q, "1/2"_q}, "T1"_q, replaced.arg("2024-01-02"_q).arg("1/2"_q)},
    {"BlanksStay", {" 2024 "_q, "  7  "_q}, "T1"_q, replaced.arg(" 2024 "_q).arg("  7  "_q)},
    {"BothTextsEmpty", {""_q, ""_q}, "T1"_q, "insert into T1 values(NULL,'','')"_q},
    {"NoCell", {}, "T1"_q, "insert into T1 values(NULL,'','')"_q},
    {"OneCell", {"2024/01/02 03:04:05"_q}, "T1"_q, "insert into T1 values(NULL,'','')"_q},
    {"ThreeCells", {"2024/01/02 03:04:05"_q, "7.5"_q, "x"_q}, "T1"_q, "insert into T1 values(NULL,'','')"_q},
    {"AQuoteIsNotEscaped", {"2024"_q, "it's"_q}, "T1"_q, "insert into T1 values(NULL,'2024','it's')"_q},
    {"MarkersOfTheValueStay", {"2024"_q, "%1 %2 %3 100%"_q}, "T1"_q, replaced.arg("2024"_q, "%1 %2 %3 100%"_q)},
    {"ALaterMarkerOfTheTimeIsFilledToo", {"at %3"_q, "7"_q}, "T1"_q, "insert into T1 values(NULL,'at 7','7')"_q},
    {"AnEarlierMarkerOfTheTimeTakesTheValue", {"%1"_q, "7"_q}, "T1"_q, "insert into T1 values(NULL,'7','%3')"_q},
    {"Latin1Stays", {"2024"_q, "21.5 °C ÿ"_q}, "T1"_q, "insert into T1 values(NULL,'2024','21.5 °C ÿ')"_q},
    {"OutsideLatin1IsAQuestionMark", {"Ω"_q, "5 Ω €"_q}, "T1"_q, "insert into T1 values(NULL,'?','5 ? ?')"_q},
    {"OutsideThe16BitsIsTwo", {"2024"_q, "a😀b"_q}, "T1"_q, "insert into T1 values(NULL,'2024','a??b')"_q},
    {"ATextEndsAtANul",
     {"2024"_q + QChar(0) + "x"_q, "7"_q + QChar(0) + "x"_q},
     "T1"_q,
     "insert into T1 values(NULL,'2024','7')"_q},
    {"ALatin1Table", {"2024"_q, "7"_q}, "Wärme"_q, "insert into Wärme values(NULL,'2024','7')"_q},
    {"ATableOutsideLatin1", {"2024"_q, "7"_q}, "Ωm"_q, "insert into ?m values(NULL,'2024','7')"_q},
    {"MarkersOfTheTableAreFilled", {"2024"_q, "7"_q}, "T%3"_q, "insert into T7 values(NULL,'2024','7')"_q},
    {"SlashesOfTheTableStay", {"2024"_q, "7"_q}, "T1/2"_q, "insert into T1/2 values(NULL,'2024','7')"_q},
};

class HistoryInsert : public HistoryWrite, public ::testing::WithParamInterface<Insert>
{
};

INSTANTIATE_TEST_SUITE_P(Rows, HistoryInsert, ::testing::ValuesIn(inserts),
                         [](const auto &insert) { return insert.param.name; });

TEST_P(HistoryInsert, BecomesThisStatementAndIsItselfUnchanged)
{
    Rows rows{GetParam().row};
    store().insertManyDatas(rows, GetParam().table);
    EXPECT_EQ(calls.take(), (QStringList{begin, GetParam().sql, commit}));
    EXPECT_EQ(rows, Rows{GetParam().row});
    EXPECT_EQ(log.take(), QStringList()); // no table is there: every row is lost, silently
}

TEST_F(HistoryWrite, InsertTurnsTheSlashesOfTheTimeIntoDashes)
{
    makeTable();
    insert({{"2024/01/02 03:04:05"_q, "7.5"_q}});
    EXPECT_EQ(stored(), (Rows{{"2024-01-02 03:04:05"_q, "7.5"_q}}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryWrite, InsertStoresARowOfAnotherWidthWithBothTextsEmpty)
{
    makeTable();
    insert({{"2024/01/02 03:04:05"_q}, {"2024/01/02 03:04:05"_q, "7.5"_q, "x"_q}, {}});
    EXPECT_EQ(stored(), (Rows{{""_q, ""_q}, {""_q, ""_q}, {""_q, ""_q}}));
}

TEST_F(HistoryWrite, InsertLosesARowWithAQuoteAloneAndSilently)
{
    makeTable();
    insert({{"2024-01-01 00:00:00"_q, "1"_q}, {"2024-01-01 00:00:01"_q, "it's"_q}, {"2024-01-01 00:00:02"_q, "3"_q}});
    EXPECT_EQ(stored(), (Rows{{"2024-01-01 00:00:00"_q, "1"_q}, {"2024-01-01 00:00:02"_q, "3"_q}}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryWrite, InsertOfNoRowsStillRunsItsTransaction)
{
    insert({});
    EXPECT_EQ(calls.take(), (QStringList{begin, commit}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryWrite, InsertRunsOneStatementARowInListOrder)
{
    makeTable();
    Rows rows;
    QStringList statements{begin};
    for (int i = 0; i < 50; ++i) {
        rows.append({"2024-01-01 00:00:00"_q, QString::number(i)});
        statements.append(replaced.arg("2024-01-01 00:00:00"_q).arg(i));
    }
    insert(rows);
    EXPECT_EQ(calls.take(), statements + QStringList{commit});
    EXPECT_EQ(stored(), rows);
}

TEST_F(HistoryWrite, InsertAppends)
{
    makeTable();
    insert({{"2024-01-01 00:00:00"_q, "1"_q}});
    insert({{"2024-01-01 00:00:00"_q, "1"_q}});
    EXPECT_EQ(rowsOf(path(), "select ID, Value from T1"_q), (Rows{{"1"_q, "1"_q}, {"2"_q, "1"_q}}));
}

TEST_F(HistoryWrite, InsertStoresLatin1TextsAndQuestionMarks)
{
    makeTable();
    insert({{"2024-01-01 00:00:00"_q, "21.5 °C"_q}, {"2024-01-01 00:00:01"_q, "5 Ω"_q}});
    EXPECT_EQ(stored(), (Rows{{"2024-01-01 00:00:00"_q, "21.5 °C"_q}, {"2024-01-01 00:00:01"_q, "5 ?"_q}}));
}

TEST_F(HistoryWrite, InsertStoresABareNumberOfTheTimeAsANumber)
{
    // The declared type dateTime has numeric affinity; a value is text.
    makeTable();
    insert({{"2024"_q, "1"_q}, {"2024.5"_q, "1"_q}, {"007"_q, "1"_q}, {"2024-01-01"_q, "1"_q}, {""_q, "1"_q}});
    EXPECT_EQ(rowsOf(path(), "select typeof(DATETIME), DATETIME, typeof(Value) from T1 order by ID"_q),
              (Rows{{"integer"_q, "2024"_q, "text"_q},
                    {"real"_q, "2024.5"_q, "text"_q},
                    {"integer"_q, "7"_q, "text"_q},
                    {"text"_q, "2024-01-01"_q, "text"_q},
                    {"text"_q, ""_q, "text"_q}}));
}

TEST_F(HistoryWrite, InsertJoinsATransactionThatIsOpenAndCommitsIt)
{
    makeTable();
    Rows none;
    EXPECT_TRUE(store().execSQL({"begin"_q}, none, 0));
    EXPECT_TRUE(store().execSQL({"insert into T1 values(NULL,'before','1')"_q}, none, 0));
    EXPECT_EQ(stored(), Rows());
    insert({{"batch"_q, "2"_q}});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), (Rows{{"before"_q, "1"_q}, {"batch"_q, "2"_q}}));
}

TEST_F(HistoryWrite, InsertWhoseCommitFailsSaysSoWithoutTheErrorTextAndStaysOpenForTheNext)
{
    // A reference that is checked at the commit: the rows go in, the commit does not go through.
    rowsOf(path(), "create table Allowed(Value text primary key);"
                   "create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,"
                   "Value text references Allowed deferrable initially deferred)"_q);
    Rows none;
    EXPECT_TRUE(store().execSQL({"pragma foreign_keys = on"_q}, none, 0));
    calls.take();

    insert({{"first"_q, "7"_q}});
    EXPECT_EQ(calls.take(), (QStringList{begin, "insert into T1 values(NULL,'first','7')"_q, commit}));
    EXPECT_EQ(log.take(), QStringList{streamed("insertManyDatas fail")});
    EXPECT_EQ(stored(), Rows());

    EXPECT_TRUE(store().execSQL({"insert into Allowed values('7')"_q}, none, 0));
    insert({{"second"_q, "7"_q}});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), (Rows{{"first"_q, "7"_q}, {"second"_q, "7"_q}}));
}

} // namespace
