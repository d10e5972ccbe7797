// SPDX-License-Identifier: MIT
//
// The recorder where it is rough: other processes that lock the file, a disk that stalls.
#include "host_test.h"
#include "slow_disk.h"

#include "device/recorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <random>
#include <thread>

#include <csignal>

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace device;
using std::chrono::milliseconds;

namespace
{

// Seconds of each long test; ten minutes in the long form.
int seconds()
{
    return qEnvironmentVariableIsSet("DEVICE_HOST_SECONDS") ? qEnvironmentVariableIntValue("DEVICE_HOST_SECONDS") : 3;
}

/// A second process that reads the file and holds its read lock for random whiles, until it is destroyed. It
/// is forked before this process has threads or connections.
class Reader
{
public:
    Reader(const QString &path, unsigned seed) : m_process(fork())
    {
        if (m_process != 0)
            return;
        std::mt19937 random(seed);
        for (;;) {
            sqlite3 *connection = nullptr;
            if (sqlite3_open_v2(path.toUtf8().constData(), &connection, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
                for (int i = 0; i < 20; ++i) {
                    sqlite3_exec(connection, "begin; select count(*) from Boiler", nullptr, nullptr, nullptr);
                    usleep(random() % 60000);
                    sqlite3_exec(connection, "rollback", nullptr, nullptr, nullptr);
                    usleep(random() % 20000);
                    if (getppid() == 1)
                        _exit(0);
                }
            }
            sqlite3_close(connection);
        }
    }
    ~Reader()
    {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }

private:
    Q_DISABLE_COPY(Reader)
    const pid_t m_process;
};

class Rough : public HostTest
{
protected:
    const TableName boiler = table("Boiler"_q);

    static Sample numbered(qint64 number)
    {
        return {LocalTime(QDate(2024, 5, 6), QTime(0, 0).addSecs(int(number % 86400))), QString::number(number)};
    }
};

TEST_F(Rough, WhileAnotherProcessMakesCommitsFailEveryAcceptedRowIsStoredOnce)
{
    const Reader reader(path(), std::random_device()());
    RecorderOptions options;
    options.file.deadline = milliseconds(30);
    options.batchRows = 50;
    options.batchTime = milliseconds(20);
    options.capacity = 1000;
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    QVector<qint64> accepted;
    std::atomic<qint64> announced{0};
    QObject::connect(
        &recorder, &Recorder::stored, &recorder, [&](const QString &, int rows) { announced += rows; },
        Qt::DirectConnection);
    QElapsedTimer timer;
    timer.start();
    for (qint64 number = 0; timer.elapsed() < seconds() * 1000; ++number) {
        if (recorder.record(boiler, numbered(number)))
            accepted.append(number);
        if (number % 10 == 0)
            std::this_thread::sleep_for(milliseconds(2));
    }
    require(recorder.stop(std::chrono::seconds(120)));
    const Health health = recorder.health();
    EXPECT_GT(health.failedCommits, 0) << "nothing was provoked";
    EXPECT_EQ(health.accepted, accepted.size());
    EXPECT_EQ(health.stored, accepted.size());
    EXPECT_EQ(announced, accepted.size());
    EXPECT_EQ(health.dropped, 0);
    EXPECT_EQ(health.depth, 0);
    RecordProperty("accepted", int(health.accepted));
    RecordProperty("failedCommits", int(health.failedCommits));
    std::printf(
        "%lld rows accepted, %lld refused; %lld commits failed, %lld batches tried again, p50 %.0f ms, p99 %.0f ms\n",
        health.accepted, health.refused, health.failedCommits, health.failedBatches, health.latencyP50,
        health.latencyP99);
    const Rows rows = rowsOf(path(), "select Value from Boiler order by ID"_q);
    ASSERT_EQ(rows.size(), accepted.size());
    for (int i = 0; i < accepted.size(); ++i)
        ASSERT_EQ(rows.at(i).first(), QString::number(accepted.at(i)));
}

TEST_F(Rough, ADiskThatIsStuckHoldsUpNobody)
{
    SlowDisk disk(0);
    HistoryRecorder recorder(library(), path(), {});
    require(recorder.start());
    recorder.createTable(boiler);
    require(recorder.record(boiler, numbered(0)));
    require(recorder.flush(milliseconds(20000)));
    disk.hold();
    for (int i = 1; i < 10000; ++i)
        require(recorder.record(boiler, numbered(i)));
    EXPECT_EQ(recorder.health().depth, 9999);
    disk.release();
    require(recorder.stop(std::chrono::seconds(120)));
    EXPECT_EQ(recorder.health().stored, 10000);
    EXPECT_EQ(valueOf(path(), "select count(*) from Boiler"_q), "10000"_q);
}

// How long the calls take is printed, for the figures in docs/host.md.
TEST_F(Rough, EverythingIsStoredWhileTheDiskIsSlow)
{
    constexpr int stall = 250; // milliseconds for each sync
    const SlowDisk disk(stall);
    RecorderOptions options;
    options.capacity = 1000000;
    options.batchRows = 5000;
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);

    qint64 number = 0;
    qint64 longestCall = 0;
    QTimer timer; // fifty rows every ten milliseconds: 5,000 a second
    timer.setTimerType(Qt::PreciseTimer);
    QElapsedTimer sinceStart;
    sinceStart.start();
    QObject::connect(&timer, &QTimer::timeout, [&] {
        QElapsedTimer call;
        call.start();
        const qint64 due = sinceStart.elapsed() * 5;
        while (number < due)
            require(recorder.record(boiler, numbered(number++)));
        (void)recorder.health();
        longestCall = std::max(longestCall, call.nsecsElapsed());
    });
    timer.start(10);
    QTimer::singleShot(seconds() * 1000, qApp, &QCoreApplication::quit);
    QCoreApplication::exec();
    timer.stop();
    const Health during = recorder.health();
    require(recorder.stop(std::chrono::seconds(120)));
    EXPECT_GT(disk.syncs(), 2);
    EXPECT_EQ(recorder.health().stored, number);
    EXPECT_EQ(valueOf(path(), "select count(*) from Boiler"_q), QString::number(number));
    std::printf(
        "%lld rows, each sync %d ms, %d syncs: the event loop was held up %.2f ms at most; waiting %d, p50 %.0f ms, "
        "p99 %.0f ms\n",
        number, stall, disk.syncs(), double(longestCall) / 1e6, during.depth, during.latencyP50, during.latencyP99);
}

} // namespace
