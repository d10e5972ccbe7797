// SPDX-License-Identifier: MIT
#include "faulty_disk.h"
#include "recorder_fixture.h"
#include "trend_reference.h"

#include "plausible_time.h"

#include <QDir>
#include <QFileInfo>
#include <QStorageInfo>

#include <ctime>
#include <thread>

#include <sys/stat.h>

namespace
{

constexpr qint64 day = 86400;

TEST(PlausibleTime, GoesOnWithTheRowsAndNotWithAClockThatJumps)
{
    PlausibleTime time;
    EXPECT_FALSE(time.believed());
    time.seen(1000 * day, 0);
    time.seen(1000 * day + 60, 60);
    EXPECT_EQ(time.believed(), 1000 * day + 60);
    for (int i = 0; i < 3600; ++i)
        time.seen(9000 * day + i, 60 + i); // an hour in a wrong year
    EXPECT_EQ(time.believed(), 1000 * day + 60);
    time.seen(1000 * day + 120, 4000);
    EXPECT_EQ(time.believed(), 1000 * day + 120);
    time.seen(1000 * day - 5000, 4001); // summer time ends
    EXPECT_EQ(time.believed(), 1000 * day + 120);
}

TEST(PlausibleTime, BelievesAnotherTimeAfterADay)
{
    PlausibleTime time(1000 * day);
    for (qint64 i = 0; i <= 24; ++i)
        time.seen(1007 * day + i * 3600, i); // a week without power, then a day of rows
    EXPECT_EQ(time.believed(), 1008 * day);
    for (qint64 i = 0; i <= 24; ++i)
        time.seen(500 * day + i * 3600, 100 + i); // and back
    EXPECT_EQ(time.believed(), 501 * day);
    time.seen(600 * day, 200);
    time.seen(600 * day + 10, 200 + day); // a day of running says the same
    EXPECT_EQ(time.believed(), 600 * day + 10);
}

TEST(PlausibleTime, BeginsADoubtfulDayAnewWhenTheOldTimeComesBack)
{
    PlausibleTime time(1000 * day);
    for (qint64 i = 0; i < 100; ++i) {
        time.seen(2000 * day + i * 3600, i);
        if (i % 20 == 0)
            time.seen(1000 * day + i, i);
    }
    EXPECT_LT(*time.believed(), 1001 * day);
}

TEST(PlausibleTime, KeepsPaceWhileTheProgramRuns)
{
    PlausibleTime time(1000 * day);
    time.seen(1000 * day, 0);
    time.seen(1007 * day, 7 * day); // an entry a week
    EXPECT_EQ(time.believed(), 1007 * day);
}

class Trims : public Recorders
{
protected:
    Trims()
    {
        options.batchRows = 100;
        options.file.checkpointPages = 100;
        options.capacity = 1000000;
        options.capacityBytes = 1LL << 30;
    }
    Sample minutely(int i) const { return {after(i * 60LL), QString::number(i)}; }
    static LocalTime after(qint64 seconds) { return QDateTime(QDate(2024, 1, 1), QTime(0, 0)).addSecs(seconds); }
    void recordMinutes(HistoryRecorder &recorder, int first, int end) const
    {
        for (int i = first; i < end; ++i)
            require(recorder.record(boiler, minutely(i)));
        require(recorder.flush(milliseconds(60000)));
    }
    // Started, with a table of which so many rows are kept.
    template<typename RecorderOfKind>
    std::unique_ptr<RecorderOfKind> keeping(const TableName &name, qint64 rows)
    {
        options.file.profile = Profile::Durable;
        auto recorder = std::make_unique<RecorderOfKind>(library(), path(), options);
        require(recorder->start());
        recorder->createTable(name);
        Keep keep;
        keep.rows = rows;
        recorder->keep(name, keep);
        return recorder;
    }
    qint64 rows() const { return valueOf(path(), "select count(*) from Boiler"_q).toLongLong(); }
    qint64 first() const { return valueOf(path(), "select min(ID) from Boiler"_q).toLongLong(); }
    qint64 bytesOfFiles() const
    {
        qint64 bytes = 0;
        for (const char *end : {"", "-wal", "-shm", "-journal"})
            bytes += QFileInfo(path() + QLatin1String(end)).size();
        return bytes;
    }
    Kept kept() const
    {
        auto store = require(HistoryStore::open(library(), path()));
        return require(store.kept(boiler)).value();
    }
    void write(const char *json) const
    {
        QFile file(path() + ".new"_q);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(json);
        file.close();
        QFile::remove(path() + ".shipped"_q);
        ASSERT_TRUE(QFile::rename(path() + ".new"_q, path() + ".shipped"_q));
    }
};

TEST_F(Trims, ByNumberInTheBatchesAndCountsWhatWent)
{
    auto recorder = recorderOf(Profile::Durable);
    qint64 told = 0;
    QObject::connect(recorder.get(), &Recorder::trimmed, [&](const QString &table, qint64 rows) {
        EXPECT_EQ(table, "Boiler"_q);
        told += rows;
    });
    Keep keep;
    keep.rows = 1000;
    recorder->keep(boiler, keep);
    recordMinutes(*recorder, 0, 5000);
    require(recorder->stop(milliseconds(20000)));
    EXPECT_GE(rows(), 1000);
    EXPECT_LE(rows(), 1200);
    EXPECT_EQ(valueOf(path(), "select max(ID)-min(ID)+1=count(*) and max(ID)=5000 from Boiler"_q), "1"_q);
    EXPECT_EQ(kept().trimmed, 5000 - rows());
    EXPECT_EQ(kept().throughId, 5000 - rows());
    EXPECT_EQ(kept().keep, keep);
    EXPECT_EQ(told, 5000 - rows());
    EXPECT_EQ(recorder->health().trimmed, told);
}

TEST_F(Trims, ByAgeOfTheNewestRowAndOnceMoreInAFileOpenedLater)
{
    Keep keep;
    keep.age = std::chrono::hours(24);
    {
        auto recorder = recorderOf(Profile::Durable);
        recorder->keep(boiler, keep);
        recordMinutes(*recorder, 0, 5000);
        EXPECT_TRUE(eventually([&] { return rows() <= 1700; })) << rows();
    }
    const qint64 left = rows();
    EXPECT_GE(left, 1440);
    auto recorder = recorderOf(Profile::Durable);
    recordMinutes(*recorder, 5000, 8000);
    EXPECT_TRUE(eventually([&] { return rows() <= 1700; })) << rows();
    // Never more than the rule says.
    EXPECT_LE(valueOf(path(), "select min(DATETIME) from Boiler"_q), "2024-01-05 13:20:00"_q);
}

TEST_F(Trims, NothingByAClockThatJumps)
{
    auto recorder = recorderOf(Profile::Durable);
    Keep keep;
    keep.age = std::chrono::hours(1000);
    recorder->keep(boiler, keep);
    recordMinutes(*recorder, 0, 3000);
    for (int i = 0; i < 500; ++i)
        require(recorder->record(boiler, {LocalTime(QDate(2099, 1, 1), QTime(0, 0).addSecs(i)), "1"_q}));
    require(recorder->flush(milliseconds(20000)));
    recordMinutes(*recorder, 3000, 3100);
    EXPECT_EQ(rows(), 3600);
}

TEST_F(Trims, StopsBeforeMuchGoesAtOnceUntilTheHostAllowsIt)
{
    auto recorder = recorderOf(Profile::Durable);
    QStringList held;
    QObject::connect(recorder.get(), &Recorder::retentionHeld, [&](const Error &why) { held << why.text(); });
    Keep keep;
    keep.age = std::chrono::hours(24 * 30);
    recorder->keep(boiler, keep);
    recordMinutes(*recorder, 0, 3000);
    // Two days in a wrong year: long enough to be believed.
    for (int i = 0; i < 2880; ++i)
        require(recorder->record(boiler, {QDateTime(QDate(2031, 1, 1), QTime(0, 0)).addSecs(i * 60), "1"_q}));
    require(recorder->flush(milliseconds(20000)));
    ASSERT_TRUE(eventually([&] { return !held.isEmpty(); }));
    EXPECT_TRUE(held.first().contains("Boiler"_q)) << held.first().toStdString();
    EXPECT_TRUE(held.first().contains("a tenth"_q)) << held.first().toStdString();
    EXPECT_EQ(rows(), 5880);
    recorder->trimNow(boiler);
    EXPECT_TRUE(eventually([&] { return rows() == 2880; })) << rows();
    EXPECT_EQ(held.size(), 1);
}

TEST_F(Trims, NoRowBeforeItIsInTheSums)
{
    Keep keep;
    keep.rows = 100;
    {
        auto recorder = recorderOf(Profile::Durable);
        recorder->keepTrend(boiler);
        recorder->keep(boiler, keep);
        for (int i = 0; i < 1500; ++i) // within a minute: no reason to write the sums yet
            require(recorder->record(boiler, {after(i % 60), QString::number(i)}));
        require(recorder->flush(milliseconds(20000)));
        EXPECT_GT(rows(), 1000); // all but those that were summed up when the trend began
        EXPECT_EQ(valueOf(path(), "select min(ID)<=(select MARK+1 from \"device trend series\") from Boiler"_q), "1"_q);
    }
    auto recorder = recorderOf(Profile::Durable);
    EXPECT_TRUE(eventually([&] { return rows() == 100; })) << rows();
    auto store = require(HistoryStore::open(library(), path()));
    const Trend trend = require(store.trend(boiler, TrendQuery::between(after(0), after(59)).columns(1)));
    EXPECT_EQ(trend.columns.first().rows, 1500);
}

TEST_F(Trims, AlsoWhenNoRowsCome)
{
    auto recorder = recorderOf(Profile::Durable);
    recordMinutes(*recorder, 0, 3000);
    Keep keep;
    keep.rows = 10;
    recorder->keep(boiler, keep);
    EXPECT_TRUE(eventually([&] { return rows() == 10; })) << rows();
}

TEST_F(Trims, NothingThatAShipperHolds)
{
    auto recorder = recorderOf(Profile::Durable);
    recorder->hold(boiler, "archive"_q, 700);
    Keep keep;
    keep.rows = 100;
    recorder->keep(boiler, keep);
    recordMinutes(*recorder, 0, 3000);
    EXPECT_EQ(first(), 701);
    recorder->hold(boiler, "archive"_q, 1500);
    recorder->trimNow(boiler);
    EXPECT_TRUE(eventually([&] { return first() == 1501; })) << first();
    recorder->release(boiler, "archive"_q);
    recorder->trimNow(boiler);
    EXPECT_TRUE(eventually([&] { return first() == 2901; })) << first();
    EXPECT_EQ(kept().unshipped, 0);
}

TEST_F(Trims, NothingThatTheFileBesideItHolds)
{
    write(R"({"version": 1, "owner": "archive", "shipped": {"boiler": 500}})");
    auto recorder = recorderOf(Profile::Durable);
    QStringList held;
    QObject::connect(recorder.get(), &Recorder::retentionHeld, [&](const Error &why) { held << why.text(); });
    Keep keep;
    keep.rows = 100;
    recorder->keep(boiler, keep);
    recordMinutes(*recorder, 0, 3000);
    EXPECT_EQ(first(), 501);
    write(R"({"version": 1, "owner": "archive", "shipped": {"BOILER": 600, "boiler": 900}})"); // the lower counts
    recorder->trimNow(boiler);
    EXPECT_TRUE(eventually([&] { return first() > 501; }));
    EXPECT_EQ(first(), 601);
    write("{\"version\": 1, \"owner\": \"archive\", \"shipped\": {\"boiler\": 6e");
    recordMinutes(*recorder, 3000, 6000);
    EXPECT_EQ(first(), 601);
    ASSERT_TRUE(eventually([&] { return !held.isEmpty(); }));
    EXPECT_TRUE(held.first().contains("store.db.shipped"_q)) << held.first().toStdString();
    QFile::remove(path() + ".shipped"_q);
    recordMinutes(*recorder, 6000, 13000);
    EXPECT_TRUE(eventually([&] { return rows() == 100; }))
        << rows(); // a slow machine removes the rest in a quiet moment
}

TEST_F(Trims, NothingByARuleThatCannotBeRead)
{
    {
        auto recorder = recorderOf(Profile::Durable);
        Keep keep;
        keep.rows = 100000;
        recorder->keep(boiler, keep);
        recordMinutes(*recorder, 0, 1000);
        require(recorder->stop(milliseconds(20000)));
    }
    for (const char *const rule : {"NEWEST='all'", "AGE='old'", "ATLEAST='1 y'", "SUMS='60'", "SUMS='61:24'",
                                   "FLOORS='60:x'", "VERSION=2", "AGE=-1"}) {
        const QString copy = path() + ".damaged"_q;
        QFile::remove(copy);
        ASSERT_TRUE(QFile::copy(path(), copy));
        PlainConnection(copy).run("update \"device keep\" set "_q + QString::fromLatin1(rule) +
                                  " where COLLECTOR='Boiler'"_q);
        auto store = require(HistoryStore::open(library(), copy));
        const auto kept = store.kept(boiler);
        ASSERT_FALSE(kept) << rule;
        EXPECT_EQ(kept.error().code(), Error::TableLayout) << rule;
    }
    PlainConnection(path()).run("update \"device keep\" set NEWEST='all'"_q);
    auto recorder = recorderOf(Profile::Durable);
    QStringList held;
    QObject::connect(recorder.get(), &Recorder::retentionHeld, [&](const Error &why) { held << why.text(); });
    recordMinutes(*recorder, 1000, 1500);
    EXPECT_TRUE(eventually([&] { return !held.isEmpty(); }));
    require(recorder->stop(milliseconds(20000)));
    EXPECT_TRUE(held.value(0).contains("nothing is removed"_q)) << qPrintable(held.join('|'));
    EXPECT_EQ(rows(), 1500);
}

TEST_F(Trims, EndedAlarmsAndNoneThatLasts)
{
    const TableName plant = table("Plant"_q);
    const auto recorder = keeping<AlarmRecorder>(plant, 50);
    for (int i = 0; i < 1000; ++i) {
        const QString object = "P%1"_q.arg(i);
        require(recorder->raise(plant, {1, after(i), object, "high"_q, "1"_q, "2"_q, "text"_q, {}}));
        if (i % 100 != 0)
            require(recorder->end(plant, object, "high"_q, after(i + 1)));
    }
    require(recorder->flush(milliseconds(20000)));
    EXPECT_TRUE(eventually(
        [&] { return valueOf(path(), "select count(*) from Plant where EndDate!='' and ID<900"_q) == "0"_q; }));
    EXPECT_EQ(valueOf(path(), "select count(*) from Plant where EndDate=''"_q), "10"_q);
    EXPECT_EQ(valueOf(path(), "select count(*) from Plant where ID>950"_q), "50"_q);
}

TEST_F(Trims, NoLogThatIsYoungerThanAYear)
{
    const TableName log = table("Actions"_q);
    const auto recorder = keeping<LogRecorder>(log, 10);
    for (int i = 0; i < 2 * 365; ++i)
        require(recorder->record(log, {after(i * day), "user"_q, "name"_q, "message"_q}));
    require(recorder->flush(milliseconds(20000)));
    recorder->trimNow(log);
    EXPECT_TRUE(eventually([&] { return valueOf(path(), "select count(*) from Actions"_q).toInt() <= 366; }));
    EXPECT_EQ(valueOf(path(), "select count(*) from Actions"_q), "366"_q);
    EXPECT_EQ(valueOf(path(), "select min(DATETIME) from Actions"_q).left(10), "2024-12-30"_q);
}

TEST_F(Trims, ForACeilingThatHoldsAtEveryMoment)
{
    options.retention.ceiling = 8 * 1024 * 1024;
    auto recorder = recorderOf(Profile::Durable);
    std::atomic_bool over{false};
    std::atomic<qint64> most{0};
    std::thread watcher([&] {
        while (!over) {
            most = std::max<qint64>(most, bytesOfFiles());
        }
    });
    for (int i = 0; i < 200000; i += 1000) {
        recordMinutes(*recorder, i, i + 1000);
    }
    over = true;
    watcher.join();
    EXPECT_LE(most, options.retention.ceiling);
    EXPECT_GT(most, options.retention.ceiling / 3);
    const Health health = recorder->health();
    EXPECT_EQ(health.stored, 200000);
    EXPECT_EQ(health.trimmed, 200000 - rows());
    EXPECT_GT(rows(), 10000);
    EXPECT_EQ(valueOf(path(), "select max(ID)-min(ID)+1=count(*) and max(ID)=200000 from Boiler"_q), "1"_q);
}

TEST_F(Trims, GoesOnWhenATrendIsKeptOfAFileThatIsFull)
{
    options.retention.ceiling = 8 * 1024 * 1024;
    auto recorder = recorderOf(Profile::Durable);
    for (int i = 0; recorder->health().trimmed == 0; i += 1000)
        recordMinutes(*recorder, i, i + 1000);
    recorder->keepTrend(boiler, {{TrendLevel::TenMinutes, TrendLevel::Hour}});
    const qint64 stored = recorder->health().stored;
    recordMinutes(*recorder, int(stored), int(stored) + 30000);
    EXPECT_EQ(recorder->health().stored, stored + 30000);
    EXPECT_TRUE(eventually(
        [&] { return valueOf(path(), "select MARK>%1 from \"device trend series\""_q.arg(stored)) == "1"_q; }));
    for (const char *end : {"", "-wal", "-shm"})
        EXPECT_LE(QFileInfo(path() + QLatin1String(end)).size(), options.retention.ceiling);
}

TEST_F(Trims, ForACeilingRowsOfAnySize)
{
    options.retention.ceiling = 24 * 1024 * 1024;
    auto recorder = recorderOf(Profile::Durable);
    qint64 most = 0;
    for (int i = 0; i < 600; ++i) {
        const QString value(i % 3 == 0 ? 250000 : 5000, QChar(i % 2 == 0 ? 'x' : 0x20ac));
        require(recorder->record(boiler, {after(i * 60), value}));
        if (i % 20 == 0)
            require(recorder->flush(milliseconds(60000)));
        most = std::max(most, bytesOfFiles());
    }
    require(recorder->flush(milliseconds(60000)));
    EXPECT_LE(std::max(most, bytesOfFiles()), options.retention.ceiling);
    EXPECT_EQ(recorder->health().stored, 600);
    EXPECT_GT(recorder->health().trimmed, 0);
}

TEST_F(Trims, WithoutWorkNobodyIsAwake)
{
    options.retention.ceiling = 8 * 1024 * 1024;
    auto recorder = recorderOf(Profile::Durable);
    recordMinutes(*recorder, 0, 100);
    std::this_thread::sleep_for(milliseconds(2500)); // what waits for a quiet moment has had it
    timespec before = {}, later = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    std::this_thread::sleep_for(milliseconds(500));
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &later);
    const double seconds = double(later.tv_sec - before.tv_sec) + double(later.tv_nsec - before.tv_nsec) / 1e9;
    EXPECT_LT(seconds, 0.05);
}

