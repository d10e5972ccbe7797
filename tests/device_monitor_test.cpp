// SPDX-License-Identifier: MIT
#include "plain_connection.h"
#include "qt_printers.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

namespace
{

const QStringList valueTables{"cpu_load", "memory_used", "disk_free", "context_switches"};

struct Outcome {
    int exitCode;
    QString output;
    QString errors;
};

class DeviceMonitor : public ::testing::Test
{
protected:
    void start(const QStringList &arguments)
    {
        m_program.start(DEVICE_MONITOR, arguments);
        ASSERT_TRUE(m_program.waitForStarted()) << qPrintable(m_program.errorString());
    }
    Outcome finish()
    {
        EXPECT_TRUE(m_program.waitForFinished(-1));
        EXPECT_EQ(m_program.exitStatus(), QProcess::NormalExit);
        return {m_program.exitCode(), QString::fromUtf8(m_program.readAllStandardOutput()),
                QString::fromUtf8(m_program.readAllStandardError())};
    }
    Outcome run(const QStringList &arguments)
    {
        start(arguments);
        return finish();
    }
    Outcome runInFolder(const QStringList &arguments)
    {
        const Outcome outcome = run(QStringList{"--dir", folder()} + arguments);
        EXPECT_EQ(outcome.exitCode, 0) << qPrintable(outcome.errors);
        return outcome;
    }

    QString folder() const { return m_folder.filePath(m_folderName); }
    QString count(const char *file, const QString &from) const
    {
        return valueOf(QDir(folder()).filePath(file), "select count(*) from " + from);
    }

