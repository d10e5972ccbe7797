// SPDX-License-Identifier: MIT
//
// What device-db says would go is what a recorder removes, and nothing trips over the rules in a file.
#include "tool_test.h"

#include "device/recorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>

#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

using std::chrono::milliseconds;

class Keeps : public ToolTest
{
protected:
    /// 2,000 hourly samples in T1, 40 alarms of which every fourth lasts, and 500 daily entries of the log.
    void makeFile() const
    {
        const QString series = "with recursive n(i) as (select 0 union all select i+1 from n where i<%1) "_q;
        PlainConnection file(path("a.db"_q));
        file.run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,"
                 "AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,"
                 "EndTime text);"
                 "create table OperatorLog(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName "
                 "text,logName text,message text);"
                 "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text);"
                 "create table other(a,b);insert into tb_config(COLLECTOR,NAME) values('T1','Boiler');"_q);
        file.run(series.arg(1999) +
                 "insert into T1(DATETIME,Value) select datetime('2024-01-01',i||' hours'),i from n"_q);
        file.run(series.arg(39) +
                 "insert into AlarmData(LevelID,DATETIME,AlarmObject,AlarmType,CurrentValue,LimitValue,"
                 "AlarmDescription,EndDate,EndTime) select 1,datetime('2024-01-01',i||' days'),'a','b','','','',"
                 "iif(i%4,'2024-03-01',''),iif(i%4,'00:00:00','') from n"_q);
        file.run(series.arg(499) + "insert into OperatorLog(DATETIME,userName,logName,message) select "
                                   "datetime('2022-11-11 07:00:00',i||' days')||'.000','a','b','c' from n"_q);
    }
    void sql(const char *statement) const { PlainConnection(path("a.db"_q)).run(QString::fromLatin1(statement)); }
    QString value(const char *query) const { return valueOf(path("a.db"_q), QString::fromLatin1(query)); }

    Outcome keep(const QStringList &arguments) const { return run(QStringList{"keep"_q, "a.db"_q} + arguments); }
    QJsonObject shown(const QString &table) const
    {
        const Outcome outcome = keep({table, "--json"_q});
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors.constData();
        return QJsonDocument::fromJson(outcome.output).object();
    }
    void refuses(const QStringList &arguments, const char *words) const
    {
        const QByteArray before = read("a.db"_q);
        const Outcome outcome = keep(arguments);
        EXPECT_EQ(outcome.exitCode, 1) << qPrintable(arguments.join(' '));
        EXPECT_TRUE(outcome.errors.contains(words)) << words << '\n' << outcome.errors.constData();
        EXPECT_EQ(outcome.errors.count('\n'), 1);
        EXPECT_EQ(read("a.db"_q), before);
    }
    /// The rows that are left once a recorder had the file; one more sample, with the time of the newest, is stored.
    qint64 leftByRecorder(const char *table, qint64 expected) const
    {
        const auto library = device::Library::load(QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY));
        device::RecorderOptions options;
        options.file.profile = device::Profile::Durable; // so that counting stops nobody
        device::HistoryRecorder recorder(*library, path("a.db"_q), options);
        EXPECT_TRUE(recorder.start());
        EXPECT_TRUE(
            recorder.record(device::TableName::must("T1"), {QDateTime(QDate(2024, 3, 24), QTime(7, 0)), "x"_q}));
        EXPECT_TRUE(recorder.flush(milliseconds(20000)));
        PlainConnection file(path("a.db"_q));
        file.run("pragma busy_timeout=20000"_q);
        const auto rows = [&] { return file.value("select count(*) from "_q + QLatin1String(table)).toLongLong(); };
        QElapsedTimer waiting;
        for (waiting.start(); waiting.elapsed() < 20000 && rows() > expected;) {
            QCoreApplication::processEvents();
            std::this_thread::sleep_for(milliseconds(5));
        }
        EXPECT_TRUE(recorder.stop(milliseconds(20000)));
        return rows();
    }
};

