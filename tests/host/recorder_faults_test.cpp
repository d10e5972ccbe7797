// SPDX-License-Identifier: MIT
//
// A recorder beside questions without end, disks that fail, tables that refuse.
#include "faulty_disk.h"
#include "recorder_fixture.h"

#include <QLoggingCategory>

#include <future>
#include <stdexcept>
#include <thread>

namespace
{

class RecorderFaults : public Recorders
{
protected:
    /// Ten rows wait for another program's lock, and are stored.
    void storesAfterALock(HistoryRecorder &recorder, const QString &lock) const
    {
        OtherProgram writer(path());
        writer.run(lock);
        record(recorder, 0, 10);
        recorder.flushSoon();
        EXPECT_TRUE(eventually([&] { return recorder.health().failedBatches > 1; }));
        writer.run("rollback"_q);
        require(recorder.flush(milliseconds(20000)));
        expectNumbers(10);
    }
};

TEST_F(RecorderFaults, QuestionsThatAskAgainWithoutEndDoNotStopStoring)
{
    options.batchTime = milliseconds(1);
    const auto recorder = recorderOf(Profile::AsIs);
    bool enough = false;
    int answers = 0;
    std::function<void()> ask = [&] {
        recorder->ask(
            recorder.get(),
            [](HistoryStore &) {
                std::this_thread::sleep_for(milliseconds(20));
                return 0;
            },
            [&](const Result<int> &) {
                ++answers;
                if (!enough)
                    ask();
            });
    };
    for (int i = 0; i < 8; ++i)
        ask();
    for (int i = 0; i < 20; ++i) {
        record(*recorder, i, i + 1);
        ASSERT_TRUE(eventually([&] { return recorder->health().stored > i; })) << answers << " answers";
    }
    EXPECT_GT(answers, 0) << "questions have their turn too";
    enough = true;
    require(recorder->stop(milliseconds(20000)));
    expectNumbers(20);
}

TEST_F(RecorderFaults, InWriteAheadModeRowsAreStoredWhileAQuestionRuns)
{
    const auto recorder = recorderOf(Profile::Durable);
    std::promise<void> go;
    const auto gone = go.get_future().share();
    bool answered = false;
    recorder->ask(
        recorder.get(),
        [gone](HistoryStore &) {
            gone.wait();
            return 0;
        },
        [&](const Result<int> &) { answered = true; });
    record(*recorder, 0, 1000);
    require(recorder->flush(milliseconds(20000)));
    expectNumbers(1000);
    EXPECT_FALSE(answered);
    go.set_value();
    EXPECT_TRUE(eventually([&] { return answered; }));
}

TEST_F(RecorderFaults, ALongDeletionLetsRowsPass)
{
    for (const Profile profile : {Profile::AsIs, Profile::Durable}) {
        removeFiles();
        options.batchTime = milliseconds(1);
        const auto recorder = recorderOf(profile);
        OtherProgram(path()).run(
            "with recursive n(i) as (select 1 union all select i+1 from n where i<300000) insert into Boiler "
            "select NULL,'2023-05-06 07:08:09','old' from n"_q);
        std::optional<qint64> removed;
        recorder->removeBefore(boiler, at("2024-01-01 00:00:00"_q), recorder.get(),
                               [&](const Result<qint64> &rows) { removed = require(rows); });
        int batchesBefore = 0;
        for (int i = 0; !removed; ++i) {
            record(*recorder, i, i + 1);
            ASSERT_TRUE(eventually([&] { return recorder->health().stored > i; }))
                << qPrintable(recorder->health().trouble) << recorder->health().dropped;
            if (!removed)
                ++batchesBefore;
        }
        EXPECT_EQ(*removed, 300000);
        EXPECT_GT(batchesBefore, 3);
        EXPECT_EQ(valueOf(path(), "select count(*) from Boiler where Value='old'"_q), "0"_q);
        removed.reset();
        recorder->keepNewest(boiler, 2, recorder.get(), [&](const Result<qint64> &rows) { removed = require(rows); });
        ASSERT_TRUE(eventually([&] { return removed.has_value(); }));
        EXPECT_EQ(valueOf(path(), "select count(*) from Boiler"_q), "2"_q);
        removed.reset();
        recorder->clear(boiler, recorder.get(), [&](const Result<qint64> &rows) { removed = require(rows); });
        ASSERT_TRUE(eventually([&] { return removed.has_value(); }));
        EXPECT_EQ(*removed, 2);
        record(*recorder, 0, 1);
        require(recorder->flush(milliseconds(20000)));
        EXPECT_EQ(valueOf(path(), "select max(ID) from Boiler"_q), "1"_q);
    }
}

TEST_F(RecorderFaults, ANegativeNumberOfRowsToKeepIsRefused)
{
    const auto recorder = recorderOf(Profile::AsIs);
    record(*recorder, 0, 3);
    require(recorder->flush(milliseconds(20000)));
    std::optional<Result<qint64>> kept;
    recorder->keepNewest(boiler, -1, recorder.get(), [&](const Result<qint64> &rows) { kept = rows; });
    ASSERT_TRUE(eventually([&] { return kept.has_value(); }));
    EXPECT_EQ(codeOf(*kept), Error::OptionRefused);
    auto store = require(HistoryStore::open(library(), path()));
    EXPECT_EQ(codeOf(store.keepNewest(boiler, -1)), Error::OptionRefused);
    expectNumbers(3);
    EXPECT_EQ(require(store.keepNewest(boiler, 0)), 3);
}

TEST_F(RecorderFaults, ACommitThatSucceedsAndSaysNoIsNotRepeated)
{
    FaultyDisk disk;
    const auto recorder = recorderOf(Profile::AsIs);
    record(*recorder, 0, 1);
    require(recorder->flush(milliseconds(20000)));
    disk.fail(FaultyDisk::DeleteDenies, 1);
    record(*recorder, 1, 11);
    require(recorder->flush(milliseconds(20000)));
    EXPECT_EQ(disk.failures(), 1);
    record(*recorder, 11, 21);
    require(recorder->stop(milliseconds(20000)));
    expectNumbers(21);
    auto store = require(HistoryStore::open(library(), path()));
    disk.fail(FaultyDisk::DeleteDenies, 1);
    EXPECT_EQ(require(store.append(boiler, {numbered(21)})).stored, 1);
    expectNumbers(22);
}

TEST_F(RecorderFaults, AnAlarmEndedInACommitThatSaysNoIsAnnouncedOnce)
{
    FaultyDisk disk;
    const TableName alarms = table("AlarmData"_q);
    AlarmRecorder recorder(library(), path(), options);
    int ended = 0;
    QObject::connect(&recorder, &AlarmRecorder::ended, [&] { ++ended; });
    require(recorder.start());
    recorder.createTable(alarms);
    Alarm alarm;
    alarm.start = at("2024-05-06 07:08:09"_q);
    alarm.object = "Pump"_q;
    require(recorder.raise(alarms, alarm));
    require(recorder.flush(milliseconds(20000)));
    disk.fail(FaultyDisk::DeleteDenies, 1);
    require(recorder.end(alarms, "Pump"_q, QString(), at("2024-05-06 08:00:00"_q)));
    require(recorder.flush(milliseconds(20000)));
    EXPECT_EQ(disk.failures(), 1);
    EXPECT_EQ(ended, 1);
    disk.fail(FaultyDisk::DeleteDenies, 1);
    require(recorder.raise(alarms, alarm)); // raised and ended in one batch
    require(recorder.end(alarms, "Pump"_q, QString(), at("2024-05-06 09:00:00"_q)));
    require(recorder.flush(milliseconds(20000)));
    EXPECT_EQ(disk.failures(), 2);
    EXPECT_EQ(ended, 2);
    EXPECT_EQ(valueOf(path(), "select count(*) from AlarmData"_q), "2"_q);
}

// When a trigger fires, how it ends the statement, and its words.
struct Trigger {
    const char *moment;
    const char *action;
    const char *words;
};

void PrintTo(const Trigger &trigger, std::ostream *stream)
{
    *stream << trigger.moment << ' ' << trigger.action << ' ' << trigger.words;
}

class RefusingTriggers : public RecorderFaults, public ::testing::WithParamInterface<Trigger>
{
};

TEST_P(RefusingTriggers, CostTheirRowAndNoOther)
{
    const auto [moment, action, words] = GetParam();
    const auto recorder = recorderOf(Profile::AsIs);
    OtherProgram(path()).run(
        "create trigger t %1 insert on Boiler when NEW.Value='5' begin select raise(%2,'%3'); end"_q.arg(
            QLatin1String(moment), QLatin1String(action), QLatin1String(words)));
    std::optional<Error> why;
    int lost = 0;
    QObject::connect(recorder.get(), &Recorder::dropped, [&](const QString &, int rows, const Error &error) {
        lost += rows;
        why = error;
    });
    record(*recorder, 0, 10);
    const Settled settled = recorder->flush(milliseconds(20000));
    EXPECT_EQ(settled.stored, 9);
    EXPECT_EQ(settled.dropped, 1);
    EXPECT_EQ(settled.waiting, 0);
    EXPECT_EQ(lost, 1);
    ASSERT_TRUE(why);
    EXPECT_EQ(why->cause(), QLatin1String(words));
    EXPECT_EQ(valueOf(path(), "select group_concat(Value) from (select Value from Boiler order by ID)"_q),
              "0,1,2,3,4,6,7,8,9"_q);
}

INSTANTIATE_TEST_SUITE_P(All, RefusingTriggers,
                         ::testing::Values(Trigger{"before", "abort", "the tank is full"},
                                           Trigger{"before", "fail", "the door is locked"},
                                           Trigger{"after", "fail", "the door is locked"},
                                           Trigger{"before", "rollback", "no more"},
                                           Trigger{"before", "abort", "database or disk is full"},
                                           Trigger{"before", "abort", "database is locked"},
                                           Trigger{"after", "rollback", "disk I/O error"}));

TEST_F(RecorderFaults, ATableThatHasUsedItsLastIdBlocksNoOther)
{
    const auto recorder = recorderOf(Profile::AsIs);
    const TableName other = table("Other"_q);
    recorder->createTable(other);
    record(*recorder, 0, 1);
    require(recorder->flush(milliseconds(20000)));
    OtherProgram(path()).run("update Boiler set ID=9223372036854775807;"
                             "update sqlite_sequence set seq=9223372036854775807 where name='Boiler'"_q);
    record(*recorder, 1, 2);
    require(recorder->record(other, numbered(0)));
    const Settled settled = recorder->flush(milliseconds(20000));
    EXPECT_EQ(settled.stored, 1);
    EXPECT_EQ(settled.dropped, 1);
    ASSERT_TRUE(settled.why);
    EXPECT_TRUE(settled.why->cause().contains("highest ID"_q)) << settled.why->text().toStdString();
}

TEST_F(RecorderFaults, AMessageHandlerInstalledLaterDoesNotMakeALockFatal)
{
    options.file.deadline = milliseconds(20);
    const auto recorder = recorderOf(Profile::AsIs);
    const QtMessageHandler before =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    storesAfterALock(*recorder, "begin immediate"_q);
    qInstallMessageHandler(before);
}

TEST_F(RecorderFaults, WithDebugOutputSwitchedOffALockLosesNothing)
{
    options.file.deadline = milliseconds(20);
    const auto recorder = recorderOf(Profile::AsIs);
    QLoggingCategory::setFilterRules("*.debug=false"_q);
    storesAfterALock(*recorder, "begin exclusive"_q);
    QLoggingCategory::setFilterRules(QString());
}

TEST_F(RecorderFaults, TheOldestRowsMakeRoomEvenWhileABatchWaitsForALock)
{
    options.whenFull = WhenFull::DropOldest;
    options.capacity = 100; // less than a batch
    options.file.deadline = milliseconds(10);
    const auto recorder = recorderOf(Profile::AsIs);
    OtherProgram other(path());
    other.run("begin immediate"_q);
    record(*recorder, 0, 100);
    recorder->flushSoon();
    ASSERT_TRUE(eventually([&] { return recorder->health().failedBatches > 0; }));
    record(*recorder, 100, 1000);
    expectBalance(recorder->health());
    EXPECT_EQ(recorder->health().refused, 0);
    other.run("commit"_q);
    const Settled settled = recorder->stop(milliseconds(20000));
    EXPECT_EQ(settled.stored + settled.dropped, 1000);
    EXPECT_EQ(settled.stored, 100);
    EXPECT_EQ(valueOf(path(), "select Value from Boiler order by ID desc"_q), "999"_q);
}

TEST_F(RecorderFaults, ATableThatCannotBeMadeIsReportedAsThat)
{
    PlainConnection(path()).run("create table Boiler(ID INTEGER PRIMARY KEY,x)"_q);
    HistoryRecorder recorder(library(), path(), options);
    QStringList failed;
    int troubles = 0;
    QObject::connect(&recorder, &Recorder::tableFailed,
                     [&](const QString &table, const Error &why) { failed << table << why.cause(); });
    QObject::connect(&recorder, &Recorder::troubled, [&] { ++troubles; });
    require(recorder.start());
    recorder.createTable(boiler);
    require(recorder.stop(milliseconds(20000)));
    EXPECT_EQ(failed, QStringList({"Boiler"_q, "it exists with the columns ID, x"_q}));
    EXPECT_EQ(troubles, 0);
}

TEST_F(RecorderFaults, ASlotThatThrowsWhileItsRecorderIsDestroyedDoesNotEndTheProgram)
{
    QLoggingCategory::setFilterRules("default.warning=false"_q);
    int stored = 0;
    {
        HistoryRecorder recorder(library(), path(), options);
        QObject::connect(&recorder, &Recorder::ready, [] { throw std::runtime_error("thrown by a slot"); });
        QObject::connect(&recorder, &Recorder::stored, [&](const QString &, int rows) { stored += rows; });
        require(recorder.start());
        recorder.createTable(boiler);
        record(recorder, 0, 3);
    }
    QLoggingCategory::setFilterRules(QString());
    EXPECT_EQ(stored, 3);
    expectNumbers(3);
}

} // namespace
