// SPDX-License-Identifier: MIT
//
// A second process plays the device: it writes batches through the store library while this one reads.
// DEVICE_LIVE_SECONDS=300 runs every reading command of the tool beside it, again and again, for so long.
#include "plain_connection.h"
#include "text_literal.h"
#include "writing_device.h"

#include "storefile/live_file.h"
#include "storefile/temporary_file.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <csignal>
#include <iostream>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using device_db::openForReading;
using device_db::ReadableFile;
using device_db::ReadOptions;

// Large enough that copying it takes a while, in which a batch may come.
const QString manyRows = "with recursive n(i) as (select 0 union all select i+1 from n where i<149999) insert into T1 "
                         "select NULL,'2024-05-06 07:08:09',-1-i/%1 from n"_q.arg(WritingDevice::batchRows);

// What a reader sees: whole batches, and a file that is in order.
void expectWhole(const QString &path)
{
    PlainConnection file(path);
    EXPECT_EQ(file.value("pragma integrity_check"_q), "ok"_q);
    EXPECT_EQ(file.value("select count(*) from (select Value from T1 group by Value having count(*)!=%1)"_q.arg(
                  WritingDevice::batchRows)),
              "0"_q);
}

struct Writing {
    const char *mode;
    int pauseMs;
};

void PrintTo(const Writing &writing, std::ostream *stream)
{
    *stream << writing.mode << ", a batch every " << writing.pauseMs << " ms";
}

