// SPDX-License-Identifier: MIT
#include "sqlite_calls.h"
#include "store_test.h"

namespace
{

const QString isThere = "select count(type) from sqlite_master where type='table' and name ='%1'"_q;
const QString alarmTable =
    "create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)"_q;
const QString begin = "begin transaction"_q;
const QString commit = "commit transaction"_q;

class AlarmWrite : public StoreTest
{
protected:
    AlarmWrite() { open("alarmDB"); }

    void makeTable(const QString &table = "AlarmData"_q)
    {
        rowsOf(path(), alarmTable.arg("'"_q + table + "'"_q));
        calls.take();
    }
    void insert(Rows rows, const QString &table = "AlarmData"_q) { store().insertManyDatas(rows, table); }
    /// All cells but the ID.
    Rows stored(const QString &table = "AlarmData"_q)
    {
        return rowsOf(path(), "select LevelID, DATETIME, AlarmObject, AlarmType, CurrentValue, LimitValue, "
                              "AlarmDescription, EndDate, EndTime from '%1' order by ID"_q.arg(table));
    }
    /// One column of the stored rows.
    QStringList column(const char *name, const QString &table = "AlarmData"_q)
    {
        QStringList cells;
        for (const QStringList &row :
             rowsOf(path(), "select %1 from '%2' order by ID"_q.arg(QString::fromLatin1(name)).arg(table)))
            cells.append(row.first());
        return cells;
    }

