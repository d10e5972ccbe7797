// SPDX-License-Identifier: MIT
//
// Power cuts: a store writes, the power goes at any moment, and the file is opened again through the library. All that
// was acknowledged must be there, each batch whole or not at all, and the file in order.
//
// DEVICE_FAULTS_CUTS is the number of cuts in each test; at 2000 every moment is cut more than once. DEVICE_FAULTS_SEED
// chooses others; the same two numbers give the same cuts.
#include "contract.h"
#include "file_content.h"
#include "power_cut.h"

namespace
{

using Store = interface_data_base;

const QString path = "store.db"_q;

/// How a host has the file written, and what a power cut may take of what was acknowledged.
struct Mode {
    const char *name;
    int kinds;
    const char *pragmas; ///< The host's statements, by execSQL.
    int mayLose;         ///< Transactions.
};

constexpr int any = 1000;
const Mode modes[] = {
    // SQLite removes the journal and does not sync the folder: the journal may come back and undo the last commit.
    {"delete", EveryKind, "", 1},
    {"delete_extra", History | Alarm, "PRAGMA synchronous=extra", 0},
    {"truncate", History | Alarm, "PRAGMA journal_mode=truncate", 0},
    {"wal", EveryKind, "PRAGMA journal_mode=wal; PRAGMA wal_autocheckpoint=8", 0},
    // Synced at checkpoints alone.
    {"wal_normal", History | Alarm, "PRAGMA journal_mode=wal; PRAGMA synchronous=normal", any},
};

struct Case {
    Kind kind;
    const Mode *mode;
};

void PrintTo(const Case &each, std::ostream *out)
{
    *out << keyOf(each.kind) << ", " << each.mode->name;
}

std::vector<Case> cases()
{
    std::vector<Case> all;
    for (const Mode &mode : modes)
        for (const Kind kind : {History, Alarm, OperatorLog})
            if (mode.kinds & kind)
                all.push_back({kind, &mode});
    return all;
}

int fromEnvironment(const char *name, int otherwise)
{
    const int chosen = qEnvironmentVariableIntValue(name);
    return chosen > 0 ? chosen : otherwise;
}

class PowerCut : public ::testing::TestWithParam<Case>
{
protected:
    Kind kind() const { return GetParam().kind; }
    const Mode &mode() const { return *GetParam().mode; }

    /// Opens as a host does that wants this mode.
    void open(Store &store)
    {
        ASSERT_EQ(store.openDB(path), SQLITE_OK);
        Rows rows;
        if (kind() != OperatorLog && *mode().pragmas) {
            ASSERT_TRUE(store.execSQL({QString::fromLatin1(mode().pragmas)}, rows, 0));
        }
    }

    /// Rows with a text of their own.
    QList<QStringList> batch(int rows)
    {
        QList<QStringList> all;
        for (int i = 0; i < rows; ++i) {
            all.append(Outcome(kind()).input.first());
            freeText(all.last()) = "batch %1 row %2 "_q.arg(m_batches).arg(i) + QString(200, QLatin1Char('x'));
        }
        ++m_batches;
        return all;
    }

    /// Everything that a store can write, from a missing file on; the disk's record of it. Each operation that has
    /// returned is noted with the number of the state that the file is in from then on.
    std::vector<DiskEvent> recordOfALife();

    /// Opens what the power cut left, through the library. What the file holds then.
    QString recovered(const MemoryDisk::Files &left, bool writeMore);

