// SPDX-License-Identifier: MIT
//
// What a recorder promises whatever its host does: options, deadlines, slots that misbehave, threads.
#include "recorder_fixture.h"

#include <QEventLoop>
#include <QTimer>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include <sqlite3.h>

namespace
{

constexpr milliseconds longest = milliseconds::max();

class Promises : public Recorders
{
protected:
    QString missing() const { return path("later") + "/store.db"_q; }

    // The debug output's warnings while it lives.
    class Warnings
    {
    public:
        Warnings()
        {
            s_texts.clear();
            m_before = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
                if (type == QtWarningMsg)
                    s_texts << text;
            });
        }
        ~Warnings() { qInstallMessageHandler(m_before); }
        QStringList texts() const { return s_texts; }

    private:
        inline static QStringList s_texts;
        QtMessageHandler m_before;
    };
};

TEST_F(Promises, ATableWaitsOutALockLongerThanTheDeadlineAndItsRowsWithIt)
{
    options.file.deadline = milliseconds(20);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    ASSERT_TRUE(eventually([&] { return recorder.health().open; }));
    std::optional<Result<bool>> created;
    {
        OtherProgram writer(path());
        writer.run("begin exclusive"_q);
        recorder.createTable(boiler, QString(), [&](const Result<bool> &made) { created = made; });
        for (int i = 0; i < 100; ++i)
            require(recorder.record(boiler, numbered(i)));
        ASSERT_TRUE(eventually([&] { return recorder.health().failedBatches > 1; }));
        EXPECT_FALSE(created);
        writer.run("rollback"_q);
    }
    for (int i = 100; i < 200; ++i)
        require(recorder.record(boiler, numbered(i)));
    require(recorder.flush(milliseconds(20000)));
    EXPECT_TRUE(require(created.value()));
    EXPECT_EQ(recorder.health().dropped, 0);
    expectNumbers(200);
}

TEST_F(Promises, ATableOfAnotherKindIsAnsweredWithAnErrorAndHoldsUpNothing)
{
    OtherProgram(path()).run("create table Boiler(ID integer primary key, x)"_q);
    const TableName other = table("Other"_q);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    std::optional<Result<bool>> created;
    recorder.createTable(boiler, QString(), [&](const Result<bool> &made) { created = made; });
    recorder.createTable(other);
    require(recorder.record(other, numbered(0)));
    require(recorder.flush(milliseconds(20000)));
    EXPECT_EQ(codeOf(created.value()), Error::TableLayout);
    EXPECT_EQ(valueOf(path(), "select count(*) from Other"_q), "1"_q);
    EXPECT_EQ(valueOf(path(), "select group_concat(COLLECTOR) from tb_config"_q), "Other"_q) << "nothing half done";
}

TEST_F(Promises, NegativeAndLongestTimesMeanForEver)
{
    for (const milliseconds forEver : {milliseconds(-1), longest, milliseconds(longest.count() - 1)}) {
        QFile::remove(path());
        options.whenFull = WhenFull::Wait;
        options.capacity = 10;
        options.batchTime = forEver;
        options.waitAtMost = forEver;
        options.giveUpAfter = forEver;
        options.file.deadline = forEver;
        HistoryRecorder recorder(library(), path(), options);
        require(recorder.start());
        recorder.createTable(boiler);
        for (int i = 0; i < 25; ++i)
            require(recorder.record(boiler, numbered(i)));
        ASSERT_TRUE(eventually([&] { return recorder.health().depth < 10; }));
        EXPECT_EQ(recorder.health().failedBatches, 0);
        require(recorder.flush(forEver));
        EXPECT_EQ(recorder.health().stored, 25);
        for (int i = 25; i < 30; ++i)
            require(recorder.record(boiler, numbered(i)));
        require(recorder.stop(forEver));
        expectNumbers(30);
    }
}

