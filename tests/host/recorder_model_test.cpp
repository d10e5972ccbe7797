// SPDX-License-Identifier: MIT
//
// Random lives of a recorder: rows, tables, questions, deletions of what is old, locks, disks that fail, files that are
// moved away, event loops within slots, stops and starts. At each step the counters agree; at the end of each life
// every row that was announced is in a file, once and in order, and every other accepted row was reported.
//
// DEVICE_HOST_STEPS: how many (20,000). DEVICE_HOST_SEED: which.
#include "faulty_disk.h"
#include "recorder_fixture.h"

#include <QFile>

#include <map>
#include <random>
#include <set>
#include <thread>

#include <sqlite3.h>

namespace
{

int environment(const char *name, int otherwise)
{
    return qEnvironmentVariableIsSet(name) ? qEnvironmentVariableIntValue(name) : otherwise;
}

class Life
{
public:
    Life(const Library &library, const QString &folder, unsigned seed, FaultyDisk &disk)
        : m_library(library), m_folder(folder), m_random(seed), m_disk(disk)
    {
    }

    int live(int steps)
    {
        begin();
        const int length = std::min(steps, 200 + pick(3000));
        for (int i = 0; i < length && !::testing::Test::HasFailure(); ++i) {
            step();
            const Health health = m_recorder->health();
            EXPECT_EQ(health.accepted, health.stored + health.dropped + health.depth);
            EXPECT_EQ(health.accepted, m_accepted);
        }
        end();
        return length;
    }

    static qint64 s_stored, s_dropped, s_failedBatches, s_moved, s_answers, s_nested;

private:
    int pick(int below) { return int(m_random() % unsigned(below)); }
    bool chance(int in) { return pick(in) == 0; }
    QString file() const { return m_folder + "/life.db"_q; }

    void begin()
    {
        RecorderOptions options;
        options.file.profile = Profile(pick(3));
        options.file.deadline = milliseconds(pick(5));
        options.file.checkpointPages = 1 + pick(50);
        options.batchRows = 1 + pick(60);
        options.batchTime = milliseconds(pick(20));
        options.capacity = 1 + pick(300);
        options.capacityBytes = 5000 + pick(100000);
        options.whenFull = WhenFull(pick(3));
        options.waitAtMost = milliseconds(pick(3));
        options.giveUpAfter = milliseconds(chance(2) ? 0 : pick(300));
        m_recorder = std::make_unique<AlarmRecorder>(m_library, file(), options);
        AlarmRecorder *const recorder = m_recorder.get();
        QObject::connect(recorder, &AlarmRecorder::raised, [this](const Alarm &alarm) {
            EXPECT_TRUE(m_announced.insert(alarm.level).second) << alarm.level << " is announced twice";
            if (chance(300)) { // as a dialog does
                ++s_nested;
                QCoreApplication::processEvents(QEventLoop::AllEvents, 2);
            }
        });
        QObject::connect(recorder, &Recorder::dropped, [this](const QString &, int rows) { m_reported += rows; });
        if (chance(2))
            start();
        for (const TableName &table : m_tables)
            recorder->createTable(table);
    }

    void start()
    {
        if (std::exchange(m_started, true))
            return;
        require(m_recorder->start());
    }

    void step()
    {
        const int what = pick(1000);
        if (what < 700) {
            record();
        } else if (what < 800) {
            QCoreApplication::processEvents();
        } else if (what < 840) {
            m_recorder->flushSoon();
        } else if (what < 860) {
            (void)m_recorder->flush(milliseconds(pick(10)));
        } else if (what < 900) {
            ask();
        } else if (what < 920) {
            m_recorder->createTable(m_tables.at(pick(int(m_tables.size()))));
        } else if (what < 940) {
            start();
        } else if (what < 970) {
            static const FaultyDisk::Fault faults[] = {FaultyDisk::Full, FaultyDisk::WriteFails, FaultyDisk::SyncFails,
                                                       FaultyDisk::DeleteFails, FaultyDisk::DeleteDenies};
            m_disk.fail(faults[pick(5)], 1 + pick(chance(4) ? 200 : 3), pick(20));
        } else if (what < 980) {
            m_disk.mend();
        } else if (what < 994) {
            lock();
        } else if (what < 996) {
            moveAway();
        } else if (what < 998) {
            m_recorder->removeBefore(m_tables.first(), at("1999-01-01 00:00:00"_q), nullptr,
                                     [](const Result<qint64> &) { ++s_answers; });
            ++m_asked;
        } else {
            std::this_thread::sleep_for(milliseconds(pick(10)));
        }
    }

    void record()
    {
        Alarm alarm;
        alarm.level = m_next;
        alarm.start = at("2024-05-06 07:08:09"_q);
        alarm.description = chance(50) ? QString(pick(3000), QLatin1Char('x')) : QString();
        if (chance(100))
            alarm.object = QString(QChar(0)); // refused
        const TableName table = chance(60) ? m_missing : m_tables.at(pick(int(m_tables.size())));
        if (!m_recorder->raise(table, alarm))
            return;
        m_order[table.text()].append(m_next++);
        ++m_accepted;
    }

