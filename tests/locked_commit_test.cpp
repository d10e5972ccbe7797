// SPDX-License-Identifier: MIT
//
// The commit that fails because another connection is reading. Nothing is rolled back: the transaction stays open,
// and the store's next commit that succeeds covers all that was written meanwhile.
#include "operations.h"

namespace
{

using Store = interface_data_base;

/// A batch that writes the text `mark` into `column` of `table`.
struct Batch {
    const char *name;
    int kinds;
    void (*write)(Store &store, const QString &mark);
    const char *table;
    const char *column;
    const char *message; ///< when the commit fails
};

const Batch batches[] = {
    {"insertConfig", EveryKind, [](Store &s, const QString &mark) { s.insertConfig("C"_q, mark); }, "tb_config", "NAME",
     "insertManyDatas fail"},
    {"insertManyDatas", History,
     [](Store &s, const QString &mark) {
         Rows rows{{"2024-05-06 07:08:09"_q, mark}};
         s.insertManyDatas(rows, "AlarmData"_q);
     },
     "AlarmData", "Value", "insertManyDatas fail"},
    {"insertManyDatas", Alarm,
     [](Store &s, const QString &mark) {
         Rows rows{{"1"_q, "2024-05-06"_q, "07:08:09"_q, ""_q, ""_q, ""_q, ""_q, mark, ""_q, ""_q}};
         s.insertManyDatas(rows, "AlarmData"_q);
     },
     "AlarmData", "AlarmDescription", "insertManyDatas fail!"},
    {"insertManyDatas", OperatorLog,
     [](Store &s, const QString &mark) {
         Rows rows{{"2024-05-06 07:08:09.123"_q, "admin"_q, "Login"_q, mark}};
         s.insertManyDatas(rows, "AlarmData"_q);
     },
     "AlarmData", "message", "insertManyDatas fail"},
    {"execSQL", History | Alarm,
     [](Store &s, const QString &mark) {
         Rows rows;
         EXPECT_TRUE(
             s.execSQL({"insert into Ended values('%1','')"_q.arg(mark)}, rows, 2)); // about the statements alone
     },
     "Ended", "EndDate", "sql fail"},
};

class LockedCommit : public KindTest
{
protected:
    static int tryOn(const PlainConnection &connection, const char *sql)
    {
        return sqlite3_exec(connection.handle(), sql, nullptr, nullptr, nullptr);
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, LockedCommit, everyKind(), nameOfKind);

TEST_P(LockedCommit, LeavesTheTransactionOpenUntilALaterCommitCoversAll)
{
    prepareFile(path(), GetParam());
    for (const Batch &batch : batches) {
        if (!(batch.kinds & GetParam()))
            continue;
        SCOPED_TRACE(batch.name);
        const QString table = QString::fromLatin1(batch.table);
        const QString marks = "select group_concat(%1) from (select * from %2 order by rowid)"_q.arg(
            QString::fromLatin1(batch.column), table);
        prepare("delete from "_q + table);
        PlainConnection reader(path());
        PlainConnection writer(path());
        reader.run("begin; select count(*) from sqlite_master"_q);

        Store &store = open();
        sqlite3 *const connection = trace.connection();
        const QStringList failed{QString::fromLatin1(batch.message)};
        batch.write(store, "first"_q);
        EXPECT_EQ(log.take(), failed);
        EXPECT_EQ(sqlite3_get_autocommit(connection), 0);
        EXPECT_TRUE(reader.value(marks).isNull());
        EXPECT_EQ(tryOn(writer, "begin immediate"), SQLITE_BUSY);
        EXPECT_EQ(store.getDataCountOfTable(table), 1); // the store's own statements run inside the transaction

        batch.write(store, "second"_q);
        EXPECT_EQ(log.take(), failed);
        EXPECT_EQ(sqlite3_get_autocommit(connection), 0);
        EXPECT_TRUE(reader.value(marks).isNull());

        // The reader ends; the store waits for nobody and tries nothing by itself.
        reader.run("commit"_q);
        EXPECT_EQ(tryOn(writer, "begin immediate"), SQLITE_BUSY);
        EXPECT_EQ(sqlite3_get_autocommit(connection), 0);

        batch.write(store, "third"_q);
        EXPECT_EQ(log.take(), QStringList());
        EXPECT_NE(sqlite3_get_autocommit(connection), 0);
        EXPECT_EQ(reader.value(marks), "first,second,third"_q);
        for (const QString &statement : trace.take())
            EXPECT_FALSE(statement.contains("rollback"_q, Qt::CaseInsensitive)) << qPrintable(statement);
        closeStore();
    }
}

// Each batch tries its own "begin" and "commit", whatever became of the last one.
TEST_P(LockedCommit, RunsTheSameStatementsEveryTime)
{
    prepareFile(path(), GetParam());
    for (const Call<Store> &call : calls<Store>()) {
        const Meaning *meaning = meaningOf(call.name, GetParam());
        if (!meaning || meaning->commitFailure.isNull())
            continue;
        SCOPED_TRACE(call.name);
        PlainConnection reader(path());
        reader.run("begin; select count(*) from sqlite_master"_q);
        Store &store = open();
        for (int round = 0; round < 3; ++round) {
            Outcome outcome(GetParam());
            call.on(store, outcome);
            EXPECT_EQ(outcome.answer(), meaning->answer);
            EXPECT_EQ(trace.take(), meaning->statements);
            EXPECT_EQ(log.take(), QStringList{meaning->commitFailure});
        }
        closeStore();
    }
}

TEST_P(LockedCommit, IsLostWhenTheStoreIsClosedFirst)
{
    prepareFile(path(), GetParam());
    PlainConnection reader(path());
    reader.run("begin; select count(*) from sqlite_master"_q);
    Store &store = open();
    store.insertConfig("A"_q, "B"_q);
    EXPECT_EQ(store.closeDB(), 0);
    reader.run("commit"_q);
    EXPECT_EQ(rowsOf(path(), "select COLLECTOR,NAME from tb_config"_q), (Rows{{"C"_q, "N"_q}}));
}

} // namespace
