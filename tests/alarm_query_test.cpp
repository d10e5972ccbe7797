// SPDX-License-Identifier: MIT
//
// The alarms' queries: the statements, the answers, the records, the failures. Long because every operation has its
// own.
#include "sqlite_calls.h"
#include "store_test.h"

#include <climits>
#include <cmath>
#include <limits>

namespace
{

using Alarms = QList<AlarmData>;

QDateTime localTime(int year, int month, int day, int hour, int minute, int second)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second));
}

class AlarmQuery : public StoreTest
{
protected:
    AlarmQuery() : file(path())
    {
        file.run(
            "pragma synchronous = off; create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,"
            "AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,"
            "EndTime text)"_q);
        AlarmData held;
        held.alarmObject = "held before"_q;
        alarms.append(held);
        open("alarmDB");
        forget();
    }

    /// Adds an alarm, named by its object.
    void add(const QString &name, const QString &start, const QString &endDate = ""_q, const QString &endTime = ""_q)
    {
        file.run("insert into AlarmData(AlarmObject, DATETIME, EndDate, EndTime) values('%1','%2','%3','%4')"_q.arg(
            name, start, endDate, endTime));
    }
    /// Adds 50 active alarms, a second apart; their names count from 1 in time order and against the IDs.
    void add50()
    {
        file.run("with recursive n(i) as (select 1 union all select i + 1 from n where i < 50) insert into AlarmData "
                 "select 51 - i, 2, datetime('2024-01-01 00:00:00', '+' || i || ' seconds'), i, '', '', '', '', '', '' "
                 "from n"_q);
    }
    /// Makes AlarmData anew, without declared types, from the cells of its only row; as SQL.
    void relay(const QStringList &cells, const QString &columns = "ID, LevelID, DATETIME, AlarmObject, AlarmType, "
                                                                  "CurrentValue, LimitValue, AlarmDescription, "
                                                                  "EndDate, EndTime"_q)
    {
        file.run("drop table AlarmData; create table AlarmData(%1); insert into AlarmData values(%2)"_q.arg(
            columns, cells.join(", "_q)));
        forget();
    }
    /// One row that is active by its columns' names and ended by its cells: only another layout can be both.
    void relayEndedAt(const QString &clock)
    {
        relay({"1"_q, "2"_q, "'2024-05-06 07:08:09'"_q, "''"_q, "''"_q, "''"_q, "''"_q, "''"_q, "'2024-05-07'"_q,
               "'%1'"_q.arg(clock)},
              "a, b, DATETIME, c, d, EndDate, EndTime, e, f, g"_q);
    }
    void forget()
    {
        log.take();
        trace.take();
        calls.take();
    }
    /// The names of the alarms behind the one that the list held before.
    QStringList names() const
    {
        QStringList texts;
        for (const AlarmData &alarm : alarms.mid(1))
            texts.append(alarm.alarmObject);
        return texts;
    }
    static QStringList numbers(int first, int last)
    {
        QStringList texts;
        for (int i = first; i != last; i += first < last ? 1 : -1)
            texts.append(QString::number(i));
        return texts << QString::number(last);
    }
    QStringList namesByTime(const QString &start, const QString &end, int page, int pageSize)
    {
        Rows result{{"held before"_q}};
        store().findDataByTime(start, end, page, pageSize, result, "AlarmData"_q);
        QStringList texts;
        for (const QStringList &row : result)
            texts.append(row.value(3));
        return texts;
    }
    /// The record of a row that has this cell in this column.
    AlarmData recordOf(int column, const QString &cell)
    {
        QStringList cells{"1"_q,  "2"_q, "'2024-05-06 07:08:09'"_q, "''"_q, "''"_q, "''"_q, "'80'"_q, "''"_q,
                          "''"_q, "''"_q};
        cells[column] = cell;
        relay(cells);
        alarms.clear();
        store().getAllDataPage("AlarmData"_q, &alarms, ""_q, 0, 0, 0);
        EXPECT_EQ(alarms.size(), 1);
        EXPECT_EQ(log.take(), QStringList());
        return alarms.value(0);
    }