    void ask()
    {
        ++m_asked;
        m_recorder->ask(
            nullptr, [table = m_tables.first()](AlarmStore &store) { return store.count(table); },
            [](const Result<qint64> &) { ++s_answers; });
    }

    void lock()
    {
        if (m_locking || !QFile::exists(file())) {
            m_locking.reset();
            return;
        }
        sqlite3 *connection = nullptr;
        sqlite3_open_v2(file().toUtf8().constData(), &connection, SQLITE_OPEN_READWRITE, nullptr);
        m_locking.reset(connection);
        sqlite3_exec(connection, chance(2) ? "begin immediate" : "begin; select count(*) from sqlite_master", nullptr,
                     nullptr, nullptr);
    }

    // As a rotation does that knows what it is doing: with the log, and between two transactions.
    void moveAway()
    {
        m_locking.reset();
        m_disk.mend();
        if (!QFile::exists(file()))
            return;
        OtherProgram program(file());
        program.run("begin exclusive"_q);
        const QString away = m_folder + "/away%1.db"_q.arg(m_away.size());
        for (const QString &end : {QString(), "-wal"_q, "-shm"_q})
            QFile::rename(file() + end, away + end);
        program.run("rollback"_q);
        m_away << away;
        ++s_moved;
    }

    void end()
    {
        m_locking.reset();
        m_disk.mend();
        start();
        const bool abrupt = chance(5);
        (void)m_recorder->stop(milliseconds(abrupt ? 0 : 60000));
        const Health health = m_recorder->health();
        EXPECT_EQ(health.depth, 0);
        EXPECT_EQ(health.accepted, health.stored + health.dropped);
        EXPECT_EQ(health.dropped, m_reported);
        EXPECT_EQ(health.stored, qint64(m_announced.size()));
        s_stored += health.stored;
        s_dropped += health.dropped;
        s_failedBatches += health.failedBatches;
        QCoreApplication::processEvents();
        m_recorder.reset();
        compare(abrupt);
    }

    void compare(bool abrupt)
    {
        std::set<int> found;
        for (const QString &each : m_away + QStringList{file()}) {
            if (!QFile::exists(each))
                continue;
            PlainConnection connection(each);
            EXPECT_EQ(connection.value("pragma integrity_check"_q), "ok"_q);
            for (const TableName &table : m_tables) {
                if (connection.run("select 1 from sqlite_master where name='%1'"_q.arg(table.text())).isEmpty())
                    continue;
                int last = -1;
                for (const QStringList &row :
                     connection.run("select LevelID from %1 order by ID"_q.arg(table.text()))) {
                    const int number = row.first().toInt();
                    EXPECT_GT(number, last) << each.toStdString() << ": out of order or twice";
                    last = number;
                    found.insert(number);
                    // What was not announced is in no file but one that was moved away in the moment of its commit, or
                    // that could not be asked any more.
                    if (each == file() && !abrupt) {
                        EXPECT_TRUE(m_announced.count(number)) << number << " is in the file and was called lost";
                    }
                }
            }
        }
        for (const int number : m_announced)
            EXPECT_TRUE(found.count(number)) << number << " was announced and is nowhere";
    }

    struct Close {
        void operator()(sqlite3 *connection) const { sqlite3_close(connection); }
    };

    const Library &m_library;
    const QString m_folder;
    std::mt19937 m_random;
    FaultyDisk &m_disk;
    const QVector<TableName> m_tables{table("A"_q), table("B"_q), table("C"_q)};
    const TableName m_missing = table("Missing"_q);
    std::unique_ptr<AlarmRecorder> m_recorder;
    std::unique_ptr<sqlite3, Close> m_locking;
    bool m_started = false;
    int m_next = 0;
    qint64 m_accepted = 0;
    qint64 m_reported = 0;
    int m_asked = 0;
    std::set<int> m_announced;
    std::map<QString, QVector<int>> m_order;
    QStringList m_away;
};

qint64 Life::s_stored, Life::s_dropped, Life::s_failedBatches, Life::s_moved, Life::s_answers, Life::s_nested;

class RecorderModel : public HostTest
{
};

TEST_F(RecorderModel, EveryAcceptedRowIsInAFileOnceOrReported)
{
    const unsigned first = unsigned(environment("DEVICE_HOST_SEED", int(std::random_device()() % 1000000)));
    std::printf("seed %u\n", first);
    const int steps = environment("DEVICE_HOST_STEPS", 20000);
    FaultyDisk disk;
    unsigned seed = first;
    for (int done = 0; done < steps && !HasFailure(); ++seed) {
        SCOPED_TRACE("DEVICE_HOST_SEED=" + std::to_string(seed));
        QTemporaryDir folder;
        done += Life(library(), folder.path(), seed, disk).live(steps - done);
    }
    std::printf(
        "%d steps in %u lives: %lld rows stored, %lld reported lost, %lld batches failed at first, %d calls to the "
        "disk failed, %lld files moved away, %lld questions answered, %lld nested loops\n",
        steps, seed - first, Life::s_stored, Life::s_dropped, Life::s_failedBatches, disk.failures(), Life::s_moved,
        Life::s_answers, Life::s_nested);
    EXPECT_GT(Life::s_failedBatches, 0) << "nothing was provoked";
}

} // namespace
