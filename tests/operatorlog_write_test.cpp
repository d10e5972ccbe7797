// SPDX-License-Identifier: MIT
//
// The operator log's table, its batch insert and its stubs.
#include "operator_log.h"
#include "store_test.h"

namespace
{

const QString existenceTest = "select count(type) from sqlite_master where type='table' and name ='OperatorLog'"_q;
const QString createStatement =
    "create table OperatorLog(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,"
    "userName text,logName text,message text)"_q;

class OperatorLogTable : public StoreTest
{
protected:
    OperatorLogTable() { open("operatorLogDB"); }
};

TEST_F(OperatorLogTable, CreateTableOnANewFileIsTrueAndSaysSo)
{
    EXPECT_TRUE(store().createTable("OperatorLog"_q, QString()));
    EXPECT_EQ(trace.take(), QStringList({existenceTest, createStatement}));
    EXPECT_EQ(log.take(), QStringList("operatorlog Table create success!"_q));
}

TEST_F(OperatorLogTable, TheFileHoldsTheTableAsCreatedAndNothingElse)
{
    store().createTable("OperatorLog"_q, QString());
    QString asSqliteKeepsIt = createStatement; // it writes the first two words anew
    asSqliteKeepsIt.replace(0, int(qstrlen("create table")), "CREATE TABLE"_q);
    EXPECT_EQ(rowsOf(path(), "select type, name, sql from sqlite_master where name != 'sqlite_sequence'"_q),
              Rows({{"table"_q, "OperatorLog"_q, asSqliteKeepsIt}}));
}

TEST_F(OperatorLogTable, CreatingATwiceNamedTableIsFalseAndSilent)
{
    store().createTable("OperatorLog"_q, QString());
    log.take();
    trace.take();
    EXPECT_FALSE(store().createTable("OperatorLog"_q, QString()));
    EXPECT_EQ(trace.take(), QStringList(existenceTest));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogTable, CreateTableIgnoresItsSecondText)
{
    EXPECT_TRUE(store().createTable("OperatorLog"_q, "it's %1"_q));
    EXPECT_EQ(trace.take(), QStringList({existenceTest, createStatement}));
    EXPECT_EQ(valueOf(path(), "select count(*) from sqlite_master where name = 'tb_config'"_q), "0"_q);
}

TEST_F(OperatorLogTable, AFailedCreateIsFalseAndLogsOneMessageWithoutSqlitesText)
{
    for (const char *name : {"select", "two words", "semi;colon", ""}) {
        EXPECT_FALSE(store().createTable(QString::fromLatin1(name), QString())) << name;
        EXPECT_EQ(log.take(), QStringList("operatorlog Table create fail!"_q)) << name;
    }
    EXPECT_EQ(valueOf(path(), "select count(*) from sqlite_master"_q), "0"_q);
}

TEST_F(OperatorLogTable, TheTableNameIsPastedWithoutQuotes)
{
    EXPECT_TRUE(store().createTable("main.[two words]"_q, QString()));
    EXPECT_EQ(valueOf(path(), "select name from sqlite_master where name != 'sqlite_sequence'"_q), "two words"_q);
}

TEST_F(OperatorLogTable, StubsRunNothingAndLeaveTheirOutputs)
{
    store().createTable("OperatorLog"_q, QString());
    log.take();
    trace.take();

    const Rows before{{"kept"_q}};
    Rows result = before;
    for (int mode : {-1, 0, 1, 2, 7}) {
        EXPECT_FALSE(store().execSQL({"select 1"_q, "delete from OperatorLog"_q}, result, mode)) << mode;
        EXPECT_FALSE(store().execSQL({}, result, mode)) << mode;
    }
    store().findDataByTime("2024-01-01 00:00:00"_q, "2024-12-31 23:59:59"_q, 0, 10, result, "OperatorLog"_q);
    EXPECT_EQ(result, before);

    QList<OperatorLogData> entries{{"kept"_q, "log"_q, "message"_q, QDateTime()}};
    store().findDataOfValue("a"_q, "2024-12-31 23:59:59"_q, &entries, "OperatorLog"_q, "desc"_q);
    EXPECT_EQ(textsOf(entries), Rows({{"invalid"_q, "kept"_q, "log"_q, "message"_q}}));

    EXPECT_EQ(trace.take(), QStringList());
    EXPECT_EQ(log.take(), QStringList());
}

class OperatorLogInsert : public OperatorLogTable
{
protected:
    OperatorLogInsert()
    {
        store().createTable("OperatorLog"_q, QString());
        log.take();
        trace.take();
    }

