// SPDX-License-Identifier: MIT
//
// The operator log's queries: the statements, the answers, the records, the failures. Long because every operation has
// its own.
#include "operator_log.h"
#include "store_test.h"

#include <climits>
#include <functional>

namespace
{

using Store = interface_data_base;
using Entries = QList<OperatorLogData>;

const auto byName = [](const auto &test) { return test.param.name; };

class OperatorLogQuery : public StoreTest
{
protected:
    OperatorLogQuery()
    {
        open("operatorLogDB");
        store().createTable("OperatorLog"_q, QString());
        forget();
    }

    void insert(Rows rows)
    {
        store().insertManyDatas(rows, "OperatorLog"_q);
        forget();
    }
    /// Entries one second apart; their messages are 1, 2, ... in time order.
    void insertNumbered(int count)
    {
        Rows rows;
        for (int number = 1; number <= count; ++number)
            rows.append(
                {QDateTime(QDate(2024, 5, 6), QTime(8, 0)).addSecs(number).toString("yyyy-MM-dd hh:mm:ss.zzz"_q),
                 "admin"_q, "log"_q, QString::number(number)});
        insert(rows);
    }
    void plainly(const char *sql)
    {
        PlainConnection(path()).run(QString::fromUtf8(sql));
        forget();
    }
    void forget()
    {
        log.take();
        trace.take();
    }
    /// The messages found, after which the list is empty again.
    QStringList found()
    {
        QStringList messages;
        for (const OperatorLogData &entry : list)
            messages.append(entry.message);
        list.clear();
        return messages;
    }

