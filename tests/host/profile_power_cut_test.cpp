// SPDX-License-Identifier: MIT
//
// What a power cut leaves of the batches that a typed store has acknowledged, in the profiles that promise something.
// DEVICE_FAULTS_CUTS is the number of cuts in each test, DEVICE_FAULTS_SEED chooses others.
#include "host_test.h"
#include "power_cut.h"

#include "device/store.h"

using namespace device;

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

    const Library library = require(Library::load(QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY)));
    const TableName boiler = table("Boiler"_q);
    MemoryDisk disk;
};

INSTANTIATE_TEST_SUITE_P(Profiles, ProfilePowerCut, ::testing::Values(Profile::Durable, Profile::Flash),
                         [](const auto &each) { return each.param == Profile::Durable ? "Durable" : "Flash"; });

TEST_P(ProfilePowerCut, TakesNothingOfDurableAndWholeBatchesOfFlash)
{
    const int cuts = fromEnvironment("DEVICE_FAULTS_CUTS", 50);
    const int seed = fromEnvironment("DEVICE_FAULTS_SEED", 1);
    int lost = 0;
    PowerCuts power(recordOfALife());
    for (int i = 0; i < cuts; ++i) {
        SCOPED_TRACE(::testing::Message() << "cut " << i << " of " << cuts << ", DEVICE_FAULTS_SEED=" << seed);
        std::seed_seq seeds{seed, i};
        std::mt19937 random(seeds);
        power.goTo(int(qint64(i) * power.moments() / cuts));
        const int acknowledged = std::max(0, power.noted());
        const int found = batchesIn(power.cut(random, 512));
        if (GetParam() == Profile::Durable) {
            EXPECT_GE(found, acknowledged);
        }
        EXPECT_LE(found, std::max(0, power.notedNext()));
        lost += found < acknowledged;
        if (HasFailure())
            return;
    }
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

} // namespace
