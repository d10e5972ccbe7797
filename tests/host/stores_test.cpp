// SPDX-License-Identifier: MIT
#include "host_test.h"

#include "loaded_library.h"

#include "interface_data_base.h"

#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>

using namespace device;
using std::chrono::milliseconds;

namespace
{

Sample sample(const QString &time, const QString &value)
{
    return {at(time), value};
}

Alarm alarm(const QString &start, const QString &object)
{
    Alarm alarm;
    alarm.level = 2;
    alarm.start = at(start);
    alarm.object = object;
    alarm.type = "High"_q;
    alarm.value = "87.50"_q;
    alarm.limit = "80"_q;
    alarm.description = "it's %1 high"_q;
    return alarm;
}

LogEntry entry(const QString &time, const QString &user)
{
    return {at(time), user, "Login"_q, "Logged in"_q};
}

class Stores : public HostTest
{
protected:
    const TableName boiler = table("Boiler"_q);
    const TableName alarms = table("AlarmData"_q);
    const TableName log = table("OperatorLog"_q);
};

TEST_F(Stores, TablesAreThoseOfTheStoreLibrary)
{
    const auto schema = [this](const char *file) {
        return rowsOf(path(file), "select type,name,sql from sqlite_master order by name"_q);
    };
    const auto bare = [this](const char *key, const char *file, const QString &name, const QString &config) {
        const auto store = library::store(key);
        EXPECT_EQ(store->openDB(path(file)), 0);
        EXPECT_TRUE(store->createTable(name, config));
    };
    bare("historyDB", "h1", "Boiler"_q, "Boiler 1 °C Ω"_q);
    require(require(HistoryStore::open(library(), path("h2"))).createTable(boiler, "Boiler 1 °C Ω"_q));
    EXPECT_EQ(schema("h1"), schema("h2"));
    EXPECT_EQ(rowsOf(path("h1"), "select * from tb_config"_q), rowsOf(path("h2"), "select * from tb_config"_q));
    bare("alarmDB", "a1", "AlarmData"_q, QString());
    require(require(AlarmStore::open(library(), path("a2"))).createTable(alarms));
    EXPECT_EQ(schema("a1"), schema("a2"));
    bare("operatorLogDB", "o1", "OperatorLog"_q, QString());
    require(require(LogStore::open(library(), path("o2"))).createTable(log));
    EXPECT_EQ(schema("o1"), schema("o2"));
}

TEST_F(Stores, SamplesAreReadByRangeOrderPageAndContent)
{
    auto store = require(HistoryStore::open(library(), path()));
    EXPECT_TRUE(require(store.createTable(boiler, "Boiler 1"_q)));
    EXPECT_FALSE(require(store.createTable(boiler, "Boiler 1"_q)));
    const QList<Sample> all{sample("2024-05-06 07:00:00"_q, "10"_q), sample("2024-05-06 08:00:00"_q, "1_0"_q),
                            sample("2024-05-06 08:00:00"_q, "100%"_q), sample("2024-05-06 09:00:00"_q, ""_q)};
    EXPECT_EQ(require(store.append(boiler, all)).stored, 4);
    using Samples = QList<Sample>;
    using Q = Query<Sample>;
    EXPECT_EQ(require(store.read(boiler, Q().oldestFirst())), all);
    EXPECT_EQ(require(store.read(boiler)), Samples({all[3], all[2], all[1], all[0]}));
    EXPECT_EQ(require(store.read(boiler, Q().page(1, 2))), Samples({all[2], all[1]}));
    EXPECT_EQ(require(store.read(boiler, Q().page(3, 10))), Samples({all[0]}));
    EXPECT_EQ(require(store.read(boiler, Q().page(4, 10))), Samples());
    const Q range = Q().oldestFirst().between(at("2024-05-06 08:00:00"_q), at("2024-05-06 09:00:00"_q));
    EXPECT_EQ(require(store.read(boiler, range)), Samples({all[1], all[2], all[3]}));
    EXPECT_EQ(require(store.count(boiler, range)), 3);
    EXPECT_EQ(require(store.read(boiler, Q().containing("_"_q))), Samples({all[1]})) << "no wildcard";
    EXPECT_EQ(require(store.count(boiler, Q().containing("0"_q))), 3);
    EXPECT_EQ(require(store.count(boiler)), 4);
    const Snapshot before = require(store.snapshot(boiler));
    EXPECT_EQ(before.rows, 4);
    require(store.append(boiler, {all[0]}));
    EXPECT_EQ(require(store.count(boiler, Q().through(before.lastId))), 4);
    ASSERT_EQ(require(store.series()).size(), 1);
    EXPECT_EQ(require(store.series()).first().name, "Boiler 1"_q);
    EXPECT_EQ(require(store.tables()), QStringList{"Boiler"_q});
}

TEST_F(Stores, TheDescriptionOfAnAlarmIsThatOfTheStoreLibrary)
{
    const QString description = "Kühler über 80 °C – it's Ω"_q;
    auto store = require(AlarmStore::open(library(), path()));
    require(store.createTable(alarms));
    const auto bare = library::store("alarmDB");
    ASSERT_EQ(bare->openDB(path()), 0);
    QList<QStringList> rows{{"2"_q, "2024-05-06"_q, "07:00:00"_q, "Pump"_q, "High"_q, "87.50"_q, "80"_q, description,
                             QString(), QString()}};
    bare->insertManyDatas(rows, "AlarmData"_q);
    Alarm raised = alarm("2024-05-06 07:00:00"_q, "Pump"_q);
    raised.description = description;
    require(store.append(alarms, {raised}));
    EXPECT_EQ(require(store.read(alarms)), QList<Alarm>({raised, raised}));
    EXPECT_EQ(rowsOf(path(), "select distinct AlarmDescription from AlarmData"_q).size(), 1);
    PlainConnection(path()).run("update AlarmData set AlarmDescription='Öl' where ID=1"_q);
    EXPECT_EQ(require(store.read(alarms, Query<Alarm>().oldestFirst())).first().description, "Öl"_q)
        << "another program wrote it";
}

TEST_F(Stores, AlarmsAreActiveUntilTheyAreEnded)
{
    auto store = require(AlarmStore::open(library(), path()));
    require(store.createTable(alarms));
    QList<Alarm> all{alarm("2024-05-06 07:00:00"_q, "Pump's"_q), alarm("2024-05-06 08:00:00"_q, "Fan"_q)};
    require(store.append(alarms, all));
    using Q = Query<Alarm>;
    EXPECT_EQ(require(store.read(alarms, Q().oldestFirst().active())), all);
    EXPECT_EQ(require(store.end(alarms, "Pump's"_q, "High"_q, at("2024-05-06 09:10:11"_q))), 1);
    EXPECT_EQ(require(store.end(alarms, "Pump's"_q, "High"_q, at("2024-05-06 10:00:00"_q))), 0);
    all[0].end = at("2024-05-06 09:10:11"_q);
    EXPECT_EQ(require(store.read(alarms, Q().oldestFirst())), all);
    EXPECT_EQ(require(store.read(alarms, Q().active())), QList<Alarm>{all[1]});
    EXPECT_EQ(require(store.read(alarms, Q().ended())), QList<Alarm>{all[0]});
    require(store.append(alarms, {all[0]})); // ended when it is stored
    EXPECT_EQ(require(store.read(alarms, Q().ended())), QList<Alarm>({all[0], all[0]}));
    EXPECT_EQ(require(store.removeEndedAndBefore(alarms, at("2024-05-06 07:30:00"_q))), 2);
    EXPECT_EQ(require(store.read(alarms)), QList<Alarm>{all[1]});
}

TEST_F(Stores, LogEntriesKeepTheirMillisecondsAndAreReadByUser)
{
    auto store = require(LogStore::open(library(), path()));
    require(store.createTable(log));
    const QList<LogEntry> all{entry("2024-05-06 07:00:00.001"_q, "admin"_q),
                              entry("2024-05-06 07:00:00.500"_q, "o'neil"_q),
                              entry("2024-05-06 07:00:00.999"_q, "admin"_q)};
    require(store.append(log, all));
    using Q = Query<LogEntry>;
    EXPECT_EQ(require(store.read(log, Q().oldestFirst())), all);
    EXPECT_EQ(require(store.read(log, Q().byUser("o'neil"_q))), QList<LogEntry>{all[1]});
    EXPECT_EQ(require(store.count(log, Q().byUser("admin"_q))), 2);
    EXPECT_EQ(require(store.count(log, Q().byUser("Admin"_q))), 0);
    EXPECT_EQ(require(store.count(log, Q().between(at("2024-05-06 07:00:00.500"_q), at("2024-05-06 07:00:00.998"_q)))),
              1);
    EXPECT_EQ(require(store.removeBefore(log, at("2024-05-06 07:00:00.999"_q))), 2);
    EXPECT_EQ(require(store.read(log)), QList<LogEntry>{all[2]});
}

TEST_F(Stores, TablesAreTrimmedClearedAndCompacted)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    QList<Sample> all;
    for (int i = 0; i < 100; ++i)
        all << sample("2024-05-06 07:00:00"_q, QString::number(i));
    require(store.append(boiler, all));
    EXPECT_EQ(require(store.keepNewest(boiler, 30)), 70);
    EXPECT_EQ(require(store.keepNewest(boiler, 30)), 0);
    EXPECT_EQ(require(store.read(boiler, Query<Sample>().oldestFirst())), all.mid(70));
    EXPECT_EQ(require(store.clear(boiler)), 30);
    require(store.append(boiler, {all[0]}));
    EXPECT_EQ(valueOf(path(), "select ID from Boiler"_q), "1"_q);
    require(store.compact());
    EXPECT_TRUE(require(store.tableExists(table("boiler"_q)))) << "SQLite does not tell cases apart";
}