    MemoryDisk disk;
    DebugLog log;
    SqliteCalls calls;
    std::vector<QString> states; ///< What the file holds after each transaction.
    int m_batches = 0;
};

std::string nameOfCase(const ::testing::TestParamInfo<Case> &info)
{
    return std::string(keyOf(info.param.kind)) + "_" + info.param.mode->name;
}
INSTANTIATE_TEST_SUITE_P(Modes, PowerCut, ::testing::ValuesIn(cases()), nameOfCase);

std::vector<DiskEvent> PowerCut::recordOfALife()
{
    disk.setFiles({});
    if (kind() == OperatorLog && *mode().pragmas) { // a history store sets what the file keeps
        const library::StorePtr history = library::store("historyDB");
        Rows rows;
        EXPECT_EQ(history->openDB(path), SQLITE_OK);
        EXPECT_TRUE(history->execSQL({QString::fromLatin1(mode().pragmas)}, rows, 0));
    }
    disk.record();
    disk.note(0);
    QStringList done; // all that changed something; in the file as soon as the operation has returned
    std::vector<QStringList> transactions{{}};
    calls.takeCalls();
    const auto run = [&](auto operation, bool isOneTransaction = true) {
        operation();
        for (const SqliteCall &call : calls.takeCalls()) {
            if (call.code != SQLITE_OK || !changesContent(call.text))
                continue;
            done.append(call.text);
            if (!isOneTransaction)
                transactions.push_back(done);
        }
        if (done != transactions.back())
            transactions.push_back(done);
        disk.note(int(transactions.size()) - 1);
    };
    const QString table = "AlarmData"_q;
    const auto insert = [&](Store &store, int rows) {
        QList<QStringList> input = batch(rows);
        run([&] { store.insertManyDatas(input, table); });
    };

    const library::StorePtr store = library::store(keyOf(kind()));
    run([&] { open(*store); });
    run([&] { store->createTable(table, "Boiler"_q); }, false);
    insert(*store, 1);
    insert(*store, 3);
    insert(*store, 40);                                // several pages
    run([&] { store->insertConfig("T1"_q, "N1"_q); }); // without a word where there is no tb_config
    run([&] { store->deleteDataForMax(20, table); });
    insert(*store, 2);
    run([&] { store->createTable("Other"_q, "Pump"_q); }, false);
    run([&] { store->dbWalCheckPoint(); });
    insert(*store, 30);
    if (kind() != OperatorLog) {
        Rows rows;
        const QString update = "update AlarmData set DATETIME='2024-05-08 00:00:00' where ID % %1 = 0"_q;
        run([&] { store->execSQL({update.arg(2), update.arg(3)}, rows, 2); });
    }
    run([&] { store->vacuumSqliteDB(); });
    insert(*store, 5);
    run([&] { store->deleteTable(table, "9999-12-31 23:59:59"_q); });
    run([&] { store->resetID(table); });
    insert(*store, 3);
    run([&] { store->closeDB(); });
    run([&] { open(*store); });
    insert(*store, 12);
    insert(*store, 1);
    std::vector<DiskEvent> record = disk.takeRecord();
    EXPECT_EQ(store->closeDB(), SQLITE_OK);

    Replay replay(disk, {}, path);
    states.clear();
    for (const QStringList &statements : transactions)
        states.push_back(replay.contentAfter(statements));
    return record;
}

QString PowerCut::recovered(const MemoryDisk::Files &left, bool writeMore)
{
    disk.setFiles(left);
    const library::StorePtr store = library::store(keyOf(kind()));
    log.take();
    EXPECT_EQ(store->openDB(path), SQLITE_OK);
    const bool stands = store->tableIsExist("AlarmData"_q); // the first statement recovers the file
    const int rows = stands ? store->getDataCountOfTable("AlarmData"_q) : 0;
    EXPECT_EQ(store->closeDB(), SQLITE_OK);
    EXPECT_EQ(log.take(), QStringList());
    const QString content = contentOf(path);
    if (writeMore && stands) {
        EXPECT_EQ(store->openDB(path), SQLITE_OK);
        QList<QStringList> input = batch(3);
        store->insertManyDatas(input, "AlarmData"_q);
        EXPECT_EQ(store->getDataCountOfTable("AlarmData"_q), rows + 3);
        EXPECT_EQ(store->closeDB(), SQLITE_OK);
        EXPECT_EQ(log.take(), QStringList());
        EXPECT_EQ(valueOf(path, "PRAGMA integrity_check"_q), "ok"_q);
    }
    return content;
}

TEST_P(PowerCut, LosesNothingThatWasAcknowledgedAndKeepsBatchesWhole)
{
    const int cuts = fromEnvironment("DEVICE_FAULTS_CUTS", 50);
    const int seed = fromEnvironment("DEVICE_FAULTS_SEED", 1);
    const sqlite3_int64 memoryBefore = sqlite3_memory_used();
    int lost = 0, again = 0;
    for (const int sectorSize : {512, 4096}) {
        disk.setSectorSize(sectorSize);
        PowerCuts power(recordOfALife());
        for (int i = 0; i < cuts / 2; ++i) {
            SCOPED_TRACE(::testing::Message() << "DEVICE_FAULTS_CUTS=" << cuts << " DEVICE_FAULTS_SEED=" << seed
                                              << ", cut " << i << " with sectors of " << sectorSize);
            std::seed_seq seeds{seed, sectorSize, i};
            std::mt19937 random(seeds);
            power.goTo(int(qint64(i) * power.moments() / (cuts / 2)));
            MemoryDisk::Files left = power.cut(random, sectorSize);
            if (random() % 4 == 0) { // and the power goes once more while the file is recovered
                disk.setFiles(left);
                disk.record();
                {
                    const library::StorePtr store = library::store(keyOf(kind()));
                    EXPECT_EQ(store->openDB(path), SQLITE_OK);
                    store->tableIsExist("AlarmData"_q);
                }
                PowerCuts recovery(disk.takeRecord());
                recovery.goTo(int(random() % unsigned(recovery.moments())));
                left = recovery.cut(random, sectorSize);
                ++again;
            }
            const QString content = recovered(left, random() % 4 == 0);
            const int acknowledged = power.noted();
            const int last = power.notedNext();
            const int first = std::max(0, acknowledged - mode().mayLose);
            int state = last;
            while (state > first && states[size_t(state)] != content)
                --state;
            EXPECT_EQ(content, states[size_t(state)]) << "none of the states " << first << " to " << last
                                                      << ", of which " << acknowledged << " was acknowledged";
            EXPECT_EQ(disk.openFiles(), 0);
            lost += state < acknowledged;
            if (HasFailure())
                return;
        }
    }
    EXPECT_EQ(sqlite3_memory_used(), memoryBefore);
    std::printf("%s, %s: %d power cuts, %d of them cut again while recovering; %d took a batch that was acknowledged\n",
                keyOf(kind()), mode().name, cuts, again, lost);
}

TEST_P(PowerCut, TakesTheLastBatchOnlyWhereTheModeDoesNotSyncIt)
{
    PowerCuts power(recordOfALife());
    power.goTo(power.moments() - 1);
    const QString content = recovered(power.onlySynced(), true);
    EXPECT_EQ(content == states.back(), mode().mayLose == 0);
    EXPECT_NE(content, states.front());
}

} // namespace