    Entries list;
};

QStringList numbers(int from, int to)
{
    QStringList texts;
    for (int number = from; number != to; number += from < to ? 1 : -1)
        texts.append(QString::number(number));
    return texts << QString::number(to);
}

// --- The statements, exactly as SQLite sees them -------------------------------------------------------------------

struct PagedOperation {
    const char *name;
    std::function<void(Store &, void *list, QString order, int offset, int count, int span)> run;
    const char *newestFirst; ///< With the words OFFSET, COUNT and SPAN where the numbers go.
    const char *oldestFirst;
};

const PagedOperation pagedOperations[] = {
    {"getCurrData",
     [](Store &store, void *list, QString order, int, int count, int) {
         store.getCurrData("OperatorLog"_q, list, order, count);
     },
     "select * from 'OperatorLog' order by DATETIME desc limit COUNT;",
     "select * from (select * from 'OperatorLog' order by DATETIME desc limit COUNT) order by DATETIME asc;"},
    {"getAllDataPage",
     [](Store &store, void *list, QString order, int offset, int count, int span) {
         store.getAllDataPage("OperatorLog"_q, list, order, offset, count, span);
     },
     "select * from 'OperatorLog' order by DATETIME desc limit OFFSET, COUNT;",
     "select * from (select * from 'OperatorLog' order by DATETIME desc limit SPAN) "
     "order by DATETIME limit OFFSET, COUNT;"},
    {"findDataOfUserNamePage",
     [](Store &store, void *list, QString order, int offset, int count, int span) {
         store.findDataOfUserNamePage("admin"_q, list, "OperatorLog"_q, order, offset, count, span);
     },
     "select * from OperatorLog where userName = 'admin' order by DATETIME desc limit OFFSET, COUNT;",
     "select * from (select * from OperatorLog where userName = 'admin' order by DATETIME desc limit SPAN) "
     "order by DATETIME limit OFFSET, COUNT;"},
    {"findDataOfTimePage",
     [](Store &store, void *list, QString order, int offset, int count, int span) {
         store.findDataOfTimePage("2024/05/06 08:00:00"_q, "2024/05/06 09:00:00"_q, list, "OperatorLog"_q, order,
                                  offset, count, span);
     },
     "select * from OperatorLog where DATETIME Between '2024-05-06 08:00:00.000' and  '2024-05-06 09:00:00.999' "
     "order by DATETIME desc limit OFFSET, COUNT;",
     "select * from (select * from OperatorLog where DATETIME Between '2024-05-06 08:00:00.000' and  "
     "'2024-05-06 09:00:00.999' order by DATETIME desc limit SPAN) order by DATETIME limit OFFSET, COUNT;"},
};

class OperatorLogPaged : public OperatorLogQuery, public ::testing::WithParamInterface<PagedOperation>
{
protected:
    void run(const QString &order, int offset, int count, int span)
    {
        GetParam().run(store(), &list, order, offset, count, span);
    }
};
INSTANTIATE_TEST_SUITE_P(, OperatorLogPaged, ::testing::ValuesIn(pagedOperations), byName);

TEST_P(OperatorLogPaged, StatementIsChosenByTheExactWordDescAndTakesTheNumbersAsTheyAre)
{
    const struct {
        int offset, count, span;
    } pages[] = {{1, 2, 3},        {0, 0, 0},           {-1, -2, -3},           {100000, 1000000, 99},
                 {0, INT_MAX, -1}, {INT_MIN, -1, 2000}, {INT_MAX, INT_MIN, 10}, {7, 8, INT_MIN}};
    for (const QString &order : {"desc"_q, "DESC"_q, "Desc"_q, "asc"_q, ""_q, " desc"_q, "desc "_q, "up"_q, QString()})
        for (const auto &page : pages) {
            run(order, page.offset, page.count, page.span);
            const QString expected =
                QString::fromLatin1(order == "desc"_q ? GetParam().newestFirst : GetParam().oldestFirst)
                    .replace("OFFSET"_q, QString::number(page.offset))
                    .replace("COUNT"_q, QString::number(page.count))
                    .replace("SPAN"_q, QString::number(page.span));
            EXPECT_EQ(trace.take(), QStringList(expected));
            EXPECT_EQ(log.take(), QStringList());
        }
}

struct StatementCase {
    const char *name;
    std::function<void(Store &, void *list)> run;
    QString sql;
};

const StatementCase statementCases[] = {
    {"user", [](Store &store, void *list) { store.findDataOfUserName("admin"_q, list, "OperatorLog"_q, "desc"_q); },
     "select * from OperatorLog where userName = 'admin' order by DATETIME desc;"_q},
    {"user_in_any_order_word",
     [](Store &store, void *list) { store.findDataOfUserName("admin"_q, list, "OperatorLog"_q, "ASC, ID deSC"_q); },
     "select * from OperatorLog where userName = 'admin' order by DATETIME ASC, ID deSC;"_q},
    {"user_in_no_order", [](Store &store, void *list) { store.findDataOfUserName(""_q, list, "OperatorLog"_q, ""_q); },
     "select * from OperatorLog where userName = '' order by DATETIME ;"_q},
    {"user_with_bare_table",
     [](Store &store, void *list) {
         store.findDataOfUserName("admin"_q, list, "main.[OperatorLog] as entries"_q, "asc"_q);
     },
     "select * from main.[OperatorLog] as entries where userName = 'admin' order by DATETIME asc;"_q},
    {"user_page_with_bare_table",
     [](Store &store, void *list) {
         store.findDataOfUserNamePage("admin"_q, list, "main.OperatorLog"_q, "desc"_q, 1, 2, 3);
     },
     "select * from main.OperatorLog where userName = 'admin' order by DATETIME desc limit 1, 2;"_q},
    {"user_count", [](Store &store, void *) { store.getDataCountOfUserQuery("admin"_q, "OperatorLog"_q); },
     "select count(*) from 'OperatorLog' where userName = 'admin'"_q},
    {"user_count_with_quoted_table",
     [](Store &store, void *) { store.getDataCountOfUserQuery("Operator Log"_q, "two words"_q); },
     "select count(*) from 'two words' where userName = 'Operator Log'"_q},
    {"newest_with_quoted_table", [](Store &store, void *list) { store.getCurrData("two words"_q, list, "desc"_q, 5); },
     "select * from 'two words' order by DATETIME desc limit 5;"_q},
    {"page_with_quoted_table",
     [](Store &store, void *list) { store.getAllDataPage("two words"_q, list, "asc"_q, 1, 2, 3); },
     "select * from (select * from 'two words' order by DATETIME desc limit 3) order by DATETIME limit 1, 2;"_q},
    {"time",
     [](Store &store, void *list) {
         store.findDataOfTime("2024-05-06 08:00:00"_q, "2024-05-06 08:59:59"_q, list, "OperatorLog"_q, "desc"_q);
     },
     "select * from OperatorLog where DATETIME Between '2024-05-06 08:00:00.000' and  '2024-05-06 08:59:59.999' "
     "order by DATETIME desc;"_q},
    {"time_with_slashes_in_any_order_word",
     [](Store &store, void *list) {
         store.findDataOfTime("2024/05/06 08:00:00"_q, "2024-05/06 08/59/59"_q, list, "OperatorLog"_q, "Asc"_q);
     },
     "select * from OperatorLog where DATETIME Between '2024-05-06 08:00:00.000' and  '2024-05-06 08-59-59.999' "
     "order by DATETIME Asc;"_q},
    {"time_with_milliseconds_in_no_order",
     [](Store &store, void *list) {
         store.findDataOfTime("2024-05-06 10:00:00.500"_q, "2024-05-06 10:00:00.600"_q, list, "OperatorLog"_q, ""_q);
     },
     "select * from OperatorLog where DATETIME Between '2024-05-06 10:00:00.500.000' and  "
     "'2024-05-06 10:00:00.600.999' order by DATETIME ;"_q},
    {"time_of_nothing",
     [](Store &store, void *list) { store.findDataOfTime(QString(), ""_q, list, "OperatorLog"_q, "desc"_q); },
     "select * from OperatorLog where DATETIME Between '.000' and  '.999' order by DATETIME desc;"_q},
    {"time_with_bare_table",
     [](Store &store, void *list) { store.findDataOfTime("2024"_q, "2025"_q, list, "[two words]"_q, "desc"_q); },
     "select * from [two words] where DATETIME Between '2024.000' and  '2025.999' order by DATETIME desc;"_q},
    {"time_page_with_bare_table",
     [](Store &store, void *list) {
         store.findDataOfTimePage("2024/01/01 00:00:00.1"_q, "2025"_q, list, "[two words]"_q, ""_q, 1, 2, 3);
     },
     "select * from (select * from [two words] where DATETIME Between '2024-01-01 00:00:00.1.000' and  '2025.999' "
     "order by DATETIME desc limit 3) order by DATETIME limit 1, 2;"_q},

    // Markers in a table name, a user or a time are filled by the arguments behind them.
    {"newest_marker_in_table", [](Store &store, void *list) { store.getCurrData("Operator%2"_q, list, "desc"_q, 7); },
     "select * from '%1' order by DATETIME desc limit %2;"_q.arg("Operator%2"_q).arg(7)},
    {"newest_markers_in_table_oldest_first",
     [](Store &store, void *list) { store.getCurrData("%10%99%L2"_q, list, "asc"_q, 7); },
     "select * from (select * from '%1' order by DATETIME desc limit %2) order by DATETIME asc;"_q.arg("%10%99%L2"_q)
         .arg(7)},
    {"page_marker_in_table", [](Store &store, void *list) { store.getAllDataPage("%L2%3"_q, list, "desc"_q, 1, 2, 3); },
     "select * from '%1' order by DATETIME desc limit %2, %3;"_q.arg("%L2%3"_q).arg(1).arg(2)},
    {"page_marker_in_table_oldest_first",
     [](Store &store, void *list) { store.getAllDataPage("%2%3%4%5"_q, list, ""_q, 1, 2, 3); },
     "select * from (select * from '%1' order by DATETIME desc limit %2) order by DATETIME limit %3, %4;"_q
         .arg("%2%3%4%5"_q)
         .arg(3)
         .arg(1)
         .arg(2)},
    {"user_marker_in_table",
     [](Store &store, void *list) { store.findDataOfUserName("Log"_q, list, "Operator%2"_q, "desc"_q); },
     "select * from %1 where userName = '%2' order by DATETIME %3;"_q.arg("Operator%2"_q).arg("Log"_q).arg("desc"_q)},
    {"user_marker_in_user",
     [](Store &store, void *list) { store.findDataOfUserName("%3 %L3 %10 %99"_q, list, "OperatorLog"_q, "desc"_q); },
     "select * from %1 where userName = '%2' order by DATETIME %3;"_q.arg("OperatorLog"_q)
         .arg("%3 %L3 %10 %99"_q)
         .arg("desc"_q)},
    {"user_as_table",
     [](Store &store, void *list) { store.findDataOfUserName("OperatorLog"_q, list, "%2"_q, "asc"_q); },
     "select * from %1 where userName = '%2' order by DATETIME %3;"_q.arg("%2"_q).arg("OperatorLog"_q).arg("asc"_q)},
    {"user_page_markers",
     [](Store &store, void *list) {
         store.findDataOfUserNamePage("%3 %4 %5"_q, list, "OperatorLog"_q, "desc"_q, 1, 2, 3);
     },
     "select * from %1 where userName = '%2' order by DATETIME desc limit %3, %4;"_q.arg("OperatorLog"_q)
         .arg("%3 %4 %5"_q)
         .arg(1)
         .arg(2)},
    {"user_page_markers_oldest_first",
     [](Store &store, void *list) {
         store.findDataOfUserNamePage("%3 %4 %5 %6 %10"_q, list, "OperatorLog"_q, "asc"_q, 1, 2, 3);
     },
     "select * from (select * from %1 where userName = '%2' order by DATETIME desc limit %3) order by DATETIME limit %4, %5;"_q
         .arg("OperatorLog"_q)
         .arg("%3 %4 %5 %6 %10"_q)
         .arg(3)
         .arg(1)
         .arg(2)},
    {"user_page_marker_in_table",
     [](Store &store, void *list) { store.findDataOfUserNamePage("OperatorLog"_q, list, "%2"_q, "desc"_q, 1, 2, 3); },
     "select * from %1 where userName = '%2' order by DATETIME desc limit %3, %4;"_q.arg("%2"_q)
         .arg("OperatorLog"_q)
         .arg(1)
         .arg(2)},
    {"user_page_marker_in_table_oldest_first",
     [](Store &store, void *list) { store.findDataOfUserNamePage("OperatorLog"_q, list, "%2"_q, "asc"_q, 1, 2, 3); },
     "select * from (select * from %1 where userName = '%2' order by DATETIME desc limit %3) order by DATETIME limit %4, %5;"_q
         .arg("%2"_q)
         .arg("OperatorLog"_q)
         .arg(3)
         .arg(1)
         .arg(2)},
    {"count_markers", [](Store &store, void *) { store.getDataCountOfUserQuery("OperatorLog"_q, "%2"_q); },
     "select count(*) from '%1' where userName = '%2'"_q.arg("%2"_q).arg("OperatorLog"_q)},
    {"count_marker_in_user_stays",
     [](Store &store, void *) { store.getDataCountOfUserQuery("%1 %2 %L2 %10"_q, "OperatorLog"_q); },
     "select count(*) from '%1' where userName = '%2'"_q.arg("OperatorLog"_q).arg("%1 %2 %L2 %10"_q)},
    {"time_markers",
     [](Store &store, void *list) { store.findDataOfTime("%3/%4"_q, "%4/%5"_q, list, "OperatorLog"_q, "desc"_q); },
     "select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME %4;"_q.arg("OperatorLog"_q)
         .arg("%3-%4.000"_q)
         .arg("%4-%5.999"_q)
         .arg("desc"_q)},
    {"time_marker_in_table",
     [](Store &store, void *list) { store.findDataOfTime("x"_q, "y"_q, list, "[%2]"_q, "asc"_q); },
     "select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME %4;"_q.arg("[%2]"_q)
         .arg("x.000"_q)
         .arg("y.999"_q)
         .arg("asc"_q)},
    {"time_page_markers",
     [](Store &store, void *list) {
         store.findDataOfTimePage("%3 %10"_q, "%4 %5 %6"_q, list, "OperatorLog"_q, "desc"_q, 1, 2, 3);
     },
     "select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME desc limit %4, %5;"_q
         .arg("OperatorLog"_q)
         .arg("%3 %10.000"_q)
         .arg("%4 %5 %6.999"_q)
         .arg(1)
         .arg(2)},
    {"time_page_marker_in_table",
     [](Store &store, void *list) { store.findDataOfTimePage("x"_q, "y"_q, list, "[%2]"_q, "desc"_q, 1, 2, 3); },
     "select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME desc limit %4, %5;"_q.arg("[%2]"_q)
         .arg("x.000"_q)
         .arg("y.999"_q)
         .arg(1)
         .arg(2)},
    {"time_page_marker_in_table_oldest_first",
     [](Store &store, void *list) { store.findDataOfTimePage("x"_q, "y"_q, list, "[%2]"_q, "asc"_q, 1, 2, 3); },
     "select * from (select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME desc limit %4) order by DATETIME limit %5, %6;"_q
         .arg("[%2]"_q)
         .arg("x.000"_q)
         .arg("y.999"_q)
         .arg(3)
         .arg(1)
         .arg(2)},
    {"time_page_markers_oldest_first",
     [](Store &store, void *list) {
         store.findDataOfTimePage("%3 %5"_q, "%4 %6 %L6"_q, list, "OperatorLog"_q, "DESC"_q, 1, 2, 3);
     },
     "select * from (select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME desc limit %4) order by DATETIME limit %5, %6;"_q
         .arg("OperatorLog"_q)
         .arg("%3 %5.000"_q)
         .arg("%4 %6 %L6.999"_q)
         .arg(3)
         .arg(1)
         .arg(2)},
};

class OperatorLogStatement : public OperatorLogQuery, public ::testing::WithParamInterface<StatementCase>
{
};
INSTANTIATE_TEST_SUITE_P(, OperatorLogStatement, ::testing::ValuesIn(statementCases), byName);

TEST_P(OperatorLogStatement, IsExactlyThis)
{
    // Where the filled markers lead to.
    plainly("begin;"
            "create table [two words](DATETIME, userName); create table Operator7(DATETIME);"
            "create table [%10%997](DATETIME); create table [12](DATETIME); create table [312%5](DATETIME);"
            "create table [x.000](DATETIME);"
            "commit");
    GetParam().run(store(), &list);
    EXPECT_EQ(trace.take(), QStringList(GetParam().sql));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogQuery, TheLowestMarkerIsFilledFirstAndTheLastOneStaysEmpty)
{
    store().findDataOfUserNamePage("%1"_q, &list, "OperatorLog"_q, "desc"_q, 1, 2, 3); // ... = '1' ... limit 2, %4;
    EXPECT_EQ(log.take(),
              QStringList(streamed("findDataOfUserNamePage", QString::fromLatin1("near \"%\": syntax error"))));
}

// --- The answers ---------------------------------------------------------------------------------------------------

TEST_F(OperatorLogQuery, GetCurrDataOfFiveOnThreeEntriesIsAllThree)
{
    insertNumbered(3);
    store().getCurrData("OperatorLog"_q, &list, "desc"_q, 5);
    EXPECT_EQ(found(), numbers(3, 1));
    store().getCurrData("OperatorLog"_q, &list, "DESC"_q, 5);
    EXPECT_EQ(found(), numbers(1, 3));
}

TEST_F(OperatorLogQuery, GetCurrDataTakesTheNewestInBothOrders)
{
    insertNumbered(9);
    store().getCurrData("OperatorLog"_q, &list, "desc"_q, 4);
    EXPECT_EQ(found(), numbers(9, 6));
    store().getCurrData("OperatorLog"_q, &list, ""_q, 4);
    EXPECT_EQ(found(), numbers(6, 9));
    store().getCurrData("OperatorLog"_q, &list, "asc"_q, -1); // no limit to SQLite
    EXPECT_EQ(found(), numbers(1, 9));
    store().getCurrData("OperatorLog"_q, &list, "asc"_q, 0);
    EXPECT_EQ(found(), QStringList());
}

TEST_F(OperatorLogQuery, TheSpanPlaysNoPartInTheNewestFirstPage)
{
    insertNumbered(60);
    store().getAllDataPage("OperatorLog"_q, &list, "desc"_q, 0, 50, 10);
    EXPECT_EQ(found(), numbers(60, 11));
    store().getAllDataPage("OperatorLog"_q, &list, "desc"_q, 50, 50, 10);
    EXPECT_EQ(found(), numbers(10, 1));
}

TEST_F(OperatorLogQuery, ThePartialLastPageOldestFirstHoldsTheNewestEntries)
{
    insertNumbered(60);
    store().getAllDataPage("OperatorLog"_q, &list, "asc"_q, 40, 20, 50);
    EXPECT_EQ(found(), numbers(51, 60));
    store().findDataOfUserNamePage("admin"_q, &list, "OperatorLog"_q, "asc"_q, 40, 20, 50);
    EXPECT_EQ(found(), numbers(51, 60));
    store().findDataOfTimePage("2024-05-06 08:00:00"_q, "2024-05-06 09:00:00"_q, &list, "OperatorLog"_q, "asc"_q, 40,
                               20, 50);
    EXPECT_EQ(found(), numbers(51, 60));
}

TEST_F(OperatorLogQuery, PagesNewestFirstCountFromTheNewest)
{
    insertNumbered(30);
    store().findDataOfUserNamePage("admin"_q, &list, "OperatorLog"_q, "desc"_q, 10, 5, 3);
    EXPECT_EQ(found(), numbers(20, 16));
    store().findDataOfTimePage("2024-05-06 08:00:00"_q, "2024-05-06 08:00:20"_q, &list, "OperatorLog"_q, "desc"_q, 10,
                               5, 3);
    EXPECT_EQ(found(), numbers(10, 6));
}

TEST_F(OperatorLogQuery, AnEmptyOrderWordIsOldestFirstAndAWrongOneFails)
{
    insertNumbered(3);
    store().findDataOfUserName("admin"_q, &list, "OperatorLog"_q, ""_q);
    EXPECT_EQ(found(), numbers(1, 3));
    EXPECT_EQ(log.take(), QStringList());
    store().findDataOfUserName("admin"_q, &list, "OperatorLog"_q, "up"_q);
    EXPECT_EQ(found(), QStringList());
    EXPECT_EQ(log.take(), QStringList(streamed("findDataOfUserName", "near \"up\": syntax error"_q)));
}

TEST_F(OperatorLogQuery, OrderWordsArePastedWhereTheyAreNotChosenBy)
{
    insertNumbered(3);
    for (const char *order : {"desc", "DESC", "Desc "}) {
        store().findDataOfUserName("admin"_q, &list, "OperatorLog"_q, QString::fromLatin1(order));
        EXPECT_EQ(found(), numbers(3, 1)) << order;
        store().findDataOfTime("2024-01-01"_q, "2024-12-31"_q, &list, "OperatorLog"_q, QString::fromLatin1(order));
        EXPECT_EQ(found(), numbers(3, 1)) << order;
    }
}

TEST_F(OperatorLogQuery, TheUserNameIsMatchedExactlyAndInItsCase)
{
    insert({{"2024-05-06 08:00:00.000"_q, "Admin"_q, "log"_q, "upper"_q},
            {"2024-05-06 08:00:01.000"_q, "admin"_q, "log"_q, "lower"_q},
            {"2024-05-06 08:00:02.000"_q, "admin "_q, "log"_q, "blank"_q},
            {"2024-05-06 08:00:03.000"_q, "adm%"_q, "log"_q, "wildcard"_q}});
    const QList<QPair<QString, QStringList>> users{
        {"admin"_q, {"lower"_q}},  {"Admin"_q, {"upper"_q}}, {"adm%"_q, {"wildcard"_q}},
        {"admin "_q, {"blank"_q}}, {"ADMIN"_q, {}},          {""_q, {}}};
    for (const auto &user : users) {
        store().findDataOfUserName(user.first, &list, "OperatorLog"_q, "asc"_q);
        EXPECT_EQ(found(), user.second);
        store().findDataOfUserNamePage(user.first, &list, "OperatorLog"_q, "desc"_q, 0, 10, 10);
        EXPECT_EQ(found(), user.second);
        store().findDataOfUserNamePage(user.first, &list, "OperatorLog"_q, "asc"_q, 0, 10, 10);
        EXPECT_EQ(found(), user.second);
        EXPECT_EQ(store().getDataCountOfUserQuery(user.first, "OperatorLog"_q), user.second.size());
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogQuery, TheSpanOfAUsersPageCountsThatUsersEntriesAlone)
{
    insertNumbered(5);
    insert({{"2024-12-31 00:00:00.000"_q, "guest"_q, "log"_q, "other"_q}});
    store().findDataOfUserNamePage("admin"_q, &list, "OperatorLog"_q, "asc"_q, 0, 10, 2);
    EXPECT_EQ(found(), numbers(4, 5));
}

TEST_F(OperatorLogQuery, AQuoteInTheUserNameFailsEveryUserOperation)
{
    insertNumbered(2);
    store().findDataOfUserName("O'Neill"_q, &list, "OperatorLog"_q, "desc"_q);
    store().findDataOfUserNamePage("O'Neill"_q, &list, "OperatorLog"_q, "desc"_q, 0, 10, 10);
    EXPECT_EQ(store().getDataCountOfUserQuery("O'Neill"_q, "OperatorLog"_q), 0);
    EXPECT_EQ(found(), QStringList());
    const QString error = "near \"Neill\": syntax error"_q;
    EXPECT_EQ(log.take(), QStringList({streamed("findDataOfUserName", error), streamed("findDataOfUserNamePage", error),
                                       "database getDataCountOfUserQuery failed\n"_q}));
}

TEST_F(OperatorLogQuery, CountingOnAMissingTableIsZeroAndSaysSo)
{
    EXPECT_EQ(store().getDataCountOfUserQuery("admin"_q, "Missing"_q), 0);
    EXPECT_EQ(log.take(), QStringList("database getDataCountOfUserQuery failed\n"_q));
}

TEST_F(OperatorLogQuery, CountingAUserWithoutEntriesIsZeroAndSilent)
{
    insertNumbered(12);
    EXPECT_EQ(store().getDataCountOfUserQuery("guest"_q, "OperatorLog"_q), 0);
    EXPECT_EQ(store().getDataCountOfUserQuery("admin"_q, "OperatorLog"_q), 12);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogQuery, ACountThatThePastedUserLeavesWithoutARowIsZero)
{
    EXPECT_EQ(store().getDataCountOfUserQuery("' limit 0 --"_q, "OperatorLog"_q), 0);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogQuery, ADaysRangeTakesInItsLastMillisecond)
{
    insert({{"2024-05-05 23:59:59.999"_q, "admin"_q, "log"_q, "before"_q},
            {"2024-05-06 00:00:00.000"_q, "admin"_q, "log"_q, "first"_q},
            {"2024-05-06 12:00:00.500"_q, "admin"_q, "log"_q, "middle"_q},
            {"2024-05-06 23:59:59.999"_q, "admin"_q, "log"_q, "last"_q},
            {"2024-05-07 00:00:00.000"_q, "admin"_q, "log"_q, "after"_q}});
    const QStringList day{"first"_q, "middle"_q, "last"_q};
    store().findDataOfTime("2024/05/06 00:00:00"_q, "2024/05/06 23:59:59"_q, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), day);
    store().findDataOfTime("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), day);
    store().findDataOfTimePage("2024/05/06 00:00:00"_q, "2024/05/06 23:59:59"_q, &list, "OperatorLog"_q, "asc"_q, 0, 10,
                               10);
    EXPECT_EQ(found(), day);
}

TEST_F(OperatorLogQuery, ABoundWithMillisecondsGetsThemTwice)
{
    insert({{"2024-05-06 10:00:00.500"_q, "admin"_q, "log"_q, "at the bound"_q},
            {"2024-05-06 10:00:00.501"_q, "admin"_q, "log"_q, "behind"_q}});
    store().findDataOfTime("2024-05-06 10:00:00.500"_q, "2024-05-06 11:00:00"_q, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), QStringList("behind"_q)); // ".500" stands in front of ".500.000"
    store().findDataOfTime("2024-05-06 10:00:00"_q, "2024-05-06 10:00:00.500"_q, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), QStringList("at the bound"_q));
}