TEST_F(Keeps, SaysWhatARecorderThenRemoves)
{
    struct Case {
        const char *table;
        QStringList rules;
        const char *damage; ///< Done to the file before.
        const char *shipped;
        int going;
    };
    const Case cases[] = {
        {"T1", {"--age"_q, "80d"_q}, "", "", 79},
        {"T1", {"--age"_q, "80d"_q}, "update T1 set DATETIME='soon' where ID=40", "", 79},
        {"T1", {"--age"_q, "80d"_q}, "update T1 set DATETIME='2024-03-01 00:00:00' where ID=40", "", 78},
        {"T1", {"--age"_q, "80d"_q}, "update T1 set DATETIME='2099-03-01 00:00:00' where ID=40", "", 79},
        {"T1", {"--age"_q, "80d"_q}, "update T1 set DATETIME='2099-03-01 00:00:00' where ID=1", "", 79},
        {"T1", {"--rows"_q, "1500"_q}, "", "", 500},
        {"T1", {"--rows"_q, "1500"_q, "--at-least"_q, "80d"_q}, "", "", 79},
        {"T1", {"--rows"_q, "1900"_q, "--age"_q, "80d"_q}, "", "", 100},
        {"T1", {"--rows"_q, "1500"_q}, "", R"({"version":1,"owner":"a","shipped":{"t1":30}})", 30},
        {"T1", {"--rows"_q, "1500"_q}, "", R"({"version":1,"owner":"a","shipped":{"T2":30}})", 500},
        {"T1", {"--rows"_q, "1500"_q}, "", "no JSON", 0},
        {"AlarmData", {"--rows"_q, "20"_q}, "", "", 15},
        {"OperatorLog", {"--rows"_q, "20"_q}, "", "", 134},
        {"OperatorLog", {"--rows"_q, "20"_q, "--at-least"_q, "0h"_q}, "", "", 480},
    };
    for (const Case &each : cases) {
        SCOPED_TRACE(qPrintable(QLatin1String(each.table) + ' ' + each.rules.join(' ') + QLatin1String(each.damage) +
                                QLatin1String(each.shipped)));
        for (const char *end : {"", "-wal", "-shm", ".shipped"})
            QFile::remove(path("a.db"_q + QLatin1String(end)));
        makeFile();
        if (*each.damage)
            sql(each.damage);
        if (*each.shipped)
            write("a.db.shipped"_q, each.shipped);
        const bool isShippedBad = qstrcmp(each.shipped, "no JSON") == 0;
        const Outcome set = keep(QStringList{QString::fromLatin1(each.table)} + each.rules);
        EXPECT_EQ(set.exitCode, isShippedBad ? 3 : 0) << set.errors.constData();
        const QJsonObject object =
            QJsonDocument::fromJson(keep({QString::fromLatin1(each.table), "--json"_q}).output).object();
        EXPECT_EQ(object.value("goes_now"_q).toInt(), each.going);
        const int rows = object.value("rows_in_table"_q).toInt();
        // With --rows the sample that is stored pushes out another one.
        const int more = qstrcmp(each.table, "T1") == 0 ? 1 : 0;
        const qint64 left = leftByRecorder(each.table, rows + more - each.going);
        EXPECT_LE(left, rows + more - each.going);
        EXPECT_GE(left, rows - each.going);
    }
}

TEST_F(Keeps, SaysWhenARecorderWouldHoldAnAge)
{
    makeFile();
    const Outcome set = keep({"T1"_q, "--age"_q, "30d"_q});
    EXPECT_EQ(set.exitCode, 0);
    EXPECT_TRUE(set.output.contains("1,279 rows (64.0 %) held, because more than a tenth")) << set.output.constData();
    EXPECT_EQ(shown("T1"_q).value("goes_now"_q).toInt(), 0);
    EXPECT_EQ(shown("T1"_q).value("held_as_too_many"_q).toInt(), 1279);
    EXPECT_EQ(leftByRecorder("T1", 2001), 2001);
}

TEST_F(Keeps, SaysWhatGoesOnceTheTimeHasGoneOnForAWeek)
{
    makeFile();
    EXPECT_EQ(keep({"T1"_q, "--age"_q, "30d"_q}).exitCode, 0);
    sql("insert into \"device keep\" values('',NULL,NULL,NULL,'','',0,0,1,'2024-03-24 07:00:00',1)");
    EXPECT_EQ(shown("T1"_q).value("goes_now"_q).toInt(), 1279);
    EXPECT_EQ(shown("T1"_q).value("held_as_too_many"_q).toInt(), 0);
    EXPECT_EQ(leftByRecorder("T1", 2001 - 1279), 2001 - 1279);
}

