// SPDX-License-Identifier: MIT
//
// Questions that a host would otherwise put together from many: the newest values, the times of a table, the alarms
// that are active.
#include "host_test.h"

#include <QLoggingCategory>

using namespace device;

namespace
{

const LocalTime seven = at("2024-05-06 07:00:00"_q);
const LocalTime eight = at("2024-05-06 08:00:00"_q);
const LocalTime nine = at("2024-05-06 09:00:00"_q);

class Questions : public HostTest
{
protected:
    const TableName boiler = table("Boiler"_q);
    const TableName pump = table("Pump"_q);
    const TableName alarms = table("AlarmData"_q);
    const TableName log = table("OperatorLog"_q);
};

TEST_F(Questions, LatestGivesTheRowThatEachTableRecordedLast)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    require(store.createTable(pump));
    require(store.append(boiler, {{nine, 1.0}, {eight, 2.0}})); // the clock was set back
    require(store.append(pump, {{seven, 3.0}}));
    const auto latest = require(store.latest({pump, boiler, table("PUMP"_q)}));
    ASSERT_EQ(latest.size(), 3);
    EXPECT_EQ(latest[0].table, pump);
    EXPECT_EQ(latest[0].record, Sample(seven, 3.0));
    EXPECT_EQ(latest[1].table, boiler);
    EXPECT_EQ(latest[1].record, Sample(eight, 2.0));
    EXPECT_EQ(latest[2].record, Sample(seven, 3.0));
    EXPECT_FALSE(latest[0].error);
    EXPECT_TRUE(require(store.latest({})).isEmpty());
}

TEST_F(Questions, LatestReportsATableThatIsMissingAndReadsTheOthers)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    require(store.createTable(pump));
    require(store.append(pump, {{seven, 3.0}}));
    require(require(LogStore::open(library(), path())).createTable(log));
    QLoggingCategory::setFilterRules("*.debug=false"_q);
    const auto latest = require(store.latest({table("Missing"_q), log, boiler, pump}));
    QLoggingCategory::setFilterRules(QString());
    ASSERT_TRUE(latest[0].error && latest[1].error);
    EXPECT_EQ(latest[0].error->text(), "read the latest of Missing: no such table: Missing. Create the table first."_q);
    EXPECT_EQ(latest[1].error->code(), Error::TableLayout);
    EXPECT_FALSE(latest[2].error);
    EXPECT_FALSE(latest[2].record) << "it has no rows";
    EXPECT_EQ(latest[3].record, Sample(seven, 3.0));
}

TEST_F(Questions, LatestTakesMoreTablesThanSqliteJoinsInOneStatement)
{
    auto store = require(HistoryStore::open(library(), path()));
    QList<TableName> tables;
    PlainConnection file(path());
    file.run("begin"_q);
    for (int i = 0; i < 1001; ++i) {
        tables << table("T%1"_q.arg(i));
        file.run("create table T%1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "insert into T%1 values(NULL,'2024-05-06 07:00:00',%1)"_q.arg(i));
    }
    file.run("commit"_q);
    const auto latest = require(store.latest(tables));
    for (int i = 0; i < 1001; ++i)
        ASSERT_EQ(latest[i].record, Sample(seven, double(i)));
}

TEST_F(Questions, LatestIsOfAlarmsAndLogEntriesToo)
{
    auto store = require(LogStore::open(library(), path()));
    require(store.createTable(log));
    const LogEntry entry{at("2024-05-06 07:00:00.001"_q), "admin"_q, "Login"_q, "Logged in"_q};
    require(store.append(log, {entry}));
    EXPECT_EQ(require(store.latest({log})).first().record, entry);
}

TEST_F(Questions, RangeGivesTheEarliestAndTheLatestTime)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    EXPECT_FALSE(require(store.range(boiler)));
    require(store.append(boiler, {{eight, 1.0}, {nine, 2.0}, {seven, 3.0}}));
    PlainConnection(path()).run("insert into Boiler values(NULL,'','x'),(NULL,NULL,NULL),(NULL,'yesterday','x'),"
                                "(NULL,'2024','x'),(NULL,'2024/05/06 06:00:00','x'),(NULL,'2024-05-06','x')"_q);
    const auto range = require(store.range(boiler));
    ASSERT_TRUE(range);
    EXPECT_EQ(range->first, seven);
    EXPECT_EQ(range->last, nine);
    EXPECT_EQ(codeOf(store.range(pump)), Error::TableMissing);

    auto logs = require(LogStore::open(library(), path()));
    require(logs.createTable(log));
    require(logs.append(log, {{at("2024-05-06 07:00:00.001"_q), "a"_q, "b"_q, "c"_q}}));
    EXPECT_EQ(require(logs.range(log))->last, at("2024-05-06 07:00:00.001"_q));
}