TEST_F(OperatorLogQuery, EntriesOfTheSameTimeAllComeBack)
{
    const QString time = "2024-05-06 10:00:00.000"_q;
    insert({{time, "admin"_q, "log"_q, "a"_q}, {time, "admin"_q, "log"_q, "b"_q}, {time, "admin"_q, "log"_q, "c"_q}});
    store().getCurrData("OperatorLog"_q, &list, "desc"_q, 10);
    QStringList messages = found();
    messages.sort();
    EXPECT_EQ(messages, QStringList({"a"_q, "b"_q, "c"_q}));
}

// --- The records ---------------------------------------------------------------------------------------------------

struct RecordOperation {
    const char *name;
    /// Every entry of the user "admin" in the year 2024, oldest first.
    std::function<void(Store &, void *list, QString table)> run;
};

const RecordOperation recordOperations[] = {
    {"getCurrData", [](Store &store, void *list, QString table) { store.getCurrData(table, list, "asc"_q, 99); }},
    {"getAllDataPage",
     [](Store &store, void *list, QString table) { store.getAllDataPage(table, list, "asc"_q, 0, 99, 99); }},
    {"findDataOfUserName",
     [](Store &store, void *list, QString table) { store.findDataOfUserName("admin"_q, list, table, "asc"_q); }},
    {"findDataOfUserNamePage",
     [](Store &store, void *list, QString table) {
         store.findDataOfUserNamePage("admin"_q, list, table, "asc"_q, 0, 99, 99);
     }},
    {"findDataOfTime",
     [](Store &store, void *list, QString table) {
         store.findDataOfTime("2024-01-01 00:00:00"_q, "2024/12/31 23:59:59"_q, list, table, "asc"_q);
     }},
    {"findDataOfTimePage",
     [](Store &store, void *list, QString table) {
         store.findDataOfTimePage("2024-01-01 00:00:00"_q, "2024/12/31 23:59:59"_q, list, table, "asc"_q, 0, 99, 99);
     }},
};

