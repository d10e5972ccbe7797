// SPDX-License-Identifier: MIT
//
// Ctrl-C while a new file is being written: nothing is left of it.
#include "tool_test.h"

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace
{

class Interrupt : public ToolTest, public ::testing::WithParamInterface<QStringList>
{
};

TEST_P(Interrupt, LeavesNoPartOfTheNewFile)
{
    {
        PlainConnection file(path("device.db"_q));
        file.run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "with recursive n(i) as (select 1 union all select i+1 from n where i<300000) "
                 "insert into T1 select NULL,'2024-05-06 07:08:09','a value of some length' from n"_q);
    }
    const QStringList before = QDir(path("."_q)).entryList(QDir::Files);
    QProcess tool;
    start(tool, GetParam());
    const auto isWriting = [&] {
        const auto parts = QDir(path("."_q)).entryInfoList({"new.db.part-*"_q}, QDir::Files);
        return !parts.isEmpty() && parts.first().size() > 0;
    };
    while (!isWriting() && tool.state() == QProcess::Running)
        tool.waitForFinished(1);
    ASSERT_EQ(tool.state(), QProcess::Running) << "it was done before it could be interrupted";
    ::kill(pid_t(tool.processId()), SIGINT);
    ASSERT_TRUE(tool.waitForFinished(60000));
    EXPECT_EQ(tool.exitStatus(), QProcess::CrashExit) << "it ends by the signal itself";
    EXPECT_EQ(QDir(path("."_q)).entryList(QDir::Files), before);
}

INSTANTIATE_TEST_SUITE_P(Commands, Interrupt,
                         ::testing::Values(QStringList{"salvage"_q, "device.db"_q, "new.db"_q},
                                           QStringList{"backup"_q, "device.db"_q, "new.db"_q},
                                           QStringList{"export"_q, "device.db"_q, "T1"_q, "-o"_q, "new.db"_q}),
                         [](const auto &parameter) { return parameter.param.first().toStdString(); });

class InterruptedChange : public ToolTest, public ::testing::WithParamInterface<QStringList>
{
};

TEST_P(InterruptedChange, LeavesAWholeFileAndSaysWhatWasDone)
{
    {
        PlainConnection file(path("device.db"_q));
        file.run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "with recursive n(i) as (select 1 union all select i+1 from n where i<600000) "
                 "insert into T1 select NULL,'2024-05-06 07:08:09','a value of some length' from n"_q);
    }
    QProcess tool;
    start(tool, GetParam());
    while (!QFile::exists(path("device.db-journal"_q)) && tool.state() == QProcess::Running)
        tool.waitForFinished(1);
    ASSERT_EQ(tool.state(), QProcess::Running) << "it was done before it could be interrupted";
    ::kill(pid_t(tool.processId()), SIGINT);
    const Outcome outcome = finish(tool);
    EXPECT_EQ(outcome.exitCode, 130) << outcome.errors.constData();
    EXPECT_TRUE(outcome.errors.contains("interrupted")) << outcome.errors.constData();
    EXPECT_EQ(QDir(path("."_q)).entryList(QDir::Files), QStringList{"device.db"_q});
}

INSTANTIATE_TEST_SUITE_P(Commands, InterruptedChange,
                         ::testing::Values(QStringList{"tune"_q, "device.db"_q},
                                           QStringList{"clear"_q, "device.db"_q, "T1"_q, "--yes"_q}),
                         [](const auto &parameter) { return parameter.param.first().toStdString(); });

// Whether somebody has locked a database file for himself, which can be seen without a lock of one's own.
bool isLockedForOne(const QString &path)
{
    const int file = open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    struct flock lock {
    };
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x40000002;
    lock.l_len = 510;
    const bool isLocked = fcntl(file, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(file);
    return isLocked;
}

class InterruptedVacuum : public ToolTest, public ::testing::WithParamInterface<int>
{
};

TEST_P(InterruptedVacuum, LeavesTheFileAsItWas)
{
    {
        PlainConnection file(path("device.db"_q));
        file.run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "with recursive n(i) as (select 1 union all select i+1 from n where i<600000) "
                 "insert into T1 select NULL,'2024-05-06 07:08:09','a value of some length' from n"_q);
    }
    const QByteArray before = read("device.db"_q);
    QProcess tool;
    start(tool, {"vacuum"_q, "device.db"_q, "--yes"_q});
    while (!isLockedForOne(path("device.db"_q)) && tool.state() == QProcess::Running)
        tool.waitForFinished(1);
    ASSERT_EQ(tool.state(), QProcess::Running) << "it was done before it could be interrupted";
    ::kill(pid_t(tool.processId()), GetParam());
    const Outcome outcome = finish(tool);
    EXPECT_EQ(outcome.exitCode, 130) << outcome.errors.constData();
    EXPECT_EQ(outcome.errors, "device-db: device.db: interrupted; the file is as it was\n");
    EXPECT_EQ(QDir(path("."_q)).entryList(QDir::Files), QStringList{"device.db"_q});
    EXPECT_TRUE(read("device.db"_q) == before);
}

INSTANTIATE_TEST_SUITE_P(Signals, InterruptedVacuum, ::testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto &parameter) { return "Signal" + std::to_string(parameter.param); });

} // namespace