class LiveFile : public ::testing::TestWithParam<Writing>
{
protected:
    LiveFile()
    {
        EXPECT_TRUE(QDir().mkpath(m_folder.filePath("tmp"_q)));
        m_oldPlace = qgetenv("TMPDIR");
        qputenv("TMPDIR", temporary().toLocal8Bit());
    }
    ~LiveFile() override { m_oldPlace.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", m_oldPlace); }

    QString path(const char *name = "device.db") const { return m_folder.filePath(QString::fromLatin1(name)); }
    QString folder() const { return m_folder.path(); }
    QString temporary() const { return m_folder.filePath("tmp"_q); }
    /// What stands in the folders, and the file's bytes: what a reader must leave alone.
    QStringList traces() const
    {
        QStringList all = QDir(m_folder.path()).entryList(QDir::Files) +
                          QDir(temporary()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        for (const char *name : {"device.db", "device.db-wal", "device.db-journal"}) {
            QFile file(path(name));
            if (file.open(QIODevice::ReadOnly))
                all << QString::fromLatin1(QCryptographicHash::hash(file.readAll(), QCryptographicHash::Md5).toHex());
        }
        return all;
    }

private:
    QTemporaryDir m_folder;
    QByteArray m_oldPlace;
};

using LiveFileModes = LiveFile;

TEST_P(LiveFileModes, IsReadWhileADeviceWritesAndNoCommitFails)
{
    WritingDevice device(path(), QString::fromLatin1(GetParam().mode), GetParam().pauseMs, manyRows);
    QElapsedTimer clock;
    clock.start();
    int snapshots = 0;
    while (clock.elapsed() < 700) {
        ReadOptions options;
        options.deadline = std::chrono::seconds(20);
        const auto file = openForReading(path(), options);
        ASSERT_TRUE(file.ok()) << file.error().cause().toStdString();
        EXPECT_EQ(file->isSnapshot(), GetParam().mode != std::string("wal"));
        expectWhole(file->path());
        ++snapshots;
    }
    device.stop();
    EXPECT_EQ(device.failures(), 0);
    EXPECT_GT(device.batches(), 3);
    EXPECT_EQ(valueOf(path(), "select count(*) from T1 where Value>='0'"_q).toInt(),
              WritingDevice::batchRows * device.batches());
    EXPECT_TRUE(QDir(temporary()).isEmpty());
    std::cout << device.batches() << " batches, " << snapshots << " snapshots\n";
}

INSTANTIATE_TEST_SUITE_P(LiveFile, LiveFileModes,
                         ::testing::Values(Writing{"delete", 3}, Writing{"delete", 50}, Writing{"truncate", 3},
                                           Writing{"persist", 3}, Writing{"memory", 3}, Writing{"wal", 3}));

TEST_F(LiveFile, EveryReadingCommandLeavesTheDeviceAlone)
{
    const QString mode = qEnvironmentVariable("DEVICE_LIVE_MODE", "delete"_q);
    WritingDevice device(path(), mode, 5, manyRows);
    while (device.batches() < 5)
        usleep(1000);
    const QList<QStringList> commands{{"info"_q, "device.db"_q},
                                      {"show"_q, "device.db"_q, "-n"_q, "20"_q},
                                      {"newest"_q, "device.db"_q},
                                      {"range"_q, "device.db"_q, "2024-05-06"_q, "2024-05-06 07:00"_q},
                                      {"find"_q, "device.db"_q, "11"_q, "-n"_q, "5"_q},
                                      {"count"_q, "device.db"_q},
                                      {"tail"_q, "device.db"_q},
                                      {"export"_q, "device.db"_q, "-o"_q, "out.csv"_q, "--force"_q},
                                      {"stats"_q, "device.db"_q},
                                      {"plot"_q, "device.db"_q, "--size"_q, "80x24"_q},
                                      {"check"_q, "device.db"_q},
                                      {"backup"_q, "device.db"_q, "copy.db"_q, "--force"_q}};
    const int seconds = qEnvironmentVariableIntValue("DEVICE_LIVE_SECONDS");
    QElapsedTimer clock;
    clock.start();
    int runs = 0;
    do {
        for (const QStringList &command : commands) {
            QProcess tool;
            tool.setWorkingDirectory(folder());
            tool.start(QString::fromLocal8Bit(DEVICE_DB), command);
            ASSERT_TRUE(tool.waitForFinished(60000)) << command.join(QLatin1Char(' ')).toStdString();
            EXPECT_EQ(tool.exitCode(), 0)
                << command.join(QLatin1Char(' ')).toStdString() << ": " << tool.readAllStandardError().toStdString();
            ++runs;
        }
        expectWhole(path("copy.db"));
    } while (clock.elapsed() < seconds * 1000);
    device.stop();
    EXPECT_EQ(device.failures(), 0);
    EXPECT_EQ(valueOf(path(), "select count(*) from T1 where Value>='0'"_q).toInt(),
              WritingDevice::batchRows * device.batches());
    EXPECT_TRUE(QDir(temporary()).isEmpty());
    std::cout << mode.toStdString() << ": " << device.batches() << " batches, " << runs << " commands, "
              << device.failures() << " failed commits\n";
}

TEST_F(LiveFile, ALockOfAReaderIsSeenByTheDevice)
{
    WritingDevice device(path(), "delete"_q, 3, manyRows);
    while (device.batches() < 3)
        usleep(1000);
    PlainConnection reader(path());
    sqlite3_busy_timeout(reader.handle(), 10000); // the device may be committing just now
    reader.run("begin; select count(*) from T1"_q);
    const int batches = device.batches();
    while (device.batches() < batches + 3)
        usleep(1000);
    EXPECT_GT(device.failures(), 0) << "the tests above would see nothing";
    reader.run("commit"_q);
}

TEST_F(LiveFile, AWriterWithoutAPauseIsSaidToBeOne)
{
    PlainConnection writer(path());
    writer.run("create table T(a); begin exclusive; insert into T values(1)"_q);
    // Another process must hold the lock: this one would not see its own.
    const pid_t child = fork();
    if (child == 0) {
        ReadOptions options;
        options.deadline = std::chrono::milliseconds(50);
        const auto file = openForReading(path(), options);
        _exit(!file.ok() && file.error().cause().contains("--lock"_q) ? 0 : 1);
    }
    int status = 1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// A copy of the file and its journal as they are while a transaction changes them.
TEST_F(LiveFile, WhatADeadDeviceLeftIsRolledBackInTheCopyAlone)
{
    {
        PlainConnection device(path("running.db"));
        device.run("pragma cache_size=5; create table Boiler(ID integer primary key, Value text);"
                   "with recursive n(i) as (select 1 union all select i+1 from n where i<5000) "
                   "insert into Boiler select i, i/20 from n where i<4990 and i>=20;"
                   "begin; update Boiler set Value='torn' where ID%2"_q);
        ASSERT_TRUE(QFile::copy(path("running.db"), path()));
        ASSERT_TRUE(QFile::copy(path("running.db-journal"), path("device.db-journal")));
    }
    ASSERT_NE(valueOf(path("running.db"), "select count(*) from Boiler"_q), "0"_q);
    const QStringList before = traces();
    {
        const auto file = openForReading(path(), {});
        ASSERT_TRUE(file.ok()) << file.error().cause().toStdString();
        EXPECT_TRUE(file->isSnapshot());
        PlainConnection copy(file->path());
        EXPECT_EQ(copy.value("pragma integrity_check"_q), "ok"_q);
        EXPECT_EQ(copy.value("select count(*) from Boiler where Value='torn'"_q), "0"_q);
        EXPECT_EQ(copy.value("select count(*) from Boiler"_q), "4970"_q);
    }
    EXPECT_EQ(traces(), before);
}

TEST_F(LiveFile, TheLogOfAPulledFileIsReadAndStays)
{
    {
        PlainConnection device(path("running.db"));
        device.run("pragma journal_mode=wal; create table Boiler(ID integer primary key, Value text);"
                   "insert into Boiler values(1,'in the log')"_q);
        ASSERT_TRUE(QFile::copy(path("running.db"), path()));
        ASSERT_TRUE(QFile::copy(path("running.db-wal"), path("device.db-wal")));
    }
    const QStringList before = traces();
    {
        const auto file = openForReading(path(), {});
        ASSERT_TRUE(file.ok()) << file.error().cause().toStdString();
        EXPECT_TRUE(file->isSnapshot());
        EXPECT_EQ(valueOf(file->path(), "select Value from Boiler"_q), "in the log"_q);
    }
    EXPECT_EQ(traces(), before);
}

TEST_F(LiveFile, AWriteAheadFileWithoutALogIsReadAsItStandsAndLeftSo)
{
    {
        PlainConnection device(path());
        device.run("pragma journal_mode=wal; create table Boiler(ID integer primary key, Value text);"
                   "insert into Boiler values(1,'x')"_q);
    }
    const QStringList before = traces();
    {
        const auto file = openForReading(path(), {});
        ASSERT_TRUE(file.ok()) << file.error().cause().toStdString();
        EXPECT_FALSE(file->isSnapshot());
        const auto database = device_db::Database::open(file->path(), device_db::Database::ReadOnly);
        ASSERT_TRUE(database.ok()) << database.error().cause().toStdString();
        EXPECT_EQ(*database->number("select count(*) from Boiler"), 1);
    }
    EXPECT_EQ(traces(), before);
}

TEST_F(LiveFile, AnInterruptedProgramLeavesNoSnapshot)
{
    PlainConnection(path()).run("create table T(a)"_q);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const pid_t child = fork();
        if (child == 0) {
            std::signal(signal, SIG_DFL); // who starts the tests may ignore it, as nohup does
            device_db::removeTemporaryFilesOnSignals();
            const auto file = openForReading(path(), {});
            raise(signal);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal);
        EXPECT_TRUE(QDir(temporary()).isEmpty());
    }
}

TEST_F(LiveFile, WhatCannotBeReadIsSaid)
{
    const auto causeOf = [](const QString &name) {
        const auto file = openForReading(name, {});
        return file.ok() ? QString() : file.error().cause();
    };
    EXPECT_TRUE(causeOf(path()).contains("no such file"_q));
    EXPECT_TRUE(causeOf(temporary()).contains("not a file"_q));
    QFile text(path());
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write("this is a letter, not a database");
    text.close();
    EXPECT_TRUE(causeOf(path()).contains("salvage"_q));
    ASSERT_TRUE(QFile::remove(path()));
    PlainConnection(path()).run("create table T(a)"_q);
    qputenv("TMPDIR", "/nowhere");
    EXPECT_TRUE(causeOf(path()).contains("$TMPDIR"_q)) << causeOf(path()).toStdString();
}

} // namespace