class OperatorLogRecord : public OperatorLogQuery, public ::testing::WithParamInterface<RecordOperation>
{
protected:
    void run(const QString &table = "OperatorLog"_q) { GetParam().run(store(), &list, table); }
};
INSTANTIATE_TEST_SUITE_P(, OperatorLogRecord, ::testing::ValuesIn(recordOperations), byName);

TEST_P(OperatorLogRecord, CarriesEachCellInItsField)
{
    insert({{"2024-05-06 07:08:09.012"_q, "admin"_q, "Login"_q, "Logged in"_q}});
    run();
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list.first().userName, "admin"_q);
    EXPECT_EQ(list.first().logName, "Login"_q);
    EXPECT_EQ(list.first().message, "Logged in"_q);
    EXPECT_EQ(list.first().dateTime, QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9, 12)));
    EXPECT_EQ(list.first().dateTime.timeSpec(), Qt::LocalTime);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(OperatorLogRecord, IsAppendedBehindWhatTheListHolds)
{
    insertNumbered(2);
    list = {{"kept"_q, "log"_q, "one"_q, QDateTime()}, {"kept"_q, "log"_q, "two"_q, QDateTime()}};
    run();
    EXPECT_EQ(list.first().userName, "kept"_q);
    EXPECT_EQ(found(), QStringList({"one"_q, "two"_q, "1"_q, "2"_q}));
}