TEST_F(Stores, FailureIsNeverNone)
{
    auto history = require(HistoryStore::open(library(), path()));
    EXPECT_EQ(codeOf(history.count(boiler)), Error::TableMissing);
    EXPECT_EQ(codeOf(history.read(boiler)), Error::TableMissing);
    EXPECT_EQ(codeOf(history.snapshot(boiler)), Error::TableMissing);
    EXPECT_EQ(codeOf(history.keepNewest(boiler, 1)), Error::TableMissing);
    EXPECT_EQ(codeOf(history.clear(boiler)), Error::TableMissing);
    EXPECT_EQ(codeOf(history.removeBefore(boiler, at("2024-05-06 07:00:00"_q))), Error::TableMissing);
    const auto missing = history.append(boiler, {sample("2024-05-06 07:00:00"_q, "1"_q)});
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().code(), Error::TableMissing);
    EXPECT_EQ(missing.error().text(), "append Boiler: no such table: Boiler. Create the table first."_q);
    require(history.createTable(boiler));
    auto logs = require(LogStore::open(library(), path()));
    EXPECT_EQ(codeOf(logs.createTable(boiler)), Error::TableLayout);
    EXPECT_EQ(codeOf(logs.read(boiler)), Error::TableLayout);
    EXPECT_EQ(codeOf(logs.append(boiler, {entry("2024-05-06 07:00:00.001"_q, "a"_q)})), Error::TableLayout);
    EXPECT_EQ(codeOf(logs.count(boiler, Query<LogEntry>().byUser(QString(QChar(0xd800))))), Error::TextRefused);
    EXPECT_EQ(codeOf(logs.count(boiler, Query<LogEntry>().between(LocalTime(), LocalTime()))), Error::TimeRefused);
}

