// SPDX-License-Identifier: MIT
//
// What a power cut leaves of the batches that a typed store has acknowledged, in the profiles that promise something.
// DEVICE_FAULTS_CUTS is the number of cuts in each test, DEVICE_FAULTS_SEED chooses others.
#include "host_test.h"
#include "power_cut.h"

#include "device/recorder.h"
#include "trend_reference.h"

using namespace device;
using std::chrono::milliseconds;

namespace
{

constexpr int batches = 60;
constexpr int batchRows = 5;

int fromEnvironment(const char *name, int otherwise)
{
    const int chosen = qEnvironmentVariableIntValue(name);
    return chosen > 0 ? chosen : otherwise;
}

class ProfilePowerCut : public ::testing::TestWithParam<Profile>
{
protected:
    Result<HistoryStore> open()
    {
        OpenOptions options;
        options.profile = GetParam();
        options.checkpointPages = 8;
        return HistoryStore::open(library, "store.db"_q, options);
    }

    /// A store's life; noted is how many batches were acknowledged.
    std::vector<DiskEvent> recordOfALife()
    {
        disk.record();
        HistoryStore store = require(open());
        require(store.createTable(boiler));
        for (int batch = 0; batch < batches; ++batch) {
            QList<Sample> rows;
            for (int i = 0; i < batchRows; ++i)
                rows << Sample(at("2024-05-06 07:08:09"_q), QString::number(batch * batchRows + i));
            EXPECT_EQ(require(store.append(boiler, rows)).stored, batchRows);
            disk.note(batch + 1);
        }
        return disk.takeRecord();
    }

    /// How many batches are in the file that a power cut left: the first ones, in order and whole.
    int batchesIn(const MemoryDisk::Files &left)
    {
        disk.setFiles(left);
        HistoryStore store = require(open());
        require(store.createTable(boiler));
        const QList<Sample> rows = require(store.read(boiler, Query<Sample>().oldestFirst()));
        EXPECT_EQ(rows.size() % batchRows, 0);
        for (int i = 0; i < rows.size(); ++i)
            EXPECT_EQ(rows.at(i).value, QString::number(i));
        EXPECT_EQ(valueOf("store.db"_q, "pragma integrity_check"_q), "ok"_q);
        return int(rows.size()) / batchRows;
    }

    /// Cuts the power at moments all over a life. `look` says how much is left; in `Durable` that is no less than what
    /// was noted by then.
    void cutAgainAndAgain(PowerCuts &power, const std::function<int(const MemoryDisk::Files &)> &look,
                          int rowsOfANote = 1, const std::function<void(int found, int acknowledged)> &also = {}) const
    {
        const int seed = fromEnvironment("DEVICE_FAULTS_SEED", 1);
        for (int i = 0; i < cuts && !HasFailure(); ++i) {
            SCOPED_TRACE(::testing::Message() << "cut " << i << " of " << cuts << ", DEVICE_FAULTS_SEED=" << seed);
            std::seed_seq seeds{seed, i};
            std::mt19937 random(seeds);
            power.goTo(int(qint64(i) * power.moments() / cuts));
            const int acknowledged = std::max(0, power.noted()) * rowsOfANote;
            const int found = look(power.cut(random, 512));
            if (GetParam() == Profile::Durable) {
                EXPECT_GE(found, acknowledged);
            }
            if (also)
                also(found, acknowledged);
        }
    }

    const int cuts = fromEnvironment("DEVICE_FAULTS_CUTS", 50);
    const Library library = require(Library::load(QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY)));
    const TableName boiler = table("Boiler"_q);
    MemoryDisk disk;
};

INSTANTIATE_TEST_SUITE_P(Profiles, ProfilePowerCut, ::testing::Values(Profile::Durable, Profile::Flash),
                         [](const auto &each) { return each.param == Profile::Durable ? "Durable" : "Flash"; });

TEST_P(ProfilePowerCut, TakesNothingOfDurableAndWholeBatchesOfFlash)
{
    int lost = 0;
    PowerCuts power(recordOfALife());
    cutAgainAndAgain(
        power, [this](const MemoryDisk::Files &left) { return batchesIn(left); }, 1,
        [&](int found, int acknowledged) {
            EXPECT_LE(found, std::max(0, power.notedNext()));
            lost += found < acknowledged;
        });
    std::printf("%d power cuts, %d took an acknowledged batch\n", cuts, lost);
}