TEST_F(Questions, SinceAndLimitStopAtTheRightRecords)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    const QList<Sample> all{{seven, 1.0}, {eight, 2.0}, {nine, 3.0}};
    require(store.append(boiler, all));
    using Q = Query<Sample>;
    EXPECT_EQ(require(store.read(boiler, Q().since(eight).oldestFirst())), all.mid(1));
    EXPECT_EQ(require(store.read(boiler, Q().limit(1))), all.mid(2));
    EXPECT_EQ(require(store.read(boiler, Q().limit(2).oldestFirst())), all.mid(0, 2));
    EXPECT_EQ(require(store.read(boiler, Q().limit(0))), QList<Sample>());
}

class ActiveAlarms : public Questions
{
protected:
    ActiveAlarms() { require(store.createTable(alarms)); }
    static Alarm alarm(LocalTime start, const QString &object)
    {
        Alarm alarm;
        alarm.level = 2;
        alarm.start = start;
        alarm.object = object;
        alarm.type = "High"_q;
        alarm.description = "it's %1 high"_q;
        return alarm;
    }

    AlarmStore store = require(AlarmStore::open(library(), path()));
};

TEST_F(ActiveAlarms, AreReadInOneWord)
{
    const Alarm fan = alarm(eight, "Fan"_q);
    require(store.append(alarms, {alarm(seven, "Pump's"_q), fan, alarm(nine, "Lamp"_q)}));
    require(store.end(alarms, "Pump's"_q, "High"_q, nine));
    EXPECT_EQ(require(store.active(alarms)), (QList<Alarm>{alarm(nine, "Lamp"_q), fan}));
    EXPECT_EQ(require(store.read(alarms, Query<Alarm>().ended())).size(), 1);
}

TEST_F(ActiveAlarms, AreNotRaisedAgainByAProgramThatStartsAgain)
{
    EXPECT_TRUE(require(store.raiseUnlessActive(alarms, alarm(seven, "Pump's"_q))));
    EXPECT_FALSE(require(store.raiseUnlessActive(alarms, alarm(eight, "Pump's"_q))));
    EXPECT_TRUE(require(store.raiseUnlessActive(alarms, alarm(eight, "Fan"_q))));
    Alarm low = alarm(eight, "Fan"_q);
    low.type = "Low"_q;
    EXPECT_TRUE(require(store.raiseUnlessActive(alarms, low)));
    EXPECT_EQ(require(store.active(alarms)).last(), alarm(seven, "Pump's"_q)) << "the one that was raised first stays";
    require(store.end(alarms, "Pump's"_q, "High"_q, eight));
    EXPECT_TRUE(require(store.raiseUnlessActive(alarms, alarm(nine, "Pump's"_q)))) << "the earlier one has ended";
    EXPECT_EQ(require(store.count(alarms)), 4);
    EXPECT_EQ(valueOf(path(), "select group_concat(typeof(LevelID)||ID) from AlarmData"_q),
              "integer1,integer2,integer3,integer4"_q)
        << "as append() stores them";
}

TEST_F(ActiveAlarms, AreRefusedByNameWhenTheyCannotBeHeld)
{
    EXPECT_EQ(codeOf(store.raiseUnlessActive(alarms, alarm(seven, QString(QChar(0))))), Error::TextRefused);
    EXPECT_EQ(codeOf(store.raiseUnlessActive(alarms, alarm(LocalTime(), "Fan"_q))), Error::TimeRefused);
    EXPECT_EQ(codeOf(store.raiseUnlessActive(log, alarm(seven, "Fan"_q))), Error::TableMissing);
}

} // namespace
