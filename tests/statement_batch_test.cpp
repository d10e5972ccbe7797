// SPDX-License-Identifier: MIT
// execSQL() of the two stores that have one: the same answers from both.
#include "sqlite_calls.h"
#include "store_test.h"

#include <climits>
#include <string>

namespace
{

class StatementBatch : public StoreTest, public ::testing::WithParamInterface<std::string>
{
protected:
    StatementBatch()
    {
        run("create table t(a INTEGER, b text)"_q);
        open(GetParam().c_str());
        calls.take();
    }

    void run(const QString &sql) { rowsOf(path(), sql); }
    Rows stored() { return rowsOf(path(), "select a, b from t order by rowid"_q); }
    bool exec(const QStringList &statements, int mode) { return store().execSQL(statements, result, mode); }

    SqliteCalls calls;
    const Rows before{{"held before"_q}};
    Rows result = before;
};

INSTANTIATE_TEST_SUITE_P(Stores, StatementBatch, ::testing::Values("historyDB", "alarmDB"),
                         [](const auto &store) { return store.param; });

const QStringList threeInserts{"insert into t values(1,'one')"_q, "insert into t values(2,'two')"_q,
                               "insert into t values(3,'three')"_q};

TEST_P(StatementBatch, Mode0RunsTheFirstStatementAlone)
{
    EXPECT_TRUE(exec(threeInserts, 0));
    EXPECT_EQ(calls.take(), threeInserts.mid(0, 1));
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), (Rows{{"1"_q, "one"_q}}));
}

TEST_P(StatementBatch, Mode0LeavesTheResultAloneAlsoBehindASelect)
{
    EXPECT_TRUE(exec({"select 1"_q}, 0));
    EXPECT_EQ(trace.take(), QStringList{"select 1"_q});
    EXPECT_EQ(result, before);
}

TEST_P(StatementBatch, Mode0LogsTheBareErrorText)
{
    EXPECT_FALSE(exec({"insert into missing values(1)"_q, "insert into t values(2,'two')"_q}, 0));
    EXPECT_EQ(calls.take(), QStringList{"insert into missing values(1)"_q});
    EXPECT_EQ(log.take(), QStringList{streamed("no such table: missing")});
    EXPECT_EQ(stored(), Rows());
}

TEST_P(StatementBatch, Mode0LogsANonAsciiErrorTextBare)
{
    EXPECT_FALSE(exec({"insert into fühler values(1)"_q}, 0));
    EXPECT_EQ(log.take(), QStringList{streamed("no such table: fühler")});
}

TEST_P(StatementBatch, Mode0RunsEveryStatementOfOneTextUpToTheFirstThatFails)
{
    EXPECT_FALSE(
        exec({"insert into t values(1,'one'); insert into missing values(2); insert into t values(3,'c')"_q}, 0));
    EXPECT_EQ(log.take(), QStringList{streamed("no such table: missing")});
    EXPECT_EQ(stored(), (Rows{{"1"_q, "one"_q}}));
}

TEST_P(StatementBatch, Mode0OfAnEmptyTextIsTrue)
{
    EXPECT_TRUE(exec({""_q}, 0));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(StatementBatch, Modes0And1OfAnEmptyListAreFalseAndRunNothing)
{
    for (const int mode : {0, 1}) {
        EXPECT_FALSE(exec({}, mode)) << mode;
        EXPECT_EQ(calls.take(), QStringList()) << mode;
        EXPECT_EQ(log.take(), QStringList()) << mode;
        EXPECT_EQ(result, before) << mode;
    }
}

TEST_P(StatementBatch, Mode1AppendsAllColumnsOfAllRowsBehindWhatTheResultHolds)
{
    run("insert into t values(1,'one'); insert into t values(2,'zwölf °C €')"_q);
    const QString sql = "select a, b, 'é' from t order by a desc"_q;
    EXPECT_TRUE(exec({sql}, 1));
    EXPECT_EQ(trace.take().last(), sql);
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(result, before + (Rows{{"2"_q, "zwölf °C €"_q, "é"_q}, {"1"_q, "one"_q, "é"_q}}));
    EXPECT_TRUE(exec({"select 3"_q}, 1));
    EXPECT_EQ(result.size(), 4);
    EXPECT_EQ(result.last(), QStringList{"3"_q});
}

TEST_P(StatementBatch, Mode1GivesNullAsANullText)
{
    EXPECT_TRUE(exec({"select NULL, '', 'x'"_q}, 1));
    EXPECT_EQ(result, before + (Rows{{QString(), ""_q, "x"_q}}));
    EXPECT_TRUE(result.last().at(0).isNull());
    EXPECT_FALSE(result.last().at(1).isNull());
}

TEST_P(StatementBatch, Mode1WithoutRowsIsTrueAndLeavesTheResultAlone)
{
    EXPECT_TRUE(exec({"select * from t"_q}, 1));
    EXPECT_TRUE(exec({"insert into t values(1,'one')"_q}, 1));
    EXPECT_EQ(result, before);
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), (Rows{{"1"_q, "one"_q}}));
}