TEST_F(Trims, WhateverLiesInThePlaceOfAShippersFile)
{
    auto recorder = recorderOf(Profile::Durable);
    Keep keep;
    keep.rows = 100;
    recorder->keep(boiler, keep);
    ASSERT_EQ(mkfifo((path() + ".shipped"_q).toLocal8Bit().constData(), 0600), 0);
    recordMinutes(*recorder, 0, 1000);
    EXPECT_EQ(rows(), 1000);
    QFile::remove(path() + ".shipped"_q);
    ASSERT_TRUE(QDir().mkdir(path() + ".shipped"_q));
    recordMinutes(*recorder, 1000, 3000);
    EXPECT_EQ(rows(), 3000);
}

TEST_F(Trims, OnAFullDiskFromTheFirstRowOnWithAReserve)
{
    if (QStorageInfo(QFileInfo(path()).path()).fileSystemType() == "overlay")
        GTEST_SKIP() << "a reserve is refused on a file system that does not overwrite in place";
    options.retention.ceiling = 12 * 1024 * 1024;
    options.retention.reserve = true;
    FaultyDisk disk;
    for (const bool isNew : {true, false}) {
        SCOPED_TRACE(isNew);
        auto recorder = recorderOf(Profile::Durable);
        disk.fail(FaultyDisk::NoLonger, 1000000);
        const qint64 before = isNew ? 0 : rows();
        recordMinutes(*recorder, 0, 20000);
        EXPECT_EQ(rows(), before + 20000);
        EXPECT_EQ(recorder->health().failedBatches, 0);
        disk.mend();
        require(recorder->stop(milliseconds(20000)));
    }
}