    QProcess m_program;
    QTemporaryDir m_folder;
    QString m_folderName = "data";
};

/// The rows of the table under the heading that starts with this text, cells split at two blanks.
Rows printedRows(const QString &output, const QString &heading)
{
    static const QRegularExpression gap("\\s{2,}");
    Rows rows;
    const QStringList lines = output.split('\n');
    int line = 0;
    while (line < lines.size() && !lines[line].startsWith(heading))
        ++line;
    while (line < lines.size() && !lines[line].startsWith("  ─") && !lines[line].startsWith("  -"))
        ++line;
    for (++line; line < lines.size() && lines[line].startsWith(' '); ++line)
        rows.append(lines[line].trimmed().split(gap));
    return rows;
}

/// Whatever the machine does: one alarm ends when its limit is raised, one is active at the end.
const QStringList sureAlarms{
    "--seconds",  "3",       "--limit", "memory=0", "--limit", "memory=200@1", "--limit",
    "memory=0@2", "--limit", "cpu=200", "--limit",  "disk=0",  "--limit",      "switches=1000000000"};

TEST_F(DeviceMonitor, TakesEverySampleOfTheRun)
{
    const Outcome outcome = runInFolder({"--seconds", "2", "--rate", "20"});
    for (const QString &table : valueTables) {
        EXPECT_EQ(count("history.db", table), "40") << qPrintable(table);
        EXPECT_EQ(count("history.db", table + " where cast(Value as real) < 0 or Value = ''"), "0");
    }
    EXPECT_EQ(count("history.db", "cpu_load where cast(Value as real) > 100"), "0");
    EXPECT_EQ(count("history.db", "tb_config"), "4");
    EXPECT_EQ(QDir(folder()).entryList(QDir::Files), QStringList({"alarm.db", "history.db", "operator_log.db"}));
    for (const QString &file : QDir(folder()).entryList(QDir::Files))
        EXPECT_TRUE(outcome.output.contains(QDir(folder()).filePath(file))) << qPrintable(outcome.output);
}

TEST_F(DeviceMonitor, PrintedSamplesAreInTheFile)
{
    const Outcome outcome = runInFolder({"--seconds", "2", "--rate", "20", "--max-samples", "30"});
    for (const char *heading : {"Newest samples", "Page 2", "The first 5"}) {
        const Rows rows = printedRows(outcome.output, heading);
        EXPECT_EQ(rows.size(), 5) << heading << qPrintable(outcome.output);
        for (const QStringList &row : rows) {
            ASSERT_EQ(row.size(), 5) << heading;
            for (int i = 0; i < valueTables.size(); ++i)
                EXPECT_NE(
                    count("history.db",
                          QString("%1 where DATETIME = '%2' and Value = '%3'").arg(valueTables[i], row[0], row[i + 1])),
                    "0")
                    << heading << qPrintable(row.join(' '));
        }
    }
    EXPECT_EQ(printedRows(outcome.output, "Newest samples").first().first(),
              valueOf(QDir(folder()).filePath("history.db"), "select max(DATETIME) from cpu_load"));
}

TEST_F(DeviceMonitor, TrimsToTheMaximumAndSaysWhatWent)
{
    const Outcome outcome = runInFolder({"--seconds", "2", "--rate", "20", "--max-samples", "30"});
    for (const QString &table : valueTables) {
        EXPECT_EQ(count("history.db", table), "30");
        EXPECT_EQ(count("history.db", table + " where ID <= 10"), "0") << "the oldest go";
        EXPECT_TRUE(printedRows(outcome.output, "Clean-up").contains({table, "40", "10", "30", "Trim"}))
            << qPrintable(outcome.output);
    }
}

TEST_F(DeviceMonitor, EndedAlarmsAreArchivedAndActiveOnesStay)
{
    const Outcome outcome = runInFolder(sureAlarms);
    const char *memory = " where AlarmObject = 'Memory in use' and AlarmType = 'High' and LimitValue = '0'"
                         " and AlarmDescription = 'Memory in use above 0 %'";
    EXPECT_EQ(count("alarm.db", QString("AlarmData") + memory + " and EndDate = '' and EndTime = ''"), "1");
    EXPECT_EQ(count("alarm.db", QString("AlarmArchive") + memory + " and EndDate || ' ' || EndTime >= DATETIME"), "1");
    EXPECT_EQ(count("alarm.db", "AlarmData where EndDate != ''"), "0");

    const Rows rows = printedRows(outcome.output, "Alarms raised");
    EXPECT_EQ(rows.size(), 2) << qPrintable(outcome.output);
    for (const QStringList &row : rows) // an ended alarm has one cell more
        EXPECT_EQ(count("alarm.db", QString("%1 where DATETIME = '%2' and EndTime = '%3' and AlarmObject = '%4'")
                                        .arg(row[0], row[1], row.size() == 6 ? row[2] : QString(), row.last())),
                  "1")
            << qPrintable(row.join(' '));
}

TEST_F(DeviceMonitor, PrintedLogIsInTheFile)
{
    const Outcome outcome = runInFolder(sureAlarms);
    const Rows rows = printedRows(outcome.output, "Operator log");
    EXPECT_GE(rows.size(), 20) << qPrintable(outcome.output);
    QStringList actions;
    for (const QStringList &row : rows) {
        ASSERT_EQ(row.size(), 3);
        actions.append(row[1]);
        EXPECT_EQ(count("operator_log.db",
                        QString("OperatorLog where DATETIME like '% %1' and logName = '%2' and message = '%3'")
                            .arg(row[0], row[1], row[2])),
                  "1")
            << qPrintable(row.join(' '));
    }
    for (const char *action : {"Start", "Limit set", "Alarm raised", "Alarm ended", "Stop", "Trim", "Purge", "Compact",
                               "Alarm acknowledged"})
        EXPECT_TRUE(actions.contains(action)) << action;
    EXPECT_EQ(valueOf(QDir(folder()).filePath("operator_log.db"), "select logName from OperatorLog order by ID desc"),
              rows.last()[1])
        << "nothing is logged behind what was printed";
}

TEST_F(DeviceMonitor, ASecondRunAddsToTheFolderAndTakesUpActiveAlarms)
{
    runInFolder({"--seconds", "1", "--limit", "memory=0"});
    runInFolder({"--seconds", "1", "--limit", "memory=0"});
    EXPECT_EQ(count("history.db", "memory_used"), "20");
    EXPECT_EQ(count("history.db", "tb_config"), "4");
    EXPECT_EQ(count("alarm.db", "AlarmData where AlarmObject = 'Memory in use'"), "1") << "raised once";
    EXPECT_EQ(count("operator_log.db", "OperatorLog where logName = 'Start'"), "2");

    runInFolder({"--seconds", "1", "--limit", "memory=200"});
    EXPECT_EQ(count("alarm.db", "AlarmData where AlarmObject = 'Memory in use'"), "0");
    EXPECT_EQ(count("alarm.db", "AlarmArchive where AlarmObject = 'Memory in use' and EndDate != ''"), "1");
}

TEST_F(DeviceMonitor, ASignalEndsItAndLosesNoSample)
{
    start({"--dir", folder(), "--seconds", "0", "--rate", "7"});
    m_program.setReadChannel(QProcess::StandardError);
    QByteArray progress;
    while (!progress.contains("1 s") && m_program.waitForReadyRead(-1))
        progress += m_program.readAllStandardError();
    QThread::msleep(500); // some samples of the next batch
    m_program.terminate();
    const Outcome outcome = finish();
    EXPECT_EQ(outcome.exitCode, 0) << qPrintable(outcome.errors);
    for (const QString &table : valueTables)
        EXPECT_EQ(valueOf(QDir(folder()).filePath("operator_log.db"),
                          "select message from OperatorLog where logName = 'Stop'"),
                  count("history.db", table) + " samples a series; signal 15");
    EXPECT_GE(count("history.db", "cpu_load").toInt(), 7);
}

TEST_F(DeviceMonitor, SamplesThatDidNotArriveEndItWithOne)
{
    runInFolder({"--seconds", "1"});
    PlainConnection(QDir(folder()).filePath("history.db"))
        .run("create trigger full before insert on cpu_load begin select raise(abort, 'no room'); end");
    const Outcome outcome = run({"--dir", folder(), "--seconds", "1"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_TRUE(outcome.errors.contains("10 samples did not arrive in table cpu_load")) << qPrintable(outcome.errors);
}

TEST_F(DeviceMonitor, AnyFolderNameIsUsedInAnyLocale)
{
    m_folderName = "new/it's a%1b/Gerät 履歴";
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *locale : {"C", "C.UTF-8"}) {
        environment.insert("LC_ALL", locale);
        m_program.setProcessEnvironment(environment);
        const Outcome outcome = runInFolder({"--seconds", "1"});
        EXPECT_TRUE(outcome.output.contains(folder())) << qPrintable(outcome.output);
        EXPECT_EQ(outcome.output.contains("───"), QByteArray(locale) == "C.UTF-8");
        EXPECT_EQ(printedRows(outcome.output, "Series").size(), 4);
    }
    EXPECT_EQ(count("history.db", "cpu_load"), "20") << "both runs used the same folder";
}

TEST_F(DeviceMonitor, WrongArgumentsAreNamedAndEndWithTwo)
{
    const struct {
        QStringList arguments;
        const char *named;
    } rows[] = {
        {{"--seconds", "ten"}, "--seconds \"ten\""},
        {{"--seconds", "-1"}, "--seconds \"-1\""},
        {{"--rate", "0"}, "--rate \"0\""},
        {{"--max-samples", "0"}, "--max-samples \"0\""},
        {{"--keep-days", "1e9"}, "--keep-days \"1e9\""},
        {{"--limit", "memory"}, "--limit \"memory\""},
        {{"--limit", "heat=3"}, "--limit \"heat=3\""},
        {{"--limit", "cpu=nan"}, "--limit \"cpu=nan\""},
        {{"--limit", "cpu=3@soon"}, "--limit \"cpu=3@soon\""},
        {{"--limit", "cpu=3@11"}, "--limit \"cpu=3@11\""},
        {{"--library", "/nowhere/libstore.so"}, "--library \"/nowhere/libstore.so\""},
        {{"--dir", "/proc/nowhere"}, "--dir \"/proc/nowhere\""},
        {{"--colour"}, "colour"},
        {{"extra"}, "\"extra\""},
    };
    for (const auto &row : rows) {
        const Outcome outcome = run(row.arguments);
        EXPECT_EQ(outcome.exitCode, 2) << row.named;
        EXPECT_TRUE(outcome.errors.contains(row.named)) << row.named << ": " << qPrintable(outcome.errors);
    }
}

TEST_F(DeviceMonitor, ALibraryThatCannotBeLoadedIsNamed)
{
    const Outcome text = run({"--library", "/etc/passwd"});
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_TRUE(text.errors.contains("/etc/passwd")) << qPrintable(text.errors);

    const Outcome other = run({"--library", "libsqlite3.so.0"});
    EXPECT_EQ(other.exitCode, 1);
    EXPECT_TRUE(other.errors.contains("device_getSupportList")) << qPrintable(other.errors);
}

TEST_F(DeviceMonitor, AFileThatIsNoDatabaseIsLeftAlone)
{
    ASSERT_TRUE(QDir().mkpath(folder()));
    QFile file(QDir(folder()).filePath("history.db"));
    const QByteArray text = "This is the user's own text, not a database.\n";
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.write(text.repeated(100));
    file.flush();
    const Outcome outcome = run({"--dir", folder(), "--seconds", "1"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_TRUE(outcome.errors.contains("cpu_load cannot be created")) << qPrintable(outcome.errors);
    file.seek(0);
    EXPECT_EQ(file.readAll(), text.repeated(100));
}

} // namespace
