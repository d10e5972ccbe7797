// SPDX-License-Identifier: MIT
#include "recorder_fixture.h"

#include <atomic>
#include <thread>

namespace
{

TEST_F(Recorders, EveryAcceptedRowIsInTheFileOnceAndInOrder)
{
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    for (int i = 0; i < 5000; ++i)
        require(recorder.record(boiler, numbered(i)));
    require(recorder.stop(milliseconds(20000)));
    const Health health = recorder.health();
    EXPECT_EQ(health.accepted, 5000);
    EXPECT_EQ(health.stored, 5000);
    EXPECT_EQ(health.depth, 0);
    EXPECT_GE(health.batches, 10);
    EXPECT_GT(health.bytesPerRow, 0);
    EXPECT_GE(health.latencyP99, health.latencyP50);
    expectBalance(health);
    expectNumbers(5000);
}

TEST_F(Recorders, FlushReturnsWhenEverythingIsInTheFile)
{
    options.batchTime = milliseconds(3600000);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    for (int i = 0; i < 7; ++i)
        require(recorder.record(boiler, numbered(i)));
    require(recorder.flush(milliseconds(20000)));
    EXPECT_EQ(recorder.health().stored, 7);
    expectNumbers(7);
}

TEST_F(Recorders, AReaderOfAnotherConnectionDelaysButLosesNothing)
{
    options.file.deadline = milliseconds(20);
    options.batchRows = 10;
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    require(recorder.record(boiler, numbered(0)));
    require(recorder.flush(milliseconds(20000)));
    {
        PlainConnection reader(path());
        reader.run("begin; select * from Boiler"_q); // a read lock that stays
        for (int i = 1; i < 100; ++i)
            require(recorder.record(boiler, numbered(i)));
        const Settled settled = recorder.flush(milliseconds(300));
        ASSERT_TRUE(settled.why);
        EXPECT_EQ(settled.why->code(), Error::Locked);
        EXPECT_EQ(settled.waiting, 99);
        const Health health = recorder.health();
        EXPECT_GT(health.failedCommits, 0);
        EXPECT_GT(health.failedBatches, 0);
        EXPECT_EQ(health.stored, 1);
        EXPECT_EQ(health.depth, 99);
        expectBalance(health);
        reader.run("commit"_q);
    }
    require(recorder.stop(milliseconds(20000)));
    EXPECT_EQ(recorder.health().stored, 100);
    expectNumbers(100);
}

TEST_F(Recorders, WhatCannotBeStoredIsRefusedWithItsReason)
{
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    std::vector<Error::Code> codes;
    QObject::connect(&recorder, &Recorder::refused,
                     [&](const QString &, const Error &why) { codes.push_back(why.code()); });
    EXPECT_FALSE(recorder.record(boiler, {numbered(0).time, QString(QChar(0))}).ok());
    EXPECT_FALSE(recorder.record(boiler, {LocalTime(), "1"_q}).ok());
    require(recorder.record(boiler, numbered(0)));
    require(recorder.stop(milliseconds(20000)));
    EXPECT_FALSE(recorder.record(boiler, numbered(1)).ok());
    EXPECT_EQ(codes, (std::vector<Error::Code>{Error::TextRefused, Error::TimeRefused, Error::Stopped}));
    EXPECT_EQ(recorder.health().refused, 3);
    EXPECT_EQ(recorder.health().accepted, 1);
    expectNumbers(1);
}

TEST_F(Recorders, RowsOfAMissingTableAreDroppedAndReportedTheOthersStored)
{
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    std::atomic_int lost{0};
    QObject::connect(
        &recorder, &Recorder::dropped, &recorder,
        [&](const QString &name, int rows, const Error &why) {
            EXPECT_EQ(name, "Missing"_q);
            EXPECT_EQ(why.code(), Error::TableMissing);
            lost += rows;
        },
        Qt::DirectConnection);
    for (int i = 0; i < 20; ++i) {
        require(recorder.record(boiler, numbered(i)));
        require(recorder.record(table("Missing"_q), numbered(i)));
    }
    const Settled settled = recorder.flush(milliseconds(20000));
    EXPECT_EQ(settled.stored, 20);
    EXPECT_EQ(settled.dropped, 20);
    EXPECT_EQ(settled.waiting, 0);
    ASSERT_TRUE(settled.why);
    EXPECT_EQ(settled.why->code(), Error::TableMissing);
    require(recorder.flush(milliseconds(20000)));
    const Health health = recorder.health();
    EXPECT_EQ(health.stored, 20);
    EXPECT_EQ(health.dropped, 20);
    EXPECT_EQ(lost, 20);
    expectBalance(health);
    expectNumbers(20);
}

// A folder that does not exist yet keeps the file closed and the queue full.
class FullQueue : public Recorders
{
protected:
    FullQueue() { options.capacity = 10; }
    QString later() const { return path("later") + "/store.db"_q; }
    void mount() const { ASSERT_TRUE(QDir().mkdir(path("later"))); }
    QStringList values() const
    {
        QStringList all;
        for (const QStringList &row : rowsOf(later(), "select Value from Boiler order by ID"_q))
            all << row.first();
        return all;
    }
};

TEST_F(FullQueue, RefusesTheNewest)
{
    HistoryRecorder recorder(library(), later(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    int taken = 0;
    for (int i = 0; i < 15; ++i)
        taken += recorder.record(boiler, numbered(i)).ok();
    EXPECT_EQ(taken, 10);
    EXPECT_EQ(recorder.health().refused, 5);
    while (recorder.health().trouble.isEmpty())
        std::this_thread::yield();
    EXPECT_FALSE(recorder.health().open);
    mount();
    require(recorder.stop(milliseconds(20000)));
    EXPECT_TRUE(recorder.health().open);
    EXPECT_EQ(recorder.health().trouble, QString());
    EXPECT_EQ(values(), (QStringList{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}));
}

TEST_F(FullQueue, DropsTheOldest)
{
    options.whenFull = WhenFull::DropOldest;
    HistoryRecorder recorder(library(), later(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    int reported = 0;
    QObject::connect(&recorder, &Recorder::dropped, [&](const QString &, int rows, const Error &why) {
        EXPECT_EQ(why.code(), Error::QueueFull);
        reported += rows;
    });
    for (int i = 0; i < 15; ++i)
        require(recorder.record(boiler, numbered(i)));
    EXPECT_EQ(reported, 5);
    EXPECT_EQ(recorder.health().dropped, 5);
    expectBalance(recorder.health());
    mount();
    const Settled settled = recorder.stop(milliseconds(20000));
    EXPECT_EQ(settled.stored, 10);
    EXPECT_EQ(settled.dropped, 5);
    ASSERT_TRUE(settled.why);
    EXPECT_EQ(settled.why->code(), Error::QueueFull);
    EXPECT_EQ(values(), (QStringList{"5", "6", "7", "8", "9", "10", "11", "12", "13", "14"}));
}

TEST_F(FullQueue, WaitsForRoom)
{
    options.whenFull = WhenFull::Wait;
    options.waitAtMost = milliseconds(20000);
    HistoryRecorder recorder(library(), later(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    std::thread producer([&] {
        for (int i = 0; i < 15; ++i)
            require(recorder.record(boiler, numbered(i)));
    });
    while (recorder.health().depth < 10)
        std::this_thread::yield();
    mount();
    producer.join();
    require(recorder.stop(milliseconds(20000)));
    EXPECT_EQ(values().size(), 15);
    EXPECT_EQ(recorder.health().refused, 0);
}

TEST_F(FullQueue, WhatIsLeftAtTheDeadlineIsDroppedAndReported)
{
    HistoryRecorder recorder(library(), later(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    std::atomic_int lost{0};
    QObject::connect(
        &recorder, &Recorder::dropped, &recorder, [&](const QString &, int rows) { lost += rows; },
        Qt::DirectConnection);
    for (int i = 0; i < 5; ++i)
        require(recorder.record(boiler, numbered(i)));
    EXPECT_FALSE(recorder.stop(milliseconds(50)).ok());
    EXPECT_EQ(lost, 5);
    EXPECT_EQ(recorder.health().dropped, 5);
    EXPECT_EQ(recorder.health().depth, 0);
}

TEST_F(Recorders, AlarmsAreAnnouncedOnceTheyAreInTheFile)
{
    AlarmRecorder recorder(library(), path(), options);
    require(recorder.start());
    const TableName alarms = table("AlarmData"_q);
    recorder.createTable(alarms);
    QList<Alarm> raised;
    QStringList ended;
    QObject::connect(&recorder, &AlarmRecorder::raised, &recorder, [&](const Alarm &alarm) { raised << alarm; });
    QObject::connect(&recorder, &AlarmRecorder::ended, &recorder,
                     [&](const QString &object, const QString &type) { ended << object + "/"_q + type; });
    Alarm alarm;
    alarm.level = 2;
    alarm.start = at("2024-05-06 07:08:09"_q);
    alarm.object = "Pump 'A'"_q;
    alarm.type = "High"_q;
    require(recorder.raise(alarms, alarm));
    require(recorder.end(alarms, "Pump 'A'"_q, "High"_q, at("2024-05-06 08:00:00"_q)));
    require(recorder.end(alarms, "Pump 'A'"_q, "High"_q, at("2024-05-06 09:00:00"_q))); // no longer active
    require(recorder.flush(milliseconds(20000)));
    EXPECT_TRUE(eventually([&] { return !ended.isEmpty(); }));
    EXPECT_EQ(raised, QList<Alarm>{alarm});
    EXPECT_EQ(ended, QStringList{"Pump 'A'/High"_q});
    EXPECT_EQ(rowsOf(path(), "select EndDate,EndTime from AlarmData"_q), Rows({{"2024-05-06"_q, "08:00:00"_q}}));
}

TEST_F(Recorders, AQuestionIsAnsweredInTheAskersThread)
{
    LogRecorder recorder(library(), path(), options);
    require(recorder.start());
    const TableName log = table("OperatorLog"_q);
    recorder.createTable(log);
    require(recorder.record(log, {at("2024-05-06 07:08:09.123"_q), "admin"_q, "Login"_q, ""_q}));
    require(recorder.flush(milliseconds(20000)));
    std::thread::id answeredIn;
    qint64 rows = -1;
    recorder.ask(
        &recorder, [log](LogStore &store) { return store.count(log); },
        [&](const Result<qint64> &count) {
            rows = require(count);
            answeredIn = std::this_thread::get_id();
        });
    EXPECT_TRUE(eventually([&] { return rows >= 0; }));
    EXPECT_EQ(rows, 1);
    EXPECT_EQ(answeredIn, std::this_thread::get_id());
}

} // namespace