TEST_F(Trims, ForACeilingWhileRowsAreDeletedAndAReaderPinsTheLog)
{
    options.retention.ceiling = 8 * 1024 * 1024;
    auto recorder = recorderOf(Profile::Durable);
    for (int i = 0; i < 30000; ++i) // in no order: each deletion is a page of the index
        require(recorder->record(boiler, minutely(int(i * 7919LL % 30011))));
    require(recorder->flush(milliseconds(60000)));
    PlainConnection reader(path());
    reader.run("begin; select * from Boiler"_q);
    int deleted = -1;
    recorder->removeBefore(boiler, after(86400LL * 365), recorder.get(), [&](const Result<qint64> &) { deleted = 1; });
    qint64 most = 0;
    QElapsedTimer timer;
    timer.start();
    while (deleted < 0 && timer.elapsed() < 3000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        most = std::max(most, bytesOfFiles());
    }
    EXPECT_LE(most, options.retention.ceiling);
    EXPECT_LE(recorder->health().logBytes, options.retention.ceiling);
}

TEST_F(Trims, AndStoresEveryRowWhateverStopsIt)
{
    for (const char *broken : {"create trigger t before delete on Boiler begin select raise(abort,'no'); end",
                               "create trigger t before update on \"device keep\" begin select raise(abort,'no'); end",
                               "alter table \"device keep\" add column more"}) {
        SCOPED_TRACE(broken);
        removeFiles();
        auto recorder = recorderOf(Profile::Durable);
        int held = 0;
        QObject::connect(recorder.get(), &Recorder::retentionHeld, [&](const Error &) { ++held; });
        Keep keep;
        keep.rows = 500;
        recorder->keep(boiler, keep);
        recordMinutes(*recorder, 0, 1000);
        const qint64 trimmed = recorder->health().trimmed;
        OtherProgram(path()).run(QString::fromLatin1(broken));
        recordMinutes(*recorder, 1000, 5000);
        EXPECT_EQ(recorder->health().stored, 5000);
        EXPECT_EQ(recorder->health().trimmed - trimmed, 5000 - rows() - trimmed);
        EXPECT_TRUE(eventually([&] { return held > 0; }));
        EXPECT_LE(held, 2);
    }
}