TEST_P(StatementBatch, Mode1IgnoresTheSecondStatementOfTheList)
{
    EXPECT_TRUE(exec({"select 1"_q, "select 2"_q}, 1));
    EXPECT_EQ(calls.take(), QStringList{"select 1"_q});
    EXPECT_EQ(result, before + (Rows{{"1"_q}}));
}

TEST_P(StatementBatch, Mode1AppendsTheRowsOfEveryStatementOfOneText)
{
    EXPECT_TRUE(exec({"select 1, 'a'; select 2, 'b'"_q}, 1));
    EXPECT_EQ(result, before + (Rows{{"1"_q, "a"_q}, {"2"_q, "b"_q}}));
}

TEST_P(StatementBatch, Mode1RejectsStatementsOfDifferentWidthInOneText)
{
    EXPECT_FALSE(exec({"select 1; select 2, 3"_q}, 1));
    EXPECT_EQ(result, before);
    EXPECT_EQ(log.take(), QStringList{streamed("sqlite3_get_table() called with two or more incompatible queries")});
}

TEST_P(StatementBatch, Mode1AppendsNothingWhenALaterStatementOfTheTextFails)
{
    EXPECT_FALSE(exec({"select 1; select * from missing"_q}, 1));
    EXPECT_EQ(result, before);
    EXPECT_EQ(log.take(), QStringList{streamed("no such table: missing")});
}

TEST_P(StatementBatch, Mode1LogsTheBareErrorTextAndAppendsNothing)
{
    EXPECT_FALSE(exec({"select * from missing"_q}, 1));
    EXPECT_EQ(log.take(), QStringList{streamed("no such table: missing")});
    EXPECT_EQ(result, before);
}

TEST_P(StatementBatch, Mode2RunsAllStatementsBetweenBeginAndCommit)
{
    const QStringList statements = threeInserts + QStringList{"select a, b from t"_q};
    EXPECT_TRUE(exec(statements, 2));
    EXPECT_EQ(calls.take(), QStringList{"begin transaction"_q} + statements + QStringList{"commit transaction"_q});
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(result, before);
    EXPECT_EQ(stored(), (Rows{{"1"_q, "one"_q}, {"2"_q, "two"_q}, {"3"_q, "three"_q}}));
}