TEST_F(Keeps, ChangesOnlyTheRulesThatAreNamed)
{
    makeFile();
    EXPECT_EQ(keep({"t1"_q, "--age"_q, "12w"_q, "--sums"_q, "1min=90d,1h=10y"_q}).exitCode, 0);
    EXPECT_EQ(keep({"T1"_q, "--rows"_q, "1900"_q, "--sums"_q, "1h=none,10min=2y"_q}).exitCode, 0);
    EXPECT_EQ(value("select COLLECTOR||AGE||NEWEST||ifnull(ATLEAST,'-')||SUMS from \"device keep\""),
              "T1"
              "2016"
              "1900-60:2160,600:17520"_q);
    EXPECT_EQ(keep({"T1"_q, "--age"_q, "none"_q, "--rows"_q, "none"_q, "--at-least"_q, "36h"_q}).exitCode, 0);
    EXPECT_EQ(value("select ifnull(AGE,'-')||ifnull(NEWEST,'-')||ATLEAST||SUMS from \"device keep\""),
              "--3660:2160,600:17520"_q);
    const Outcome again = keep({"T1"_q, "--at-least"_q, "36h"_q});
    EXPECT_TRUE(again.output.contains("T1 is kept already: at least 36h, sums 1min=90d,10min=2y"))
        << again.output.constData();
    EXPECT_EQ(keep({"T1"_q, "--for-ever"_q}).exitCode, 0);
    EXPECT_EQ(value("select ifnull(AGE,'-')||ifnull(NEWEST,'-')||ifnull(ATLEAST,'-')||SUMS from \"device keep\""),
              "---"_q);
}

TEST_F(Keeps, WritesNothingForADryRunOrNoRule)
{
    makeFile();
    const QByteArray before = read("a.db"_q);
    EXPECT_TRUE(keep({"T1"_q, "--age"_q, "80d"_q, "--dry-run"_q})
                    .output.contains("would be kept: age 80d; a recorder would remove 79"));
    EXPECT_EQ(keep({"--for-ever"_q}).exitCode, 0);
    EXPECT_EQ(keep({}).exitCode, 0);
    EXPECT_EQ(read("a.db"_q), before);
}

TEST_F(Keeps, RefusesInOneLineWhatCannotBe)
{
    makeFile();
    ASSERT_EQ(keep({"T1"_q, "--age"_q, "80d"_q, "--sums"_q, "1min=90d"_q}).exitCode, 0);
    refuses({"T1"_q, "--age"_q, "90"_q}, "--age 90: this is not a span; give a whole number and h, d, w or y");
    refuses({"T1"_q, "--age"_q, "3m"_q}, "--age 3m: this is not a span");
    refuses({"T1"_q, "--age"_q, "1.5d"_q}, "--age 1.5d: this is not a span");
    refuses({"T1"_q, "--age"_q, "99999999999y"_q}, "is not a span");
    refuses({"T1"_q, "--age"_q, "0d"_q}, "it can be 1 to");
    refuses({"T1"_q, "--age"_q, "2000000000y"_q}, "it can be 1 to");
    refuses({"T1"_q, "--at-least"_q, "100d"_q},
            "T1: the age 80d is shorter than the 100d that its rows are kept at least");
    refuses({"T1"_q, "--rows"_q, "0"_q}, "--rows 0: give a whole number from 1 on, or none");
    refuses({"T1"_q, "--rows"_q, "many"_q}, "--rows many: give a whole number");
    refuses({"T1"_q, "--sums"_q, "1h"_q}, "--sums 1h: \"1h\" is not a level and its age");
    refuses({"T1"_q, "--sums"_q, "2h=9d"_q}, "is not a level and its age");
    refuses({"T1"_q, "--sums"_q, "1h=2d"_q},
            "the sums of 1h are kept for 2d, shorter than the finer ones of 1min (90d)");
    refuses({"AlarmData"_q, "--sums"_q, "1h=2d"_q}, "only tables of samples have sums");
    refuses({"T9"_q, "--age"_q, "9d"_q}, "there is no table T9; it has");
    refuses({"tb_config"_q, "--age"_q, "9d"_q}, "tb_config is not a table of records");
    refuses({"other"_q, "--age"_q, "9d"_q}, "other is not a table of records");
    refuses({"device keep"_q, "--age"_q, "9d"_q}, "there is no table device keep");
    refuses({"--age"_q, "9d"_q}, "name the tables");
    refuses({"T1"_q, "--dry-run"_q}, "give the rules to try");
    refuses({"T1"_q, "T9"_q, "--age"_q, "70d"_q}, "there is no table T9"); // and nothing of T1
    EXPECT_EQ(keep({"T1"_q, "--for-ever"_q, "--age"_q, "9d"_q}).exitCode, 2);
    EXPECT_EQ(keep({"T1"_q, "--age"_q, ""_q}).exitCode, 2);
    EXPECT_TRUE(run({"keep"_q, "none.db"_q}).errors.contains("none.db: there is no such file"));
    sql("alter table T1 rename to 'T 1'");
    refuses({"T 1"_q, "--age"_q, "9d"_q}, "a recorder leaves T 1 alone, because its name needs quotes");
}