TEST_F(Stores, ASilencedDebugOutputCostsWordsNotSafety)
{
    OpenOptions options;
    options.deadline = milliseconds(30);
    auto store = require(HistoryStore::open(library(), path(), options));
    require(store.createTable(boiler));
    QLoggingCategory::setFilterRules("*.debug=false"_q);
    EXPECT_EQ(codeOf(store.count(table("Missing"_q))), Error::Failed);
    EXPECT_EQ(codeOf(store.append(table("Missing"_q), {sample("2024-05-06 07:00:00"_q, "1"_q)})), Error::Failed);
    {
        PlainConnection reader(path());
        reader.run("begin; select * from Boiler"_q);
        EXPECT_FALSE(store.append(boiler, {sample("2024-05-06 07:00:00"_q, "1"_q)}).ok());
    }
    EXPECT_EQ(require(store.append(boiler, {sample("2024-05-06 07:00:00"_q, "2"_q)})).stored, 1);
    QLoggingCategory::setFilterRules(QString());
    EXPECT_EQ(rowsOf(path(), "select Value from Boiler"_q), Rows({{"2"_q}}));
}

TEST_F(Stores, AnAppendThatCannotCommitIsNotStoredAndTheNextOneIs)
{
    OpenOptions options;
    options.deadline = milliseconds(30);
    auto store = require(HistoryStore::open(library(), path(), options));
    require(store.createTable(boiler));
    {
        PlainConnection reader(path());
        reader.run("begin; select * from Boiler"_q);
        EXPECT_EQ(codeOf(store.append(boiler, {sample("2024-05-06 07:00:00"_q, "1"_q)})), Error::Locked);
        EXPECT_EQ(store.failedCommits(), 1);
    }
    EXPECT_EQ(require(store.append(boiler, {sample("2024-05-06 07:00:00"_q, "2"_q)})).stored, 1);
    EXPECT_EQ(rowsOf(path(), "select Value from Boiler"_q), Rows({{"2"_q}}));
}