    void insert(Rows rows, const QString &table = "OperatorLog"_q) { store().insertManyDatas(rows, table); }
    Rows stored() const
    {
        return rowsOf(path(), "select DATETIME, userName, logName, message from OperatorLog order by ID"_q);
    }
    Rows found(const QString &order)
    {
        QList<OperatorLogData> entries;
        store().findDataOfUserName("admin"_q, &entries, "OperatorLog"_q, order);
        return textsOf(entries);
    }
};

const QStringList first{"2024-05-06 07:08:09.123"_q, "admin"_q, "Login"_q, "Logged in"_q};
const QStringList second{"2024-05-06 07:08:10.000"_q, "guest"_q, "Start"_q, "Pump 1"_q};
const QStringList third{"2024-05-06 07:08:11.999"_q, "admin"_q, "Logout"_q, ""_q};

TEST_F(OperatorLogInsert, EachRowIsOneStatementInOneTransaction)
{
    insert({first, second});
    EXPECT_EQ(trace.take(),
              QStringList(
                  {"begin transaction"_q,
                   "insert into OperatorLog values(NULL, '2024-05-06 07:08:09.123', 'admin', 'Login', 'Logged in');"_q,
                   "insert into OperatorLog values(NULL, '2024-05-06 07:08:10.000', 'guest', 'Start', 'Pump 1');"_q,
                   "commit transaction"_q}));
    EXPECT_EQ(stored(), Rows({first, second}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogInsert, ARowOfThreeCellsIsSkippedAndOneOfSixKeepsItsFirstFour)
{
    insert({first, second.mid(0, 3), third + QStringList({"fifth"_q, "sixth"_q}), {}});
    EXPECT_EQ(trace.take().size(), 4); // begin, two rows, commit
    EXPECT_EQ(stored(), Rows({first, third}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogInsert, AnEmptyBatchIsAnEmptyTransaction)
{
    insert({});
    EXPECT_EQ(trace.take(), QStringList({"begin transaction"_q, "commit transaction"_q}));
    EXPECT_EQ(stored(), Rows());
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogInsert, QuotesInUserLogNameAndMessageAreStoredIntact)
{
    const QStringList row{"2024-05-06 07:08:09.123"_q, "O'Neill"_q, "'"_q, "it's ''quoted'' '"_q};
    insert({row});
    EXPECT_EQ(stored(), Rows({row}));
    EXPECT_EQ(trace.take().value(1),
              "insert into OperatorLog values(NULL, '2024-05-06 07:08:09.123', 'O''Neill', '''', "
              "'it''s ''''quoted'''' ''');"_q);
}

TEST_F(OperatorLogInsert, AQuoteInTheTimeLosesThatRowAlone)
{
    insert({first, {"2024-05-06 07:08:10'000"_q, "a"_q, "b"_q, "c"_q}, third});
    EXPECT_EQ(stored(), Rows({first, third}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogInsert, OddTimesAreStoredAsTheyAreAndReadBackInvalid)
{
    const Rows rows{{"2024/05/06 07:08:09.123"_q, "admin"_q, "slashes"_q, ""_q},
                    {"2024-05-06 07:08:09"_q, "admin"_q, "no milliseconds"_q, ""_q},
                    {"2024-12-31 23:59:59.999"_q, "admin"_q, "proper"_q, ""_q},
                    {""_q, "admin"_q, "empty"_q, ""_q}};
    insert(rows);
    EXPECT_EQ(stored(), rows);

    // Ordered by their raw text: "/" stands behind "-", so the slashed day of May follows all of the year.
    EXPECT_EQ(found("asc"_q), Rows({{"invalid"_q, "admin"_q, "empty"_q, ""_q},
                                    {"invalid"_q, "admin"_q, "no milliseconds"_q, ""_q},
                                    {"2024-12-31 23:59:59.999"_q, "admin"_q, "proper"_q, ""_q},
                                    {"invalid"_q, "admin"_q, "slashes"_q, ""_q}}));

    const auto inRange = [this](const char *start, const char *end) {
        QList<OperatorLogData> entries;
        store().findDataOfTime(QString::fromLatin1(start), QString::fromLatin1(end), &entries, "OperatorLog"_q,
                               "asc"_q);
        QStringList names;
        for (const OperatorLogData &entry : entries)
            names.append(entry.logName);
        return names;
    };
    // Without milliseconds a text stands in front of ".000" of its own second.
    EXPECT_EQ(inRange("2024-05-06 07:08:09", "2024-05-06 07:08:09"), QStringList());
    EXPECT_EQ(inRange("2024-05-06 07:08:08", "2024-05-06 07:08:09"), QStringList("no milliseconds"_q));
    EXPECT_EQ(inRange("2024-05-06 00:00:00", "2024-12-31 23:59:59"), QStringList({"no milliseconds"_q, "proper"_q}));
    EXPECT_EQ(inRange("2024-12-31 00:00:00", "2025-01-01 00:00:00"), QStringList({"proper"_q, "slashes"_q}));
}

TEST_F(OperatorLogInsert, ABatchForAMissingTableLosesEveryRowCommitsAndIsSilent)
{
    insert({first, second}, "Missing"_q);
    EXPECT_EQ(trace.take(), QStringList({"begin transaction"_q, "commit transaction"_q}));
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), Rows());
    insert({first}); // nothing is left open
    EXPECT_EQ(stored(), Rows({first}));
}

TEST_F(OperatorLogInsert, TheTableNameIsPastedWithoutQuotes)
{
    insert({first}, "main.OperatorLog(ID, DATETIME, userName, message, logName)"_q);
    EXPECT_EQ(stored(), Rows({{first.at(0), first.at(1), first.at(3), first.at(2)}}));
    insert({second}, "'Operator' || 'Log'"_q);
    EXPECT_EQ(stored().size(), 1);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogInsert, ARowAgainstAConstraintIsLostAndTheBatchGoesOn)
{
    PlainConnection(path()).run("create unique index once on OperatorLog(userName)"_q);
    insert({first, third, second}); // first and third are the same user
    EXPECT_EQ(stored(), Rows({first, second}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OperatorLogInsert, IdsAreSqlitesOwnAndNeverReused)
{
    insert({first, second});
    PlainConnection(path()).run("delete from OperatorLog"_q);
    insert({third});
    EXPECT_EQ(valueOf(path(), "select ID from OperatorLog"_q), "3"_q);
    EXPECT_EQ(valueOf(path(), "select seq from sqlite_sequence where name = 'OperatorLog'"_q), "3"_q);
}

TEST_F(OperatorLogInsert, AFailedCommitIsLoggedAndALaterCommitCoversBothBatches)
{
    {
        PlainConnection reader(path());
        reader.run("begin; select count(*) from OperatorLog"_q);
        insert({first});
        EXPECT_EQ(log.take(), QStringList("insertManyDatas fail"_q));
        EXPECT_EQ(reader.value("select count(*) from OperatorLog"_q), "0"_q);
    }
    trace.take();
    insert({second}); // its own "begin transaction" fails, without a word
    EXPECT_EQ(trace.take().size(), 3);
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), Rows({first, second}));
}

TEST_F(OperatorLogInsert, ATransactionEndedByARowMakesTheCommitFail)
{
    PlainConnection(path()).run("create trigger refuse before insert on OperatorLog when new.userName = 'guest' "
                                "begin select raise(rollback, 'refused'); end"_q);
    insert({first, second});
    EXPECT_EQ(log.take(), QStringList("insertManyDatas fail"_q));
    EXPECT_EQ(stored(), Rows());
    insert({first, second, third}); // behind the rollback every row commits by itself
    EXPECT_EQ(log.take(), QStringList("insertManyDatas fail"_q));
    EXPECT_EQ(stored(), Rows({third}));
}

TEST_F(OperatorLogInsert, AMarkerInACellIsRewrittenByTheCellsBehindIt)
{
    insert({{"2024-05-06 07:08:09.123"_q, "%5"_q, "Log"_q, "Message"_q},
            {"%3"_q, "2024-05-06 07:08:10.000"_q, "%L5"_q, "%5"_q},
            {"2024-05-06 07:08:11.000"_q, "%1"_q, "Log"_q, "Message"_q}});
    EXPECT_EQ(stored(), Rows({{"2024-05-06 07:08:09.123"_q, "Message"_q, "Log"_q, "Message"_q},
                              {"2024-05-06 07:08:10.000"_q, "2024-05-06 07:08:10.000"_q, "%5"_q, "%5"_q},
                              // The lowest marker is filled first; the last one finds no cell.
                              {"2024-05-06 07:08:11.000"_q, "Log"_q, "Message"_q, "%5"_q}}));
    EXPECT_EQ(log.take(), QStringList());
}

struct MarkerCase {
    const char *name;
    const char *table;
    const char *cells[4];
};

class OperatorLogInsertMarkers : public OperatorLogInsert, public ::testing::WithParamInterface<MarkerCase>
{
};

TEST_P(OperatorLogInsertMarkers, AreFilledOneArgumentAfterTheOther)
{
    const MarkerCase &row = GetParam();
    QStringList cells;
    for (const char *cell : row.cells)
        cells.append(QString::fromUtf8(cell));
    const auto escaped = [&cells](int index) { return QString(cells.at(index)).replace("'"_q, "''"_q); };

    insert({cells}, QString::fromUtf8(row.table));

    EXPECT_EQ(trace.take(),
              QStringList({"begin transaction"_q,
                           "insert into %1 values(NULL, '%2', '%3', '%4', '%5');"_q.arg(QString::fromUtf8(row.table))
                               .arg(cells.at(0))
                               .arg(escaped(1))
                               .arg(escaped(2))
                               .arg(escaped(3)),
                           "commit transaction"_q}));
    EXPECT_EQ(valueOf(path(), "select count(*) from OperatorLog"_q), "1"_q);
    EXPECT_EQ(log.take(), QStringList());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, OperatorLogInsertMarkers, ::testing::Values(
    MarkerCase{"none", "OperatorLog", {"t", "u", "l", "m"}},
    MarkerCase{"table_by_time", "Operator%2", {"Log", "u", "l", "m"}},
    MarkerCase{"table_by_message", "%5", {"t", "u", "l", "OperatorLog"}},
    MarkerCase{"table_by_all", "%2%3%4%5", {"Op", "era", "tor", "Log"}},
    MarkerCase{"table_by_first_marker", "%1", {"OperatorLog", "u", "l", "m"}},
    MarkerCase{"time_by_user", "OperatorLog", {"%3", "u", "l", "m"}},
    MarkerCase{"time_by_log_and_message", "OperatorLog", {"%5 %4", "u", "l", "m"}},
    MarkerCase{"time_by_itself", "OperatorLog", {"%2", "u", "l", "m"}},
    MarkerCase{"user_by_message", "OperatorLog", {"t", "%5", "l", "m"}},
    MarkerCase{"user_by_quoted_message", "OperatorLog", {"t", "%5", "l", "it's"}},
    MarkerCase{"user_lowest_marker", "OperatorLog", {"t", "%1", "l", "m"}},
    MarkerCase{"user_marker_zero", "OperatorLog", {"t", "%0", "l", "m"}},
    MarkerCase{"log_by_message", "OperatorLog", {"t", "u", "%5%5%L5", "m"}},
    MarkerCase{"localised", "OperatorLog", {"%L3", "%L4", "%L5", "m"}},
    MarkerCase{"localised_lowest", "OperatorLog", {"t", "%L2", "l", "m"}},
    MarkerCase{"two_digits", "OperatorLog", {"%10", "%99", "%100", "m"}},
    MarkerCase{"all_markers_everywhere", "OperatorLog", {"%1%2%3%4%5", "%1%2%3%4%5", "%1%2%3%4%5", "%1%2%3%4%5"}},
    MarkerCase{"chain", "OperatorLog", {"%3", "%4", "%5", "%1"}},
    MarkerCase{"percent_signs", "OperatorLog", {"%", "%%", "100 %", "%%5%"}},
    MarkerCase{"made_by_a_cell", "OperatorLog", {"%%3", "5", "l", "m"}},
    MarkerCase{"message_keeps_its_own", "OperatorLog", {"t", "u", "l", "%1 %2 %3 %4 %5 %6"}}),
    [](const auto &test) { return test.param.name; });
// clang-format on

} // namespace