TEST_P(ProfilePowerCut, TakesWhatIsNotSyncedYetOfFlashAlone)
{
    PowerCuts power(recordOfALife());
    int lost = 0;
    int found = 0;
    for (int i = 1; i <= 50; ++i) {
        power.goTo(int(qint64(i) * (power.moments() - 1) / 50));
        found = batchesIn(power.onlySynced());
        lost += found < power.noted();
    }
    EXPECT_EQ(lost > 0, GetParam() == Profile::Flash) << lost << " of 50";
    EXPECT_GT(found, 0) << "checkpoints sync";
}

// A recorder that keeps a trend and removes old rows. Only its own thread uses the disk.
class RecorderPowerCut : public ProfilePowerCut
{
protected:
    static constexpr int rowsKept = 60;
    const QString path = "/store.db"_q;

    static Sample sampleOf(int number)
    {
        return {at("2024-05-06 00:00:00"_q).toDateTime().addSecs(number * 40), QString::number(number % 37)};
    }

    std::vector<DiskEvent> recordOfALife()
    {
        disk.record();
        RecorderOptions options;
        options.file.profile = GetParam();
        options.file.checkpointPages = 8;
        options.batchRows = batchRows;
        HistoryRecorder recorder(library, path, options);
        require(recorder.start());
        recorder.createTable(boiler);
        recorder.keepTrend(boiler);
        Keep keep;
        keep.rows = rowsKept;
        recorder.keep(boiler, keep);
        for (int batch = 0; batch < batches; ++batch) {
            for (int i = 0; i < batchRows; ++i)
                require(recorder.record(boiler, sampleOf(batch * batchRows + i)));
            require(recorder.flush(milliseconds(20000)));
            disk.note(batch + 1);
        }
        require(recorder.stop(milliseconds(20000)));
        EXPECT_GT(recorder.health().trimmed, 0);
        return disk.takeRecord();
    }

    // How many rows were stored in all, those included that were removed.
    int expectWhole(const MemoryDisk::Files &left)
    {
        disk.setFiles(left);
        EXPECT_EQ(valueOf(path, "pragma integrity_check"_q), "ok"_q);
        HistoryStore store = require(HistoryStore::open(library, path));
        require(store.createTable(boiler));
        const QList<Sample> rows = require(store.read(boiler, Query<Sample>().oldestFirst()));
        const int first = rows.isEmpty() ? 0 : int(rows.first().id) - 1;
        const int end = first + int(rows.size());
        Rows all;
        for (int i = 0; i < end; ++i) {
            const Sample sample = sampleOf(i);
            all << QStringList{QString::number(i + 1), sample.time.toDateTime().toString("yyyy-MM-dd hh:mm:ss"_q),
                               sample.value};
            if (i >= first) {
                EXPECT_EQ(rows.at(i - first), sample);
            }
        }
        EXPECT_TRUE(first == 0 || rows.size() >= rowsKept) << first << " removed, " << rows.size() << " left";
        const QString from = "2024-05-06 00:00:00"_q;
        const QString to = "2024-05-06 23:59:59"_q;
        const Trend trend = require(store.trend(boiler, TrendQuery::between(at(from), at(to)).columns(100)));
        expectSameColumns(trend.columns, columnsOf(all, from, to, trend.width.count()));
        return end;
    }
};

INSTANTIATE_TEST_SUITE_P(Profiles, RecorderPowerCut, ::testing::Values(Profile::Durable, Profile::Flash),
                         [](const auto &each) { return each.param == Profile::Durable ? "Durable" : "Flash"; });

TEST_P(RecorderPowerCut, LeavesATrendOfAllRowsAndNeverFewerThanAreKept)
{
    PowerCuts power(recordOfALife());
    cutAgainAndAgain(
        power, [this](const MemoryDisk::Files &left) { return expectWhole(left); }, batchRows);
    std::printf("%d power cuts while rows are removed\n", cuts);
}

} // namespace