TEST_F(Trims, NotTheNewestRowsForWhatAnotherProgramStores)
{
    options.retention.ceiling = 8 * 1024 * 1024;
    auto recorder = recorderOf(Profile::Durable);
    recordMinutes(*recorder, 0, 20000);
    QStringList troubles;
    QObject::connect(recorder.get(), &Recorder::troubled, [&](const Error &why) { troubles << why.text(); });
    OtherProgram(path()).run("create table Other(x); insert into Other values(zeroblob(6000000))"_q);
    for (int i = 20000; troubles.isEmpty() && i < 60000; ++i) {
        require(recorder->record(boiler, minutely(i)));
        if (i % 500 == 0)
            (void)recorder->flush(milliseconds(1000));
    }
    ASSERT_FALSE(troubles.isEmpty());
    EXPECT_TRUE(troubles.first().contains("nothing may be removed"_q)) << troubles.first().toStdString();
    EXPECT_GE(rows(), 10);
    OtherProgram(path()).run("drop table Other"_q);
    require(recorder->flush(milliseconds(20000)));
    EXPECT_EQ(recorder->health().dropped, 0);
}

TEST_F(Trims, ByAgeAlthoughTheFirstRowIsOfAWrongYear)
{
    for (const bool isAlone : {false, true}) { // believed until the others come
        SCOPED_TRACE(isAlone);
        removeFiles();
        auto recorder = recorderOf(Profile::Durable);
        Keep keep;
        keep.age = std::chrono::hours(240);
        recorder->keep(boiler, keep);
        require(recorder->record(boiler, {LocalTime(QDate(2099, 1, 1), QTime(0, 0)), "1"_q}));
        if (isAlone)
            require(recorder->flush(milliseconds(20000)));
        for (int today = 0; today < 40; ++today) {
            for (int i = 0; i < 96; ++i)
                require(recorder->record(boiler, {after(today * 86400 + i * 900), "1"_q}));
            require(recorder->flush(milliseconds(20000)));
        }
        EXPECT_TRUE(eventually([&] { return rows() <= 13 * 96; })) << rows();
        EXPECT_GE(rows(), 10 * 96);
    }
}