    SqliteCalls calls;
};

/// An active alarm with one cell exchanged.
QStringList alarmRow(int cell = -1, const QString &text = QString())
{
    QStringList row{"2"_q,    "2024-05-06"_q, "07:08:09"_q,          "Pump 1"_q, "High"_q,
                    "87.5"_q, "80"_q,         "Level above limit"_q, ""_q,       ""_q};
    if (cell >= 0)
        row[cell] = text;
    return row;
}

TEST_F(AlarmWrite, CreateTableMakesATableOfTenColumnsOnce)
{
    EXPECT_TRUE(store().createTable("Alarm2"_q, "ignored"_q));
    EXPECT_EQ(calls.take(), (QStringList{isThere.arg("Alarm2"_q), alarmTable.arg("Alarm2"_q)}));
    EXPECT_EQ(log.take(), QStringList{streamed("alarm Table create success!")});

    EXPECT_FALSE(store().createTable("Alarm2"_q, "ignored"_q));
    EXPECT_EQ(calls.take(), QStringList{isThere.arg("Alarm2"_q)});
    EXPECT_EQ(log.take(), QStringList());

    EXPECT_EQ(rowsOf(path(), "select name, sql from sqlite_master where name not like 'sqlite_%'"_q),
              (Rows{{"Alarm2"_q, alarmTable.arg("Alarm2"_q).replace(0, 12, "CREATE TABLE"_q)}}));
}

TEST_F(AlarmWrite, CreateTableThatFailsSaysSoWithoutTheErrorText)
{
    EXPECT_FALSE(store().createTable("2Alarms"_q, ""_q));
    EXPECT_EQ(calls.take(), (QStringList{isThere.arg("2Alarms"_q), alarmTable.arg("2Alarms"_q)}));
    EXPECT_EQ(log.take(), QStringList{streamed("alarm Table create fail!")});
    EXPECT_EQ(rowsOf(path(), "select name from sqlite_master"_q), Rows());
}

TEST_F(AlarmWrite, CreateTableTakesANonAsciiNameAsItIs)
{
    EXPECT_TRUE(store().createTable("Störung"_q, ""_q));
    EXPECT_FALSE(store().createTable("Störung"_q, ""_q));
    EXPECT_EQ(valueOf(path(), "select name from sqlite_master where name like '%rung'"_q), "Störung"_q);
}

/// One row and the statement that it becomes.
struct Insert {
    const char *name;
    QStringList row;
    QString sql;
};

void PrintTo(const Insert &insert, std::ostream *stream)
{
    *stream << insert.name;
}

QString valuesOf(const char *cells)
{
    return "insert into AlarmData values(NULL,"_q + QString::fromUtf8(cells) + ")"_q;
}

const QChar nul(0);
const Insert inserts[] = {
    {"Ordinary", alarmRow(),
     "insert into AlarmData values(NULL,'2','2024-05-06 07:08:09','Pump 1','High','87.5','80','Level above limit','','')"_q},
    {"TwelveCells",
     alarmRow() << "eleventh"_q
                << "twelfth"_q,
     valuesOf("'2','2024-05-06 07:08:09','Pump 1','High','87.5','80','Level above limit','',''")},
    {"Ended",
     {"1"_q, "2024/05/06"_q, "07:08:09"_q, "a"_q, "b"_q, "c"_q, "d"_q, "e"_q, "2024/05/07"_q, "01/02/03"_q},
     valuesOf("'1','2024-05-06 07:08:09','a','b','c','d','e','2024/05/07','01/02/03'")},
    {"SlashesOfTheStartTimeToo", alarmRow(2, "07/08/09"_q),
     valuesOf("'2','2024-05-06 07-08-09','Pump 1','High','87.5','80','Level above limit','',''")},
    {"AllEmpty",
     {""_q, ""_q, ""_q, ""_q, ""_q, ""_q, ""_q, ""_q, ""_q, ""_q},
     valuesOf("'0',' ','','','','','','',''")},
    {"SlashesOfTheOtherCellsStay",
     {"1"_q, "a"_q, "b"_q, "1/2"_q, "3/4"_q, "5/6"_q, "7/8"_q, "9/10"_q, ""_q, ""_q},
     valuesOf("'1','a b','1/2','3/4','5/6','7/8','9/10','',''")},
    {"AQuoteOfTheObjectIsNotEscaped", alarmRow(3, "it's"_q),
     valuesOf("'2','2024-05-06 07:08:09','it's','High','87.5','80','Level above limit','',''")},
    {"TheDescriptionIsEncodedOnceMore", alarmRow(7, "Füllstand > 80 €"_q),
     "insert into AlarmData values(NULL,'2','2024-05-06 07:08:09','Pump 1','High','87.5','80','"_q +
         QString::fromLatin1("F\xC3\xBCllstand > 80 \xE2\x82\xAC") + "','','')"_q},
    {"TheOtherCellsAreNot",
     {"1"_q, "ä"_q, "ö"_q, "ü"_q, "Ω"_q, "5 €"_q, "😀"_q, "x"_q, "ß"_q, "ÿ"_q},
     valuesOf("'1','ä ö','ü','Ω','5 €','😀','x','ß','ÿ'")},
    {"ALaterMarkerIsFilledByItsCell", alarmRow(3, "%4 and %9"_q),
     valuesOf("'2','2024-05-06 07:08:09','High and ','High','87.5','80','Level above limit','',''")},
    {"AnEarlierMarkerMovesTheCellsBehindIt", alarmRow(3, "%1"_q),
     valuesOf("'2','2024-05-06 07:08:09','High','87.5','80','Level above limit','','','%9'")},
    {"MarkersInSeveralCellsMultiply",
     {"1"_q, "a"_q, "b"_q, "%4"_q.repeated(10), "%5"_q.repeated(10), "v"_q, "d"_q, "e"_q, ""_q, ""_q},
     valuesOf(qPrintable("'1','a b','%1','vvvvvvvvvv','v','d','e','',''"_q.arg("v"_q.repeated(100))))},
    {"MarkersOfTheDescriptionTakeTheEnd",
     {"1"_q, "a"_q, "b"_q, "c"_q, "d"_q, "e"_q, "f"_q, "%8 %9 100%"_q, "date"_q, "time"_q},
     valuesOf("'1','a b','c','d','e','f','date time 100%','date','time'")},
    {"AMarkerOfTheEndDateTakesTheEndTime",
     {"1"_q, "a"_q, "b"_q, "c"_q, "d"_q, "e"_q, "f"_q, "g"_q, "at %9"_q, "time"_q},
     valuesOf("'1','a b','c','d','e','f','g','at time','time'")},
    {"AMarkerOfTheLastCellStays", alarmRow(9, "%1 %9"_q),
     valuesOf("'2','2024-05-06 07:08:09','Pump 1','High','87.5','80','Level above limit','','%1 %9'")},
    {"TheDescriptionEndsAtANul", alarmRow(7, "Level"_q + nul + "x"_q),
     valuesOf("'2','2024-05-06 07:08:09','Pump 1','High','87.5','80','Level','',''")},
    {"TheStatementEndsAtANulOfAnotherCell", alarmRow(3, "Pump"_q + nul + "x"_q),
     "insert into AlarmData values(NULL,'2','2024-05-06 07:08:09','Pump"_q},
};

class AlarmInsert : public AlarmWrite, public ::testing::WithParamInterface<Insert>
{
};

INSTANTIATE_TEST_SUITE_P(Rows, AlarmInsert, ::testing::ValuesIn(inserts),
                         [](const auto &insert) { return insert.param.name; });

TEST_P(AlarmInsert, BecomesThisStatementAndIsItselfUnchanged)
{
    Rows rows{GetParam().row};
    store().insertManyDatas(rows, "Alarm2"_q);
    EXPECT_EQ(calls.take(), (QStringList{begin, GetParam().sql, commit}));
    EXPECT_EQ(rows, Rows{GetParam().row});
    EXPECT_EQ(log.take(), QStringList()); // no table is there: every row is lost, silently
}

TEST_F(AlarmWrite, InsertWritesTheLevelAsANumber)
{
    const QList<QStringList> levels{{"7"_q, "7"_q},    {"-3"_q, "-3"_q},   {" 7 "_q, "7"_q},
                                    {"+7"_q, "7"_q},   {"007"_q, "7"_q},   {"abc"_q, "0"_q},
                                    {""_q, "0"_q},     {"7.5"_q, "0"_q},   {"1e3"_q, "0"_q},
                                    {"0x10"_q, "0"_q}, {"1,000"_q, "0"_q}, {"2147483647"_q, "2147483647"_q},
                                    {"it's"_q, "0"_q}, {"%2"_q, "0"_q},    {"2147483648"_q, "0"_q}};
    for (const QStringList &level : levels) {
        insert({alarmRow(0, level.first())});
        EXPECT_EQ(calls.take().at(1),
                  "insert into AlarmData values(NULL,'"_q + level.last() +
                      "','2024-05-06 07:08:09','Pump 1','High','87.5','80','Level above limit','','')"_q)
            << qPrintable(level.first());
    }
}

TEST_F(AlarmWrite, InsertStoresALevelThatIsNoNumberAs0)
{
    makeTable();
    insert({alarmRow(0, "abc"_q), alarmRow(0, "7"_q)});
    EXPECT_EQ(column("LevelID"), (QStringList{"0"_q, "7"_q}));
    EXPECT_EQ(column("typeof(LevelID)"), (QStringList{"integer"_q, "integer"_q}));
}

TEST_F(AlarmWrite, InsertSkipsARowOfNineCellsSilently)
{
    makeTable();
    QStringList shortRow = alarmRow(3, "second"_q);
    shortRow.removeLast();
    insert({alarmRow(3, "first"_q), shortRow, alarmRow(3, "third"_q), {}});
    EXPECT_EQ(calls.take().size(), 4);
    EXPECT_EQ(column("AlarmObject"), (QStringList{"first"_q, "third"_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmWrite, InsertDropsTheCellsBehindTheTenth)
{
    makeTable();
    insert({alarmRow() << "eleventh"_q
                       << "twelfth"_q});
    EXPECT_EQ(stored(), (Rows{{"2"_q, "2024-05-06 07:08:09"_q, "Pump 1"_q, "High"_q, "87.5"_q, "80"_q,
                               "Level above limit"_q, ""_q, ""_q}}));
}

TEST_F(AlarmWrite, InsertTurnsTheSlashesOfTheStartIntoDashesAndKeepsThoseOfTheEnd)
{
    makeTable();
    QStringList row = alarmRow(1, "2024/05/06"_q);
    row[8] = "2024/05/07"_q;
    insert({row});
    EXPECT_EQ(column("DATETIME"), QStringList{"2024-05-06 07:08:09"_q});
    EXPECT_EQ(column("EndDate"), QStringList{"2024/05/07"_q});
}

TEST_F(AlarmWrite, InsertGoesIntoAlarmDataWhateverTableIsNamed)
{
    makeTable();
    makeTable("Alarm2"_q);
    insert({alarmRow()}, "Alarm2"_q);
    EXPECT_EQ(stored().size(), 1);
    EXPECT_EQ(stored("Alarm2"_q), Rows());
}

TEST_F(AlarmWrite, InsertWithoutAlarmDataLosesEveryRowSilently)
{
    makeTable("Alarm2"_q);
    insert({alarmRow(), alarmRow()}, "Alarm2"_q);
    EXPECT_EQ(calls.take().size(), 4);
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored("Alarm2"_q), Rows());
}

TEST_F(AlarmWrite, InsertStoresAQuoteInTheDescription)
{
    makeTable();
    insert({alarmRow(7, "it's high"_q), alarmRow(7, "'"_q), alarmRow(7, "''"_q)});
    EXPECT_EQ(column("AlarmDescription"), (QStringList{"it's high"_q, "'"_q, "''"_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmWrite, InsertLosesARowWithAQuoteInAnyOtherTextAloneAndSilently)
{
    makeTable();
    for (const int cell : {1, 2, 3, 4, 5, 6, 8, 9})
        insert({alarmRow(3, "before"_q), alarmRow(cell, "it's"_q), alarmRow(3, "behind"_q)});
    QStringList expected;
    for (int i = 0; i < 8; ++i)
        expected << "before"_q
                 << "behind"_q;
    EXPECT_EQ(column("AlarmObject"), expected);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmWrite, InsertStoresTheDescriptionEncodedOnceMoreAndTheOtherTextsAsTheyAre)
{
    makeTable();
    QStringList row = alarmRow(7, "Füllstand"_q);
    row[3] = "Kühler Ω"_q;
    insert({row});
    EXPECT_EQ(column("AlarmDescription"), QStringList{QString::fromLatin1("F\xC3\xBCllstand")});
    EXPECT_EQ(column("AlarmObject"), QStringList{"Kühler Ω"_q});
}

TEST_F(AlarmWrite, InsertOfNoRowsRunsNothing)
{
    insert({});
    EXPECT_EQ(calls.take(), QStringList());
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmWrite, InsertOfShortRowsAloneIsAnEmptyTransaction)
{
    insert({{"1"_q}});
    EXPECT_EQ(calls.take(), (QStringList{begin, commit}));
}

TEST_F(AlarmWrite, InsertAppendsInListOrder)
{
    makeTable();
    Rows rows;
    QStringList objects;
    for (int i = 0; i < 50; ++i) {
        objects.append(QString::number(i));
        rows.append(alarmRow(3, objects.last()));
    }
    insert(rows);
    EXPECT_EQ(column("AlarmObject"), objects);
    insert({alarmRow()});
    EXPECT_EQ(column("ID").last(), "51"_q);
}

TEST_F(AlarmWrite, InsertStoresABareNumberOfTheStartAsANumber)
{
    // The declared type dateTime has numeric affinity; the blank behind the number does not change that.
    makeTable();
    QStringList row = alarmRow(1, "2024"_q);
    row[2] = ""_q;
    insert({row, alarmRow()});
    EXPECT_EQ(column("typeof(DATETIME)"), (QStringList{"integer"_q, "text"_q}));
    EXPECT_EQ(column("DATETIME"), (QStringList{"2024"_q, "2024-05-06 07:08:09"_q}));
}

TEST_F(AlarmWrite, InsertJoinsATransactionThatIsOpenAndCommitsIt)
{
    makeTable();
    Rows none;
    EXPECT_TRUE(store().execSQL({"begin"_q}, none, 0));
    EXPECT_TRUE(store().execSQL({"insert into AlarmData(AlarmObject) values('before')"_q}, none, 0));
    EXPECT_EQ(stored(), Rows());
    insert({alarmRow(3, "batch"_q)});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(column("AlarmObject"), (QStringList{"before"_q, "batch"_q}));
}

TEST_F(AlarmWrite, InsertWhoseCommitFailsSaysSoWithoutTheErrorTextAndStaysOpenForTheNext)
{
    // A reference that is checked at the commit: the rows go in, the commit does not go through.
    rowsOf(path(), "create table Levels(LevelID INTEGER PRIMARY KEY)"_q);
    rowsOf(path(),
           alarmTable.arg("AlarmData"_q)
               .replace("LevelID INTEGER"_q, "LevelID INTEGER references Levels deferrable initially deferred"_q));
    Rows none;
    EXPECT_TRUE(store().execSQL({"pragma foreign_keys = on"_q}, none, 0));
    calls.take();

    insert({alarmRow(3, "first"_q)});
    EXPECT_EQ(calls.take().last(), commit);
    EXPECT_EQ(log.take(), QStringList{streamed("insertManyDatas fail!")});
    EXPECT_EQ(stored(), Rows());

    EXPECT_TRUE(store().execSQL({"insert into Levels values(2)"_q}, none, 0));
    insert({alarmRow(3, "second"_q)});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(column("AlarmObject"), (QStringList{"first"_q, "second"_q}));
}

class AlarmPurge : public AlarmWrite
{
protected:
    AlarmPurge() { makeTable(); }

    /// Adds an alarm, named by its object; the texts as SQL.
    void add(const char *name, const char *start, const char *endDate, const char *endTime)
    {
        rowsOf(path(), "insert into AlarmData(AlarmObject, DATETIME, EndDate, EndTime) values('%1',%2,%3,%4)"_q.arg(
                           QString::fromLatin1(name), QString::fromLatin1(start), QString::fromLatin1(endDate),
                           QString::fromLatin1(endTime)));
        calls.take();
    }
};

TEST_F(AlarmPurge, RemovesWhatIsOldOrEndedAndKeepsTheRest)
{
    add("old and active", "'2023-12-31 23:59:59'", "''", "''");
    add("old and ended", "'2023-12-31 23:59:59'", "'2024-01-02'", "'00:00:00'");
    add("new and ended", "'2025-01-01 00:00:00'", "'2025-01-02'", "'00:00:00'");
    add("new and active", "'2025-01-01 00:00:00'", "''", "''");
    add("at the threshold", "'2024-01-01 00:00:00'", "''", "''");
    add("with an end date alone", "'2025-01-01 00:00:00'", "'2025-01-02'", "''");
    add("with an end time alone", "'2025-01-01 00:00:00'", "''", "'00:00:00'");
    EXPECT_TRUE(store().deleteTable("AlarmData"_q, "2024-01-01 00:00:00"_q));
    EXPECT_EQ(
        calls.take(),
        QStringList{
            "delete from 'AlarmData' where DATETIME < '2024-01-01 00:00:00' or EndDate != '' and EndTime != '';"_q});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(column("AlarmObject"), (QStringList{"new and active"_q, "at the threshold"_q, "with an end date alone"_q,
                                                  "with an end time alone"_q}));
}

TEST_F(AlarmPurge, KeepsNullsAndTakesNumbersAsOld)
{
    add("no start", "NULL", "''", "''");
    add("no end date", "'2025-01-01 00:00:00'", "NULL", "'00:00:00'");
    add("a number", "'2030'", "''", "''"); // stored as a number, in front of every text
    EXPECT_TRUE(store().deleteTable("AlarmData"_q, "2024-01-01 00:00:00"_q));
    EXPECT_EQ(column("AlarmObject"), (QStringList{"no start"_q, "no end date"_q}));
}

TEST_F(AlarmPurge, TakesTheThresholdAsItIs)
{
    add("new and active", "'2024-12-31 00:00:00'", "''", "''");
    EXPECT_TRUE(store().deleteTable("AlarmData"_q, "2024/01/01 ü"_q));
    EXPECT_EQ(
        calls.take(),
        QStringList{"delete from 'AlarmData' where DATETIME < '2024/01/01 ü' or EndDate != '' and EndTime != '';"_q});
    EXPECT_EQ(stored(), Rows()); // "-" sorts in front of "/"
}

TEST_F(AlarmPurge, WorksOnTheTableThatIsNamed)
{
    makeTable("my alarms"_q);
    add("old and active", "'2023-12-31 23:59:59'", "''", "''");
    EXPECT_TRUE(store().deleteTable("my alarms"_q, "2024-01-01 00:00:00"_q));
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored().size(), 1);
}

TEST_F(AlarmPurge, ThatFailsSaysSoWithoutTheErrorText)
{
    EXPECT_FALSE(store().deleteTable("missing"_q, "2024-01-01 00:00:00"_q));
    EXPECT_EQ(log.take(), QStringList{streamed("Delete many data fail")});
    EXPECT_FALSE(store().deleteTable("AlarmData"_q, "it's"_q));
    EXPECT_EQ(log.take(), QStringList{streamed("Delete many data fail")});
}

TEST_F(AlarmPurge, RereadsTheTableName)
{
    const QString reread = QString::fromLatin1("St\xC3\xB6rung");
    EXPECT_FALSE(store().deleteTable("Störung"_q, "t"_q));
    EXPECT_EQ(calls.take(),
              QStringList{"delete from '"_q + reread + "' where DATETIME < 't' or EndDate != '' and EndTime != '';"_q});
    log.take();
    makeTable(reread);
    EXPECT_TRUE(store().deleteTable("Störung"_q, "t"_q));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmPurge, IsFilledOneMarkerAfterTheOther)
{
    EXPECT_FALSE(store().deleteTable("%2"_q, "t"_q));
    EXPECT_EQ(calls.take(), QStringList{"delete from 't' where DATETIME < 't' or EndDate != '' and EndTime != '';"_q});
}

} // namespace