TEST_F(Keeps, SaysThatAnotherProgramHasTheFile)
{
    makeFile();
    {
        PlainConnection other(path("a.db"_q));
        other.run("begin immediate"_q);
        refuses({"T1"_q, "--age"_q, "9d"_q}, "has it open");
    }
    if (geteuid() != 0) {
        ASSERT_TRUE(QFile::setPermissions(path("a.db"_q), QFile::ReadOwner));
        refuses({"T1"_q, "--age"_q, "9d"_q}, "it may not be written");
    }
}

TEST_F(Keeps, RulesThatCannotBeReadAreSaidAndCanBeTakenAway)
{
    for (const char *damage : {"update \"device keep\" set VERSION=2", "update \"device keep\" set NEWEST='all'",
                               "update \"device keep\" set SUMS='60'", "alter table \"device keep\" add column MORE",
                               "drop table \"device keep\";create table \"device keep\"(a)"}) {
        SCOPED_TRACE(damage);
        QFile::remove(path("a.db"_q));
        QFile::remove(path("b.db"_q));
        makeFile();
        ASSERT_EQ(keep({"T1"_q, "--age"_q, "80d"_q}).exitCode, 0);
        EXPECT_EQ(run({"check"_q, "a.db"_q}).output.count("kept"), 0);
        sql(damage);
        refuses({}, "how long its rows are kept cannot be read: ");
        refuses({"T1"_q, "--age"_q, "9d"_q}, "\"device-db keep FILE --for-ever\" takes all rules away");
        const Outcome check = run({"check"_q, "a.db"_q, "--csv"_q});
        EXPECT_EQ(check.exitCode, 3);
        EXPECT_TRUE(check.output.startsWith("severity,table,finding\nattention,(file),")) << check.output.constData();
        EXPECT_TRUE(check.output.contains("how long its rows are kept cannot be read"));
        EXPECT_TRUE(run({"info"_q, "a.db"_q}).output.contains("\nKept      cannot be read: "));
        EXPECT_EQ(run({"info"_q, "a.db"_q, "--json"_q}).exitCode, 0);
        EXPECT_EQ(keep({"--for-ever"_q, "--dry-run"_q}).exitCode, 0);
        EXPECT_EQ(run({"check"_q, "a.db"_q}).exitCode, 3);
        EXPECT_TRUE(keep({"--for-ever"_q}).output.contains("is removed"));
        EXPECT_NE(run({"check"_q, "a.db"_q}).output.count("cannot be read"), 1);
        EXPECT_EQ(keep({"T1"_q, "--age"_q, "80d"_q}).exitCode, 0);
    }
}

TEST_F(Keeps, InfoSaysTheRulesInALineForEachTable)
{
    makeFile();
    EXPECT_FALSE(run({"info"_q, "a.db"_q}).output.contains("Kept"));
    ASSERT_EQ(keep({"T1"_q, "AlarmData"_q, "--age"_q, "80d"_q, "--rows"_q, "10000"_q}).exitCode, 0);
    ASSERT_EQ(keep({"AlarmData"_q, "--for-ever"_q}).exitCode, 0);
    const QByteArray info = run({"info"_q, "a.db"_q}).output;
    EXPECT_TRUE(info.contains("\nKept      T1: age 80d, rows 10,000\n")) << info.constData();
    EXPECT_EQ(info.count("Kept"), 1);
    EXPECT_FALSE(info.contains("device keep"));
    EXPECT_TRUE(run({"info"_q, "a.db"_q, "--json"_q}).output.contains("\"age\": \"80d\""));
    const Outcome check = run({"check"_q, "a.db"_q});
    EXPECT_FALSE(check.output.contains("keep") || check.output.contains("kept")) << check.output.constData();
}