TEST_F(Promises, ABatchThatMayNotBeGivenUpSurvivesALock)
{
    options.giveUpAfter = longest;
    options.file.deadline = milliseconds(1);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    require(recorder.flush(milliseconds(20000)));
    OtherProgram writer(path());
    writer.run("begin immediate"_q);
    require(recorder.record(boiler, numbered(0)));
    recorder.flushSoon();
    ASSERT_TRUE(eventually([&] { return recorder.health().failedBatches > 1; }));
    writer.run("rollback"_q);
    require(recorder.flush(longest));
    expectNumbers(1);
}

TEST_F(Promises, StartNamesTheOptionThatCannotWork)
{
    const auto refusal = [&](const auto &change) {
        RecorderOptions wrong;
        change(wrong);
        HistoryRecorder recorder(library(), path(), wrong);
        const Status started = recorder.start();
        if (started)
            return "started"_q;
        EXPECT_EQ(started.error().code(), Error::OptionRefused);
        return started.error().cause();
    };
    const std::atomic_bool cancel{false};
    EXPECT_EQ(refusal([](RecorderOptions &o) { o.batchRows = 0; }), "batchRows is 0; the least is 1"_q);
    EXPECT_EQ(refusal([](RecorderOptions &o) { o.batchRows = -3; }), "batchRows is -3; the least is 1"_q);
    EXPECT_EQ(refusal([](RecorderOptions &o) { o.capacity = 0; }), "capacity is 0; the least is 1"_q);
    EXPECT_EQ(refusal([](RecorderOptions &o) { o.capacityBytes = 0; }), "capacityBytes is 0; the least is 4096"_q);
    EXPECT_EQ(refusal([](RecorderOptions &o) { o.file.checkpointPages = 0; }),
              "file.checkpointPages is 0; the least is 1"_q);
    EXPECT_EQ(refusal([](RecorderOptions &o) { o.whenFull = WhenFull(7); }), "whenFull is none of its values"_q);
    EXPECT_EQ(refusal([](RecorderOptions &o) { o.file.profile = Profile(9); }), "file.profile is none of its values"_q);
    EXPECT_EQ(refusal([&](RecorderOptions &o) { o.file.cancel = &cancel; }),
              "file.cancel is set; a recorder has its own, see cancel()"_q);
    EXPECT_EQ(refusal([](RecorderOptions &) {}), "started"_q);
    HistoryRecorder nowhere(library(), QString());
    EXPECT_EQ(nowhere.start().error().cause(), "path is not a file name"_q);
    HistoryRecorder twice(library(), path());
    require(twice.start());
    EXPECT_FALSE(twice.start().ok());
    require(twice.stop(milliseconds(20000)));
    EXPECT_EQ(twice.start().error().code(), Error::Stopped);
}

TEST_F(Promises, RowsHandedOverBeforeTheStartWaitAndItsSignalsAreHeard)
{
    HistoryRecorder recorder(library(), path(), options);
    recorder.createTable(boiler);
    require(recorder.record(boiler, numbered(0)));
    const Settled tooSoon = recorder.flush(milliseconds(20000));
    EXPECT_EQ(tooSoon.waiting, 1);
    ASSERT_TRUE(tooSoon.why);
    EXPECT_EQ(tooSoon.why->code(), Error::NotStarted);
    std::this_thread::sleep_for(milliseconds(50)); // nothing happens by itself
    bool isReady = false;
    QObject::connect(&recorder, &Recorder::ready, [&] { isReady = true; });
    require(recorder.start());
    EXPECT_TRUE(eventually([&] { return isReady; }));
    require(recorder.flush(milliseconds(20000)));
    expectNumbers(1);
}

