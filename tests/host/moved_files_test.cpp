// SPDX-License-Identifier: MIT
//
// Files that are moved, deleted or replaced beneath a recorder or a store.
#include "recorder_fixture.h"

#include <cstdio>

namespace
{

using MovedFiles = Recorders;

TEST_F(MovedFiles, AFileThatIsDeletedIsMadeAgainAndWhatWasInItReported)
{
    for (const Profile profile : {Profile::AsIs, Profile::Durable, Profile::Flash}) {
        removeFiles();
        const auto recorder = recorderOf(profile);
        QStringList troubles;
        QObject::connect(recorder.get(), &Recorder::troubled, [&](const Error &why) { troubles << why.text(); });
        record(*recorder, 0, 100);
        require(recorder->flush(milliseconds(20000)));
        removeFiles();
        record(*recorder, 100, 300);
        require(recorder->flush(milliseconds(20000)));
        expectNumbers(path(), 100, 300);
        const Health health = recorder->health();
        EXPECT_EQ(health.stored, 300);
        EXPECT_EQ(health.movedAway, 100);
        EXPECT_EQ(health.trouble, QString());
        ASSERT_FALSE(troubles.isEmpty());
        EXPECT_TRUE(troubles.first().contains("100 rows that were stored before are in that file"_q))
            << troubles.first().toStdString();
        qint64 rows = -1;
        recorder->ask(
            recorder.get(), [this](HistoryStore &store) { return store.count(boiler); },
            [&](const Result<qint64> &count) { rows = require(count); });
        EXPECT_TRUE(eventually([&] { return rows >= 0; }));
        EXPECT_EQ(rows, 200) << "questions follow";
    }
}

TEST_F(MovedFiles, AFileThatIsMovedAndPutBackGoesOn)
{
    for (const Profile profile : {Profile::AsIs, Profile::Durable}) {
        removeFiles();
        QFile::remove(path("away.db"));
        const auto recorder = recorderOf(profile);
        record(*recorder, 0, 10);
        require(recorder->flush(milliseconds(20000)));
        ASSERT_TRUE(QFile::rename(path(), path("away.db")));
        // Another file of the same kind takes its place, as a rotation does.
        require(require(HistoryStore::open(library(), path())).createTable(boiler));
        record(*recorder, 10, 20);
        require(recorder->flush(milliseconds(20000)));
        expectNumbers(path(), 10, 20);
        require(recorder->stop(milliseconds(20000)));
    }
}

TEST_F(MovedFiles, AFileThatIsMovedAwayAloneTakesItsRowsAlong)
{
    const auto recorder = recorderOf(Profile::Durable);
    record(*recorder, 0, 300);
    require(recorder->flush(milliseconds(20000)));
    ASSERT_TRUE(QFile::rename(path(), path("away.db")));
    record(*recorder, 300, 310);
    require(recorder->flush(milliseconds(20000)));
    require(recorder->stop(milliseconds(20000)));
    expectNumbers(path(), 300, 310);
    expectNumbers(path("away.db"), 0, 300);
}

TEST_F(MovedFiles, ABackupMovedIntoThePlaceIsNotMixedWithTheLogOfTheOldFile)
{
    for (const bool byAQuestion : {false, true}) {
        removeFiles();
        {
            auto backup = require(HistoryStore::open(library(), path("backup.db")));
            require(backup.createTable(table("Other"_q)));
            require(backup.createTable(boiler));
            QList<Sample> rows;
            for (int i = 0; i < 500; ++i)
                rows << numbered(i);
            require(backup.append(boiler, rows));
        }
        const auto recorder = recorderOf(Profile::Durable);
        record(*recorder, 0, 3000);
        require(recorder->flush(milliseconds(20000)));
        ASSERT_EQ(std::rename(path("backup.db").toLocal8Bit().constData(), path().toLocal8Bit().constData()), 0);
        if (byAQuestion) {
            qint64 rows = -1;
            recorder->ask(
                recorder.get(), [this](HistoryStore &store) { return store.count(boiler); },
                [&](const Result<qint64> &count) { rows = require(count); });
            EXPECT_TRUE(eventually([&] { return rows >= 0; }));
            EXPECT_EQ(rows, 500);
        }
        record(*recorder, 500, 510);
        require(recorder->flush(milliseconds(20000)));
        require(recorder->stop(milliseconds(20000)));
        EXPECT_EQ(valueOf(path(), "pragma integrity_check"_q), "ok"_q);
        EXPECT_EQ(valueOf(path(), "select count(*) from Other"_q), "0"_q);
        expectNumbers(510);
    }
}

TEST_F(MovedFiles, AStoreWhoseFileWasReplacedLeavesNoLogToTheNext)
{
    OpenOptions durable;
    durable.profile = Profile::Durable;
    require(require(HistoryStore::open(library(), path("backup.db"))).createTable(boiler));
    auto store = std::make_unique<HistoryStore>(require(HistoryStore::open(library(), path(), durable)));
    require(store->createTable(boiler));
    for (int i = 0; i < 300; ++i)
        require(store->append(boiler, {numbered(i)}));
    ASSERT_EQ(std::rename(path("backup.db").toLocal8Bit().constData(), path().toLocal8Bit().constData()), 0);
    EXPECT_EQ(codeOf(store->append(boiler, {numbered(300)})), Error::FileMoved);
    store = std::make_unique<HistoryStore>(require(HistoryStore::open(library(), path(), durable)));
    require(store->append(boiler, {numbered(0)}));
    store.reset();
    EXPECT_EQ(valueOf(path(), "pragma integrity_check"_q), "ok"_q);
    expectNumbers(1);
}

TEST_F(MovedFiles, ALogThatIsDeletedLosesNoRowAndStoresNoneTwice)
{
    const auto recorder = recorderOf(Profile::Durable);
    record(*recorder, 0, 10);
    require(recorder->flush(milliseconds(20000)));
    ASSERT_TRUE(QFile::remove(path() + "-wal"_q));
    record(*recorder, 10, 20);
    require(recorder->flush(milliseconds(20000)));
    require(recorder->stop(milliseconds(20000)));
    expectNumbers(20);
}

TEST_F(MovedFiles, AFileThatWasMovedIsNoticedWhenTheRecorderStops)
{
    for (const Profile profile : {Profile::AsIs, Profile::Durable}) {
        removeFiles();
        QFile::remove(path("away.db"));
        const auto recorder = recorderOf(profile);
        QStringList troubles;
        QObject::connect(recorder.get(), &Recorder::troubled, [&](const Error &why) { troubles << why.text(); });
        record(*recorder, 0, 300);
        require(recorder->flush(milliseconds(20000)));
        ASSERT_TRUE(QFile::rename(path(), path("away.db")));
        require(recorder->stop(milliseconds(20000)));
        EXPECT_EQ(recorder->health().movedAway, 300);
        EXPECT_EQ(troubles.filter("300 rows that were stored before are in that file"_q).size(), 1);
        expectNumbers(path("away.db"), 0, 300);
    }
}

TEST_F(MovedFiles, AMovedStoreStoresNothing)
{
    for (const Profile profile : {Profile::AsIs, Profile::Durable}) {
        removeFiles();
        QFile::remove(path("away.db"));
        OpenOptions opened;
        opened.profile = profile;
        {
            auto store = require(HistoryStore::open(library(), path(), opened));
            require(store.createTable(boiler));
            require(store.append(boiler, {numbered(0)}));
            ASSERT_TRUE(QFile::rename(path(), path("away.db")));
            for (int i = 0; i < 2; ++i)
                EXPECT_EQ(codeOf(store.append(boiler, {numbered(1)})), Error::FileMoved);
        }
        expectNumbers(path("away.db"), 0, 1);
    }
}

} // namespace