TEST_F(Trims, ByAgeAgainAWeekAfterTheDeviceWasOff)
{
    Keep keep;
    keep.age = std::chrono::hours(240);
    for (const int first : {0, 23}) { // thirteen days off in between
        auto recorder = recorderOf(Profile::Durable);
        recorder->keep(boiler, keep);
        for (int today = first; today < first + 10 + first; ++today) {
            for (int i = 0; i < 96; ++i)
                require(recorder->record(boiler, {after(today * 86400LL + i * 900), "1"_q}));
            require(recorder->flush(milliseconds(20000)));
        }
        EXPECT_TRUE(eventually([&] { return rows() <= 13 * 96; })) << rows();
    }
    EXPECT_GE(rows(), 10 * 96);
}

TEST_F(Trims, WhatWasHeldOnceItIsShippedWithFewRowsComing)
{
    auto recorder = recorderOf(Profile::Durable);
    recorder->hold(boiler, "archive"_q, 100);
    Keep keep;
    keep.rows = 1000;
    recorder->keep(boiler, keep);
    recordMinutes(*recorder, 0, 5000);
    EXPECT_EQ(first(), 101);
    recorder->release(boiler, "archive"_q);
    EXPECT_TRUE(eventually([&] { return rows() == 1000; })) << rows();
}