TEST_F(Promises, WhatWasNeverStartedIsReportedAsLost)
{
    HistoryRecorder recorder(library(), path(), options);
    int lost = 0;
    QObject::connect(&recorder, &Recorder::dropped, [&](const QString &, int rows) { lost += rows; });
    require(recorder.record(boiler, numbered(0)));
    const Settled settled = recorder.stop(milliseconds(20000));
    EXPECT_EQ(settled.dropped, 1);
    EXPECT_EQ(lost, 1);
    expectBalance(recorder.health());
}

TEST_F(Promises, AnEventLoopWithinASlotHearsTheSignalsThatFollow)
{
    options.batchRows = 1;
    AlarmRecorder recorder(library(), path(), options);
    require(recorder.start());
    const TableName alarms = table("AlarmData"_q);
    recorder.createTable(alarms);
    int raised = 0;
    bool seenInside = false;
    QObject::connect(&recorder, &AlarmRecorder::raised, [&] {
        if (++raised > 1)
            return;
        seenInside = eventually([&] { return raised >= 5; }); // as a modal dialog does
    });
    for (int i = 0; i < 5; ++i) {
        Alarm alarm;
        alarm.start = at("2024-05-06 07:08:09"_q);
        alarm.object = QString::number(i);
        require(recorder.raise(alarms, alarm));
    }
    EXPECT_TRUE(eventually([&] { return seenInside; }));
    EXPECT_EQ(raised, 5);
}

TEST_F(Promises, ASlotThatThrowsSilencesNothingAfterIt)
{
    AlarmRecorder recorder(library(), path(), options);
    require(recorder.start());
    const TableName alarms = table("AlarmData"_q);
    recorder.createTable(alarms);
    int raised = 0;
    QObject::connect(&recorder, &AlarmRecorder::raised, [&] {
        ++raised;
        throw std::runtime_error("a slot");
    });
    for (int i = 0; i < 3; ++i) {
        Alarm alarm;
        alarm.start = at("2024-05-06 07:08:09"_q);
        require(recorder.raise(alarms, alarm));
    }
    recorder.flushSoon();
    QElapsedTimer timer;
    timer.start();
    while (raised < 3 && timer.elapsed() < 20000) {
        try {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        } catch (const std::runtime_error &) {
        }
    }
    EXPECT_EQ(raised, 3);
}

TEST_F(Promises, EveryQuestionIsAnsweredBeforeAndAfterTheEnd)
{
    const auto count = [this](HistoryStore &store) { return store.count(boiler); };
    HistoryRecorder closed(library(), missing(), options);
    require(closed.start());
    std::optional<Error::Code> first;
    closed.ask(&closed, count, [&](const Result<qint64> &rows) { first = rows.error().code(); });
    EXPECT_TRUE(eventually([&] { return first.has_value(); }));
    EXPECT_EQ(*first, Error::FileError);

    HistoryRecorder recorder(library(), path(), options);
    std::optional<Error::Code> unstarted, late;
    recorder.ask(nullptr, count, [&](const Result<qint64> &rows) { unstarted = rows.error().code(); });
    (void)recorder.stop(milliseconds(20000));
    EXPECT_EQ(unstarted, Error::Stopped);
    recorder.ask(&recorder, count, [&](const Result<qint64> &rows) { late = rows.error().code(); });
    EXPECT_TRUE(eventually([&] { return late.has_value(); }));
    EXPECT_EQ(*late, Error::Stopped);
}

