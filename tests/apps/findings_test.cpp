// SPDX-License-Identifier: MIT
//
// There is one judge of what is odd.
#include "storefile/findings.h"
#include "tool_test.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

using namespace device_db;

namespace
{

Table tableOf(Kind kind)
{
    return {"T"_q, kind, {}, false};
}

QStringList textsOf(const QList<Finding> &findings)
{
    QStringList texts;
    for (const Finding &finding : findings)
        texts << finding.text();
    return texts;
}

TEST(RowJudge, FindsTimesThatAreNone)
{
    RowJudge judge(tableOf(Kind::Samples));
    judge.add(1, "2024-05-06 07:08:09", {}, {});
    judge.add(2, "2024-05-06 24:00:00", {}, {});
    judge.add(3, "0000-00-00 00:00:00", {}, {});
    judge.add(4, QByteArray(), {}, {});
    ASSERT_EQ(judge.findings().size(), 1);
    const Finding finding = judge.findings().first();
    EXPECT_EQ(finding.rows, 3);
    EXPECT_EQ(finding.firstId, 2);
    EXPECT_EQ(finding.severity, Severity::Attention);
    EXPECT_TRUE(finding.detail.contains("\"2024-05-06 24:00:00\", ID 2"_q)) << finding.detail.toStdString();
}

TEST(RowJudge, FindsClocksThatAreWrong)
{
    RowJudge judge(tableOf(Kind::Samples));
    const QByteArray times[] = {"1999-12-31 23:59:59", "2000-01-01 00:00:00", "2999-01-01 00:00:00",
                                "2000-01-01 00:00:10", "2000-01-01 00:00:05"};
    qint64 id = 0;
    for (const QByteArray &time : times)
        judge.add(++id, time, {}, {});
    EXPECT_EQ(
        textsOf(judge.findings()),
        (QStringList{
            "1 row: before the year 2000: the clock was not set; the first: \"1999-12-31 23:59:59\", ID 1"_q,
            "1 row: in the future, seen from this computer; the first: \"2999-01-01 00:00:00\", ID 3"_q,
            "1 row: clock went back; the furthest by 0:00:05: 2000-01-01 00:00:05 after 2000-01-01 00:00:10, ID 5"_q}));
}

TEST(RowJudge, FindsGapsOfSamplesAlone)
{
    for (const Kind kind : {Kind::Samples, Kind::Alarms}) {
        RowJudge judge(tableOf(kind));
        for (const char *time : {"10:00:00", "10:00:10", "10:00:20", "10:01:10", "10:01:20", "10:02:11"})
            judge.add(1, QByteArray("2024-05-06 ") + time, "", "");
        if (kind == Kind::Alarms) {
            EXPECT_TRUE(judge.findings().isEmpty());
            continue;
        }
        ASSERT_EQ(judge.findings().size(), 1);
        EXPECT_EQ(judge.findings().first().rows, 1) << "51 s; 50 s are five times the usual 10 s and no more";
        EXPECT_EQ(judge.findings().first().severity, Severity::Note);
    }
}

TEST(RowJudge, SaysGapsOfEqualTimesWithoutADistance)
{
    RowJudge judge(tableOf(Kind::Samples));
    for (const char *time : {"10:00:00", "10:00:00", "10:00:00", "10:01:00"})
        judge.add(1, QByteArray("2024-05-06 ") + time, {}, {});
    EXPECT_EQ(textsOf(judge.findings()),
              QStringList{"1 row: after a gap, while most have the time of the row before; the longest 0:01:00, from "
                          "2024-05-06 10:00:00 to 2024-05-06 10:01:00"_q});
}

TEST(RowJudge, FindsEndsOfAlarmsThatNoQueryFinds)
{
    RowJudge judge(tableOf(Kind::Alarms));
    const QByteArray start("2024-05-06 07:08:09");
    judge.add(1, start, "", "");
    judge.add(2, start, "2024/05/06", "07:08:09");
    judge.add(3, start, "2024-05-06", "");
    judge.add(4, start, QByteArray(), "");
    judge.add(5, start, QByteArray(), QByteArray());
    judge.add(6, start, "garbage", "zz");
    judge.add(7, start, "2024-05-06", "07:08:08");
    const QStringList texts = textsOf(judge.findings());
    ASSERT_EQ(texts.size(), 3) << texts.join('\n').toStdString();
    EXPECT_TRUE(texts.at(0).startsWith("3 rows: neither active nor ended"_q)) << texts.at(0).toStdString();
    EXPECT_TRUE(texts.at(1).endsWith("\"garbage zz\", ID 6"_q)) << texts.at(1).toStdString();
    EXPECT_TRUE(texts.at(2).startsWith("1 row: ended before it began"_q)) << texts.at(2).toStdString();
}

class Findings : public ToolTest
{
};

TEST_F(Findings, AreTheSameForInfoAndForCheck)
{
    PlainConnection file(path("odd.db"_q));
    file.run("create table S(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
             "create table A(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,"
             "AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text);"
             "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text);"
             "insert into tb_config values(1,'Gone','x');"
             "insert into S(DATETIME) values('1995-01-01 00:00:00'),('2024-05-06 24:00:00'),('2024-05-06 07:00:00'),"
             "('2024-05-06 07:00:01'),('2024-05-06 07:00:02'),('2024-05-06 07:00:20'),('2024-05-06 06:00:00');"
             "insert into A(LevelID,DATETIME,EndDate,EndTime) values(1,'2024-05-06 07:00:00','2024-05-06',''),"
             "(1,'2024-05-06 07:00:00','x','y');"
             "create trigger t after insert on S begin select 1; end; create unique index u on A(DATETIME,EndDate)"_q);
    const QJsonObject info = QJsonDocument::fromJson(run({"info"_q, "odd.db"_q, "--json"_q}).output).object();
    QStringList fromInfo;
    const auto collect = [&](const QString &table, const QJsonValue &findings) {
        for (const QJsonValue &each : findings.toArray()) {
            Finding finding;
            finding.what = each["what"_q].toString();
            finding.detail = each["detail"_q].toString();
            finding.rows = qint64(each["rows"_q].toDouble());
            fromInfo << table + ": "_q + finding.text();
        }
    };
    collect("(file)"_q, info["findings"_q]);
    for (const QJsonValue &table : info["tables"_q].toArray())
        collect(table["name"_q].toString(), table["findings"_q]);
    QStringList fromCheck;
    for (const QByteArray &line : run({"check"_q, "odd.db"_q, "--json"_q}).output.trimmed().split('\n')) {
        const QJsonObject finding = QJsonDocument::fromJson(line).object();
        if (finding["severity"_q].toString() != "ok"_q)
            fromCheck << finding["table"_q].toString() + ": "_q + finding["finding"_q].toString();
    }
    fromInfo.sort();
    fromCheck.sort();
    EXPECT_EQ(fromInfo, fromCheck);
    EXPECT_EQ(fromInfo.size(), 10) << fromInfo.join('\n').toStdString();
}

} // namespace