TEST_F(Trims, NothingWhileTheFileOfAShipperLeadsNowhere)
{
    ASSERT_TRUE(QFile::link(path() + ".not-there"_q, path() + ".shipped"_q));
    auto recorder = recorderOf(Profile::Durable);
    int held = 0;
    QObject::connect(recorder.get(), &Recorder::retentionHeld, [&](const Error &) { ++held; });
    Keep keep;
    keep.rows = 100;
    recorder->keep(boiler, keep);
    recordMinutes(*recorder, 0, 3000);
    EXPECT_EQ(rows(), 3000);
    EXPECT_TRUE(eventually([&] { return held == 1; }));
}

TEST_F(Trims, SumsByTheirOwnAgesAndATrendShowsWhatIsLeft)
{
    options.batchRows = 2000;
    auto recorder = recorderOf(Profile::Durable);
    recorder->keepTrend(boiler);
    const auto days = [](int count) { return std::chrono::hours(24) * count; };
    Keep keep;
    keep.age = days(5);
    keep.sums = {{TrendLevel::Minute, days(10)}, {TrendLevel::TenMinutes, days(20)}};
    recorder->keep(boiler, keep);
    QStringList held;
    QObject::connect(recorder.get(), &Recorder::retentionHeld, [&](const Error &why) { held << why.text(); });
    constexpr int minutes = 40 * 1440;
    for (int i = 0; i < minutes; i += 2000)
        recordMinutes(*recorder, i, std::min(minutes, i + 2000));
    require(recorder->stop(milliseconds(20000)));
    EXPECT_TRUE(held.isEmpty()) << held.first().toStdString();
    EXPECT_LE(rows(), 12 * 1440);
    EXPECT_EQ(rowsOf(path(), "select K>>36&15 as L,count(*) from \"device trend\" where L<3 group by 1"_q),
              (Rows{{"1"_q, QString::number(12 * 1440)}, {"2"_q, QString::number(22 * 144 - 1)}})); // to whole days
    Rows all;
    for (int i = 0; i < minutes; ++i)
        all << QStringList{QString::number(i + 1), minutely(i).time.toDateTime().toString("yyyy-MM-dd hh:mm:ss"_q),
                           minutely(i).value};
    auto store = require(HistoryStore::open(library(), path()));
    const auto look = [&](const char *from, const char *to, int columns, int width) {
        const QString begin = QString::fromLatin1(from), end = QString::fromLatin1(to);
        const Trend trend = require(store.trend(boiler, TrendQuery::between(at(begin), at(end)).columns(columns)));
        EXPECT_EQ(trend.width.count(), width) << from;
        expectSameColumns(trend.columns, columnsOf(all, begin, end, width));
        return trend;
    };
    EXPECT_FALSE(look("2024-01-01 00:00:00", "2024-02-09 23:59:59", 40, 86400).columns.first().exact);
    look("2024-01-03 00:00:00", "2024-01-03 23:59:59", 2000, 3600); // hours are all there is
    look("2024-01-25 00:00:00", "2024-01-25 23:59:59", 2000, 600);  // ten minutes are left
    look("2024-02-01 00:00:00", "2024-02-01 23:59:59", 2000, 60);   // and here minutes
    EXPECT_TRUE(look("2024-02-08 00:00:10", "2024-02-08 00:30:09", 2000, 1).columns.first().exact); // and here rows
    // A range that ends within an hour of which nothing finer is left shows the whole hour.
    const Trend part = require(
        store.trend(boiler, TrendQuery::between(at("2024-01-03 01:20:00"_q), at("2024-01-03 03:20:00"_q)).columns(10)));
    expectSameColumns(part.columns, columnsOf(all, "2024-01-03 01:00:00"_q, "2024-01-03 03:59:59"_q, 3600));
    EXPECT_FALSE(part.columns.last().exact);
}