TEST_F(Promises, AQuestionMayThrowAndMayNotWriteOrWaitForItsRecorder)
{
    for (const Profile profile : {Profile::AsIs, Profile::Durable}) {
        QFile::remove(path());
        options.file.profile = profile;
        HistoryRecorder recorder(library(), path(), options);
        require(recorder.start());
        recorder.createTable(boiler);
        QVector<Error> errors;
        const auto keep = [&](const auto &answer) { errors.append(answer.error()); };
        recorder.ask(
            &recorder, [](HistoryStore &) -> Result<int> { throw std::runtime_error("no answer"); }, keep);
        recorder.ask(
            &recorder, [this](HistoryStore &store) { return store.append(boiler, {numbered(0)}); }, keep);
        recorder.ask(
            &recorder, [&](HistoryStore &) -> Result<int> { return *recorder.stop(milliseconds(1)).why; }, keep);
        recorder.ask(
            &recorder, [&](HistoryStore &) -> Result<int> { return *recorder.flush(milliseconds(1)).why; }, keep);
        ASSERT_TRUE(eventually([&] { return errors.size() == 4; }));
        EXPECT_TRUE(errors.at(0).cause().contains("no answer"_q));
        EXPECT_EQ(errors.at(1).code(), Error::ReadOnly);
        EXPECT_TRUE(errors.at(2).cause().contains("cannot wait"_q));
        EXPECT_TRUE(errors.at(3).cause().contains("cannot wait"_q));
        require(recorder.record(boiler, numbered(0)));
        require(recorder.stop(milliseconds(20000)));
        expectNumbers(1);
    }
}

TEST_F(Promises, ACancelledQuestionIsAnsweredAsCancelled)
{
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    std::promise<void> go;
    const auto gone = go.get_future().share();
    std::optional<Error::Code> second;
    recorder.ask(
        &recorder,
        [gone](HistoryStore &) {
            gone.wait();
            return 1;
        },
        [](const Result<int> &) {});
    const Question question = recorder.ask(
        &recorder, [](HistoryStore &) { return 2; },
        [&](const Result<int> &answer) { second = answer.error().code(); });
    question.cancel();
    go.set_value();
    EXPECT_TRUE(eventually([&] { return second.has_value(); }));
    EXPECT_EQ(*second, Error::Cancelled);
}

TEST_F(Promises, StopMayBeCalledFromSeveralThreads)
{
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    for (int i = 0; i < 1000; ++i)
        require(recorder.record(boiler, numbered(i)));
    std::vector<std::thread> threads;
    std::atomic<qint64> stored{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { stored += recorder.stop(milliseconds(20000)).stored; });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(stored, 1000);
    expectNumbers(1000);
}

TEST_F(Promises, ALossThatNobodyListensToIsWrittenToTheLog)
{
    const Warnings warnings;
    {
        HistoryRecorder recorder(library(), missing(), options);
        require(recorder.start());
        for (int i = 0; i < 500; ++i)
            require(recorder.record(boiler, numbered(i)));
        const Settled settled = recorder.stop(milliseconds(1));
        EXPECT_EQ(settled.dropped, 500);
        ASSERT_TRUE(settled.why);
        EXPECT_EQ(settled.why->code(), Error::FileError) << "the cause, not the stop";
    }
    ASSERT_EQ(warnings.texts().size(), 1);
    EXPECT_TRUE(warnings.texts().first().contains("500 rows are lost"_q)) << warnings.texts().first().toStdString();
    EXPECT_TRUE(warnings.texts().first().contains("no folder"_q)) << warnings.texts().first().toStdString();
}

TEST_F(Promises, TheQueueIsBoundedInBytesToo)
{
    options.capacityBytes = 100000;
    HistoryRecorder recorder(library(), missing(), options);
    const Sample large{numbered(0).time, QString(10000, QLatin1Char('x'))};
    int taken = 0;
    for (int i = 0; i < 20; ++i)
        taken += recorder.record(boiler, large).ok();
    EXPECT_EQ(taken, 4);
    const Status tooLarge = recorder.record(boiler, {large.time, QString(60000, QLatin1Char('x'))});
    EXPECT_EQ(tooLarge.error().code(), Error::QueueFull);
    EXPECT_TRUE(tooLarge.error().cause().contains("capacityBytes"_q));
}