    SqliteCalls calls;
    PlainConnection file;
    Alarms alarms;
};

/// A query that gives records: how it is called, its statement on AlarmData, what it logs on a failure.
struct RecordQuery {
    const char *name;
    void (*run)(interface_data_base &store, const QString &table, void *list);
    QString sql;
    QStringList (*message)(const QString &error);
};

void PrintTo(const RecordQuery &query, std::ostream *stream)
{
    *stream << query.name;
}

const RecordQuery recordQueries[] = {
    {"GetAllDataPage",
     [](interface_data_base &store, const QString &table, void *list) {
         store.getAllDataPage(table, list, "desc"_q, 1, 2, 3);
     },
     "select * from 'AlarmData' where EndDate = '' and EndTime = '' order by DATETIME desc"_q,
     [](const QString &) { return QStringList{"database getAllData failed\n"_q}; }},
    {"FindDataOfTime",
     [](interface_data_base &store, const QString &table, void *list) {
         store.findDataOfTime("2024/01/01 00:00:00"_q, "2024/12/31 23:59:59"_q, list, table, "asc"_q);
     },
     "select * from AlarmData where DATETIME Between '2024-01-01 00:00:00' and  '2024-12-31 23:59:59' and EndDate = '' and EndTime = '' order by DATETIME asc;"_q,
     [](const QString &error) { return QStringList{streamed("findDataOfTime", error)}; }},
    {"FindDataOfTimePage",
     [](interface_data_base &store, const QString &table, void *list) {
         store.findDataOfTimePage("2024/01/01 00:00:00"_q, "2024/12/31 23:59:59"_q, list, table, "desc"_q, 0, 8, 7);
     },
     "select * from AlarmData where DATETIME Between '2024-01-01 00:00:00' and  '2024-12-31 23:59:59' and EndDate = '' and EndTime = '' order by DATETIME desc limit 0, 8;"_q,
     [](const QString &error) { return QStringList{streamed("findDataOfTimePage", error)}; }},
};

class AlarmRecordQuery : public AlarmQuery, public ::testing::WithParamInterface<RecordQuery>
{
protected:
    void query(const QString &table = "AlarmData"_q) { GetParam().run(store(), table, &alarms); }
};

INSTANTIATE_TEST_SUITE_P(Queries, AlarmRecordQuery, ::testing::ValuesIn(recordQueries),
                         [](const auto &query) { return query.param.name; });

TEST_P(AlarmRecordQuery, RunsThisStatement)
{
    query();
    EXPECT_EQ(trace.take(), QStringList{GetParam().sql});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(alarms.size(), 1);
}

TEST_P(AlarmRecordQuery, AppendsBehindTheThreeRecordsThatTheListHolds)
{
    alarms << alarms.first() << alarms.first();
    add("new"_q, "2024-05-06 07:08:09"_q);
    query();
    ASSERT_EQ(alarms.size(), 4);
    EXPECT_EQ(alarms.first().alarmObject, "held before"_q);
    EXPECT_EQ(alarms.last().alarmObject, "new"_q);
}

TEST_P(AlarmRecordQuery, FillsEachFieldFromItsCell)
{
    relay({"1"_q, "3"_q, "'2024-05-06 07:08:09'"_q, "'Kühler 1'"_q, "'High'"_q, "'87.5'"_q, "'80.5'"_q,
           "'Füllstand €'"_q, "''"_q, "''"_q});
    query();
    ASSERT_EQ(alarms.size(), 2);
    const AlarmData &alarm = alarms.last();
    EXPECT_EQ(alarm.level, 3);
    EXPECT_EQ(alarm.limitValue, 80.5);
    EXPECT_EQ(alarm.description, "Füllstand €"_q);
    EXPECT_EQ(alarm.alarmObject, "Kühler 1"_q);
    EXPECT_EQ(alarm.alarmType, "High"_q);
    EXPECT_EQ(alarm.currentValue, "87.5"_q);
    EXPECT_TRUE(alarm.extraText.isEmpty());
    EXPECT_EQ(alarm.startTime, localTime(2024, 5, 6, 7, 8, 9));
    EXPECT_FALSE(alarm.endTime.isValid());
}