TEST_F(Trims, WaitsForAReaderThatPinsTheLogAndNamesIt)
{
    options.retention.ceiling = 8 * 1024 * 1024;
    auto recorder = recorderOf(Profile::Durable);
    QStringList troubles;
    QObject::connect(recorder.get(), &Recorder::troubled, [&](const Error &why) { troubles << why.text(); });
    recordMinutes(*recorder, 0, 1000);
    auto reader = std::make_unique<PlainConnection>(path());
    reader->run("begin"_q);
    reader->run("select * from Boiler"_q);
    int next = 1000;
    while (troubles.isEmpty() && next < 400000) {
        for (const int end = next + 1000; next < end; ++next)
            require(recorder->record(boiler, minutely(next)));
        (void)recorder->flush(milliseconds(2000));
        ASSERT_LE(bytesOfFiles(), options.retention.ceiling);
    }
    ASSERT_FALSE(troubles.isEmpty());
    EXPECT_TRUE(troubles.first().contains("this program"_q)) << troubles.first().toStdString();
    reader.reset();
    require(recorder->flush(milliseconds(20000)));
    EXPECT_EQ(recorder->health().stored, next);
    EXPECT_EQ(recorder->health().dropped, 0);
    EXPECT_LE(bytesOfFiles(), options.retention.ceiling);
}