TEST_F(Stores, WaitingForALockEndsWhenTheHostCancels)
{
    std::atomic_bool cancel{true};
    OpenOptions options;
    options.deadline = std::chrono::hours(1);
    options.cancel = &cancel;
    auto store = require(HistoryStore::open(library(), path(), options));
    require(store.createTable(boiler));
    PlainConnection writer(path());
    writer.run("begin exclusive"_q);
    EXPECT_EQ(codeOf(store.append(boiler, {sample("2024-05-06 07:00:00"_q, "1"_q)})), Error::Cancelled);
    EXPECT_EQ(codeOf(store.count(boiler)), Error::Cancelled);
}

TEST_F(Stores, ARowThatTheTableRefusesIsReportedAndTheOthersAreStored)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    PlainConnection(path()).run("create unique index one on Boiler(Value)"_q);
    const Appended appended = require(store.append(boiler, {sample("2024-05-06 07:00:00"_q, "1"_q),
                                                            sample("2024-05-06 07:00:00"_q, "1"_q),
                                                            {at("2024-05-06 07:00:00"_q), QString(QChar(0))},
                                                            sample("2024-05-06 07:00:00"_q, "2"_q)}));
    EXPECT_EQ(appended.stored, 2);
    ASSERT_EQ(appended.refused.size(), 2);
    EXPECT_EQ(appended.refused.at(0).row, 1);
    EXPECT_TRUE(appended.refused.at(0).error.cause().contains("UNIQUE"_q));
    EXPECT_EQ(appended.refused.at(1).row, 2);
    EXPECT_EQ(appended.refused.at(1).error.code(), Error::TextRefused);
    EXPECT_EQ(rowsOf(path(), "select Value from Boiler order by ID"_q), Rows({{"1"_q}, {"2"_q}}));
}

TEST_F(Stores, ARowInAnotherFormIsReadAndNothingBehindItIsLost)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    PlainConnection(path()).run("insert into Boiler values(NULL,'yesterday','1'),(NULL,NULL,NULL),"
                                "(NULL,'2024-05-06 07:00:00','3')"_q);
    const QList<Sample> read = require(store.read(boiler, Query<Sample>().oldestFirst()));
    ASSERT_EQ(read.size(), 3);
    EXPECT_FALSE(read[0].time.isValid());
    EXPECT_EQ(read[1], sample("2024-05-06 07:00:00"_q, "3"_q));
    EXPECT_EQ(read[2].value, "1"_q);
}

TEST_F(Stores, WhatCannotBeOpenedSaysWhy)
{
    OpenOptions existing;
    existing.create = false;
    EXPECT_EQ(codeOf(HistoryStore::open(library(), path(), existing)), Error::FileError);
    EXPECT_FALSE(QFile::exists(path()));
    EXPECT_EQ(codeOf(HistoryStore::open(library(), QString())), Error::FileError);
    EXPECT_EQ(codeOf(HistoryStore::open(library(), path("."))), Error::FileError);
    EXPECT_EQ(codeOf(HistoryStore::open(library(), path("none") + "/store.db"_q)), Error::FileError);
    QFile text(path("text"));
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write(QByteArray(4096, 'x'));
    text.close();
    const auto opened = AlarmStore::open(library(), path("text"));
    ASSERT_FALSE(opened.ok());
    EXPECT_TRUE(opened.error().cause().contains("not a database"_q)) << opened.error().text().toStdString();
}

struct ProfileCase {
    Profile profile;
    const char *journal;
    int indexes;
};

void PrintTo(const ProfileCase &each, std::ostream *out)
{
    *out << each.journal << ", " << each.indexes << " indexes";
}

class Profiles : public HostTest, public ::testing::WithParamInterface<ProfileCase>
{
};