TEST_P(AlarmRecordQuery, FillsFromNullCellsAnEmptyRecord)
{
    relay({"NULL"_q, "NULL"_q, "'2024-05'"_q, "NULL"_q, "NULL"_q, "NULL"_q, "NULL"_q, "NULL"_q, "''"_q, "''"_q});
    query();
    ASSERT_EQ(alarms.size(), 2);
    const AlarmData &alarm = alarms.last();
    EXPECT_EQ(alarm.level, 0);
    EXPECT_EQ(alarm.limitValue, 0);
    EXPECT_EQ(QStringList() << alarm.description << alarm.alarmObject << alarm.alarmType << alarm.currentValue
                            << alarm.extraText,
              (QStringList{QString(), QString(), QString(), QString(), QString()}));
    EXPECT_FALSE(alarm.startTime.isValid());
    EXPECT_FALSE(alarm.endTime.isValid());
}

TEST_P(AlarmRecordQuery, JoinsTheEndTimeFromTheLastTwoCells)
{
    relayEndedAt("01:02:03"_q);
    query();
    ASSERT_EQ(alarms.size(), 2);
    EXPECT_EQ(alarms.last().startTime, localTime(2024, 5, 6, 7, 8, 9));
    EXPECT_EQ(alarms.last().endTime, localTime(2024, 5, 7, 1, 2, 3));
}

TEST_P(AlarmRecordQuery, AnEndWithOneDigitWhereTwoBelongIsInvalid)
{
    relayEndedAt("01:02:3"_q);
    query();
    ASSERT_EQ(alarms.size(), 2);
    EXPECT_FALSE(alarms.last().endTime.isValid());
}

TEST_P(AlarmRecordQuery, GivesActiveAlarmsAlone)
{
    add("active"_q, "2024-05-06 07:08:09"_q);
    add("ended"_q, "2024-05-06 07:08:09"_q, "2024-05-07"_q, "01:02:03"_q);
    add("with an end date alone"_q, "2024-05-06 07:08:09"_q, "2024-05-07"_q);
    add("with an end time alone"_q, "2024-05-06 07:08:09"_q, ""_q, "01:02:03"_q);
    file.run("insert into AlarmData(AlarmObject, DATETIME) values('ends are NULL','2024-05-06 07:08:09')"_q);
    query();
    EXPECT_EQ(names(), QStringList{"active"_q});
}