TEST_F(Trims, RefusesOptionsThatCannotWork)
{
    const auto refused = [&](const Keep &keep) {
        auto store = require(HistoryStore::open(library(), path()));
        (void)require(store.createTable(boiler));
        return codeOf(store.keep(boiler, keep));
    };
    Keep keep;
    keep.age = std::chrono::hours(0);
    EXPECT_EQ(refused(keep), Error::OptionRefused);
    keep.age = std::chrono::hours(10);
    keep.atLeast = std::chrono::hours(11);
    EXPECT_EQ(refused(keep), Error::OptionRefused);
    keep = {};
    keep.sums = {{TrendLevel::Minute, std::chrono::hours(100)}, {TrendLevel::Hour, std::chrono::hours(99)}};
    EXPECT_EQ(refused(keep), Error::OptionRefused);
    options.file.profile = Profile::Durable;
    const auto started = [&] { return HistoryRecorder(library(), path(), options).start(); };
    options.retention.ceiling = 1024 * 1024;
    EXPECT_TRUE(started().error().cause().contains("the least"_q)) << started().error().text().toStdString();
    options.retention.ceiling = 0;
    options.retention.reserve = true;
    EXPECT_TRUE(started().error().cause().contains("ceiling"_q)) << started().error().text().toStdString();
}

} // namespace
