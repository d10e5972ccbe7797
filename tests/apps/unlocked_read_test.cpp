// SPDX-License-Identifier: MIT
//
// Another process plays the device, because a process does not see its own locks.
#include "text_literal.h"

#include "storefile/unlocked_read.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace
{

using device_db::Database;
using device_db::readUnlocked;
using device_db::Status;

class UnlockedRead : public ::testing::Test
{
protected:
    QString path() const { return m_folder.filePath("store.db"_q); }
    QStringList files() const { return QDir(m_folder.path()).entryList(QDir::Files, QDir::Name); }

    void device(const QString &sql) const
    {
        QProcess shell;
        shell.start("sqlite3"_q, {"-batch"_q, "-bail"_q, path(), sql});
        EXPECT_TRUE(shell.waitForFinished(60000)) << qPrintable(shell.errorString());
        EXPECT_EQ(shell.exitCode(), 0) << shell.readAllStandardError().constData();
    }
    void makeFile(const QString &journal) const
    {
        device("pragma journal_mode=%1; create table T(ID integer primary key, V text); with recursive n(i) as (select "
               "1 union all select i + 1 from n where i < 5000) insert into T select i, 'row ' || i from n"_q.arg(
                   journal));
    }
    /// What one look finds, in which the device does `between`.
    device_db::Result<bool> look(qint64 &rows, const QString &between = QString()) const
    {
        return readUnlocked(path(), [&](const Database &database) -> Status {
            const auto count = database.number("select count(*) from T");
            if (!count)
                return count.error();
            rows = *count;
            if (!between.isEmpty())
                device(between);
            return {};
        });
    }

    QTemporaryDir m_folder;
};

TEST_F(UnlockedRead, GivesACommittedStateAndLeavesNothingBehind)
{
    for (const QString &journal : {"delete"_q, "truncate"_q, "persist"_q, "wal"_q}) {
        SCOPED_TRACE(qPrintable(journal));
        for (const QString &file : files())
            QFile::remove(m_folder.filePath(file));
        makeFile(journal);
        const QStringList before = files();
        qint64 rows = 0;
        const auto done = look(rows);
        ASSERT_TRUE(done.ok()) << qPrintable(done.error().text());
        EXPECT_TRUE(*done);
        EXPECT_EQ(rows, 5000);
        EXPECT_EQ(files(), before);
    }
}

TEST_F(UnlockedRead, IsThrownAwayWhenTheDeviceCommitsInBetween)
{
    makeFile("delete"_q);
    qint64 rows = 0;
    const auto done = look(rows, "insert into T(V) values('one more')"_q);
    ASSERT_TRUE(done.ok());
    EXPECT_FALSE(*done);
    EXPECT_TRUE(*look(rows));
    EXPECT_EQ(rows, 5001);
}

TEST_F(UnlockedRead, IsThrownAwayWhenATransactionThatIsRolledBackWasInTheFile)
{
    makeFile("delete"_q);
    qint64 rows = 0;
    // The small cache spills; after the rollback counter and size are as before.
    const auto done = look(rows, "pragma cache_size=1; begin; update T set V = 'other ' || V; rollback"_q);
    ASSERT_TRUE(done.ok());
    EXPECT_FALSE(*done);
}

TEST_F(UnlockedRead, InWriteAheadModeNothingIsDisturbed)
{
    makeFile("wal"_q);
    QProcess holder;
    holder.start("sqlite3"_q, {"-batch"_q, path()});
    ASSERT_TRUE(holder.waitForStarted());
    holder.write("insert into T(V) values('in the log'); select 'ready';\n");
    ASSERT_TRUE(holder.waitForReadyRead(60000));
    qint64 rows = 0;
    const auto done = look(rows, "insert into T(V) values('one more')"_q);
    ASSERT_TRUE(done.ok()) << qPrintable(done.error().text());
    EXPECT_TRUE(*done);
    EXPECT_EQ(rows, 5001);
    EXPECT_GT(QFileInfo(path() + "-wal"_q).size(), 0);
    holder.closeWriteChannel();
    EXPECT_TRUE(holder.waitForFinished(60000));
}

TEST_F(UnlockedRead, AFileThatIsNoneIsSaid)
{
    qint64 rows = 0;
    EXPECT_TRUE(look(rows).error().cause().contains("no such file"_q));
    ASSERT_EQ(mkfifo(path().toLocal8Bit().constData(), 0600), 0);
    EXPECT_TRUE(look(rows).error().cause().contains("not a file"_q));
}

} // namespace
