// SPDX-License-Identifier: MIT
//
// No row leaves a table before its trend has it, whoever removes it and whatever is wrong with the trend.
#include "trend_fixture.h"

namespace
{

class TrendRemoval : public Trends
{
protected:
    std::unique_ptr<HistoryRecorder> keeping(qint64 rows)
    {
        auto recorder = trendRecorder();
        QObject::connect(recorder.get(), &Recorder::trendFailed, [this](const Error &why) { failures << why.text(); });
        Keep keep;
        keep.rows = rows;
        recorder->keep(boiler, keep);
        return recorder;
    }
    void recordAll(HistoryRecorder &recorder, int first, int end) const
    {
        record(recorder, first, end);
        require(recorder.flush(milliseconds(20000)));
    }
    // What removed rows need: the first that is there follows the mark, or is below it.
    bool allRemovedRowsAreSummedUp() const
    {
        return valueOf(path(), "select (select MARK from \"device trend series\")>=(select min(ID) from Boiler)-1"_q) ==
               "1"_q;
    }
    qint64 rowsInTheTrend() const
    {
        qint64 rows = 0;
        for (const TrendColumn &column : trend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 1).columns)
            rows += column.rows;
        return rows;
    }

    QStringList failures;
};

// Sums wait in memory for a minute. A program that is killed after the removal would never write them.
TEST_F(TrendRemoval, RowsThatTheProgramRemovesAreSummedUpBefore)
{
    auto recorder = trendRecorder();
    recordAll(*recorder, 0, 1500);
    std::optional<qint64> removed;
    recorder->keepNewest(boiler, 10, recorder.get(),
                         [&](const Result<qint64> &answer) { removed = answer.valueOr(-1); });
    ASSERT_TRUE(eventually([&] { return removed.has_value(); }));
    EXPECT_EQ(*removed, 1490);
    EXPECT_TRUE(allRemovedRowsAreSummedUp());
}

// The audit mends such a sum; until then the rows wait.
TEST_F(TrendRemoval, RowsOfATrendThatWasGivenUpStay)
{
    options.auditPause = milliseconds::max();
    auto recorder = keeping(500);
    recordAll(*recorder, 0, 3000);
    ASSERT_TRUE(eventually([&] { return valueOf(path(), "select count(*) from Boiler"_q) == "500"_q; }));
    OtherProgram(path()).run("update \"device trend\" set D='two'"_q);
    recordAll(*recorder, 3000, 5000);
    ASSERT_TRUE(eventually([&] { return !failures.isEmpty(); }));
    recordAll(*recorder, 5000, 9000);
    recorder->trimNow(boiler);
    recordAll(*recorder, 9000, 9100);
    EXPECT_TRUE(allRemovedRowsAreSummedUp());
    EXPECT_EQ(failures.size(), 1);
    require(recorder->stop(milliseconds(20000)));
    EXPECT_TRUE(allRemovedRowsAreSummedUp());
}

TEST_F(TrendRemoval, RowsOfATrendOfALaterVersionStayAndItIsTold)
{
    auto recorder = trendRecorder();
    recordAll(*recorder, 0, 1000);
    require(recorder->stop(milliseconds(20000)));
    OtherProgram(path()).run("update \"device trend series\" set VERSION=2"_q);
    options.file.profile = Profile::Durable;
    HistoryRecorder other(library(), path(), options);
    QObject::connect(&other, &Recorder::trendFailed, [this](const Error &why) { failures << why.text(); });
    require(other.start());
    Keep keep;
    keep.rows = 100;
    other.keep(boiler, keep);
    recordAll(other, 1000, 3000);
    ASSERT_TRUE(eventually([&] { return !failures.isEmpty(); }));
    EXPECT_TRUE(failures.first().contains("its trend is of version 2; this program knows version 1"_q))
        << failures.first().toStdString();
    other.trimNow(boiler);
    recordAll(other, 3000, 3100);
    require(other.stop(milliseconds(20000)));
    EXPECT_EQ(valueOf(path(), "select count(*) from Boiler"_q), "3100"_q);
}

// A file that is full refuses new rows, and these count more.
TEST_F(TrendRemoval, ATrendThatWasGivenUpGivesWayToTheCeiling)
{
    options.auditPause = milliseconds::max();
    options.batchRows = 100;
    options.file.checkpointPages = 100;
    options.retention.ceiling = 6500000;
    auto recorder = trendRecorder();
    qint64 trimmed = 0;
    QObject::connect(recorder.get(), &Recorder::trimmed, [&](const QString &, qint64 rows) { trimmed += rows; });
    recordAll(*recorder, 0, 2000);
    OtherProgram(path()).run("update \"device trend\" set D='two'"_q);
    for (int i = 2000; trimmed == 0 && i < 200000; i += 1000)
        recordAll(*recorder, i, i + 1000);
    EXPECT_GT(trimmed, 0);
    require(recorder->stop(milliseconds(20000)));
    EXPECT_EQ(recorder->health().dropped + recorder->health().refused, 0);
}

// IDs begin at 1 again, below the mark of the rows that were there before.
TEST_F(TrendRemoval, RowsThatComeAfterTheTableWasEmptiedAreSummedUp)
{
    for (const bool byAnother : {false, true}) {
        SCOPED_TRACE(byAnother);
        removeFiles();
        auto recorder = keeping(500);
        recordAll(*recorder, 0, 6000);
        if (byAnother) {
            OtherProgram(path()).run(
                "begin;delete from Boiler;delete from sqlite_sequence where name='Boiler';commit"_q);
        } else {
            bool isCleared = false;
            recorder->clear(boiler, recorder.get(), [&](const Result<qint64> &) { isCleared = true; });
            ASSERT_TRUE(eventually([&] { return isCleared; }));
        }
        recordAll(*recorder, 6000, 7500);
        recorder->trimNow(boiler);
        recordAll(*recorder, 7500, 7600);
        require(recorder->stop(milliseconds(20000)));
        recorder = trendRecorder();
        ASSERT_TRUE(catchesUp());
        require(recorder->stop(milliseconds(20000)));
        EXPECT_EQ(rowsInTheTrend(), 1600);
    }
}

} // namespace