TEST_P(AlarmRecordQuery, GivesNothingAndSaysNothingWhenThereAreNotTenColumns)
{
    add("eleven cells"_q, "2024-05-06 07:08:09"_q);
    file.run("alter table AlarmData add column Extra text"_q);
    query();
    EXPECT_EQ(alarms.size(), 1);
    relay({"'2024-05-06 07:08:09'"_q, "''"_q, "''"_q, "1"_q, "2"_q, "3"_q, "4"_q, "5"_q, "6"_q},
          "DATETIME, EndDate, EndTime, a, b, c, d, e, f"_q);
    query();
    EXPECT_EQ(alarms.size(), 1);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(AlarmRecordQuery, LogsItsMessageAndAppendsNothingOnAFailure)
{
    query("missing"_q);
    EXPECT_EQ(log.take(), GetParam().message("no such table: missing"_q));
    EXPECT_EQ(trace.take(), QStringList());
    EXPECT_EQ(alarms.size(), 1);
}

TEST_P(AlarmRecordQuery, ReadsTheErrorTextAsLatin1)
{
    query("fühler"_q);
    EXPECT_EQ(log.take(), GetParam().message(QString::fromLatin1("no such table: f\xC3\xBChler")));
}

TEST_P(AlarmRecordQuery, FailsWithAQuoteInTheTableName)
{
    query("it's"_q);
    const QStringList texts = calls.take();
    ASSERT_EQ(texts.size(), 1);
    EXPECT_EQ(log.take(), GetParam().message(QString::fromLatin1(errorOf(path(), texts.first()))));
    EXPECT_EQ(alarms.size(), 1);
}

TEST_F(AlarmQuery, TheLevelIsAnIntOr0)
{
    const QList<QPair<QString, int>> levels{{"7"_q, 7},
                                            {"'7'"_q, 7},
                                            {"-3"_q, -3},
                                            {"' 7 '"_q, 7},
                                            {"'+7'"_q, 7},
                                            {"'007'"_q, 7},
                                            {"x'37'"_q, 7},
                                            {"'abc'"_q, 0},
                                            {"''"_q, 0},
                                            {"NULL"_q, 0},
                                            {"7.0"_q, 0},
                                            {"'7.5'"_q, 0},
                                            {"'1e3'"_q, 0},
                                            {"'0x10'"_q, 0},
                                            {"'1,000'"_q, 0},
                                            {"2147483648"_q, 0},
                                            {"-2147483649"_q, 0},
                                            {"'7 8'"_q, 0},
                                            {"2147483647"_q, INT_MAX},
                                            {"-2147483648"_q, INT_MIN}};
    for (const auto &level : levels)
        EXPECT_EQ(recordOf(1, level.first).level, level.second) << qPrintable(level.first);
}

TEST_F(AlarmQuery, TheLimitIsANumberOr0)
{
    const double infinity = std::numeric_limits<double>::infinity();
    const QList<QPair<QString, double>> limits{
        {"'80'"_q, 80},   {"80.5"_q, 80.5},  {"'-80.5'"_q, -80.5}, {"' 87.5 '"_q, 87.5},  {"'1e3'"_q, 1000},
        {"'.5'"_q, 0.5},  {"'7.'"_q, 7},     {"'+7'"_q, 7},        {"'inf'"_q, infinity}, {"'-inf'"_q, -infinity},
        {"'1e400'"_q, 0}, {"'-1e400'"_q, 0}, {"'abc'"_q, 0},       {"''"_q, 0},           {"NULL"_q, 0},
        {"'87,5'"_q, 0},  {"'1,000'"_q, 0},  {"'0x10'"_q, 0},      {"'1.5f'"_q, 0},       {"'80 bar'"_q, 0}};
    for (const auto &limit : limits)
        EXPECT_EQ(recordOf(6, limit.first).limitValue, limit.second) << qPrintable(limit.first);
    EXPECT_TRUE(std::isnan(recordOf(6, "'nan'"_q).limitValue));
}

TEST_F(AlarmQuery, TheCurrentValueStaysText)
{
    EXPECT_EQ(recordOf(5, "' 087.50 '"_q).currentValue, " 087.50 "_q);
    EXPECT_EQ(recordOf(5, "1.50"_q).currentValue, "1.5"_q);
}

TEST_F(AlarmQuery, TheStartIsATimeOfExactlyThisForm)
{
    EXPECT_EQ(recordOf(2, "'2024-02-29 23:59:59'"_q).startTime, localTime(2024, 2, 29, 23, 59, 59));
    for (const char *text : {"'2023-02-29 00:00:00'", "'2024-13-01 00:00:00'", "'2024-05-06 24:00:00'",
                             "'2024-05-06 07:08:60'", "'2024/05/06 07:08:09'", "'2024-05-06  07:08:09'",
                             "' 2024-05-06 07:08:09'", "'2024-05-06 07:08:09 '", "'2024-05-06 07:08:09.000'",
                             "'2024-05-06T07:08:09'", "'2024-05-06'", "'24-05-06 07:08:09'", "2024", "''", "NULL"})
        EXPECT_FALSE(recordOf(2, QString::fromLatin1(text)).startTime.isValid()) << text;
}

TEST_F(AlarmQuery, ARecordWithAnInvalidTimeDoesNotEndTheOutput)
{
    add("first"_q, "2024-01-01 00:00:00"_q);
    add("no time"_q, "2024-01-02"_q);
    add("third"_q, "2024-01-03 00:00:00"_q);
    store().getAllDataPage("AlarmData"_q, &alarms, "asc"_q, 0, 0, 0);
    EXPECT_EQ(names(), (QStringList{"first"_q, "no time"_q, "third"_q}));
}

TEST_F(AlarmQuery, GetAllDataPageDoesNotPage)
{
    add50();
    store().getAllDataPage("AlarmData"_q, &alarms, "asc"_q, 5, 10, 3);
    EXPECT_EQ(names(), numbers(1, 50));
    alarms = alarms.mid(0, 1);
    store().getAllDataPage("AlarmData"_q, &alarms, "desc"_q, -1, INT_MIN, INT_MAX);
    EXPECT_EQ(names(), numbers(50, 1));
}

TEST_F(AlarmQuery, TheOrderIsPastedAsItIs)
{
    add50();
    forget();
    for (const char *order : {"", "ASC", "aSc", "DESC", "desc, ID"}) {
        const QString text = QString::fromLatin1(order);
        const QStringList expected = text.startsWith("d"_q, Qt::CaseInsensitive) ? numbers(50, 1) : numbers(1, 50);
        alarms = alarms.mid(0, 1);
        store().getAllDataPage("AlarmData"_q, &alarms, text, 0, 0, 0);
        EXPECT_EQ(names(), expected) << order;
        alarms = alarms.mid(0, 1);
        store().findDataOfTime("2024-"_q, "2025-"_q, &alarms, "AlarmData"_q, text);
        EXPECT_EQ(names(), expected) << order;
        alarms = alarms.mid(0, 1);
        store().findDataOfTimePage("2024-"_q, "2025-"_q, &alarms, "AlarmData"_q, text, 0, 50, 0);
        EXPECT_EQ(names(), expected) << order;
        EXPECT_EQ(
            trace.take(),
            (QStringList{
                "select * from 'AlarmData' where EndDate = '' and EndTime = '' order by DATETIME "_q + text,
                "select * from AlarmData where DATETIME Between '2024-' and  '2025-' and EndDate = '' and EndTime = '' order by DATETIME "_q +
                    text + ";"_q,
                "select * from AlarmData where DATETIME Between '2024-' and  '2025-' and EndDate = '' and EndTime = '' order by DATETIME "_q +
                    text + " limit 0, 50;"_q}))
            << order;
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmQuery, AnOrderThatIsNoneFails)
{
    store().getAllDataPage("AlarmData"_q, &alarms, "up"_q, 0, 0, 0);
    store().findDataOfTime("a"_q, "b"_q, &alarms, "AlarmData"_q, "up"_q);
    store().findDataOfTimePage("a"_q, "b"_q, &alarms, "AlarmData"_q, "up"_q, 0, 1, 0);
    const QString error = "near \"up\": syntax error"_q;
    EXPECT_EQ(log.take(), (QStringList{"database getAllData failed\n"_q, streamed("findDataOfTime", error),
                                       streamed("findDataOfTimePage", error)}));
    EXPECT_EQ(alarms.size(), 1);
}

TEST_F(AlarmQuery, AQuoteInABoundFails)
{
    Rows result;
    store().findDataByTime("it's"_q, "b"_q, 0, 1, result, "AlarmData"_q);
    store().findDataOfTime("it's"_q, "b"_q, &alarms, "AlarmData"_q, "asc"_q);
    store().findDataOfTimePage("a"_q, "it's"_q, &alarms, "AlarmData"_q, "asc"_q, 0, 1, 0);
    const QStringList messages = log.take();
    ASSERT_EQ(messages.size(), 3);
    EXPECT_TRUE(messages.at(0).startsWith("findDataByTime \""_q));
    EXPECT_TRUE(messages.at(1).startsWith("findDataOfTime \""_q));
    EXPECT_TRUE(messages.at(2).startsWith("findDataOfTimePage \""_q));
    EXPECT_EQ(alarms.size(), 1);
}

TEST_F(AlarmQuery, RangesIncludeBothEndsAndTakeSlashes)
{
    add("before"_q, "2023-12-31 23:59:59"_q);
    add("start"_q, "2024-01-01 00:00:00"_q);
    add("end"_q, "2024-01-31 23:59:59"_q);
    add("behind"_q, "2024-02-01 00:00:00"_q);
    const QStringList expected{"start"_q, "end"_q};
    for (const char *separator : {"/", "-"}) {
        const QString start = "2024-01-01 00:00:00"_q.replace("-"_q, QString::fromLatin1(separator));
        const QString end = "2024-01-31 23:59:59"_q.replace("-"_q, QString::fromLatin1(separator));
        EXPECT_EQ(namesByTime(start, end, 0, 10), expected) << separator;
        alarms = alarms.mid(0, 1);
        store().findDataOfTime(start, end, &alarms, "AlarmData"_q, "asc"_q);
        EXPECT_EQ(names(), expected) << separator;
        alarms = alarms.mid(0, 1);
        store().findDataOfTimePage(start, end, &alarms, "AlarmData"_q, "asc"_q, 0, 10, 0);
        EXPECT_EQ(names(), expected) << separator;
    }
}

TEST_F(AlarmQuery, FindDataOfTimePageSkipsTheOffsetItself)
{
    add50();
    add("ended"_q, "2024-01-01 00:00:03"_q, "2024-01-02"_q, "00:00:00"_q);
    const auto page = [this](int offset, int count, const char *order) {
        alarms = alarms.mid(0, 1);
        store().findDataOfTimePage("2024-01-01 00:00:01"_q, "2024-01-01 00:00:40"_q, &alarms, "AlarmData"_q,
                                   QString::fromLatin1(order), offset, count, 2);
        return names();
    };
    EXPECT_EQ(page(20, 10, "asc"), numbers(21, 30));
    EXPECT_EQ(page(2, 10, "asc"), numbers(3, 12));
    EXPECT_EQ(page(2, 10, "desc"), numbers(38, 29));
    EXPECT_EQ(page(35, 10, "asc"), numbers(36, 40));
}

TEST_F(AlarmQuery, FindDataOfTimePageTakesEveryNumberInDecimal)
{
    store().findDataOfTimePage("a"_q, "b"_q, &alarms, "AlarmData"_q, ""_q, -10, -5, -1);
    store().findDataOfTimePage("a"_q, "b"_q, &alarms, "AlarmData"_q, "desc"_q, 1000000, INT_MAX, 5);
    EXPECT_EQ(
        trace.take(),
        (QStringList{
            "select * from AlarmData where DATETIME Between 'a' and  'b' and EndDate = '' and EndTime = '' order by DATETIME  limit -10, -5;"_q,
            "select * from AlarmData where DATETIME Between 'a' and  'b' and EndDate = '' and EndTime = '' order by DATETIME desc limit 1000000, 2147483647;"_q}));
}

/// A page of findDataByTime() and how the statement ends.
struct Page {
    int page;
    int pageSize;
    const char *limit;
};

TEST_F(AlarmQuery, FindDataByTimeRunsThisStatementForEachPage)
{
    const Page pages[] = {
        {2, 10, "20,10"},
        {0, 10, "0,10"},
        {0, 0, "0,0"},
        {-2, 10, "-20,10"},
        {-1, 10, "-10,10"},
        {2, -1, "-2,-1"},
        {-1, -1, "1,-1"},
        {65536, 65536, "0,65536"},
        {3, 1 << 30, "-1073741824,1073741824"},
        {-3, 1 << 30, "1073741824,1073741824"},
        {INT_MAX, INT_MAX, "1,2147483647"},
        {INT_MIN, 1, "-2147483648,1"},
    };
    for (const Page &page : pages) {
        Rows result;
        store().findDataByTime("2024/01/01 00:00:00"_q, "2024/01/31 23:59:59"_q, page.page, page.pageSize, result,
                               "AlarmData"_q);
        EXPECT_EQ(
            trace.take(),
            QStringList{
                "select * from 'AlarmData' where DATETIME between '2024-01-01 00:00:00' and '2024-01-31 23:59:59' order by ID limit "_q +
                QString::fromLatin1(page.limit)})
            << page.page << " x " << page.pageSize;
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmQuery, FindDataByTimeGivesThePageInTheOrderOfTheIds)
{
    add50(); // ID 50 is the oldest
    const QString start = "2024-01-01 00:00:01"_q;
    const QString end = "2024-01-01 00:00:45"_q;
    EXPECT_EQ(namesByTime(start, end, 0, 10), numbers(45, 36));
    EXPECT_EQ(namesByTime(start, end, 2, 10), numbers(25, 16));
    EXPECT_EQ(namesByTime(start, end, 4, 10), numbers(5, 1));
    EXPECT_EQ(namesByTime(start, end, 5, 10), QStringList());
}

// Page times size is the offset: a negative page with the size -1 is a positive one.
TEST_F(AlarmQuery, FindDataByTimeOfPageSizeMinus1LosesTheFirstAlarmsOfANegativePage)
{
    add50();
    const QString start = "2024-01-01 00:00:01"_q;
    const QString end = "2024-01-01 00:00:50"_q;
    EXPECT_EQ(namesByTime(start, end, 0, -1), numbers(50, 1));
    EXPECT_EQ(namesByTime(start, end, 3, -1), numbers(50, 1));
    EXPECT_EQ(namesByTime(start, end, -1, -1), numbers(49, 1));
    EXPECT_EQ(namesByTime(start, end, -2, -1), numbers(48, 1));
}

TEST_F(AlarmQuery, FindDataByTimeGivesEndedAlarmsTooWithAllTheirCells)
{
    relay({"9"_q, "2"_q, "'2024-05-06 07:08:09'"_q, "'Kühler €'"_q, "NULL"_q, "'87.5'"_q, "'80'"_q, "''"_q,
           "'2024/05/07'"_q, "'01:02:03'"_q});
    Rows result;
    store().findDataByTime("2024-"_q, "2025-"_q, 0, 10, result, "AlarmData"_q);
    EXPECT_EQ(result, (Rows{{"9"_q, "2"_q, "2024-05-06 07:08:09"_q, "Kühler €"_q, QString(), "87.5"_q, "80"_q, ""_q,
                             "2024/05/07"_q, "01:02:03"_q}}));
}

TEST_F(AlarmQuery, FindDataByTimeGivesRowsOfAnyWidth)
{
    add("eleven cells"_q, "2024-05-06 07:08:09"_q);
    file.run("alter table AlarmData add column Extra text default 'eleventh'"_q);
    Rows result;
    store().findDataByTime("2024-"_q, "2025-"_q, 0, 10, result, "AlarmData"_q);
    ASSERT_EQ(result.size(), 1);
    EXPECT_EQ(result.first().size(), 11);
    EXPECT_EQ(result.first().last(), "eleventh"_q);
}

TEST_F(AlarmQuery, FindDataByTimeEmptiesItsResultWithoutRowsToo)
{
    Rows result{{"held before"_q}, {"and this"_q}};
    store().findDataByTime("2024-"_q, "2025-"_q, 0, 10, result, "AlarmData"_q);
    EXPECT_EQ(result, Rows());
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(AlarmQuery, FindDataByTimeThatFailsHasEmptiedItsResultAndLogsTheQuotedErrorText)
{
    Rows result{{"held before"_q}};
    store().findDataByTime("2024-"_q, "2025-"_q, 0, 10, result, "missing"_q);
    EXPECT_EQ(result, Rows());
    EXPECT_EQ(log.take(), QStringList{streamed("findDataByTime", "no such table: missing"_q)});
    store().findDataByTime("2024-"_q, "2025-"_q, 0, 10, result, "fühler"_q);
    EXPECT_EQ(log.take(), QStringList{streamed("findDataByTime", QString::fromLatin1("no such table: f\xC3\xBChler"))});
}

TEST_F(AlarmQuery, FindDataByTimeOfALongTableNameIsRun)
{
    const QString table(5000, QChar('x'));
    file.run("create table %1(ID, DATETIME); insert into %1 values(1, 'now')"_q.arg(table));
    Rows result;
    store().findDataByTime("a"_q, "z"_q, 0, 10, result, table);
    EXPECT_EQ(result, (Rows{{"1"_q, "now"_q}}));
}

TEST_F(AlarmQuery, TheTableStandsInQuotesInSomeStatementsOnly)
{
    file.run("alter table AlarmData rename to 'my alarms'"_q);
    const QString table = "my alarms"_q;
    Rows result;
    store().getAllDataPage(table, &alarms, "desc"_q, 0, 9, 9);
    store().findDataByTime("2024-"_q, "2025-"_q, 0, 10, result, table);
    EXPECT_EQ(log.take(), QStringList());
    store().findDataOfTime("2024-"_q, "2025-"_q, &alarms, table, ""_q);
    store().findDataOfTimePage("2024-"_q, "2025-"_q, &alarms, table, ""_q, 0, 9, 0);
    EXPECT_EQ(log.take().size(), 2);
}

TEST_F(AlarmQuery, StatementsAreFilledOneMarkerAfterTheOther)
{
    Rows result;
    store().getAllDataPage("%2"_q, &alarms, "asc"_q, 0, 8, 7);
    store().findDataByTime("%3"_q, "end"_q, 2, 10, result, "T"_q);
    store().findDataOfTime("%3"_q, "end"_q, &alarms, "T"_q, "asc"_q);
    store().findDataOfTimePage("%4"_q, "%5"_q, &alarms, "T"_q, "asc"_q, 0, 8, 7);
    EXPECT_EQ(
        calls.take(),
        (QStringList{
            "select * from 'asc' where EndDate = '' and EndTime = '' order by DATETIME asc"_q,
            "select * from 'T' where DATETIME between 'end' and 'end' order by ID limit 20,10"_q,
            "select * from T where DATETIME Between 'end' and  'end' and EndDate = '' and EndTime = '' order by DATETIME asc;"_q,
            "select * from T where DATETIME Between 'asc' and  '0' and EndDate = '' and EndTime = '' order by DATETIME asc limit 0, 8;"_q}));
}

TEST_F(AlarmQuery, AStartThatWasStoredAsANumberAnswersRangesAsANumber)
{
    add("number"_q, "2024"_q); // a bare number, for SQLite in front of every text
    add("text"_q, "2024-06-01 00:00:00"_q);
    EXPECT_EQ(namesByTime("2024-01-01 00:00:00"_q, "2024-12-31 23:59:59"_q, 0, 10), QStringList{"text"_q});
    EXPECT_EQ(namesByTime("2023"_q, "2025"_q, 0, 10), QStringList{"number"_q});
    EXPECT_EQ(namesByTime("2024"_q, "2024-12-31 23:59:59"_q, 0, 10), (QStringList{"number"_q, "text"_q}));
    store().findDataOfTime("2023"_q, "2025"_q, &alarms, "AlarmData"_q, "asc"_q);
    EXPECT_EQ(names(), QStringList{"number"_q});
    EXPECT_FALSE(alarms.last().startTime.isValid());
    alarms = alarms.mid(0, 1);
    store().getAllDataPage("AlarmData"_q, &alarms, "desc"_q, 0, 0, 0);
    EXPECT_EQ(names(), (QStringList{"text"_q, "number"_q}));
}

TEST_F(AlarmQuery, WhatHasNoMeaningForAlarmsDoesNothing)
{
    add50();
    forget();
    store().getCurrData("AlarmData"_q, &alarms, "desc"_q, 9);
    store().findDataOfValue("a"_q, "2025-"_q, &alarms, "AlarmData"_q, "desc"_q);
    store().findDataOfUserNamePage("a"_q, &alarms, "AlarmData"_q, "desc"_q, 0, 9, 9);
    store().findDataOfUserName("a"_q, &alarms, "AlarmData"_q, "desc"_q);
    EXPECT_EQ(store().getDataCountOfUserQuery("a"_q, "AlarmData"_q), 0);
    EXPECT_EQ(calls.take(), QStringList());
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(alarms.size(), 1);
}

TEST_F(AlarmQuery, TheCountOfAUserIs0OnAClosedStoreToo)
{
    closeStore();
    const library::StorePtr closed = library::store("alarmDB");
    EXPECT_EQ(closed->getDataCountOfUserQuery("a"_q, "AlarmData"_q), 0);
}

} // namespace
