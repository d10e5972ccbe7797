// SPDX-License-Identifier: MIT
#include "loaded_library.h"
#include "tool_test.h"
#include "trend_files.h"

#include <csignal>
#include <sstream>

namespace
{

class Trends : public ToolTest
{
protected:
    void make(int rows = 20000) const
    {
        PlainConnection file(path("device.db"_q));
        file.run(samples("Boiler"_q, rows, 1));
    }
    /// Runs the tool on device.db and gives what it says, its exit code at the end.
    QByteArray said(const QStringList &words) const
    {
        const Outcome outcome = run(words);
        return outcome.output + outcome.errors + "? " + QByteArray::number(outcome.exitCode) + '\n';
    }
    QByteArray trends(const char *action, const QStringList &more = {}) const
    {
        return said(QStringList{"trends"_q, QString::fromLatin1(action), "device.db"_q, "Boiler"_q} + more);
    }
    QByteArray checked() const { return said({"check"_q, "device.db"_q, "--trends"_q}); }
    void change(const QString &sql) const { PlainConnection(path("device.db"_q)).run(sql); }
    QString value(const QString &sql) const { return valueOf(path("device.db"_q), sql); }
    /// All that the two tables hold but the sums of the numbers, which may differ by rounding; a line a row.
    std::string kept() const
    {
        Rows rows = rowsOf(path("device.db"_q), "select K,D from \"device trend\" order by K"_q);
        for (QStringList &row : rows) {
            QStringList parts = row.at(1).split(QLatin1Char(';'));
            if (parts.size() > 1)
                parts.removeAt(1);
            row[1] = parts.join(QLatin1Char(';'));
        }
        std::string lines;
        for (const QStringList &row : rows + rowsOf(path("device.db"_q), "select * from \"device trend series\""_q))
            lines += row.join(QLatin1Char(' ')).toStdString() + '\n';
        return lines;
    }
    /// Their first different line; nothing if they are the same.
    static std::string difference(const std::string &a, const std::string &b)
    {
        std::istringstream one(a), other(b);
        for (std::string x, y;; x.clear(), y.clear()) {
            const bool first = bool(std::getline(one, x)), second = bool(std::getline(other, y));
            if (x != y)
                return x + " instead of " + y;
            if (!first && !second)
                return {};
        }
    }
};

TEST_F(Trends, AreSummedUpFromTheRowsThatAreThere)
{
    make();
    EXPECT_TRUE(trends("on").contains("20,000 rows summed up\n? 0"));
    // Rows by the minute, asked of SQLite alone; a bucket begins with their number.
    EXPECT_EQ(
        rowsOf(path("device.db"_q),
               "select ifnull(nullif(cast(D as integer),0),60) from \"device trend\" where K>>36=17 order by K"_q),
        rowsOf(path("device.db"_q), "select count(*) from Boiler where length(DATETIME)=19 group by "
                                    "substr(DATETIME,1,16) order by 1,min(DATETIME)"_q.replace("1,min"_q, "min"_q)));
    const QByteArray check = checked();
    EXPECT_TRUE(check.contains("sums compared with 20,000 rows")) << check.constData();
    EXPECT_FALSE(check.contains("differ")) << check.constData();
    EXPECT_EQ(said({"check"_q, "device.db"_q}).replace("sums", ""), said({"check"_q, "device.db"_q}))
        << "check alone does not speak of them";
}

TEST_F(Trends, AreKeptByLevelsOfOnesChoiceAndShown)
{
    make();
    EXPECT_TRUE(trends("on", {"--levels"_q, "1h,10s"_q}).endsWith("? 0\n"));
    EXPECT_EQ(value("select LEVELS from \"device trend series\""_q), "10,3600"_q);
    change("insert into Boiler values(NULL,'2024-06-01 00:00:00','7')"_q);
    const QByteArray shown = said({"trends"_q, "device.db"_q, "--json"_q});
    EXPECT_TRUE(shown.contains("\"level\":\"10s\"")) << shown.constData();
    EXPECT_TRUE(shown.contains("\"through_id\":20000")) << shown.constData();
    EXPECT_TRUE(shown.contains("\"behind\":1}")) << shown.constData();
    EXPECT_TRUE(trends("on").contains("kept already, 1 row summed up"));
    EXPECT_EQ(value("select LEVELS from \"device trend series\""_q), "10,3600"_q);
    EXPECT_TRUE(trends("on", {"--levels"_q, "1min"_q}).contains("20,001 rows summed up"));
    EXPECT_EQ(value("select LEVELS from \"device trend series\""_q), "60"_q);
    EXPECT_EQ(value("select count(distinct K>>40) from \"device trend\""_q), "1"_q) << "nothing is left of the others";
    EXPECT_TRUE(trends("off").endsWith("? 0\n"));
    EXPECT_EQ(kept(), "");
    EXPECT_TRUE(trends("off").contains("keeps no trend"));
    EXPECT_TRUE(said({"trends"_q, "device.db"_q, "boiler"_q}).contains("Boiler keeps no trend"));
}

TEST_F(Trends, WhatCannotBeKeptIsRefused)
{
    make(10);
    change("create table \"two words\"(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
           "create table Reused(ID INTEGER PRIMARY KEY,DATETIME dateTime,Value text);"
           "create table L(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,"
           "message text)"_q);
    const auto refused = [&](const QStringList &words, const char *why) {
        const QByteArray answer = said(QStringList{"trends"_q} + words);
        EXPECT_TRUE(answer.contains(why)) << answer.constData();
        EXPECT_TRUE(answer.endsWith("? 1\n")) << answer.constData();
    };
    refused({"on"_q, "device.db"_q, "two words"_q}, "needs quotes");
    refused({"on"_q, "device.db"_q, "Reused"_q}, "IDs of its own");
    refused({"on"_q, "device.db"_q, "L"_q}, "another kind");
    refused({"on"_q, "device.db"_q, "Nothing"_q}, "there is no table Nothing");
    refused({"on"_q, "device.db"_q}, "name the tables");
    refused({"on"_q}, "name the file");
    refused({"on"_q, "nothing.db"_q, "T"_q}, "no such file");
    refused({"rebuild"_q, "device.db"_q, "Boiler"_q}, "keeps no trend");
    for (const char *levels : {"", "1m", "10s,,1h", "1h;1d", "60", "10s,1min,10min,1h,1d,1w"})
        EXPECT_FALSE(trends("on", {"--levels"_q, QString::fromLatin1(levels)}).endsWith("? 0\n")) << levels;
    EXPECT_EQ(value("select count(*) from sqlite_master where name like 'device trend%'"_q), "0"_q);
}

TEST_F(Trends, EachWrongSumIsFoundAndMadeAnew)
{
    make();
    trends("on");
    const std::string right = kept();
    const QString one = "(select K from \"device trend\" where K>>36=%1 limit 1 offset 7)"_q;
    const QString minute = one.arg(17), tenMinutes = one.arg(18);
    const auto edited = [](const QString &key, const QString &pattern, const QString &by) {
        return "update \"device trend\" set D=replace(D,"_q + pattern + ","_q + by + ") where K="_q + key;
    };
    for (const QString &key : {minute, tenMinutes}) {
        const QString text = valueOf(path("device.db"_q), "select D from \"device trend\" where K="_q + key);
        const QStringList parts = text.split(QLatin1Char(';'));
        ASSERT_GE(parts.size(), 6);
        for (int i = 0; i < parts.size(); ++i) {
            QStringList wrong = parts;
            wrong[i] = i == 0 ? "1"_q + wrong.at(0) : i == 1 ? wrong.at(1) + "1"_q : wrong.at(i) + "1"_q;
            if (wrong.at(i).contains(QLatin1Char('/')) && i == 0)
                continue;
            change("update \"device trend\" set D='"_q + wrong.join(QLatin1Char(';')) + "' where K="_q + key);
            const QByteArray check = checked();
            EXPECT_TRUE(check.contains("differ")) << i << check.constData();
            EXPECT_TRUE(check.endsWith("? 3\n")) << i << check.constData();
            EXPECT_TRUE(trends("rebuild").contains("1 sums made anew, 0 removed")) << i;
            EXPECT_EQ(difference(kept(), right), "") << i;
        }
    }
    for (const auto &[wrong, what] : {
             std::pair{edited(minute, "D"_q, "'junk'"_q), "cannot be read"},
             std::pair{"delete from \"device trend\" where K="_q + minute, "it is missing"},
             std::pair{"delete from \"device trend\" where K="_q + tenMinutes, "it is missing"},
             std::pair{"insert into \"device trend\" values(17<<36,'1;5;5;;5;;5;;5;')"_q, "there are none"},
             std::pair{"insert into \"device trend\" values((18<<36)+60000000000,'1;5;5;;5;;5;;5;')"_q,
                       "levels or times"},
             std::pair{"insert into \"device trend\" values(25<<36,'1;5;5;;5;;5;;5;')"_q, "levels or times"},
             std::pair{"update \"device trend series\" set FRONT=FRONT-86400"_q, "latest sum"},
             std::pair{"update \"device trend series\" set FRONT=0"_q, "latest sum"},
             std::pair{"update \"device trend\" set D=NULL where K="_q + minute, "cannot be read"},
             std::pair{"delete from \"device trend\""_q, "it is missing"},
         }) {
        change(wrong);
        const QByteArray check = checked();
        EXPECT_TRUE(check.contains(what)) << qPrintable(wrong) << check.constData();
        EXPECT_TRUE(check.endsWith("? 3\n")) << check.constData();
        EXPECT_TRUE(trends("rebuild").endsWith("? 0\n"));
        EXPECT_EQ(difference(kept(), right), "") << qPrintable(wrong);
    }
}

TEST_F(Trends, ARowThatWasChangedIsFound)
{
    make();
    trends("on");
    change("update Boiler set Value='999' where ID=5000"_q);
    const QByteArray check = checked();
    EXPECT_TRUE(check.contains("highest 999 at 2024-05-")) << check.constData();
    EXPECT_TRUE(check.endsWith("? 3\n"));
    EXPECT_TRUE(trends("rebuild").contains("sums made anew"));
    EXPECT_FALSE(checked().contains("differ"));
}

TEST_F(Trends, SumsOfRemovedRowsAreToldAndNeverLostByThemselves)
{
    make();
    trends("on");
    change("delete from Boiler where ID<=7000; delete from Boiler where ID=12000"_q);
    const std::string before = kept();
    QByteArray check = checked();
    EXPECT_TRUE(check.contains("no longer there")) << check.constData();
    EXPECT_FALSE(check.contains("differ")) << check.constData();
    EXPECT_TRUE(trends("rebuild").contains("kept whose rows are no longer there"));
    EXPECT_EQ(difference(kept(), before), "");
    for (const QByteArray &refusal : {trends("off"), trends("on", {"--levels"_q, "1h"_q})}) {
        EXPECT_TRUE(refusal.contains("7,001 rows that are no longer there")) << refusal.constData();
        EXPECT_TRUE(refusal.endsWith("? 1\n"));
    }
    EXPECT_EQ(difference(kept(), before), "");
    // A wrong sum beside them is found and made anew, and one that says too much.
    change("update \"device trend\" set D='9'||D where K=(select max(K) from \"device trend\" where K>>36=17)"_q);
    check = checked();
    EXPECT_TRUE(check.contains("more than were ever in the table") || check.contains("differ")) << check.constData();
    EXPECT_TRUE(trends("rebuild", {"--forget-removed"_q}).contains("12,999 rows summed up"));
    check = checked();
    EXPECT_FALSE(check.contains("no longer there")) << check.constData();
    EXPECT_FALSE(check.contains("differ")) << check.constData();
    EXPECT_TRUE(trends("off", {"--forget-removed"_q}).endsWith("? 0\n"));
    EXPECT_EQ(kept(), "");
}

TEST_F(Trends, OfATableThatWasEmptiedBeginAnew)
{
    make();
    trends("on");
    change(
        "delete from Boiler; delete from sqlite_sequence; insert into Boiler values(NULL,'2024-05-06 00:00:00','1')"_q);
    EXPECT_TRUE(checked().contains("before the table was emptied"));
    EXPECT_TRUE(said({"trends"_q, "device.db"_q}).contains("before the table was emptied"));
    EXPECT_TRUE(trends("rebuild").contains("begins anew, 1 row summed up"));
    EXPECT_TRUE(checked().contains("1 sums compared with 1 row"));
}

TEST_F(Trends, OfAFileWithStrangeTablesAreSaidToBeUnreadable)
{
    make();
    trends("on");
    for (const char *what :
         {"LEVELS='7'", "LEVELS=''", "LEVELS='60,60'", "MARK=-1", "FRONT=1e300", "LEVELS=zeroblob(100)", "N=-5"}) {
        QFile::remove(path("odd.db"_q));
        ASSERT_TRUE(QFile::copy(path("device.db"_q), path("odd.db"_q)));
        PlainConnection(path("odd.db"_q)).run("update \"device trend series\" set "_q + QString::fromLatin1(what));
        EXPECT_TRUE(said({"check"_q, "odd.db"_q, "--trends"_q}).endsWith("? 3\n")) << what;
        EXPECT_TRUE(said({"info"_q, "odd.db"_q}).endsWith("? 0\n")) << what;
        EXPECT_TRUE(said({"plot"_q, "odd.db"_q, "-o"_q, "p.svg"_q, "--force"_q}).endsWith("? 3\n")) << what;
        const QByteArray healed = said({"trends"_q, "on"_q, "odd.db"_q, "Boiler"_q, "--forget-removed"_q});
        EXPECT_TRUE(healed.endsWith("? 0\n")) << what << healed.constData();
    }
    PlainConnection(path("device.db"_q))
        .run("drop table \"device trend\"; create table \"device trend\"(K INTEGER PRIMARY KEY,other text)"_q);
    for (const char *command : {"check --trends", "info", "trends"}) {
        QStringList words = QString::fromLatin1(command).split(QLatin1Char(' '));
        words.insert(1, "device.db"_q);
        EXPECT_TRUE(said(words).contains("other columns")) << command;
    }
    EXPECT_TRUE(said({"check"_q, "device.db"_q}).endsWith("? 3\n")) << "for the rows without a time";
}

TEST_F(Trends, FollowAnImport)
{
    make(100);
    trends("on");
    write("more.csv"_q, "time,value\n2024-07-01 00:00:00,1\n2024-07-01 00:00:01,2\n2024-07-02 00:00:00,x\n");
    EXPECT_TRUE(said({"import"_q, "device.db"_q, "boiler"_q, "more.csv"_q}).endsWith("? 0\n"));
    EXPECT_EQ(value("select MARK from \"device trend series\""_q), "103"_q);
    EXPECT_FALSE(checked().contains("differ"));
    change("update \"device trend series\" set LEVELS='7'"_q);
    const QByteArray answer = said({"import"_q, "device.db"_q, "Boiler"_q, "more.csv"_q});
    EXPECT_TRUE(answer.contains("the rows are stored, but the trend of Boiler is behind")) << answer.constData();
    EXPECT_TRUE(answer.endsWith("? 3\n"));
}

// SQLite has it behind all texts, where its sum would be met a second time.
TEST_F(Trends, ATimeThatIsABlobIsInNoSum)
{
    make();
    change("update Boiler set DATETIME=cast(DATETIME as blob) where ID=1000"_q);
    trends("on");
    EXPECT_FALSE(checked().contains("differ"));
    EXPECT_TRUE(trends("rebuild").contains("0 sums made anew, 0 removed"));
    EXPECT_FALSE(checked().contains("differ"));
}

TEST_F(Trends, AreSummedUpBeforeRowsAreDeleted)
{
    make();
    trends("on");
    change("insert into Boiler select NULL,'2024-07-01 00:00:00',ID from Boiler where ID<=30 order by ID"_q);
    EXPECT_TRUE(said({"trim"_q, "device.db"_q, "boiler"_q, "--keep"_q, "10"_q, "--yes"_q}).endsWith("? 0\n"));
    EXPECT_EQ(value("select MARK from \"device trend series\""_q), "20030"_q);
    EXPECT_EQ(value("select D from \"device trend\" where K=(select max(K) from \"device trend\" where K>>36=17)"_q),
              "30;465;1;;30;;-;+"_q);
    EXPECT_FALSE(checked().contains("differ"));
    change("update \"device trend series\" set LEVELS='7'"_q);
    const QByteArray answer = said({"trim"_q, "device.db"_q, "Boiler"_q, "--keep"_q, "5"_q, "--yes"_q});
    EXPECT_TRUE(answer.contains("rows are missing from the trend of Boiler")) << answer.constData();
    EXPECT_EQ(value("select count(*) from Boiler"_q), "5"_q);
}

TEST_F(Trends, OfATableThatIsGoneCanBeRemoved)
{
    make(100);
    trends("on");
    change("drop table Boiler; create table Boiler(a,b)"_q);
    EXPECT_TRUE(checked().contains("there is no such table of samples"));
    EXPECT_TRUE(trends("off").contains("--forget-removed"));
    EXPECT_TRUE(trends("off", {"--forget-removed"_q}).endsWith("? 0\n"));
    EXPECT_EQ(kept(), "");
}

TEST_F(Trends, ThatCannotBeReadAreNotDrawn)
{
    make();
    change("update Boiler set DATETIME='2024-05-07 00:00:00' where DATETIME='2024'"_q);
    said({"plot"_q, "device.db"_q, "-o"_q, "rows.svg"_q});
    trends("on");
    said({"plot"_q, "device.db"_q, "-o"_q, "sums.svg"_q});
    EXPECT_EQ(read("sums.svg"_q).replace("sums", ""), read("rows.svg"_q).replace("rows", ""));
    EXPECT_FALSE(read("sums.svg"_q).isEmpty());
    change("update \"device trend\" set D='junk'"_q);
    EXPECT_TRUE(said({"plot"_q, "device.db"_q, "-o"_q, "junk.svg"_q}).contains("its trend is not used"));
    EXPECT_EQ(read("junk.svg"_q).replace("junk", ""), read("rows.svg"_q).replace("rows", ""));
}

TEST_F(Trends, SurviveCtrlC)
{
    {
        PlainConnection file(path("device.db"_q));
        file.run("create table Boiler(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "with recursive n(i) as (select 1 union all select i+1 from n where i<400000) insert into Boiler "
                 "select NULL,datetime(1714953600+i,'unixepoch'),i%77 from n"_q);
    }
    const auto interrupt = [&](const char *action, const QStringList &more = {}) {
        QProcess tool;
        start(tool, QStringList{"trends"_q, QString::fromLatin1(action), "device.db"_q, "Boiler"_q} + more);
        while (!QFile::exists(path("device.db-journal"_q)) && tool.state() == QProcess::Running)
            tool.waitForFinished(1);
        ::kill(pid_t(tool.processId()), SIGINT);
        const Outcome outcome = finish(tool);
        EXPECT_EQ(outcome.exitCode, 130) << action << outcome.errors.constData();
        EXPECT_TRUE(outcome.errors.contains("interrupted")) << outcome.errors.constData();
        EXPECT_FALSE(checked().contains("differ")) << action;
    };
    interrupt("on");
    EXPECT_LT(value("select MARK from \"device trend series\""_q).toInt(), 400000);
    EXPECT_TRUE(trends("rebuild").endsWith("? 0\n"));
    EXPECT_EQ(value("select MARK from \"device trend series\""_q), "400000"_q);
    const std::string right = kept();
    change("delete from \"device trend\" where K%2=0"_q);
    const std::string before = kept();
    QProcess tool;
    start(tool, {"trends"_q, "rebuild"_q, "device.db"_q, "Boiler"_q});
    while (!QFile::exists(path("device.db-journal"_q)) && tool.state() == QProcess::Running)
        tool.waitForFinished(1);
    ::kill(pid_t(tool.processId()), SIGINT);
    EXPECT_EQ(finish(tool).exitCode, 130);
    EXPECT_EQ(difference(kept(), before), "");
    EXPECT_TRUE(trends("rebuild").endsWith("? 0\n"));
    EXPECT_EQ(difference(kept(), right), "");
}

// The bare library knows nothing of trends: it does all it does, and the rows that it adds are found by the mark.
TEST_F(Trends, AreNothingToTheBareLibrary)
{
    make(100);
    trends("on");
    {
        const auto store = library::store("historyDB");
        ASSERT_TRUE(store);
        ASSERT_EQ(store->openDB(path("device.db"_q)), 0);
        EXPECT_TRUE(store->createTable("Pump"_q, "Pump 1"_q));
        QList<QStringList> rows{{"2024-08-01 00:00:00"_q, "5"_q}, {"2024-08-01 00:00:01"_q, "6"_q}};
        store->insertManyDatas(rows, "Boiler"_q);
        store->insertManyDatas(rows, "Pump"_q);
        EXPECT_EQ(store->getDataCountOfTable("Boiler"_q), 102);
        EXPECT_TRUE(store->tableIsExist("Boiler"_q));
        EXPECT_EQ(store->selectConfigInfo(), QStringList{"@Pump@Pump 1"_q});
        EXPECT_TRUE(store->deleteDataForMax(50, "Boiler"_q));
        EXPECT_TRUE(store->vacuumSqliteDB());
        EXPECT_EQ(store->closeDB(), 0);
    }
    EXPECT_FALSE(checked().contains("differ"));
    EXPECT_TRUE(trends("on").contains("2 rows summed up"));
    EXPECT_FALSE(checked().contains("differ"));
    {
        const auto store = library::store("historyDB");
        ASSERT_EQ(store->openDB(path("device.db"_q)), 0);
        EXPECT_TRUE(store->deleteTable("Boiler"_q, "2025-01-01 00:00:00"_q));
        EXPECT_TRUE(store->resetID("Boiler"_q));
        QList<QStringList> rows{{"2024-09-01 00:00:00"_q, "7"_q}};
        store->insertManyDatas(rows, "Boiler"_q);
    }
    const QByteArray check = checked();
    EXPECT_TRUE(check.contains("before the table was emptied")) << check.constData();
    EXPECT_TRUE(trends("rebuild").contains("begins anew"));
    EXPECT_FALSE(checked().contains("differ"));
}

} // namespace