TEST_F(Keeps, BackupImportAndSalvageCarryTheRules)
{
    makeFile();
    const char *all = "select group_concat(COLLECTOR||ifnull(AGE,'')||ifnull(NEWEST,'')||ifnull(ATLEAST,'')||SUMS||"
                      "FLOORS||TRIMMED||UNSHIPPED||THROUGHID||ifnull(THROUGH,'-')||VERSION,'|') from \"device keep\"";
    ASSERT_EQ(keep({"T1"_q, "--age"_q, "80d"_q, "--sums"_q, "1min=90d"_q}).exitCode, 0);
    ASSERT_EQ(keep({"AlarmData"_q, "--rows"_q, "30"_q}).exitCode, 0);
    leftByRecorder("T1", 1922);
    const QString rules = value(all);
    EXPECT_TRUE(rules.contains("2024-03-24"_q)) << qPrintable(rules); // the time that is believed
    write("more.csv"_q, "time,value\n2024-03-24 08:00:00,1\n");
    EXPECT_EQ(run({"import"_q, "a.db"_q, "T1"_q, "more.csv"_q}).exitCode, 0);
    EXPECT_EQ(value(all), rules);
    EXPECT_EQ(run({"backup"_q, "a.db"_q, "copy.db"_q}).exitCode, 0);
    EXPECT_EQ(valueOf(path("copy.db"_q), QString::fromLatin1(all)), rules);
    const Outcome salvaged = run({"salvage"_q, "a.db"_q, "whole.db"_q});
    EXPECT_TRUE(salvaged.output.contains("3 entries of how long rows are kept")) << salvaged.output.constData();
    EXPECT_EQ(valueOf(path("whole.db"_q), QString::fromLatin1(all)), rules);
    QByteArray damaged = read("a.db"_q);
    damaged.replace(0, 4096, QByteArray(4096, ' '));
    write("damaged.db"_q, damaged);
    EXPECT_EQ(run({"salvage"_q, "damaged.db"_q, "rows.db"_q}).exitCode, 3);
    EXPECT_EQ(valueOf(path("rows.db"_q), QString::fromLatin1(all)), rules);
    EXPECT_EQ(run({"keep"_q, "rows.db"_q}).exitCode, 0);
}

TEST_F(Keeps, SalvageLeavesOutRulesThatNobodyCouldRead)
{
    makeFile();
    ASSERT_EQ(keep({"T1"_q, "--rows"_q, "1900"_q}).exitCode, 0);
    sql("update \"device keep\" set SUMS='60'");
    const Outcome salvaged = run({"salvage"_q, "a.db"_q, "whole.db"_q});
    EXPECT_EQ(salvaged.exitCode, 3);
    EXPECT_TRUE(salvaged.output.contains("were left out")) << salvaged.output.constData();
    EXPECT_EQ(valueOf(path("whole.db"_q), "select count(*) from \"device keep\""_q), "0"_q);
}

TEST_F(Keeps, ShowsThatThereIsNoTableAndTheNamesOfOthersInOneLine)
{
    write("empty.db"_q, "");
    EXPECT_EQ(run({"keep"_q, "empty.db"_q}).output, "no tables of records\n");
    makeFile();
    write("a.db.shipped"_q, R"({"version":1,"owner":"\u001b[31mred\nline","shipped":{"T1":5}})");
    const QByteArray shown = keep({"T1"_q}).output;
    EXPECT_TRUE(shown.contains("T1: ␛[31mred␊line has shipped up to ID 5")) << shown.constData();
}

TEST_F(Keeps, AHostileFileStopsNobody)
{
    makeFile();
    ASSERT_EQ(::mkfifo(QFile::encodeName(path("a.db.shipped"_q)).constData(), 0600), 0);
    const Outcome pipe = keep({"T1"_q, "--rows"_q, "1900"_q});
    EXPECT_EQ(pipe.exitCode, 3);
    EXPECT_TRUE(pipe.errors.contains("it is not a file")) << pipe.errors.constData();
    QFile::remove(path("a.db.shipped"_q));
    // IDs at the end of all numbers, rows below 1, and an entry of a table that is gone.
    sql("insert into T1 values(9223372036854775807,'2024-03-24 07:00:00','x'),(-5,'2001-01-01 00:00:00','x')");
    sql("delete from T1 where ID between 1 and 2000");
    sql("insert into \"device keep\" values('T7',NULL,9223372036854775807,NULL,'','',0,0,0,NULL,1)");
    EXPECT_EQ(keep({"T1"_q, "--age"_q, "1h"_q}).exitCode, 0);
    EXPECT_EQ(keep({"--full"_q}).exitCode, 0);
    EXPECT_EQ(keep({}).exitCode, 0);
    sql("create trigger t after insert on \"device keep\" begin delete from T1; end");
    refuses({"AlarmData"_q, "--rows"_q, "3"_q}, "it has triggers");
    sql("drop trigger t;drop table \"device keep\";create view \"device keep\" as select 1");
    EXPECT_EQ(keep({"T1"_q, "--rows"_q, "1900"_q}).exitCode, 1);
    EXPECT_EQ(run({"info"_q, "a.db"_q}).exitCode, 0);
}

} // namespace
