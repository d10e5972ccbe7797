// SPDX-License-Identifier: MIT
//
// The counts and row selections that work on any table with DATETIME and ID.
#include "kind_test.h"

#include <climits>

namespace
{

using Store = interface_data_base;
using Rows = QList<QStringList>;

const auto missing = "no such table: Missing";

class Counting : public KindTest
{
protected:
    /// Table T with ID and DATETIME, one row for each time, IDs from 1.
    void prepareTimes(const QStringList &times)
    {
        QString sql = "create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME text);"_q;
        for (const QString &time : times)
            sql += "insert into T values(NULL,'%1');"_q.arg(time);
        prepare(sql);
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, Counting, everyKind(), nameOfKind);

/// The IDs, in the order of the rows.
QString idsOf(const Rows &rows)
{
    QStringList ids;
    for (const QStringList &row : rows)
        ids.append(row.first());
    return ids.join(","_q);
}

// getDataCountOfTable

TEST_P(Counting, CountsTheRowsOfATable)
{
    prepareTimes({"2024-01-01"_q, "2024-01-02"_q, "2024-01-03"_q});
    Store &store = open();
    EXPECT_EQ(store.getDataCountOfTable("T"_q), 3);
    EXPECT_EQ(trace.take(), QStringList{"select count(*) from 'T' "_q});
    prepare("delete from T"_q);
    EXPECT_EQ(store.getDataCountOfTable("T"_q), 0);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Counting, ACountOfAMissingTableIsZeroAndSaysWhy)
{
    EXPECT_EQ(open().getDataCountOfTable("Missing"_q), 0);
    EXPECT_EQ(log.take(), QStringList{streamed("database getDataCountOfTable failed;", missing)});
}

// Names can only be pasted; these reach the answer's text.
TEST_P(Counting, ACountIsTheFirstCellReadAsANumber)
{
    Store &store = open();
    const struct {
        const char *cell;
        int count;
    } rows[] = {{"42", 42}, {"-42", -42}, {"'7'", 7},   {"2147483647", INT_MAX}, {"2147483648", 0}, {"'x'", 0},
                {"''", 0},  {"NULL", 0},  {"'7.5'", 0}, {"'0x10'", 0},           {"'010'", 10}};
    for (const auto &row : rows) {
        const QString table = "sqlite_master' where 0 group by name union all select %1 union all select 99 --"_q.arg(
            QString::fromLatin1(row.cell));
        EXPECT_EQ(store.getDataCountOfTable(table), row.count) << row.cell;
    }
    EXPECT_EQ(store.getDataCountOfTable("sqlite_master' where 0 group by name --"_q), 0); // no rows at all
    EXPECT_EQ(log.take(), QStringList());
}

// getDataCountOfTableEndDate

TEST_P(Counting, CountsTheRowsAtOrBeforeTheEnd)
{
    prepareTimes({"2024-01-01 00:00:00"_q, "2024-01-02 00:00:00"_q, "2024-01-02 00:00:01"_q});
    Store &store = open();
    EXPECT_EQ(store.getDataCountOfTableEndDate("T"_q, "2024-01-02 00:00:00"_q), 2);
    EXPECT_EQ(trace.take(), QStringList{"select count(*) from 'T' where DATETIME <= '2024-01-02 00:00:00'"_q});
    EXPECT_EQ(store.getDataCountOfTableEndDate("T"_q, "2023"_q), 0);
    EXPECT_EQ(store.getDataCountOfTableEndDate("T"_q, "2024/01/01"_q), 3); // compared as text, "-" before "/"
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Counting, TheEndOfACountIsPastedAsItIs)
{
    prepareTimes({});
    Store &store = open();
    store.getDataCountOfTableEndDate("T"_q, "Größe/1"_q);
    EXPECT_EQ(trace.take(), QStringList{"select count(*) from 'T' where DATETIME <= 'Größe/1'"_q});
    EXPECT_EQ(store.getDataCountOfTableEndDate("T"_q, "it's"_q), 0);
    EXPECT_EQ(log.take(),
              QStringList{streamed("database getDataCountOfTableEndDate failed;", "near \"s\": syntax error")});
}

TEST_P(Counting, ACountToTheEndOfAMissingTableIsZeroAndSaysWhy)
{
    EXPECT_EQ(open().getDataCountOfTableEndDate("Missing"_q, "2024"_q), 0);
    EXPECT_EQ(log.take(), QStringList{streamed("database getDataCountOfTableEndDate failed;", missing)});
}

// getDataCountOfTimeQuery, which history replaces with its own

class CountOfRange : public Counting
{
};
INSTANTIATE_TEST_SUITE_P(Kinds, CountOfRange, ::testing::Values(Alarm, OperatorLog), nameOfKind);

TEST_P(CountOfRange, WidensTheRangeToWholeSeconds)
{
    prepareTimes({});
    Store &store = open();
    store.getDataCountOfTimeQuery("2024-05-06 07:08:09"_q, "2024/05/06 07:08:10"_q, "T"_q);
    store.getDataCountOfTimeQuery(""_q, "2024-05-06 07:08:10.500"_q, "T"_q);
    EXPECT_EQ(
        trace.take(),
        (QStringList{
            "select count(*) from 'T' where DATETIME Between '2024-05-06 07:08:09.000' and  '2024/05/06 07:08:10.999'"_q,
            "select count(*) from 'T' where DATETIME Between '.000' and  '2024-05-06 07:08:10.500.999'"_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(CountOfRange, OfOneSecondCountsEveryMillisecondOfIt)
{
    prepareTimes({"2024-05-06 07:08:08.999"_q, "2024-05-06 07:08:09.000"_q, "2024-05-06 07:08:09.500"_q,
                  "2024-05-06 07:08:09.999"_q, "2024-05-06 07:08:10.000"_q});
    EXPECT_EQ(open().getDataCountOfTimeQuery("2024-05-06 07:08:09"_q, "2024-05-06 07:08:09"_q, "T"_q), 3);
}

// Without milliseconds a time sorts before the same second's ".000".
TEST_P(CountOfRange, OfTimesWithoutMillisecondsMissesTheStartSecondButNotTheEndSecond)
{
    prepareTimes({"2024-05-06 07:08:09"_q});
    Store &store = open();
    EXPECT_EQ(store.getDataCountOfTimeQuery("2024-05-06 07:08:09"_q, "2024-05-06 07:08:10"_q, "T"_q), 0);
    EXPECT_EQ(store.getDataCountOfTimeQuery("2024-05-06 07:08:08"_q, "2024-05-06 07:08:09"_q, "T"_q), 1);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Counting, ACountOfARangeOfAMissingTableIsZeroAndSaysSoWithoutSqlitesText)
{
    EXPECT_EQ(open().getDataCountOfTimeQuery("2024"_q, "2025"_q, "Missing"_q), 0);
    EXPECT_EQ(log.take(), QStringList{"database getDataCountOfTimeQuery failed\n"_q});
}

TEST_P(Counting, ACountOfAnEmptyRangeIsZeroAndSilent)
{
    prepareTimes({"2024"_q});
    EXPECT_EQ(open().getDataCountOfTimeQuery("2025"_q, "2026"_q, "T"_q), 0);
    EXPECT_EQ(log.take(), QStringList());
}

// selectNewDataOfRows, selectOldDataOfRows

TEST_P(Counting, SelectsTheNewestAndTheOldestRowsByTime)
{
    prepareTimes({"2024-01-03"_q, "2024-01-01"_q, "2024-01-04"_q, "2024-01-02"_q});
    Store &store = open();
    Rows rows;
    store.selectNewDataOfRows("T"_q, 3, rows);
    EXPECT_EQ(idsOf(rows), "3,1,4"_q);
    rows.clear();
    store.selectOldDataOfRows("T"_q, 3, rows);
    EXPECT_EQ(idsOf(rows), "2,4,1"_q);
    EXPECT_EQ(trace.take(), (QStringList{"select * from 'T' order by DATETIME desc limit 0,'3' "_q,
                                         "select * from 'T' order by DATETIME asc limit 0,'3' "_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Counting, TheNumberOfNewestOrOldestRowsIsAQuotedDecimal)
{
    prepareTimes({"2024-01-01"_q, "2024-01-02"_q});
    Store &store = open();
    const struct {
        int count;
        int selected;
    } cases[] = {{0, 0}, {1, 1}, {2, 2}, {1000000, 2}, {INT_MAX, 2}, {-1, 2}, {INT_MIN, 2}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.count);
        Rows newest;
        Rows oldest;
        store.selectNewDataOfRows("T"_q, each.count, newest);
        store.selectOldDataOfRows("T"_q, each.count, oldest);
        EXPECT_EQ(trace.take(),
                  (QStringList{"select * from 'T' order by DATETIME desc limit 0,'%1' "_q.arg(each.count),
                               "select * from 'T' order by DATETIME asc limit 0,'%1' "_q.arg(each.count)}));
        EXPECT_EQ(newest.size(), each.selected);
        EXPECT_EQ(oldest.size(), each.selected);
    }
}

TEST_P(Counting, SelectingTwiceIntoOneListGivesTheRowsTwice)
{
    prepareTimes({"2024-01-01"_q, "2024-01-02"_q});
    Store &store = open();
    Rows rows;
    store.selectNewDataOfRows("T"_q, 2, rows);
    store.selectNewDataOfRows("T"_q, 2, rows);
    EXPECT_EQ(idsOf(rows), "2,1,2,1"_q);
}

TEST_P(Counting, AFailingSelectionOfNewestOrOldestRowsSaysSoWithoutSqlitesText)
{
    Store &store = open();
    Rows rows;
    store.selectNewDataOfRows("Missing"_q, 1, rows);
    EXPECT_EQ(log.take(), QStringList{"database selectNewDataOfRows failed"_q});
    store.selectOldDataOfRows("Missing"_q, 1, rows);
    EXPECT_EQ(log.take(), QStringList{"database selectOldDataOfRows failed"_q});
}

// selectDataOfRows, selectDataOfDateRows

TEST_P(Counting, PagesInTimeOrderAndByIdAmongEqualTimes)
{
    prepareTimes({"2024-01-02"_q, "2024-01-01"_q, "2024-01-02"_q, "2024-01-03"_q, "2024-01-02"_q, "2024-01-04"_q});
    Store &store = open();
    const struct {
        int offset;
        int count;
        const char *newestFirst;
        const char *oldestFirst;
        const char *newestFirstToTheEnd; ///< to 2024-01-03
        const char *oldestFirstToTheEnd;
    } pages[] = {
        {0, 10, "6,4,1,3,5,2", "2,1,3,5,4,6", "4,1,3,5,2", "2,1,3,5,4"},
        {0, 2, "6,4", "2,1", "4,1", "2,1"},
        {1, 3, "4,1,3", "1,3,5", "1,3,5", "1,3,5"},
        {5, 10, "2", "6", "", ""},
        {6, 10, "", "", "", ""},
        {0, 0, "", "", "", ""},
        {4, -1, "5,2", "4,6", "2", "4"},
        {-5, 2, "6,4", "2,1", "4,1", "2,1"},
        {0, INT_MAX, "6,4,1,3,5,2", "2,1,3,5,4,6", "4,1,3,5,2", "2,1,3,5,4"},
        {INT_MAX, INT_MIN, "", "", "", ""},
        {INT_MIN, INT_MIN, "6,4,1,3,5,2", "2,1,3,5,4,6", "4,1,3,5,2", "2,1,3,5,4"},
    };
    for (const auto &page : pages) {
        SCOPED_TRACE(std::to_string(page.offset) + "," + std::to_string(page.count));
        Rows rows[4];
        store.selectDataOfRows("T"_q, page.offset, page.count, rows[0], true);
        store.selectDataOfRows("T"_q, page.offset, page.count, rows[1], false);
        store.selectDataOfDateRows("T"_q, "2024-01-03"_q, page.offset, page.count, rows[2], true);
        store.selectDataOfDateRows("T"_q, "2024-01-03"_q, page.offset, page.count, rows[3], false);
        const QStringList texts{
            "select * from 'T' order by DATETIME desc , ID limit %1,%2 "_q,
            "select * from 'T' order by DATETIME  , ID limit %1,%2 "_q,
            "select * from 'T' where DATETIME <= '2024-01-03' order by DATETIME desc , ID limit %1,%2 "_q,
            "select * from 'T' where DATETIME <= '2024-01-03' order by DATETIME , ID limit %1,%2 "_q};
        QStringList expected;
        for (const QString &text : texts)
            expected.append(text.arg(page.offset).arg(page.count));
        EXPECT_EQ(trace.take(), expected);
        EXPECT_EQ(idsOf(rows[0]), QString::fromLatin1(page.newestFirst));
        EXPECT_EQ(idsOf(rows[1]), QString::fromLatin1(page.oldestFirst));
        EXPECT_EQ(idsOf(rows[2]), QString::fromLatin1(page.newestFirstToTheEnd));
        EXPECT_EQ(idsOf(rows[3]), QString::fromLatin1(page.oldestFirstToTheEnd));
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Counting, APageOfThreeRowsHoldsThemFromOffsetZeroAndNothingFromFive)
{
    prepareTimes({"2024-01-01"_q, "2024-01-02"_q, "2024-01-03"_q});
    Store &store = open();
    Rows rows;
    store.selectDataOfRows("T"_q, 0, 10, rows, false);
    EXPECT_EQ(idsOf(rows), "1,2,3"_q);
    store.selectDataOfRows("T"_q, 5, 10, rows, false);
    EXPECT_EQ(idsOf(rows), "1,2,3"_q);
}

TEST_P(Counting, AFailingPageSaysWhy)
{
    Store &store = open();
    Rows rows;
    store.selectDataOfRows("Missing"_q, 0, 1, rows, true);
    EXPECT_EQ(log.take(), QStringList{streamed("database selectDataOfRows failed", missing)});
    store.selectDataOfRows(""_q, 0, 1, rows, false); // no name is looked for, unlike below
    EXPECT_EQ(log.take(), QStringList{streamed("database selectDataOfRows failed", "no such table: ")});
}

TEST_P(Counting, AFailingPageToAnEndSaysSoThenTheStatementThenWhy)
{
    Store &store = open();
    Rows rows;
    store.selectDataOfDateRows("Missing"_q, "\"2024\""_q, -1, 2, rows, true);
    EXPECT_EQ(
        log.take(),
        (QStringList{
            "database selectDataOfDateRows failed"_q,
            streamed("select * from 'Missing' where DATETIME <= '\"2024\"' order by DATETIME desc , ID limit -1,2 "_q),
            streamed(missing)}));
    store.selectDataOfDateRows("Größe"_q, "it's"_q, 0, 1, rows, false);
    EXPECT_EQ(log.take(),
              (QStringList{
                  "database selectDataOfDateRows failed"_q,
                  streamed("select * from 'GrÃ¶Ã\u009fe' where DATETIME <= 'it's' order by DATETIME , ID limit 0,1 "_q),
                  streamed("near \"s\": syntax error")}));
    EXPECT_EQ(trace.take(), QStringList());
}

TEST_P(Counting, APageToAnEndOfNoTableSaysSoAndRunsNothing)
{
    Store &store = open();
    Rows rows{{"old"_q}};
    for (const QString &table : {QString(), ""_q}) {
        store.selectDataOfDateRows(table, "2024"_q, 0, 1, rows, true);
        store.selectDataOfDateRows(table, "2024"_q, 0, 1, rows, false);
        EXPECT_EQ(log.take(), (QStringList{"database TableName is empty!"_q, "database TableName is empty!"_q}));
    }
    EXPECT_EQ(rows, Rows{{"old"_q}});
    EXPECT_EQ(trace.take(), QStringList());
}

// findNoRecoveryAlarm

TEST_P(Counting, ActiveAlarmsHaveTwoEmptyEndTexts)
{
    prepare("create table T(ID integer primary key, EndDate text, EndTime text);"
            "insert into T values(1,'',''), (2,'2024-01-01','08:00:00'), (3,'2024-01-01',''), (4,'','08:00:00'),"
            " (5,NULL,''), (6,'',NULL), (7,NULL,NULL), (8,' ',''), (9,'','')"_q);
    Rows rows;
    open().findNoRecoveryAlarm(rows, "T"_q);
    EXPECT_EQ(idsOf(rows), "1,9"_q);
    EXPECT_EQ(rows.first(), (QStringList{"1"_q, ""_q, ""_q}));
    EXPECT_EQ(trace.take(), QStringList{"select * from 'T' where EndDate == '' and EndTime == '';"_q});
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Counting, AFailingSearchForActiveAlarmsQuotesSqlitesTextReadAsLatin1)
{
    prepareTimes({});
    Store &store = open();
    Rows rows;
    store.findNoRecoveryAlarm(rows, "T"_q);
    EXPECT_EQ(log.take(), QStringList{streamed("findNoRecoveryAlarm", "no such column: EndDate"_q)});
    store.findNoRecoveryAlarm(rows, "Tä"_q);
    EXPECT_EQ(log.take(), QStringList{streamed("findNoRecoveryAlarm", "no such table: TÃ¤"_q)});
}

} // namespace
