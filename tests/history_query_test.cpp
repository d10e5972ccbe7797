// SPDX-License-Identifier: MIT
//
// The history's queries: the statements, the answers, the records, the failures. Long because every operation has its
// own.
#include "sqlite_calls.h"
#include "store_test.h"

#include <climits>

namespace
{

using Samples = QList<DataContent>;

/// The records with their fields in declared order.
Rows fields(const Samples &samples)
{
    Rows rows;
    for (const DataContent &sample : samples)
        rows.append({sample.date, sample.time, sample.extraText, sample.value});
    return rows;
}

class HistoryQuery : public StoreTest
{
protected:
    HistoryQuery() : file(path())
    {
        file.run(
            "pragma synchronous = off; create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q);
        held.value = "held before"_q;
        samples.append(held);
        open("historyDB");
        forget();
    }

    /// Adds a row to T; both as SQL.
    void add(const QString &time, const QString &value)
    {
        file.run("insert into T values(NULL,%1,%2)"_q.arg(time, value));
    }
    /// Adds one sample an hour of 2024-01-01, from `first` to `last`; the value is the hour.
    void addHours(int first, int last)
    {
        for (int hour = first; hour <= last; ++hour)
            add("'2024-01-01 %1:00:00'"_q.arg(hour, 2, 10, QChar('0')), QString::number(hour));
    }
    /// Adds 120 samples, a second apart; the values count from 1 in time order.
    void add120()
    {
        file.run("with recursive n(i) as (select 1 union all select i + 1 from n where i < 120) insert into T "
                 "select NULL, datetime('2024-01-01 00:00:00', '+' || i || ' seconds'), i from n"_q);
    }
    void forget()
    {
        log.take();
        trace.take();
        calls.take();
    }
    /// The values of the records behind the one that the list held before.
    QStringList values() const
    {
        QStringList texts;
        for (const DataContent &sample : samples.mid(1))
            texts.append(sample.value);
        return texts;
    }
    static QStringList numbers(int first, int last)
    {
        QStringList texts;
        for (int i = first; i != last; i += first < last ? 1 : -1)
            texts.append(QString::number(i));
        return texts << QString::number(last);
    }
    QStringList valuesByTime(const QString &start, const QString &end, int page, int pageSize)
    {
        Rows result;
        store().findDataByTime(start, end, page, pageSize, result, "T"_q);
        QStringList texts;
        for (const QStringList &row : result)
            texts.append(row.last());
        return texts;
    }

    SqliteCalls calls;
    PlainConnection file;
    DataContent held;
    Samples samples;
};

const QString getAllDataFailed = "database getAllData failed\n"_q;

QStringList getAllDataMessage(const QString &)
{
    return {getAllDataFailed};
}

/// A query that gives records: how it is called, its statement on the table T, what it logs on a failure.
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
    {"GetCurrDataDesc",
     [](interface_data_base &store, const QString &table, void *list) { store.getCurrData(table, list, "desc"_q, 9); },
     "select * from 'T' order by DATETIME desc limit 9;"_q, getAllDataMessage},
    {"GetAllDataPageDesc",
     [](interface_data_base &store, const QString &table, void *list) {
         store.getAllDataPage(table, list, "desc"_q, 0, 8, 7);
     },
     "select * from 'T' order by DATETIME desc limit 0, 8;"_q, getAllDataMessage},
    {"GetAllDataPageAsc",
     [](interface_data_base &store, const QString &table, void *list) {
         store.getAllDataPage(table, list, "asc"_q, 0, 8, 7);
     },
     "select * from (select * from 'T' order by DATETIME desc limit 7) order by DATETIME limit 0, 8;"_q,
     getAllDataMessage},
    {"FindDataOfValue",
     [](interface_data_base &store, const QString &table, void *list) {
         store.findDataOfValue("3.5"_q, "2024-01-01 00:00:00"_q, list, table, "desc"_q);
     },
     "select * from T where DATETIME <= '2024-01-01 00:00:00' AND Value LIKE '%3.5%' order by DATETIME desc;"_q,
     [](const QString &error) { return QStringList{streamed("findDataOfValue", error)}; }},
    {"FindDataOfTime",
     [](interface_data_base &store, const QString &table, void *list) {
         store.findDataOfTime("2024/01/01 00:00:00"_q, "2024/12/31 23:59:59"_q, list, table, "asc"_q);
     },
     "select * from T where DATETIME Between '2024-01-01 00:00:00' and  '2024-12-31 23:59:59' order by DATETIME asc;"_q,
     [](const QString &error) { return QStringList{streamed("findDataOfTime", error)}; }},
    {"FindDataOfTimePage",
     [](interface_data_base &store, const QString &table, void *list) {
         store.findDataOfTimePage("2024/01/01 00:00:00"_q, "2024/12/31 23:59:59"_q, list, table, "desc"_q, 0, 8, 7);
     },
     "select * from T where DATETIME Between '2024-01-01 00:00:00' and  '2024-12-31 23:59:59' order by DATETIME desc limit 0, 8;"_q,
     [](const QString &error) { return QStringList{streamed("findDataOfTimePage", error)}; }},
};

class HistoryRecordQuery : public HistoryQuery, public ::testing::WithParamInterface<RecordQuery>
{
protected:
    void query(const QString &table) { GetParam().run(store(), table, &samples); }
    /// Gives T another layout that every query of T still can run on.
    void relay(const QString &columns)
    {
        file.run("drop table T; create table T(%1); insert into T(DATETIME, Value) "
                 "values('2024-01-01 00:00:00', '3.5')"_q.arg(columns));
        forget();
    }
};

INSTANTIATE_TEST_SUITE_P(Queries, HistoryRecordQuery, ::testing::ValuesIn(recordQueries),
                         [](const auto &query) { return query.param.name; });

TEST_P(HistoryRecordQuery, RunsThisStatement)
{
    query("T"_q);
    EXPECT_EQ(trace.take(), QStringList{GetParam().sql});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(fields(samples), fields({held}));
}

TEST_P(HistoryRecordQuery, AppendsItsRecordBehindThoseThatTheListHolds)
{
    add("'2024-01-01 00:00:00'"_q, "'3.5 °C €'"_q);
    query("T"_q);
    EXPECT_EQ(fields(samples), fields({held}) + (Rows{{"2024-01-01"_q, "00:00:00"_q, QString(), "3.5 °C €"_q}}));
}

TEST_P(HistoryRecordQuery, LogsItsMessageAndAppendsNothingOnAFailure)
{
    query("missing"_q);
    EXPECT_EQ(log.take(), GetParam().message("no such table: missing"_q));
    EXPECT_EQ(trace.take(), QStringList());
    EXPECT_EQ(fields(samples), fields({held}));
}

TEST_P(HistoryRecordQuery, ReadsTheErrorTextAsLatin1)
{
    query("fühler"_q);
    EXPECT_EQ(log.take(), GetParam().message(QString::fromLatin1("no such table: f\xC3\xBChler")));
}

TEST_P(HistoryRecordQuery, GivesNothingAndSaysNothingWhenThereAreNotThreeColumns)
{
    for (const char *columns : {"DATETIME, Value", "ID, DATETIME, Value, Extra"}) {
        relay(QString::fromLatin1(columns));
        query("T"_q);
        EXPECT_EQ(trace.take(), QStringList{GetParam().sql});
        EXPECT_EQ(log.take(), QStringList()) << columns;
        EXPECT_EQ(fields(samples), fields({held})) << columns;
    }
}

TEST_P(HistoryRecordQuery, ReadsTheSecondAndThirdOfThreeColumnsWhateverTheirNames)
{
    relay("Value, DATETIME, x DEFAULT 'third'"_q);
    query("T"_q);
    EXPECT_EQ(fields(samples), fields({held}) + (Rows{{"2024-01-01"_q, "00:00:00"_q, QString(), "third"_q}}));
}

/// A time as SQL, and its date and time; no pieces when the text is not "date time".
struct Time {
    const char *name;
    QString sql;
    QStringList pieces;
};

void PrintTo(const Time &time, std::ostream *stream)
{
    *stream << time.name;
}

const Time times[] = {
    {"Ordinary", "'2024-01-02 03:04:05'"_q, {"2024-01-02"_q, "03:04:05"_q}},
    {"AnyTwoWords", "'zwölf Uhr'"_q, {"zwölf"_q, "Uhr"_q}},
    {"BlankInFront", "' 03:04:05'"_q, {""_q, "03:04:05"_q}},
    {"BlankBehind", "'2024-01-02 '"_q, {"2024-01-02"_q, ""_q}},
    {"BlankAlone", "' '"_q, {""_q, ""_q}},
    {"TwoBlanks", "'2024-01-02  03:04:05'"_q, {}},
    {"ThreeWords", "'2024-01-02 03:04:05 UTC'"_q, {}},
    {"NoBlank", "'2024-01-02T03:04:05'"_q, {}},
    {"ATab", "'2024-01-02' || char(9) || '03:04:05'"_q, {}},
    {"Empty", "''"_q, {}},
    {"Null", "NULL"_q, {}},
    {"ABareNumber", "'2024'"_q, {}},
};

class HistoryTime : public HistoryQuery, public ::testing::WithParamInterface<Time>
{
};

INSTANTIATE_TEST_SUITE_P(Times, HistoryTime, ::testing::ValuesIn(times),
                         [](const auto &time) { return time.param.name; });

TEST_P(HistoryTime, IsSplitAtItsOneBlankOrEndsTheOutput)
{
    // Sorted by the first column, so that the row under test stays the second.
    file.run("create table Sorted(DATETIME, Moment, Value); insert into Sorted values"
             "(1, '2024-01-01 00:00:00', 'first'), (2, %1, 'second'), (3, '2024-01-03 00:00:00', 'third')"_q.arg(
                 GetParam().sql));
    store().getAllDataPage("Sorted"_q, &samples, "asc"_q, 0, 9, 9);
    Rows expected{{"2024-01-01"_q, "00:00:00"_q, QString(), "first"_q}};
    if (!GetParam().pieces.isEmpty())
        expected += Rows{{GetParam().pieces.at(0), GetParam().pieces.at(1), QString(), "second"_q},
                         {"2024-01-03"_q, "00:00:00"_q, QString(), "third"_q}};
    EXPECT_EQ(fields(samples), fields({held}) + expected);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryQuery, AMalformedFirstRowGivesNoRecord)
{
    add("'2024-01-02'"_q, "'malformed'"_q);
    add("'2024-01-01 00:00:00'"_q, "'good'"_q);
    store().getCurrData("T"_q, &samples, "desc"_q, 9);
    EXPECT_EQ(values(), QStringList());
    store().getAllDataPage("T"_q, &samples, "asc"_q, 0, 9, 9);
    EXPECT_EQ(values(), QStringList{"good"_q});
}

// A fresh list shares its data with no other that anything was reserved for.
TEST_F(HistoryQuery, AListThatGetsNoRecordIsNotEvenReservedFor)
{
    addHours(0, 3);
    add("''"_q, "'malformed'"_q);
    QList<DataContent> fresh;
    store().findDataOfTime(""_q, "z"_q, &fresh, "T"_q, "asc"_q);
    EXPECT_EQ(fresh.size(), 0);
    EXPECT_TRUE(fresh.isSharedWith(QList<DataContent>()));
}

TEST_F(HistoryQuery, ANullValueIsAnEmptyText)
{
    add("'2024-01-01 00:00:00'"_q, "NULL"_q);
    store().getCurrData("T"_q, &samples, "desc"_q, 9);
    EXPECT_EQ(values(), QStringList{QString()});
}

TEST_F(HistoryQuery, TheExtraTextStaysEmpty)
{
    addHours(0, 3);
    store().getCurrData("T"_q, &samples, "desc"_q, 9);
    ASSERT_EQ(samples.size(), 5);
    for (const DataContent &sample : samples)
        EXPECT_TRUE(sample.extraText.isEmpty());
}

TEST_F(HistoryQuery, GetCurrDataGivesTheNewestSamplesNewestFirst)
{
    addHours(10, 12);
    store().getCurrData("T"_q, &samples, "desc"_q, 2);
    EXPECT_EQ(fields(samples), fields({held}) + (Rows{{"2024-01-01"_q, "12:00:00"_q, QString(), "12"_q},
                                                      {"2024-01-01"_q, "11:00:00"_q, QString(), "11"_q}}));
}

TEST_F(HistoryQuery, GetCurrDataFailsWithEveryOtherOrder)
{
    addHours(10, 12);
    for (const char *order : {"asc", "DESC", "Desc", "desc ", ""}) {
        forget();
        store().getCurrData("T"_q, &samples, QString::fromLatin1(order), 2);
        EXPECT_EQ(
            calls.take(),
            QStringList{"select * from (select * from 'T' order by DATETIME desc limit 2;) order by DATETIME asc;"_q})
            << order;
        EXPECT_EQ(trace.take(), QStringList()) << order;
        EXPECT_EQ(log.take(), QStringList{getAllDataFailed}) << order;
        EXPECT_EQ(fields(samples), fields({held})) << order;
    }
}

TEST_F(HistoryQuery, GetCurrDataTakesEveryCountInDecimal)
{
    for (const int count : {0, -1, 1000000, INT_MAX, INT_MIN}) {
        store().getCurrData("T"_q, &samples, "desc"_q, count);
        EXPECT_EQ(trace.take(),
                  QStringList{"select * from 'T' order by DATETIME desc limit "_q + QString::number(count) + ";"_q});
        store().getCurrData("T"_q, &samples, "asc"_q, count);
        EXPECT_EQ(calls.take().last(), "select * from (select * from 'T' order by DATETIME desc limit "_q +
                                           QString::number(count) + ";) order by DATETIME asc;"_q);
    }
}

TEST_F(HistoryQuery, GetAllDataPageDescPagesDownFromTheNewest)
{
    add120();
    store().getAllDataPage("T"_q, &samples, "desc"_q, 10, 5, 0);
    EXPECT_EQ(values(), numbers(110, 106));
}

TEST_F(HistoryQuery, GetAllDataPageAscPagesUpThroughTheNewestSpan)
{
    add120();
    store().getAllDataPage("T"_q, &samples, "asc"_q, 10, 5, 100);
    EXPECT_EQ(values(), numbers(31, 35));
}

TEST_F(HistoryQuery, GetAllDataPageTakesAllOrdersButDescAsOldestFirst)
{
    for (const char *order : {"asc", "DESC", "desc ", "", "no order"}) {
        store().getAllDataPage("T"_q, &samples, QString::fromLatin1(order), 1, 2, 3);
        EXPECT_EQ(
            trace.take(),
            QStringList{
                "select * from (select * from 'T' order by DATETIME desc limit 3) order by DATETIME limit 1, 2;"_q})
            << order;
    }
}

TEST_F(HistoryQuery, GetAllDataPageTakesEveryNumberInDecimal)
{
    store().getAllDataPage("T"_q, &samples, "desc"_q, -10, -5, -1);
    store().getAllDataPage("T"_q, &samples, "asc"_q, -10, -5, -1);
    store().getAllDataPage("T"_q, &samples, "desc"_q, INT_MAX, INT_MIN, 0);
    store().getAllDataPage("T"_q, &samples, "asc"_q, INT_MAX, INT_MIN, 1000000);
    EXPECT_EQ(
        trace.take(),
        (QStringList{
            "select * from 'T' order by DATETIME desc limit -10, -5;"_q,
            "select * from (select * from 'T' order by DATETIME desc limit -1) order by DATETIME limit -10, -5;"_q,
            "select * from 'T' order by DATETIME desc limit 2147483647, -2147483648;"_q,
            "select * from (select * from 'T' order by DATETIME desc limit 1000000) order by DATETIME limit 2147483647, -2147483648;"_q}));
}

/// A page of findDataByTime() and how the statement ends.
struct Page {
    int page;
    int pageSize;
    const char *limit;
};

TEST_F(HistoryQuery, FindDataByTimeRunsThisStatementForEachPage)
{
    const Page pages[] = {
        {2, 10, " limit 20,10"},
        {0, 10, " limit 0,10"},
        {0, 0, " limit 0,0"},
        {-2, 10, " limit -20,10"},
        {2, -2, " limit -4,-2"},
        {-1, 10, ""},
        {2, -1, ""},
        {-1, -1, ""},
        {INT_MIN, -1, ""},
        {65536, 65536, " limit 0,65536"},
        {3, 1 << 30, " limit -1073741824,1073741824"},
        {-3, 1 << 30, " limit 1073741824,1073741824"},
        {INT_MAX, INT_MAX, " limit 1,2147483647"},
        {INT_MIN, 1, " limit -2147483648,1"},
    };
    for (const Page &page : pages) {
        Rows result;
        store().findDataByTime("2024/01/01 00:00:00"_q, "2024/01/31 23:59:59"_q, page.page, page.pageSize, result,
                               "T"_q);
        EXPECT_EQ(
            trace.take(),
            QStringList{
                "select * from 'T' where DATETIME between '2024-01-01 00:00:00' and '2024-01-31 23:59:59' order by ID"_q +
                QString::fromLatin1(page.limit)})
            << page.page << " x " << page.pageSize;
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryQuery, FindDataByTimeGivesThePageInTheOrderOfTheIds)
{
    add120();
    const QString start = "2024-01-01 00:00:00"_q;
    const QString end = "2024-01-01 00:00:59"_q;
    EXPECT_EQ(valuesByTime(start, end, 2, 10), numbers(21, 30));
    EXPECT_EQ(valuesByTime(start, end, 5, 10), numbers(51, 59));
    EXPECT_EQ(valuesByTime(start, end, -1, 10), numbers(1, 59));
    EXPECT_EQ(valuesByTime(start, end, 3, -1), numbers(1, 59));
    file.run("update T set ID = -ID"_q);
    EXPECT_EQ(valuesByTime(start, end, 0, 10), numbers(59, 50));
}

TEST_F(HistoryQuery, FindDataByTimeGivesAllColumnsOfAnyTable)
{
    file.run("create table Wide(ID, DATETIME, a, b); insert into Wide values(1, 'now', NULL, 'zwölf €')"_q);
    Rows result{{"held before"_q}};
    store().findDataByTime("a"_q, "z"_q, 0, 10, result, "Wide"_q);
    EXPECT_EQ(result, (Rows{{"1"_q, "now"_q, QString(), "zwölf €"_q}}));
}

TEST_F(HistoryQuery, FindDataByTimeEmptiesItsResultWithoutRowsToo)
{
    Rows result{{"held before"_q}, {"and this"_q}};
    store().findDataByTime("a"_q, "z"_q, 0, 10, result, "T"_q);
    EXPECT_EQ(result, Rows());
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryQuery, FindDataByTimeThatFailsHasEmptiedItsResultAndLogsTheQuotedErrorText)
{
    for (const int page : {0, -1}) {
        Rows result{{"held before"_q}};
        store().findDataByTime("a"_q, "z"_q, page, 10, result, "missing"_q);
        EXPECT_EQ(result, Rows());
        EXPECT_EQ(log.take(), QStringList{streamed("findDataByTime", "no such table: missing"_q)});
        store().findDataByTime("a"_q, "z"_q, page, 10, result, "fühler"_q);
        EXPECT_EQ(log.take(),
                  QStringList{streamed("findDataByTime", QString::fromLatin1("no such table: f\xC3\xBChler"))});
    }
}

// Each text ends there by itself; the statement goes on.
TEST_F(HistoryQuery, FindDataByTimeDropsTheRestOfATextBehindANul)
{
    const QString junk = QChar(0) + "junk"_q;
    Rows result;
    store().findDataByTime("a"_q + junk, "z"_q + junk, 2, 10, result, "T"_q + junk);
    EXPECT_EQ(trace.take(),
              QStringList{"select * from 'T' where DATETIME between 'a' and 'z' order by ID limit 20,10"_q});
    EXPECT_EQ(log.take(), QStringList());
}

/// A table name of letters of one kind, and the bounds and the page that its statement gets.
struct LongStatement {
    const char *name;
    QChar letter;
    int letterBytes;
    int page;
};

void PrintTo(const LongStatement &statement, std::ostream *stream)
{
    *stream << statement.name;
}

class HistoryLongStatement : public HistoryQuery, public ::testing::WithParamInterface<LongStatement>
{
protected:
    /// A table whose statement has this many bytes of UTF-8, with one row.
    QString makeTable(int statementBytes)
    {
        QString name = "x"_q;
        int missing = statementBytes - sql(name).toUtf8().size();
        name += QString(missing / GetParam().letterBytes, GetParam().letter);
        name += QString(missing % GetParam().letterBytes, QChar('y'));
        EXPECT_EQ(sql(name).toUtf8().size(), statementBytes);
        file.run("create table '%1'(ID, DATETIME); insert into '%1' values(1, 'now')"_q.arg(name));
        forget();
        return name;
    }
    QString sql(const QString &table) const
    {
        return "select * from '"_q + table + "' where DATETIME between 'a-€' and 'z-€' order by ID"_q +
               (GetParam().page == -1 ? ""_q : " limit 0,10"_q);
    }
    Rows find(const QString &table)
    {
        Rows result{{"held before"_q}};
        store().findDataByTime("a/€"_q, "z/€"_q, GetParam().page, 10, result, table);
        return result;
    }
};

INSTANTIATE_TEST_SUITE_P(Names, HistoryLongStatement,
                         ::testing::Values(LongStatement{"OneByteLetters", QChar('x'), 1, 0},
                                           LongStatement{"TwoByteLetters", QChar(0xFC), 2, 0},
                                           LongStatement{"ThreeByteLetters", QChar(0x20AC), 3, 0},
                                           LongStatement{"WithoutALimit", QChar('x'), 1, -1}),
                         [](const auto &statement) { return statement.param.name; });

TEST_P(HistoryLongStatement, Of2047BytesIsRun)
{
    const QString table = makeTable(2047);
    EXPECT_EQ(find(table), (Rows{{"1"_q, "now"_q}}));
    EXPECT_EQ(trace.take(), QStringList{sql(table)});
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(HistoryLongStatement, Of2048BytesIsAFailureAndNotRun)
{
    for (const int bytes : {2048, 2049, 5000}) {
        const QString table = makeTable(bytes);
        EXPECT_EQ(find(table), Rows()) << bytes;
        EXPECT_EQ(calls.take(), QStringList()) << bytes;
        const QStringList messages = log.take();
        ASSERT_EQ(messages.size(), 1) << bytes;
        EXPECT_TRUE(messages.first().startsWith("findDataByTime \""_q) && messages.first().endsWith(QChar('"')))
            << qPrintable(messages.first());
    }
}

TEST_F(HistoryQuery, FindDataOfValueFindsTheTextAnywhereInTheValue)
{
    for (const char *value : {"'5'", "'15'", "'0.5'", "'57'", "'6'", "NULL"})
        add("'2024-01-01 00:00:00'"_q, QString::fromLatin1(value));
    store().findDataOfValue("5"_q, "2024-12-31 00:00:00"_q, &samples, "T"_q, ", ID"_q);
    EXPECT_EQ(values(), (QStringList{"5"_q, "15"_q, "0.5"_q, "57"_q}));
}

TEST_F(HistoryQuery, FindDataOfValueLeavesItsWildcardsToSqlite)
{
    for (const char *value : {"'5'", "'57'", "'6'", "'5x7'"})
        add("'2024-01-01 00:00:00'"_q, QString::fromLatin1(value));
    store().findDataOfValue("5_"_q, "2024-12-31 00:00:00"_q, &samples, "T"_q, ", ID"_q);
    EXPECT_EQ(values(), (QStringList{"57"_q, "5x7"_q}));
    store().findDataOfValue("5%7"_q, "2024-12-31 00:00:00"_q, &samples, "T"_q, ", ID"_q);
    EXPECT_EQ(values(), (QStringList{"57"_q, "5x7"_q, "57"_q, "5x7"_q}));
}

TEST_F(HistoryQuery, FindDataOfValueIncludesItsEndAndSortsByTime)
{
    addHours(10, 14);
    store().findDataOfValue("1"_q, "2024-01-01 12:00:00"_q, &samples, "T"_q, "desc"_q);
    EXPECT_EQ(values(), numbers(12, 10));
    samples = {held};
    store().findDataOfValue("1"_q, "2024-01-01 12:00:00"_q, &samples, "T"_q, "asc"_q);
    EXPECT_EQ(values(), numbers(10, 12));
}

TEST_F(HistoryQuery, FindDataOfValuePastesItsTextsUnchanged)
{
    store().findDataOfValue("%1 %2 °€"_q, "%1"_q, &samples, "T"_q, ""_q);
    store().findDataOfValue(""_q, "2024/01/01"_q, &samples, "T"_q, "ASC, ID"_q);
    EXPECT_EQ(trace.take(),
              (QStringList{
                  "select * from T where DATETIME <= '%1' AND Value LIKE '%%1 %2 °€%' order by DATETIME ;"_q,
                  "select * from T where DATETIME <= '2024/01/01' AND Value LIKE '%%' order by DATETIME ASC, ID;"_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryQuery, FindDataOfValueWithAQuoteFails)
{
    store().findDataOfValue("it's"_q, "2024-01-01 00:00:00"_q, &samples, "T"_q, "desc"_q);
    const QString sql =
        "select * from T where DATETIME <= '2024-01-01 00:00:00' AND Value LIKE '%it's%' order by DATETIME desc;"_q;
    EXPECT_EQ(calls.take(), QStringList{sql});
    EXPECT_EQ(log.take(), QStringList{streamed("findDataOfValue", QString::fromLatin1(errorOf(path(), sql)))});
    EXPECT_EQ(fields(samples), fields({held}));
}

TEST_F(HistoryQuery, FindDataOfTimeIncludesBothEndsAndSortsAsTold)
{
    addHours(8, 14);
    const QString start = "2024-01-01 10:00:00"_q;
    const QString end = "2024-01-01 12:00:00"_q;
    store().findDataOfTime(start, end, &samples, "T"_q, "desc"_q);
    EXPECT_EQ(values(), numbers(12, 10));
    for (const char *order : {"asc", "ASC", ""}) {
        samples = {held};
        store().findDataOfTime(start, end, &samples, "T"_q, QString::fromLatin1(order));
        EXPECT_EQ(values(), numbers(10, 12)) << order;
    }
}

TEST_F(HistoryQuery, AnOrderThatIsNoneFails)
{
    store().findDataOfTime("a"_q, "b"_q, &samples, "T"_q, "up"_q);
    store().findDataOfTimePage("a"_q, "b"_q, &samples, "T"_q, "up"_q, 0, 1, 0);
    store().findDataOfValue("a"_q, "b"_q, &samples, "T"_q, "up"_q);
    const QString error = "near \"up\": syntax error"_q;
    EXPECT_EQ(log.take(), (QStringList{streamed("findDataOfTime", error), streamed("findDataOfTimePage", error),
                                       streamed("findDataOfValue", error)}));
    EXPECT_EQ(fields(samples), fields({held}));
}

TEST_F(HistoryQuery, FindDataOfTimePageSkipsTheOffsetItself)
{
    add120();
    store().findDataOfTimePage("2024-01-01 00:00:01"_q, "2024-01-01 00:00:59"_q, &samples, "T"_q, "asc"_q, 10, 5, 2);
    EXPECT_EQ(values(), numbers(11, 15));
    samples = {held};
    store().findDataOfTimePage("2024-01-01 00:00:01"_q, "2024-01-01 00:00:59"_q, &samples, "T"_q, "desc"_q, 10, 5, 2);
    EXPECT_EQ(values(), numbers(49, 45));
}

TEST_F(HistoryQuery, FindDataOfTimePageTakesEveryNumberInDecimal)
{
    store().findDataOfTimePage("a"_q, "b"_q, &samples, "T"_q, ""_q, -10, -5, -1);
    store().findDataOfTimePage("a"_q, "b"_q, &samples, "T"_q, "desc"_q, 1000000, INT_MAX, 5);
    EXPECT_EQ(
        trace.take(),
        (QStringList{
            "select * from T where DATETIME Between 'a' and  'b' order by DATETIME  limit -10, -5;"_q,
            "select * from T where DATETIME Between 'a' and  'b' order by DATETIME desc limit 1000000, 2147483647;"_q}));
}

TEST_F(HistoryQuery, SlashesFindTheSameInTheRangesButNotInTheValueAndTheCount)
{
    addHours(8, 14);
    const QString start = "2024/01/01 10:00:00"_q;
    const QString end = "2024/01/01 12:00:00"_q;
    EXPECT_EQ(valuesByTime(start, end, -1, 0), numbers(10, 12));
    store().findDataOfTime(start, end, &samples, "T"_q, "asc"_q);
    EXPECT_EQ(values(), numbers(10, 12));
    samples = {held};
    store().findDataOfTimePage(start, end, &samples, "T"_q, "asc"_q, 0, 9, 0);
    EXPECT_EQ(values(), numbers(10, 12));

    samples = {held};
    store().findDataOfValue("1"_q, end, &samples, "T"_q, "asc"_q);
    EXPECT_EQ(values(), numbers(10, 14)); // "-" sorts in front of "/": the whole year is before the end
    EXPECT_EQ(store().getDataCountOfTimeQuery(start, end, "T"_q), 0);
}

TEST_F(HistoryQuery, GetDataCountOfTimeQueryTakesItsTextsAsTheyAre)
{
    addHours(8, 14);
    forget();
    EXPECT_EQ(store().getDataCountOfTimeQuery("2024-01-01 10:00:00"_q, "2024-01-01 12:00:00"_q, "T"_q), 3);
    EXPECT_EQ(store().getDataCountOfTimeQuery("2024/01/01"_q, "%2"_q, "T"_q), 0);
    EXPECT_EQ(trace.take(),
              (QStringList{
                  "select count(*) from 'T' where DATETIME Between '2024-01-01 10:00:00' and  '2024-01-01 12:00:00'"_q,
                  "select count(*) from 'T' where DATETIME Between '2024/01/01' and  '%2'"_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryQuery, GetDataCountOfTimeQueryOfAnEmptyRangeIsASilentZero)
{
    EXPECT_EQ(store().getDataCountOfTimeQuery("2024-01-01 10:00:00"_q, "2024-01-01 12:00:00"_q, "T"_q), 0);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(HistoryQuery, GetDataCountOfTimeQueryOfAMissingTableIsZeroWithAMessage)
{
    EXPECT_EQ(store().getDataCountOfTimeQuery("2024-01-01 10:00:00"_q, "2024-01-01 12:00:00"_q, "missing"_q), 0);
    EXPECT_EQ(log.take(), QStringList{"database getDataCountOfTimeQuery failed\n"_q});
}

TEST_F(HistoryQuery, FindDataByTimePastesPercentSignsUnchanged)
{
    Rows result;
    store().findDataByTime("%d"_q, "%1 100%"_q, 1, 10, result, "%s%n"_q);
    EXPECT_EQ(calls.take(),
              QStringList{"select * from '%s%n' where DATETIME between '%d' and '%1 100%' order by ID limit 10,10"_q});
}

TEST_F(HistoryQuery, TheOtherStatementsAreFilledOneMarkerAfterTheOther)
{
    store().getCurrData("%2"_q, &samples, "desc"_q, 9);
    store().getAllDataPage("%3"_q, &samples, "desc"_q, 0, 8, 7);
    store().findDataOfTime("%3"_q, "end"_q, &samples, "T"_q, "asc"_q);
    store().findDataOfTimePage("%4"_q, "%5"_q, &samples, "T"_q, "asc"_q, 0, 8, 7);
    store().getDataCountOfTimeQuery("%3"_q, "end"_q, "T"_q);
    EXPECT_EQ(calls.take(),
              (QStringList{"select * from '9' order by DATETIME desc limit 9;"_q,
                           "select * from '8' order by DATETIME desc limit 0, 8;"_q,
                           "select * from T where DATETIME Between 'end' and  'end' order by DATETIME asc;"_q,
                           "select * from T where DATETIME Between 'asc' and  '0' order by DATETIME asc limit 0, 8;"_q,
                           "select count(*) from 'T' where DATETIME Between 'end' and  'end'"_q}));
}

TEST_F(HistoryQuery, TheTableStandsInQuotesInSomeStatementsOnly)
{
    file.run("create table 'my table'(ID INTEGER PRIMARY KEY, DATETIME dateTime, Value text);"
             "insert into 'my table' values(1, '2024-01-01 00:00:00', 'x')"_q);
    const QString table = "my table"_q;
    Rows result;
    store().getCurrData(table, &samples, "desc"_q, 9);
    store().getAllDataPage(table, &samples, "desc"_q, 0, 9, 9);
    store().getAllDataPage(table, &samples, "asc"_q, 0, 9, 9);
    store().findDataByTime("0"_q, "9"_q, -1, -1, result, table);
    EXPECT_EQ(store().getDataCountOfTimeQuery("0"_q, "9"_q, table), 0); // a number is in front of every text
    EXPECT_EQ(store().getDataCountOfTimeQuery("2024-"_q, "2025-"_q, table), 1);
    EXPECT_EQ(values(), (QStringList{"x"_q, "x"_q, "x"_q}));
    EXPECT_EQ(log.take(), QStringList());

    store().findDataOfTime("2024-"_q, "2025-"_q, &samples, table, ""_q);
    store().findDataOfTimePage("2024-"_q, "2025-"_q, &samples, table, ""_q, 0, 9, 0);
    store().findDataOfValue("x"_q, "2025-"_q, &samples, table, ""_q);
    EXPECT_EQ(log.take().size(), 3);
    EXPECT_EQ(values().size(), 3);
}

TEST_F(HistoryQuery, ATimeThatWasStoredAsANumberAnswersRangesAsANumber)
{
    // A bare "2024" became a number: ranges of texts pass it by, an open end takes it in, ranges of numbers find it.
    add("'2024'"_q, "'number'"_q);
    add("'2024-06-01 00:00:00'"_q, "'text'"_q);
    EXPECT_EQ(valuesByTime("2024-01-01 00:00:00"_q, "2024-12-31 23:59:59"_q, -1, -1), QStringList{"text"_q});
    EXPECT_EQ(valuesByTime("2023"_q, "2025"_q, -1, -1), QStringList{"number"_q});
    EXPECT_EQ(valuesByTime("2024"_q, "2024-12-31 23:59:59"_q, -1, -1), (QStringList{"number"_q, "text"_q}));
    EXPECT_EQ(store().getDataCountOfTimeQuery("2024-01-01 00:00:00"_q, "2024-12-31 23:59:59"_q, "T"_q), 1);
    EXPECT_EQ(store().getDataCountOfTimeQuery("2024"_q, "2024"_q, "T"_q), 1);
    EXPECT_EQ(store().getDataCountOfTableEndDate("T"_q, "1999-12-31 23:59:59"_q), 1);

    // Sorted in front of every text and no "date time": it ends an output in ascending order at once.
    store().findDataOfValue("t"_q, "2024-12-31 23:59:59"_q, &samples, "T"_q, "desc"_q);
    EXPECT_EQ(values(), QStringList{"text"_q});
    samples = {held};
    store().getAllDataPage("T"_q, &samples, "asc"_q, 0, 9, 9);
    EXPECT_EQ(values(), QStringList());
}

TEST_F(HistoryQuery, WhatHasNoMeaningForSamplesDoesNothing)
{
    addHours(0, 3);
    forget();
    store().findDataOfUserNamePage("a"_q, &samples, "T"_q, "desc"_q, 0, 9, 9);
    store().findDataOfUserName("a"_q, &samples, "T"_q, "desc"_q);
    EXPECT_EQ(store().getDataCountOfUserQuery("a"_q, "T"_q), 0);
    EXPECT_EQ(calls.take(), QStringList());
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(fields(samples), fields({held}));
}

} // namespace
