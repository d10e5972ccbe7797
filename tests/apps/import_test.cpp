// SPDX-License-Identifier: MIT
#include "tool_test.h"

#include <QCoreApplication>

#include <csignal>

namespace
{

class Import : public ToolTest
{
};

/// The input of real machines, where it is at hand: beside the repository.
class RealData : public ToolTest, public ::testing::WithParamInterface<std::pair<const char *, const char *>>
{
};

TEST_P(RealData, ComesBackToTheByte)
{
    const auto &[name, kind] = GetParam();
    QFile input(QString::fromLocal8Bit(APPS_DATA) + "/../../../shared/data/"_q + QString::fromLatin1(name));
    if (!input.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "there is no " << qPrintable(input.fileName());
    const QByteArray content = input.readAll();

    const Outcome imported = run({"import"_q, "real.db"_q, "Real"_q, input.fileName(), "--create"_q, "--kind"_q,
                                  QString::fromLatin1(kind), "--refused"_q, path("refused.csv"_q)});
    ASSERT_EQ(imported.exitCode, 0) << imported.errors.constData();
    const Outcome exported = run({"export"_q, "real.db"_q});
    ASSERT_EQ(exported.exitCode, 0) << exported.errors.constData();
    // The header's names may differ.
    EXPECT_TRUE(exported.output.mid(exported.output.indexOf('\n')) == content.mid(content.indexOf('\n')));
    EXPECT_FALSE(QFile::exists(path("refused.csv"_q)));
}

INSTANTIATE_TEST_SUITE_P(Files, RealData,
                         ::testing::Values(std::make_pair("machine_temperature.csv", "samples"),
                                           std::make_pair("operator_log.csv", "log")),
                         [](const auto &parameter) { return std::string(parameter.param.second); });

/// 100,000 samples, each a different one, and among them rows that are refused.
QByteArray manySamples(QByteArray *stored = nullptr)
{
    QByteArray text("time,value\n");
    if (stored)
        *stored = text;
    for (int i = 0; i < 100000; ++i) {
        const QByteArray row = "2024-05-06 " + QByteArray::number(100 + i / 3600 % 24).mid(1) + ':' +
                               QByteArray::number(100 + i / 60 % 60).mid(1) + ':' +
                               QByteArray::number(100 + i % 60).mid(1) + ',' + QByteArray::number(i) + '\n';
        text += row;
        if (stored)
            *stored += row;
        if (i % 1000 == 999)
            text += "never," + QByteArray::number(i) + '\n';
    }
    return text;
}

TEST_F(Import, ThatWasKilledGoesOnWhereItWasAndStoresEachRowOnce)
{
    QByteArray stored;
    write("many.csv"_q, manySamples(&stored));
    const QStringList arguments{"import"_q, "many.db"_q, "Many"_q, "many.csv"_q, "--create"_q, "--kind"_q, "samples"_q};
    ASSERT_GT(killedAt({500000, 1200000, 1900000}, "many.db"_q, arguments), 0);
    const Outcome last = run(arguments);
    EXPECT_EQ(last.exitCode, 3) << last.errors.constData();
    EXPECT_TRUE(last.errors.contains("going on at line")) << last.errors.constData();
    EXPECT_TRUE(run({"export"_q, "many.db"_q}).output == stored);
    EXPECT_EQ(valueOf(path("many.db"_q), "select count(*) from sqlite_master where name like 'device_db%'"_q), "0"_q);
    // Each refused row once, too.
    const QList<QByteArray> refused = read("many.csv.refused.csv"_q).split('\n');
    ASSERT_EQ(refused.size(), 1 + 100 + 1);
    for (int i = 1; i <= 100; ++i)
        ASSERT_TRUE(refused.value(i).endsWith("," + QByteArray::number(i * 1000 - 1))) << refused.value(i).constData();
}

TEST_F(Import, ThatIsInterruptedKeepsWhatItHasAndSaysSo)
{
    QByteArray stored;
    write("many.csv"_q, manySamples(&stored));
    const QStringList arguments{"import"_q, "many.db"_q, "Many"_q, "many.csv"_q, "--create"_q, "--kind"_q, "samples"_q};
    QProcess process;
    start(process, arguments);
    while (QFileInfo(path("many.db"_q)).size() < 500000 && process.state() == QProcess::Running)
        process.waitForFinished(1);
    process.terminate();
    const Outcome first = finish(process);
    EXPECT_EQ(first.exitCode, 130) << first.errors.constData();
    EXPECT_TRUE(first.errors.contains("run it again to go on"));
    EXPECT_EQ(run(arguments).exitCode, 3);
    EXPECT_TRUE(run({"export"_q, "many.db"_q}).output == stored);
}

/// An import of many.csv into many.db that was stopped.
class StoppedImport : public Import
{
protected:
    const QStringList m_arguments{"import"_q,   "many.db"_q, "Many"_q,   "many.csv"_q,
                                  "--create"_q, "--kind"_q,  "samples"_q};

    void stop(const QStringList &options = {}, int signal = SIGTERM)
    {
        QProcess process;
        start(process, m_arguments + options);
        while (QFileInfo(path("many.db"_q)).size() < 500000 && process.state() == QProcess::Running)
            process.waitForFinished(1);
        ::kill(pid_t(process.processId()), signal);
        const Outcome outcome = finish(process);
        ASSERT_EQ(outcome.exitCode, 130) << outcome.errors.constData();
    }
    void SetUp() override { write("many.csv"_q, manySamples(&m_stored)); }

    QByteArray m_stored;
};

TEST_F(StoppedImport, OfAnInputThatWasChangedSinceIsRefused)
{
    stop();
    write("many.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    const Outcome changed = run(m_arguments);
    EXPECT_EQ(changed.exitCode, 1);
    EXPECT_TRUE(changed.errors.contains("--restart")) << changed.errors.constData();
    EXPECT_EQ(run(m_arguments + QStringList{"--restart"_q}).exitCode, 0);
}

TEST_F(StoppedImport, ByALostConnectionLeavesAWholeFile)
{
    stop({}, SIGHUP);
    EXPECT_FALSE(QFile::exists(path("many.db-journal"_q)));
    EXPECT_EQ(run(m_arguments).exitCode, 3);
    EXPECT_TRUE(run({"export"_q, "many.db"_q}).output == m_stored);
}

TEST_F(StoppedImport, DoesNotGoOnInATableThatWasEmptied)
{
    stop();
    ASSERT_EQ(run({"clear"_q, "many.db"_q, "Many"_q, "--yes"_q}).exitCode, 0);
    const Outcome again = run(m_arguments);
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(again.errors.contains("rows that it stored in Many are no longer there; --restart"))
        << again.errors.constData();
    EXPECT_EQ(run(m_arguments + QStringList{"--restart"_q}).exitCode, 3);
    EXPECT_TRUE(run({"export"_q, "many.db"_q}).output == m_stored);
}

// Other rows have the same IDs since.
TEST_F(StoppedImport, DoesNotGoOnAfterTheRowsOfAnother)
{
    stop();
    PlainConnection(path("many.db"_q)).run("update Many set DATETIME='2023'||substr(DATETIME,5)"_q);
    const Outcome again = run(m_arguments);
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(again.errors.contains("no longer there")) << again.errors.constData();
}

TEST_F(StoppedImport, GoesOnAfterOlderRowsWereDeletedAndNewerOnesCame)
{
    stop();
    ASSERT_EQ(run({"trim"_q, "many.db"_q, "Many"_q, "--keep"_q, "5"_q, "--yes"_q}).exitCode, 0);
    PlainConnection(path("many.db"_q)).run("insert into Many values(NULL,'2024-05-07 07:08:09','')"_q);
    const Outcome again = run(m_arguments);
    EXPECT_EQ(again.exitCode, 3);
    EXPECT_TRUE(again.errors.contains("going on at line")) << again.errors.constData();
}

TEST_F(StoppedImport, BeginsAnewInATableThatWasMadeAnew)
{
    stop();
    PlainConnection(path("many.db"_q)).run("drop table Many"_q);
    EXPECT_EQ(run(m_arguments).exitCode, 3);
    EXPECT_TRUE(run({"export"_q, "many.db"_q}).output == m_stored);
}

TEST_F(StoppedImport, GoesOnOnlyWithTheOptionsThatItBeganWith)
{
    stop({"--zone"_q, "UTC"_q});
    for (const QStringList &others :
         {QStringList{"--zone"_q, "Asia/Tokyo"_q}, QStringList{"--zone"_q, "UTC"_q, "--columns"_q, "time,value"_q},
          QStringList{"--zone"_q, "UTC"_q, "--as-is"_q}, QStringList{"--zone"_q, "UTC"_q, "--null"_q, ""_q},
          QStringList{"--zone"_q, "UTC"_q, "--time-format"_q, "yyyy-dd-MM hh:mm:ss"_q},
          QStringList{"--zone"_q, "UTC"_q, "--encoding"_q, "latin1"_q},
          QStringList{"--zone"_q, "UTC"_q, "--separator"_q, ","_q}}) {
        const Outcome outcome = run(m_arguments + others);
        EXPECT_EQ(outcome.exitCode, 1) << qPrintable(others.join(QLatin1Char(' ')));
        EXPECT_TRUE(outcome.errors.contains("with another --")) << outcome.errors.constData();
    }
    EXPECT_EQ(run({"import"_q, "many.db"_q, "Many"_q, "many.csv"_q, "--zone"_q, "UTC"_q}).exitCode, 3);
    EXPECT_TRUE(run({"export"_q, "many.db"_q}).output == m_stored);
}

TEST_F(Import, WorksBesideAnyTableOfSamples)
{
    write("wide.csv"_q, "time,device_db_import\n2024-05-06 07:08:09,1\n");
    for (int i = 0; i < 2; ++i) {
        const Outcome outcome = run({"import"_q, "wide.db"_q, "wide.csv"_q, "--wide"_q, "--create"_q});
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors.constData();
    }
    EXPECT_TRUE(run({"info"_q, "wide.db"_q}).output.contains("device_db_import"));
}

TEST_F(Import, DoesNotTouchAFileThatAnotherProcessHasOpen)
{
    write("one.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    ASSERT_EQ(run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    const PlainConnection device(path("one.db"_q)); // this process plays the device
    const Outcome refused = run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(refused.errors.contains("process " + QByteArray::number(QCoreApplication::applicationPid())))
        << refused.errors.constData();
    EXPECT_EQ(valueOf(path("one.db"_q), "select count(*) from One"_q), "1"_q);
    EXPECT_EQ(run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q, "--lock"_q}).exitCode, 0);
    EXPECT_EQ(valueOf(path("one.db"_q), "select count(*) from One"_q), "2"_q);
}

// A unique index that the host added.
TEST_F(Import, ReportsARowThatTheTableRefusesAndStoresTheOthers)
{
    write("two.csv"_q, "time,value\n2024-05-06 07:08:09,1\n2024-05-06 07:08:09,2\n2024-05-06 07:08:10,3\n");
    ASSERT_EQ(run({"import"_q, "two.db"_q, "Two"_q, "two.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    PlainConnection(path("two.db"_q)).run("delete from Two; create unique index once on Two(DATETIME)"_q);
    EXPECT_EQ(run({"import"_q, "two.db"_q, "Two"_q, "two.csv"_q}).exitCode, 3);
    EXPECT_EQ(rowsOf(path("two.db"_q), "select Value from Two order by ID"_q), (Rows{{"1"_q}, {"3"_q}}));
    EXPECT_EQ(
        read("two.csv.refused.csv"_q),
        "line,reason,cells\n3,the table refuses it: UNIQUE constraint failed: Two.DATETIME,2024-05-06 07:08:09,2\n");
}

TEST_F(Import, OfAnotherPipeIsLikeStandardInput)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DEVICE_DATABASE_LIBRARY"_q, QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(path(""_q));
    process.start("bash"_q,
                  {"-c"_q, "'%1' import p.db P <(printf 'time,value\\n2024-05-06 07:08:09,1\\nnever,2\\n') --create "
                           "--kind samples"_q.arg(QString::fromLocal8Bit(DEVICE_DB))});
    const Outcome outcome = finish(process);
    EXPECT_EQ(outcome.exitCode, 3) << outcome.errors.constData();
    EXPECT_EQ(valueOf(path("p.db"_q), "select count(*) from P"_q), "1"_q);
    EXPECT_TRUE(read("p.db.refused.csv"_q).endsWith("never,2\n"));
    EXPECT_EQ(valueOf(path("p.db"_q), "select count(*) from sqlite_master where name like 'device_db%'"_q), "0"_q);
}

TEST_F(Import, RefusesAnEndThatNoQueryFinds)
{
    write("in.csv"_q, "level,start,end_date,end_time\n1,2024-05-06 07:00:00,2024-05-06,\n"
                      "2,2024-05-06 07:00:00,,07:08:09\n3,2024-05-06 07:00:00,garbage,zz\n"
                      "4,2024-05-06 07:00:00,2024/05/06,07:08:09\n5,2024-05-06 07:00:00,,\n");
    const Outcome outcome = run({"import"_q, "a.db"_q, "A"_q, "in.csv"_q, "--create"_q, "--kind"_q, "alarms"_q});
    EXPECT_EQ(outcome.exitCode, 3) << outcome.errors.constData();
    EXPECT_EQ(rowsOf(path("a.db"_q), "select LevelID from A"_q), (Rows{{"4"_q}, {"5"_q}}));
    EXPECT_EQ(read("in.csv.refused.csv"_q).count('\n'), 4) << read("in.csv.refused.csv"_q).constData();
    EXPECT_EQ(
        run({"import"_q, "b.db"_q, "A"_q, "in.csv"_q, "--create"_q, "--kind"_q, "alarms"_q, "--as-is"_q}).exitCode, 0);
}

TEST_F(Import, SaysThatAnAlarmEndsBeforeItBegins)
{
    write("in.csv"_q, "level,start,end_date,end_time\n1,2024-05-06 07:00:00,2024-05-06,06:00:00\n");
    const Outcome outcome = run({"import"_q, "a.db"_q, "A"_q, "in.csv"_q, "--create"_q, "--kind"_q, "alarms"_q});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_TRUE(outcome.errors.contains("1 row of alarms that end before they begin")) << outcome.errors.constData();
    EXPECT_EQ(valueOf(path("a.db"_q), "select count(*) from A"_q), "1"_q);
}

TEST_F(Import, OfADatabaseOrUtf16SaysWhatItIs)
{
    write("one.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    ASSERT_EQ(run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    const Outcome database = run({"import"_q, "one.db"_q, "One"_q, "one.db"_q});
    EXPECT_EQ(database.exitCode, 1);
    EXPECT_TRUE(database.errors.contains("this is a database")) << database.errors.constData();
    write("wide.csv"_q, QByteArray("t\0i\0m\0e\0", 8));
    const Outcome encoded = run({"import"_q, "one.db"_q, "One"_q, "wide.csv"_q});
    EXPECT_EQ(encoded.exitCode, 1);
    EXPECT_TRUE(encoded.errors.contains("UTF-16")) << encoded.errors.constData();
}

TEST_F(Import, IntoATableThatHasGivenItsHighestIdSaysSo)
{
    write("one.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    ASSERT_EQ(run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    PlainConnection(path("one.db"_q)).run("update sqlite_sequence set seq=9223372036854775807 where name='One'"_q);
    const Outcome second = run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_TRUE(second.errors.contains("the highest ID there is")) << second.errors.constData();
}

class RulesOfTables : public Import
{
protected:
    /// An import of `rows`, of which the table takes what its rule allows.
    Outcome importUnder(const QString &rule, const QString &columns = "Value text"_q)
    {
        write("in.csv"_q, "time,value\n2024-05-06 07:08:09,1\n2024-05-06 07:08:10,1\n");
        PlainConnection(path("r.db"_q))
            .run("create table R(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,%1);%2"_q.arg(columns, rule));
        return run({"import"_q, "r.db"_q, "R"_q, "in.csv"_q, "--run-triggers"_q});
    }
};

TEST_F(RulesOfTables, ARowThatIsLeftOutIsRefused)
{
    const Outcome outcome = importUnder(QString(), "Value text unique on conflict ignore"_q);
    EXPECT_EQ(outcome.exitCode, 3) << outcome.errors.constData();
    EXPECT_TRUE(outcome.output.contains("1 row stored")) << outcome.output.constData();
    EXPECT_TRUE(read("in.csv.refused.csv"_q).contains("\n3,the table leaves it out")) << outcome.errors.constData();
}

TEST_F(RulesOfTables, ARowThatATriggerIgnoresIsRefused)
{
    const Outcome outcome = importUnder("create trigger t before insert on R begin select raise(ignore); end"_q);
    EXPECT_EQ(outcome.exitCode, 3) << outcome.errors.constData();
    EXPECT_TRUE(outcome.output.contains("0 rows stored")) << outcome.output.constData();
}

TEST_F(RulesOfTables, RowsThatAreReplacedOrDeletedAreCounted)
{
    const Outcome replaced = importUnder(QString(), "Value text unique on conflict replace"_q);
    EXPECT_EQ(replaced.exitCode, 3);
    EXPECT_TRUE(replaced.errors.contains("1 row fewer in R than that")) << replaced.errors.constData();
    ASSERT_TRUE(QFile::remove(path("r.db"_q)));
    const Outcome deleted =
        importUnder("create trigger t after insert on R begin delete from R where ID=new.ID; end"_q);
    EXPECT_EQ(deleted.exitCode, 3);
    EXPECT_TRUE(deleted.errors.contains("2 rows fewer in R than that")) << deleted.errors.constData();
}

TEST_F(RulesOfTables, ATriggerThatUndoesTheTransactionIsNamed)
{
    const Outcome outcome =
        importUnder("create trigger t before insert on R begin select raise(rollback,'go away'); end"_q);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_TRUE(outcome.errors.contains("undid the whole transaction: go away")) << outcome.errors.constData();
}

TEST_F(RulesOfTables, ARowThatATriggerKeepsIsNotCountedAsDeleted)
{
    importUnder("create trigger t before delete on R when old.ID=1 begin select raise(ignore); end"_q);
    const Outcome trimmed = run({"trim"_q, "r.db"_q, "R"_q, "--keep"_q, "0"_q, "--yes"_q, "--run-triggers"_q});
    EXPECT_EQ(trimmed.exitCode, 3);
    EXPECT_TRUE(trimmed.output.contains("1 row of R deleted") && trimmed.output.contains("; 1 left"))
        << trimmed.output.constData();
    EXPECT_TRUE(trimmed.errors.contains("1 row of R could not be deleted")) << trimmed.errors.constData();
}

TEST_F(Import, ListsRefusedRowsUnderNoNameOfTheDatabase)
{
    write("one.csv"_q, "time,value\n2024-05-06 07:08:09,1\nnever,2\n");
    ASSERT_EQ(run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 3);
    ASSERT_TRUE(QFile::link(path("one.db"_q), path("link.db"_q)));
    for (const char *name : {"one.db-wal", "one.db-journal", "one.db-shm"}) {
        for (const char *file : {"one.db", "link.db"}) {
            const Outcome outcome = run({"import"_q, QString::fromLatin1(file), "One"_q, "one.csv"_q, "--refused"_q,
                                         QString::fromLatin1(name)});
            EXPECT_EQ(outcome.exitCode, 1) << name;
            EXPECT_TRUE(outcome.errors.contains("this is a part of")) << outcome.errors.constData();
        }
        EXPECT_FALSE(QFile::exists(path(QString::fromLatin1(name)))) << name;
    }
    EXPECT_EQ(valueOf(path("one.db"_q), "select count(*) from One"_q), "1"_q);
}

TEST_F(Import, LeavesWhatHasNoTimeToAPersonToPurge)
{
    write("o.csv"_q, "time,value\n06.05.2024 07:00,1\n2024,2\n2024-05-06 07:00:00,3\n,4\n2019-05-06 07:00:00,5\n");
    ASSERT_EQ(
        run({"import"_q, "p.db"_q, "P"_q, "o.csv"_q, "--create"_q, "--kind"_q, "samples"_q, "--as-is"_q}).exitCode, 0);
    const Outcome purged = run({"purge"_q, "p.db"_q, "P"_q, "--before"_q, "2020-01-01"_q, "--yes"_q});
    EXPECT_EQ(purged.exitCode, 0) << purged.errors.constData();
    EXPECT_EQ(purged.output, "p.db: 1 row of P deleted, from 2019-05-06 07:00:00 to 2019-05-06 07:00:00; 4 left; among "
                             "them 3 rows whose time cannot be read\n");
    EXPECT_EQ(rowsOf(path("p.db"_q), "select Value from P order by ID"_q), (Rows{{"1"_q}, {"2"_q}, {"3"_q}, {"4"_q}}));
    EXPECT_EQ(run({"purge"_q, "p.db"_q, "P"_q, "--before"_q, "2020-01-01"_q, "--yes"_q}).output,
              "p.db: no rows of P to delete; it keeps 3 rows whose time cannot be read\n");
}

} // namespace