TEST_P(OperatorLogRecord, OfAnOddTimeHasAnInvalidOne)
{
    const QStringList times{"2024-05-06 07:08:09"_q,        "2024-05-06 07:08:09."_q,    "2024-05-06 07:08:09.12"_q,
                            "2024-05-06 07:08:09.1234"_q,   "2024-05-06 07:08:09.1 "_q,  "2024-05-06 07:08:60.000"_q,
                            "2024-05-06 24:00:00.000"_q,    "2024-05-06T07:08:09.123"_q, "2024-02-30 07:08:09.123"_q,
                            "2024-05-06 07:08:09.123Z"_q,   "2024-05-06 7:8:9,123"_q,    "2024-05-06"_q,
                            "2024-05-06  07:08:09.123"_q,   "2024-04-31 07:08:09.123"_q, "2024-12"_q,
                            "2024-12-06 07:08:09.123 pm"_q, "2024-11/06 07:08:09.123"_q};
    Rows rows;
    for (const QString &time : times)
        rows.append({time, "admin"_q, "log"_q, time});
    insert(rows);
    run();
    EXPECT_EQ(list.size(), times.size());
    for (const OperatorLogData &entry : list)
        EXPECT_FALSE(entry.dateTime.isValid()) << qPrintable(entry.message);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(OperatorLogRecord, HasNullTextsForNullAndEmptyOnesForEmpty)
{
    plainly("insert into OperatorLog values (1, '2024-05-06 07:08:09.123', 'admin', NULL, NULL),"
            "                               (2, '2024-05-06 07:08:10.123', 'admin', '', '')");
    run();
    ASSERT_EQ(list.size(), 2);
    EXPECT_TRUE(list.at(0).logName.isNull());
    EXPECT_TRUE(list.at(0).message.isNull());
    EXPECT_TRUE(list.at(1).logName.isEmpty() && !list.at(1).logName.isNull());
    EXPECT_TRUE(list.at(1).message.isEmpty() && !list.at(1).message.isNull());
}

TEST_P(OperatorLogRecord, IsMadeByPositionWhateverTheColumnsAreCalled)
{
    plainly("create table Positions(message, a, DATETIME, userName, b);"
            "insert into Positions values ('%1', '2024-05-06 07:08:09.123', '2024-06-01', 'admin', 'last')");
    run("Positions"_q);
    EXPECT_EQ(textsOf(list), Rows({{"2024-05-06 07:08:09.123"_q, "2024-06-01"_q, "admin"_q, "last"_q}}));
}

TEST_P(OperatorLogRecord, OfANullTimeOrUserIsMadeToo)
{
    plainly("create table Loose(ID, a, DATETIME, userName, b);"
            "insert into Loose values (NULL, NULL, '2024-06-01', 'admin', 7)");
    run("Loose"_q);
    ASSERT_EQ(list.size(), 1);
    EXPECT_FALSE(list.first().dateTime.isValid());
    EXPECT_EQ(list.first().message, "7"_q);
}

TEST_P(OperatorLogRecord, ReadsTheTextOfAnyStoredTypeUpToItsFirstNul)
{
    plainly("insert into OperatorLog values (1, '2024-05-06 07:08:09.123', 'admin', 7.5, x'4142'),"
            "                               (2, '2024-05-06 07:08:10.123', 'admin', 'a' || char(0) || 'b', 'x')");
    run();
    EXPECT_EQ(textsOf(list), Rows({{"2024-05-06 07:08:09.123"_q, "admin"_q, "7.5"_q, "AB"_q},
                                   {"2024-05-06 07:08:10.123"_q, "admin"_q, "a"_q, "x"_q}}));
}

TEST_P(OperatorLogRecord, OfATableOfAnotherWidthIsNotMadeAndNothingIsSaid)
{
    insertNumbered(1);
    plainly("create table Three(DATETIME, userName, a); insert into Three values ('2024-06-01', 'admin', 1);"
            "create table Four(DATETIME, userName, a, b); insert into Four values ('2024-06-01', 'admin', 1, 2);"
            "create table Six(DATETIME, userName, a, b, c, d);"
            "insert into Six values ('2024-06-01', 'admin', 1, 2, 3, 4)");
    for (const char *table : {"Three", "Four", "Six"}) {
        run(QString::fromLatin1(table));
        EXPECT_EQ(trace.take().size(), 1) << table;
    }
    EXPECT_EQ(textsOf(list), Rows());
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(OperatorLogRecord, OfNoRowLeavesTheListAsItWas)
{
    list = {{"kept"_q, "log"_q, "one"_q, QDateTime()}};
    run();
    EXPECT_EQ(found(), QStringList("one"_q));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(OperatorLogRecord, ComesOldestFirst)
{
    insert({{"2024-05-06 07:08:09.002"_q, "admin"_q, "log"_q, "2"_q},
            {"2024-05-06 07:08:09.001"_q, "admin"_q, "log"_q, "1"_q},
            {"2024-05-06 07:08:09.003"_q, "admin"_q, "log"_q, "3"_q}});
    run();
    EXPECT_EQ(found(), numbers(1, 3));
}

// --- The failures --------------------------------------------------------------------------------------------------

struct FailingOperation {
    const char *name;
    std::function<int(Store &, void *list, QString table)> run;
    std::function<QStringList(const char *error)> messages;
};

template<typename Operation>
std::function<int(Store &, void *, QString)> answeringNothing(Operation operation)
{
    return [operation](Store &store, void *list, QString table) {
        operation(store, list, table);
        return 0;
    };
}

/// The name, then SQLite's text as a string: between quotes.
std::function<QStringList(const char *)> nameAndError(const char *name)
{
    return [name](const char *error) { return QStringList(streamed(name, QString::fromLatin1(error))); };
}

const FailingOperation failingOperations[] = {
    {"getCurrData", answeringNothing(recordOperations[0].run),
     [](const char *error) { // two messages; the second is the bare C string
         return QStringList({"database getCurrData failed\n"_q, streamed(error)});
     }},
    {"getAllDataPage", answeringNothing(recordOperations[1].run),
     [](const char *) { return QStringList("database getAllData failed\n"_q); }},
    {"findDataOfUserName", answeringNothing(recordOperations[2].run), nameAndError("findDataOfUserName")},
    {"findDataOfUserNamePage", answeringNothing(recordOperations[3].run), nameAndError("findDataOfUserNamePage")},
    {"findDataOfTime", answeringNothing(recordOperations[4].run), nameAndError("findDataOfTime")},
    {"findDataOfTimePage", answeringNothing(recordOperations[5].run), nameAndError("findDataOfTimePage")},
    {"getDataCountOfUserQuery",
     [](Store &store, void *, QString table) { return store.getDataCountOfUserQuery("admin"_q, table); },
     [](const char *) { return QStringList("database getDataCountOfUserQuery failed\n"_q); }},
};

class OperatorLogFailure : public OperatorLogQuery, public ::testing::WithParamInterface<FailingOperation>
{
protected:
    void expectFailure(const char *table, const char *error)
    {
        list = {{"kept"_q, "log"_q, "one"_q, QDateTime()}};
        EXPECT_EQ(GetParam().run(store(), &list, QString::fromUtf8(table)), 0);
        EXPECT_EQ(found(), QStringList("one"_q));
        EXPECT_EQ(log.take(), GetParam().messages(error));
    }
};
INSTANTIATE_TEST_SUITE_P(, OperatorLogFailure, ::testing::ValuesIn(failingOperations), byName);

TEST_P(OperatorLogFailure, OfAMissingTableIsLoggedInItsOwnWords)
{
    expectFailure("Missing", "no such table: Missing");
}

TEST_P(OperatorLogFailure, OfATextThatIsNotLatin1IsLoggedInItsOwnConversion)
{
    // SQLite's bytes: the string items read them as Latin-1, the bare C string as QDebug does.
    expectFailure("Zürich_表", "no such table: Zürich_表");
}

TEST_P(OperatorLogFailure, OfALockedFileIsLoggedInItsOwnWords)
{
    insertNumbered(3);
    PlainConnection writer(path());
    writer.run("begin exclusive"_q);
    expectFailure("OperatorLog", "database is locked");
    writer.run("commit"_q);
    list.clear();
    GetParam().run(store(), &list, "OperatorLog"_q); // and the store works on
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogQuery, AQuoteInABoundFailsBothTimeOperations)
{
    insertNumbered(2);
    store().findDataOfTime("O'Neill"_q, "2025"_q, &list, "OperatorLog"_q, "asc"_q);
    store().findDataOfTime("2024"_q, "O'Neill"_q, &list, "OperatorLog"_q, "asc"_q);
    store().findDataOfTimePage("O'Neill"_q, "2025"_q, &list, "OperatorLog"_q, "asc"_q, 0, 9, 9);
    store().findDataOfTimePage("2024"_q, "O'Neill"_q, &list, "OperatorLog"_q, "desc"_q, 0, 9, 9);
    EXPECT_EQ(found(), QStringList());
    const QString time = streamed("findDataOfTime", "near \"Neill\": syntax error"_q);
    const QString page = streamed("findDataOfTimePage", "near \"Neill\": syntax error"_q);
    EXPECT_EQ(log.take(), QStringList({time, time, page, page}));
}

TEST_F(OperatorLogQuery, AWrongOrderWordFailsWhereItIsPasted)
{
    insertNumbered(2);
    store().findDataOfTime("2024-01-01"_q, "2024-12-31"_q, &list, "OperatorLog"_q, "up"_q);
    EXPECT_EQ(found(), QStringList());
    EXPECT_EQ(log.take(), QStringList(streamed("findDataOfTime", "near \"up\": syntax error"_q)));
}

TEST_F(OperatorLogQuery, ATableNameOfTwoWordsIsFoundWhereTheTemplateQuotesIt)
{
    plainly("create table [two words](ID, DATETIME, userName, logName, message);"
            "insert into [two words] values (1, '2024-05-06 07:08:09.123', 'admin', 'log', 'message')");
    for (const FailingOperation &operation : failingOperations) {
        operation.run(store(), &list, "two words"_q);
        const QString name = QString::fromLatin1(operation.name);
        const bool bare = name.startsWith("findDataOf"_q);
        EXPECT_EQ(found().size(), bare || name == "getDataCountOfUserQuery"_q ? 0 : 1) << operation.name;
        EXPECT_EQ(log.take().size(), bare ? 1 : 0) << operation.name;
    }
    EXPECT_EQ(store().getDataCountOfUserQuery("admin"_q, "two words"_q), 1);
}

TEST_F(OperatorLogQuery, ASecondStatementPastedIntoTheUserFailsWithoutARecord)
{
    insertNumbered(2);
    store().findDataOfUserName("admin'; select 1; --"_q, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), QStringList());
    EXPECT_EQ(log.take(), QStringList(streamed("findDataOfUserName",
                                               "sqlite3_get_table() called with two or more incompatible queries"_q)));
}

} // namespace