TEST_F(Promises, TheOldestMakeRoomForALargeRow)
{
    options.capacityBytes = 100000;
    options.whenFull = WhenFull::DropOldest;
    HistoryRecorder recorder(library(), path(), options);
    int dropped = 0;
    QObject::connect(&recorder, &Recorder::dropped, [&](const QString &, int rows) { dropped += rows; });
    recorder.createTable(boiler);
    for (int i = 0; i < 200; ++i)
        require(recorder.record(boiler, numbered(i)));
    require(recorder.record(boiler, {numbered(0).time, QString(40000, QLatin1Char('x'))}));
    EXPECT_GT(dropped, 0);
    expectBalance(recorder.health());
    require(recorder.start());
    EXPECT_EQ(recorder.flush(milliseconds(20000)).dropped, dropped);
    EXPECT_EQ(valueOf(path(), "select count(*) from Boiler"_q), QString::number(201 - dropped));
}

TEST_F(Promises, RecordersAreFoundByTheirOwnClass)
{
    QObject parent;
    auto *history = new HistoryRecorder(library(), path("history.db"), {}, &parent);
    auto *log = new LogRecorder(library(), path("log.db"), {}, &parent);
    EXPECT_EQ(parent.findChild<HistoryRecorder *>(), history);
    EXPECT_EQ(parent.findChild<LogRecorder *>(), log);
    EXPECT_EQ(parent.findChild<AlarmRecorder *>(), nullptr);
}

TEST_F(Promises, AStandingAlarmIsNotRaisedAgain)
{
    const TableName alarms = table("AlarmData"_q);
    Alarm alarm;
    alarm.start = at("2024-05-06 07:08:09"_q);
    alarm.object = "Pump"_q;
    alarm.type = "High"_q;
    int raised = 0;
    for (int restart = 0; restart < 3; ++restart) {
        AlarmRecorder recorder(library(), path(), options);
        QObject::connect(&recorder, &AlarmRecorder::raised, [&] { ++raised; });
        require(recorder.start());
        recorder.createTable(alarms);
        require(recorder.raiseUnlessActive(alarms, alarm));
        require(recorder.raiseUnlessActive(alarms, alarm));
        require(recorder.stop(milliseconds(20000)));
    }
    EXPECT_EQ(raised, 1);
    EXPECT_EQ(valueOf(path(), "select count(*) from AlarmData"_q), "1"_q);
}

TEST_F(Promises, AnAlarmThatAnotherProgramRaisedInTheMeantimeIsNotReportedAsRaised)
{
    const TableName alarms = table("AlarmData"_q);
    require(require(AlarmStore::open(library(), path())).createTable(alarms));
    OtherProgram other(path());
    other.run("begin;select * from AlarmData"_q); // the recorder inserts its alarm, and cannot commit
    Alarm alarm;
    alarm.start = at("2024-05-06 07:08:09"_q);
    alarm.object = "Pump"_q;
    alarm.type = "High"_q;
    options.file.deadline = milliseconds(10);
    AlarmRecorder recorder(library(), path(), options);
    int raised = 0;
    QObject::connect(&recorder, &AlarmRecorder::raised, [&] { ++raised; });
    require(recorder.start());
    require(recorder.raiseUnlessActive(alarms, alarm));
    recorder.flushSoon();
    ASSERT_TRUE(eventually([&] { return recorder.health().failedBatches > 1; }));
    const char *insert = "insert into AlarmData(DATETIME,AlarmObject,AlarmType,EndDate,EndTime) "
                         "values('2024-05-06 07:08:08','Pump','High','','')";
    bool inserted = false;
    ASSERT_TRUE(eventually([&] {
        inserted = inserted || sqlite3_exec(other.handle(), insert, nullptr, nullptr, nullptr) == SQLITE_OK;
        return inserted;
    }));
    other.run("commit"_q);
    const Settled settled = recorder.stop(milliseconds(20000));
    EXPECT_TRUE(settled.ok());
    EXPECT_EQ(raised, 0);
    EXPECT_EQ(valueOf(path(), "select count(*) from AlarmData"_q), "1"_q);
}

} // namespace