TEST_P(StatementBatch, Mode2OfAnEmptyListIsAnEmptyTransaction)
{
    EXPECT_TRUE(exec({}, 2));
    EXPECT_EQ(calls.take(), (QStringList{"begin transaction"_q, "commit transaction"_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(StatementBatch, Mode2GoesOnBehindAFailingStatementWhereverItStands)
{
    for (int failing = 0; failing < 3; ++failing) {
        QStringList statements = threeInserts;
        statements[failing] = "insert into missing values(0)"_q;
        EXPECT_FALSE(exec(statements, 2)) << failing;
        EXPECT_EQ(calls.take(), QStringList{"begin transaction"_q} + statements + QStringList{"commit transaction"_q});
        EXPECT_EQ(log.take(),
                  QStringList{streamed("SQL=insert into missing values(0)   error:no such table: missing"_q)});
        EXPECT_EQ(rowsOf(path(), "select a from t where a <> %1"_q.arg(failing + 1)).size(), 2) << failing;
        run("delete from t"_q);
        calls.take();
    }
    EXPECT_EQ(result, before);
}

TEST_P(StatementBatch, Mode2LogsEveryFailingStatementInOrder)
{
    EXPECT_FALSE(exec({"first"_q, "second"_q}, 2));
    EXPECT_EQ(log.take(), (QStringList{streamed("SQL=first   error:near \"first\": syntax error"_q),
                                       streamed("SQL=second   error:near \"second\": syntax error"_q)}));
}

TEST_P(StatementBatch, Mode2KeepsTheEarlierStatementsOfATextThatFails)
{
    EXPECT_FALSE(
        exec({"insert into t values(1,'one'); insert into missing values(2); insert into t values(3,'c')"_q}, 2));
    EXPECT_EQ(stored(), (Rows{{"1"_q, "one"_q}}));
}

TEST_P(StatementBatch, Mode2MessageIsFilledOneMarkerAfterTheOther)
{
    EXPECT_FALSE(exec({"insert into missing values('%2')"_q, "insert into missing values('%1')"_q}, 2));
    EXPECT_EQ(log.take(),
              (QStringList{streamed("SQL=insert into missing values('no such table: missing')   "
                                    "error:no such table: missing"_q),
                           streamed("SQL=insert into missing values('no such table: missing')   error:%2"_q)}));
}

TEST_P(StatementBatch, Mode2MessageRereadsTheStatementAndReadsTheErrorAsLatin1)
{
    EXPECT_FALSE(exec({"insert into fühler values('€')"_q}, 2));
    EXPECT_EQ(log.take(),
              QStringList{streamed(QString::fromLatin1("SQL=insert into f\xC3\xBChler values('\xE2\x82\xAC')   "
                                                       "error:no such table: f\xC3\xBChler"))});
}

TEST_P(StatementBatch, Mode2RunsANonAsciiStatementAsItIs)
{
    EXPECT_TRUE(exec({"insert into t values(1,'zwölf °C €')"_q}, 2));
    EXPECT_EQ(stored(), (Rows{{"1"_q, "zwölf °C €"_q}}));
}

TEST_P(StatementBatch, Mode2SaysThatTheCommitFailedAndStaysTrue)
{
    EXPECT_TRUE(exec({"insert into t values(1,'one')"_q, "commit"_q}, 2));
    EXPECT_EQ(log.take(), QStringList{streamed("sql fail")});
    EXPECT_EQ(stored(), (Rows{{"1"_q, "one"_q}}));
}

TEST_P(StatementBatch, Mode2SaysBothThatAStatementAndThatTheCommitFailed)
{
    EXPECT_FALSE(exec({"first"_q, "commit"_q}, 2));
    EXPECT_EQ(log.take(),
              (QStringList{streamed("SQL=first   error:near \"first\": syntax error"_q), streamed("sql fail")}));
}

TEST_P(StatementBatch, Mode2CommitsATransactionThatWasOpenBefore)
{
    EXPECT_TRUE(exec({"begin"_q}, 0));
    EXPECT_TRUE(exec(threeInserts, 0));
    EXPECT_EQ(stored(), Rows());
    EXPECT_TRUE(exec({"insert into t values(2,'two')"_q}, 2));
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(stored(), (Rows{{"1"_q, "one"_q}, {"2"_q, "two"_q}}));
}

TEST_P(StatementBatch, AnyOtherModeRunsNothingAndIsTrue)
{
    for (const int mode : {3, 7, -1, -2, INT_MAX, INT_MIN}) {
        EXPECT_TRUE(exec(threeInserts, mode)) << mode;
        EXPECT_TRUE(exec({}, mode)) << mode;
    }
    EXPECT_EQ(calls.take(), QStringList());
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(result, before);
}

TEST_P(StatementBatch, AStatementEndsAtANul)
{
    for (const int mode : {0, 1, 2})
        EXPECT_TRUE(exec({"insert into t values(1,'one')"_q + QChar(0) + "no SQL"_q}, mode)) << mode;
    EXPECT_EQ(stored().size(), 3);
    EXPECT_EQ(log.take(), QStringList());
}

} // namespace