TEST_P(Profiles, SetTheFileUpAsTheySay)
{
    OpenOptions options;
    options.profile = GetParam().profile;
    auto store = require(HistoryStore::open(library(), path(), options));
    require(store.createTable(table("Boiler"_q)));
    EXPECT_EQ(valueOf(path(), "pragma journal_mode"_q), QString::fromLatin1(GetParam().journal));
    EXPECT_EQ(valueOf(path(), "select count(*) from sqlite_master where type='index' and sql like "
                              "'create index \"device index Boiler\" on Boiler(DATETIME)'"_q)
                  .toInt(),
              GetParam().indexes);
    EXPECT_FALSE(require(store.createTable(table("Boiler"_q))));
    // A reader stops no writer of a write-ahead log.
    if (GetParam().profile != Profile::AsIs) {
        PlainConnection reader(path());
        reader.run("begin; select * from Boiler"_q);
        require(store.append(table("Boiler"_q), {sample("2024-05-06 07:00:00"_q, "1"_q)}));
        EXPECT_EQ(store.failedCommits(), 0);
        EXPECT_FALSE(require(store.checkpoint())) << "the reader still needs what the row replaces";
        reader.run("commit"_q);
        EXPECT_GT(QFileInfo(path() + "-wal"_q).size(), 0);
        EXPECT_TRUE(require(store.checkpoint()));
        EXPECT_EQ(QFileInfo(path()).size(), require(store.usedBytes()));
    } else {
        EXPECT_TRUE(require(store.checkpoint())) << "there is no log to move";
    }
}

INSTANTIATE_TEST_SUITE_P(All, Profiles,
                         ::testing::Values(ProfileCase{Profile::AsIs, "delete", 0},
                                           ProfileCase{Profile::Durable, "wal", 1},
                                           ProfileCase{Profile::Flash, "wal", 1}));

TEST_F(Stores, RowsThatATableLeavesOutSilentlyAreListed)
{
    auto store = require(HistoryStore::open(library(), path()));
    const auto appended = [&](const QString &schema) {
        PlainConnection plain(path());
        plain.run("drop table if exists Boiler;drop table if exists Mirror;"
                  "create table Boiler(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                  "create table Mirror(Value text);"_q +
                  schema);
        const Appended done = require(
            store.append(boiler, {sample("2024-05-06 07:00:00"_q, "1"_q), sample("2024-05-06 07:00:01"_q, "odd"_q),
                                  sample("2024-05-06 07:00:02"_q, "3"_q), sample("2024-05-06 07:00:03"_q, "odd"_q)}));
        EXPECT_EQ(plain.value("select count(*) from Boiler"_q), QString::number(done.stored));
        QString refused;
        for (const Refusal &refusal : done.refused)
            refused += QString::number(refusal.row);
        return refused;
    };
    EXPECT_EQ(appended("create trigger t before insert on Boiler when new.Value='odd' "
                       "begin select raise(ignore); end"_q),
              "13"_q);
    EXPECT_EQ(appended("create trigger t after insert on Boiler when new.Value='odd' "
                       "begin delete from Boiler where ID=new.ID; end"_q),
              "13"_q);
    EXPECT_EQ(appended("drop table Boiler;create table Boiler(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,"
                       "Value text unique on conflict ignore)"_q),
              "3"_q);
    EXPECT_EQ(appended("create trigger t after insert on Boiler begin insert into Mirror values(new.Value); end"_q),
              QString());
    EXPECT_EQ(valueOf(path(), "select count(*) from Mirror"_q), "4"_q);
}

TEST_F(Stores, AnOptionThatCannotWorkIsRefused)
{
    OpenOptions options;
    options.checkpointPages = 0;
    EXPECT_EQ(codeOf(HistoryStore::open(library(), path(), options)), Error::OptionRefused);
    options.checkpointPages = 1;
    options.profile = Profile(77);
    EXPECT_EQ(codeOf(AlarmStore::open(library(), path(), options)), Error::OptionRefused);
    EXPECT_FALSE(QFile::exists(path()));
}

TEST_F(Stores, ATimeOutsideTheYearsThatCanBeCountedIsInvalid)
{
    for (const qint64 year : {584556072LL, -584556072LL}) {
        const QDate date = QDate::fromJulianDay(qint64(365.2425 * double(year)) + 1721060);
        ASSERT_TRUE(date.isValid());
        EXPECT_FALSE(LocalTime(date, QTime(0, 0)).isValid());
    }
    EXPECT_TRUE(LocalTime(QDate(9999, 12, 31), QTime(23, 59)).isValid());
}

} // namespace
