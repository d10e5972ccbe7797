// SPDX-License-Identifier: MIT
//
// What a store answers that has no file, or none that works.
#include "operations.h"

#include <QFile>

namespace
{

using Store = interface_data_base;

/// Outputs that hold something before the call; what they held must stay as it was.
struct FilledOutcome : Outcome {
    explicit FilledOutcome(Kind kind) : Outcome(kind)
    {
        rows.append(QStringList{"old"_q, "row"_q});
        samples.append(DataContent());
        samples.last().value = "old"_q;
        alarms.append(AlarmData());
        alarms.last().description = "old"_q;
        entries.append(OperatorLogData());
        entries.last().message = "old"_q;
    }

    void expectUntouched() const
    {
        ASSERT_EQ(held(), 4);
        EXPECT_EQ(rows.first(), (QStringList{"old"_q, "row"_q}));
        EXPECT_EQ(samples.first().value, "old"_q);
        EXPECT_EQ(alarms.first().description, "old"_q);
        EXPECT_EQ(entries.first().message, "old"_q);
    }
};

class ClosedStore : public KindTest
{
protected:
    /// Runs every operation on the store and expects its refusal, with nothing written anywhere.
    void expectSilentRefusals(Store &store)
    {
        log.take();
        trace.take();
        for (const Call<Store> &call : calls<Store>()) {
            SCOPED_TRACE(call.name);
            FilledOutcome outcome(GetParam());
            call.on(store, outcome);
            if (!outcome.returned.isNull()) {
                EXPECT_EQ(outcome.returned, call.refusal);
            }
            outcome.expectUntouched();
            EXPECT_EQ(log.take(), QStringList());
        }
        EXPECT_EQ(store.closeDB(), 0);
        QList<QStringList> rows;
        for (int mode : {-1, 3, 7}) // which an open store would answer with true
            EXPECT_FALSE(store.execSQL({"select 1"_q}, rows, mode));
        EXPECT_EQ(trace.take(), QStringList());
        EXPECT_EQ(log.take(), QStringList());
    }

    /// Runs every operation on a store of `file` and expects what each says when its statements fail.
    void expectFailures(const QString &file, int openCode, const char *error, bool commitsFail)
    {
        for (const Call<Store> &call : calls<Store>()) {
            SCOPED_TRACE(call.name);
            const library::StorePtr store = library::store(key());
            ASSERT_EQ(store->openDB(file), openCode);
            log.take();

            const Meaning *meaning = meaningOf(call.name, GetParam());
            QStringList expected;
            if (meaning) {
                for (const Message &message : meaning->failure)
                    expected.append(message.with(error));
                if (commitsFail && !meaning->commitFailure.isNull())
                    expected.append(meaning->commitFailure);
            }
            Outcome outcome(GetParam());
            call.on(*store, outcome);
            EXPECT_EQ(outcome.answer(), call.refusal);
            EXPECT_EQ(outcome.held(), 0);
            EXPECT_EQ(log.take(), expected);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, ClosedStore, everyKind(), nameOfKind);

TEST_P(ClosedStore, EveryOperationRefusesSilentlyBeforeOpening)
{
    const library::StorePtr store = library::store(key());
    expectSilentRefusals(*store);
}

TEST_P(ClosedStore, EveryOperationRefusesSilentlyAfterClosing)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    ASSERT_TRUE(store.tableIsExist("AlarmData"_q));
    ASSERT_EQ(store.closeDB(), 0);
    expectSilentRefusals(store);
}

TEST_P(ClosedStore, AnEmptyTableNameIsNotEvenReported)
{
    const library::StorePtr store = library::store(key());
    QList<QStringList> rows;
    store->selectDataOfDateRows(QString(), QString(), 0, 1, rows, true);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(ClosedStore, OpensAgainAfterClosing)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    EXPECT_EQ(store.closeDB(), 0);
    EXPECT_EQ(store.closeDB(), 0);
    EXPECT_EQ(store.openDB(path()), 0);
    EXPECT_TRUE(store.tableIsExist("AlarmData"_q));
}

// sqlite3_open hands out a handle also when it fails: the store is not closed then, and each operation fails at its
// statement, without an error text from SQLite.
TEST_P(ClosedStore, AfterAFailedOpeningEveryOperationFailsAtItsStatement)
{
    expectFailures(path("no folder/store.db"), SQLITE_CANTOPEN, nullptr, true);
    EXPECT_EQ(trace.take(), QStringList());
}

TEST_P(ClosedStore, AFailedOpeningIsClosedLikeAnOpenFile)
{
    const library::StorePtr store = library::store(key());
    const sqlite3_int64 before = sqlite3_memory_used();
    EXPECT_EQ(store->openDB(path("no folder/store.db")), SQLITE_CANTOPEN);
    EXPECT_GT(sqlite3_memory_used(), before);
    EXPECT_EQ(store->closeDB(), 0);
    EXPECT_EQ(sqlite3_memory_used(), before);
    expectSilentRefusals(*store);
}

// SQLite opens any file; that it is no database shows at the first statement that reads it.
TEST_P(ClosedStore, OnAFileThatIsNoDatabaseEveryOperationFailsWithSqlitesError)
{
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(4096, 'x'));
    file.close();
    expectFailures(path(), SQLITE_OK, "file is not a database", false);
}

} // namespace
