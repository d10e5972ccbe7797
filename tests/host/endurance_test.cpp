// SPDX-License-Identifier: MIT
//
// A recorder under a ceiling for as long as one likes.
//
// DEVICE_CEILING_SECONDS: how long rows come, 5,000 a second (2). DEVICE_CEILING_PIN_SECONDS: how long a reader pins
// the log in that time (1). DEVICE_FULL_DISK: a folder on a disk of 66 MB that may be filled; DEVICE_FULL_SECONDS: how
// long (60). Without a folder the disk is played for a second. DEVICE_YEARS_DAYS: the days of a device with
// DEVICE_YEARS_SERIES (20) series and a row every five minutes (60). DEVICE_YEARS_REPORT: a file for how large its file
// is from week to week.
#include "faulty_disk.h"
#include "recorder_fixture.h"

#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <algorithm>
#include <iostream>
#include <random>
#include <thread>

#include <csignal>
#include <dlfcn.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

qint64 numberOf(const char *variable, qint64 otherwise)
{
    return qEnvironmentVariableIsSet(variable) ? qgetenv(variable).toLongLong() : otherwise;
}

double processorMilliseconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

// For how long this thread could have run and others had the processor.
double waitedMilliseconds()
{
    QFile file("/proc/thread-self/schedstat"_q);
    return file.open(QIODevice::ReadOnly) ? file.readAll().split(' ').value(1).toDouble() / 1e6 : 0;
}

// How long transactions take, from "begin immediate" on: in all, and on the clock until their commit begins; `held` is
// without the waits for a processor, which a machine with other work adds.
struct Transactions {
    std::vector<double> processor;
    std::vector<double> untilCommit;
    std::vector<double> held;
    double begun = 0;
    double waited = 0;
    std::chrono::steady_clock::time_point begunAt;
};
thread_local Transactions *transactions = nullptr; // of the thread that stores
std::mutex mutex;
Transactions all;

// A process that a test forks and ends.
class Child
{
public:
    template<typename Body>
    explicit Child(const Body &body) : m_process(fork())
    {
        if (m_process == 0) {
            body();
            _exit(0);
        }
    }
    ~Child() { end(SIGKILL); }
    int end(int signal)
    {
        int status = 0;
        if (m_process > 0) {
            if (signal != 0)
                ::kill(m_process, signal);
            ::waitpid(m_process, &status, 0);
        }
        m_process = 0;
        return status;
    }

private:
    Q_DISABLE_COPY(Child)
    pid_t m_process;
};

template<typename Shared>
Shared *shared()
{
    void *const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : new (memory) Shared;
}

struct Seen {
    std::atomic<qint64> most{0};
    std::atomic<qint64> looks{0};
};

qint64 bytesOf(const QByteArray &path)
{
    qint64 bytes = 0;
    for (const char *end : {"", "-wal", "-shm", "-journal"}) {
        struct stat found;
        if (::stat((path + end).constData(), &found) == 0)
            bytes += found.st_size;
    }
    return bytes;
}

void watch(const QByteArray &path, Seen &seen)
{
    while (getppid() != 1) {
        seen.most = std::max<qint64>(seen.most, bytesOf(path));
        ++seen.looks;
        usleep(300);
    }
}

void pinLog(const QByteArray &path, qint64 seconds)
{
    sqlite3 *connection = nullptr;
    sqlite3_open(path.constData(), &connection);
    sqlite3_exec(connection, "begin; select count(*) from sqlite_master; select max(ID) from Boiler", nullptr, nullptr,
                 nullptr);
    sleep(unsigned(seconds));
    sqlite3_close(connection);
}

class Endurance : public Recorders
{
protected:
    Sample secondly(qint64 i) const
    {
        return {LocalTime(QDate(2024, 1, 1).addDays(i / 86400), QTime(0, 0).addSecs(int(i % 86400))),
                QString::number(i % 1000)};
    }
    // 5,000 rows a second.
    qint64 record(HistoryRecorder &recorder, qint64 first, qint64 seconds, const std::function<void()> &meanwhile = {})
    {
        const auto began = std::chrono::steady_clock::now();
        qint64 i = first;
        for (qint64 slice = 0; slice < seconds * 100; ++slice) {
            for (int row = 0; row < 50; ++row)
                (void)recorder.record(boiler, secondly(i++));
            if (meanwhile)
                meanwhile();
            QCoreApplication::processEvents();
            std::this_thread::sleep_until(began + milliseconds((slice + 1) * 10));
        }
        return i;
    }
};

double quantile(std::vector<double> &values, double part)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[size_t(double(values.size() - 1) * part)];
}

} // namespace

extern "C" Q_DECL_EXPORT int sqlite3_exec(sqlite3 *connection, const char *sql,
                                          int (*callback)(void *, int, char **, char **), void *argument, char **error)
{
    static const auto next = reinterpret_cast<decltype(&sqlite3_exec)>(dlsym(RTLD_NEXT, "sqlite3_exec"));
    const bool commits = transactions && qstrcmp(sql, "commit") == 0;
    const std::chrono::duration<double, std::milli> lasted =
        commits ? std::chrono::steady_clock::now() - transactions->begunAt : std::chrono::seconds(0);
    const double waited = commits ? waitedMilliseconds() - transactions->waited : 0;
    const int code = next(connection, sql, callback, argument, error);
    if (qstrcmp(sql, "begin immediate") == 0) {
        transactions = &all;
        transactions->waited = waitedMilliseconds();
        transactions->begun = processorMilliseconds();
        transactions->begunAt = std::chrono::steady_clock::now();
    } else if (commits) {
        const std::lock_guard lock(mutex);
        transactions->untilCommit.push_back(lasted.count());
        transactions->held.push_back(lasted.count() - waited);
        transactions->processor.push_back(processorMilliseconds() - transactions->begun);
    }
    return code;
}

namespace
{

TEST_F(Endurance, ACeilingHoldsAtEveryMillisecondAndNoRowIsLost)
{
    const qint64 seconds = numberOf("DEVICE_CEILING_SECONDS", 2);
    const qint64 pinned = numberOf("DEVICE_CEILING_PIN_SECONDS", 1);
    const QByteArray file = path().toLocal8Bit();
    // A short run reaches a small ceiling only.
    options.retention.ceiling = (seconds > 60 ? 64 : 20) * 1000 * 1000;
    Seen *const seen = shared<Seen>();
    ASSERT_TRUE(seen);
    const Child watcher([&] { watch(file, *seen); });
    auto recorder = recorderOf(Profile::Durable);
    QStringList troubles;
    QObject::connect(recorder.get(), &Recorder::troubled, [&](const Error &why) { troubles << why.text(); });
    recorder->keepTrend(boiler);
    qint64 next = 0;
    for (; seconds <= 60 && next < 150000; ++next) { // fills it first
        (void)recorder->record(boiler, secondly(next));
        if (next % 10000 == 0)
            require(recorder->flush(milliseconds(20000)));
    }
    {
        const std::lock_guard lock(mutex);
        all.processor.clear();
        all.untilCommit.clear();
        all.held.clear();
    }
    next = record(*recorder, next, seconds / 2);
    {
        const Child reader([&] { pinLog(file, pinned); });
        next = record(*recorder, next, pinned);
    }
    next = record(*recorder, next, seconds - seconds / 2);
    require(recorder->stop(milliseconds(60000)));
    const Health health = recorder->health();
    EXPECT_EQ(health.stored, next);
    EXPECT_EQ(health.dropped + health.refused, 0);
    EXPECT_GT(health.trimmed, 0);
    EXPECT_LE(seen->most, options.retention.ceiling);
    EXPECT_EQ(valueOf(path(), "select max(ID)-min(ID)+1=count(*) and max(ID)=%1 from Boiler"_q.arg(next)), "1"_q);
    std::cout << next << " rows, " << health.trimmed << " trimmed, most bytes " << seen->most << " of "
              << options.retention.ceiling << " in " << seen->looks << " looks, troubles " << troubles.size() << ' '
              << troubles.value(0).toStdString() << '\n'
              << all.processor.size() << " transactions: processor ms p50 " << quantile(all.processor, 0.5) << " p99 "
              << quantile(all.processor, 0.99) << " max " << quantile(all.processor, 1)
              << "; on the clock until the commit p50 " << quantile(all.untilCommit, 0.5) << " p99 "
              << quantile(all.untilCommit, 0.99) << " max " << quantile(all.untilCommit, 1)
              << ", without waits for a processor p99 " << quantile(all.held, 0.99) << " max " << quantile(all.held, 1)
              << std::endl;
}

// Fills the disk that a folder is on until it is destroyed.
class Filling
{
public:
    explicit Filling(const QString &folder) : m_file(folder + "/filling"_q)
    {
        EXPECT_TRUE(m_file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    }
    ~Filling() { m_file.remove(); }
    void goOn()
    {
        const QByteArray much(65536, 'x');
        while (m_file.write(much) > 0) {
        }
        while (m_file.write("x") > 0) {
        }
    }

private:
    QFile m_file;
};

TEST_F(Endurance, AReserveGoesOnWhileAnotherProgramFillsTheDisk)
{
    if (QStorageInfo(QFileInfo(path()).path()).fileSystemType() == "overlay")
        GTEST_SKIP() << "a reserve is refused on a file system that does not overwrite in place";
    const QString folder = qEnvironmentVariable("DEVICE_FULL_DISK");
    const qint64 seconds = folder.isEmpty() ? 1 : numberOf("DEVICE_FULL_SECONDS", 60);
    const QString file = folder.isEmpty() ? path() : folder + "/store.db"_q;
    for (const bool reserve : {true, false}) {
        SCOPED_TRACE(reserve);
        std::optional<FaultyDisk> disk;
        if (folder.isEmpty())
            disk.emplace();
        options.file.profile = Profile::Durable;
        options.batchRows = 200;
        options.file.checkpointPages = 250;
        options.retention.ceiling = 16 * 1000 * 1000;
        options.retention.reserve = reserve;
        HistoryRecorder recorder(library(), file, options);
        require(recorder.start());
        recorder.createTable(boiler);
        recorder.keepTrend(boiler);
        QStringList troubles;
        int dropped = 0;
        QObject::connect(&recorder, &Recorder::troubled, [&](const Error &why) { troubles << why.text(); });
        QObject::connect(&recorder, &Recorder::dropped, [&](const QString &, int rows) { dropped += rows; });
        qint64 next = record(recorder, 0, 1);
        // The hardest moment is before the ceiling is reached. A short run with a reserve begins where rows go.
        while (reserve && disk && recorder.health().trimmed == 0) {
            if (recorder.record(boiler, secondly(next)))
                ++next;
            else
                require(recorder.flush(milliseconds(20000)));
        }
        const qint64 trimmedBefore = recorder.health().trimmed;
        const qint64 refusedBefore = recorder.health().refused;
        {
            std::optional<Filling> filling;
            if (disk)
                disk->fail(FaultyDisk::NoLonger, 1000000);
            else
                filling.emplace(folder);
            next = record(recorder, next, seconds, [&] {
                if (filling)
                    filling->goOn();
            });
            if (reserve) {
                EXPECT_TRUE(recorder.flush(milliseconds(2000))) << "rows wait while the disk is full";
                EXPECT_GT(recorder.health().trimmed, trimmedBefore);
                EXPECT_EQ(recorder.health().refused, refusedBefore);
            } else {
                (void)recorder.flush(milliseconds(500));
                EXPECT_FALSE(troubles.isEmpty());
                EXPECT_TRUE(recorder.health().trouble.contains("full"_q)) << recorder.health().trouble.toStdString();
            }
        }
        if (disk)
            disk->mend();
        require(recorder.stop(milliseconds(60000)));
        const Health health = recorder.health();
        EXPECT_EQ(health.accepted, health.stored + health.dropped);
        EXPECT_EQ(health.dropped, dropped);
        EXPECT_EQ(valueOf(file, "select seq from sqlite_sequence where name='Boiler'"_q),
                  QString::number(health.stored));
        std::cout << (reserve ? "with" : "without") << " a reserve, disk full for " << seconds << " s: stored "
                  << health.stored << ", refused " << health.refused - refusedBefore << ", dropped " << dropped
                  << ", failed tries " << health.failedBatches << ", trimmed " << health.trimmed - trimmedBefore
                  << ", troubles " << troubles.size() << ' ' << troubles.value(0).toStdString() << std::endl;
        for (const char *end : {"", "-wal", "-shm"})
            QFile::remove(file + QLatin1String(end));
    }
}

// A device with many series and a row of each every five minutes, for years.
class Years : public Endurance
{
protected:
    static constexpr qint64 stepSeconds = 300;
    static constexpr qint64 stepsOfADay = 86400 / stepSeconds;
    struct Bounds {
        qint64 rows = 0;
        double lowest = std::numeric_limits<double>::max();
        double highest = std::numeric_limits<double>::lowest();
        double sum = 0;
        bool isSeen = false;
    };
    const qint64 days = numberOf("DEVICE_YEARS_DAYS", 60);
    const int series = int(numberOf("DEVICE_YEARS_SERIES", 20));

    static QString nameOf(int number) { return "Series%1"_q.arg(number); }
    static QString valueAt(int number, qint64 step)
    {
        return QString::number(double((step * 7919 + number * 31 + step * step % 977) % 10007) / 8);
    }
    // What the clock of the device says: now and then it is wrong.
    static LocalTime timeAt(qint64 step)
    {
        qint64 seconds = step * stepSeconds;
        const qint64 day = step / stepsOfADay;
        const qint64 ofDay = step % stepsOfADay;
        if (day % 97 == 50 && ofDay >= 100 && ofDay < 130)
            return LocalTime(QDate(2099, 1, 1), QTime(int(ofDay) % 24, 0));
        if (day % 61 == 30 && ofDay >= 200)
            seconds += 5 * 3600; // ahead until midnight, then set back
        if (day % 83 == 40 && ofDay < 20)
            seconds -= 20 * 86400;
        return LocalTime(QDate(2015, 1, 1).addDays(seconds / 86400), QTime(0, 0).addSecs(int(seconds % 86400)));
    }
    // Goes on where the file ends, up to this step.
    void live(qint64 end) const
    {
        RecorderOptions device;
        device.file.profile = Profile::Flash;
        device.batchRows = series * 20;
        device.capacity = series * 200;
        device.capacityBytes = 1 << 30;
        device.whenFull = WhenFull::Wait;
        device.waitAtMost = milliseconds(60000);
        device.retention.ceiling = ceiling();
        HistoryRecorder recorder(library(), path(), device);
        TrendOptions trend;
        trend.levels = {TrendLevel::Hour, TrendLevel::Day};
        Keep keep;
        keep.sums = {{TrendLevel::Hour, std::chrono::hours(24) * std::min<qint64>(365 * 2, days / 3)}};
        std::vector<TableName> tables;
        for (int i = 0; i < series; ++i) {
            tables.push_back(table(nameOf(i)));
            recorder.createTable(tables.back());
            recorder.keepTrend(tables.back(), trend);
            recorder.keep(tables.back(), keep);
        }
        if (!recorder.start() || !recorder.flush(milliseconds(60000)))
            _exit(3);
        std::vector<qint64> next(size_t(series), 0);
        for (const QStringList &row : rowsOf(path(), "select name,seq from sqlite_sequence"_q)) {
            if (row.first().startsWith("Series"_q))
                next[size_t(row.first().mid(6).toInt())] = row.at(1).toLongLong();
        }
        QFile report(qEnvironmentVariable("DEVICE_YEARS_REPORT"));
        const bool isReported = !report.fileName().isEmpty() && report.open(QIODevice::Append);
        for (qint64 step = *std::min_element(next.begin(), next.end()); step < end; ++step) {
            for (int i = 0; i < series; ++i) {
                if (next[size_t(i)] > step)
                    continue;
                if (!recorder.record(tables[size_t(i)], {timeAt(step), valueAt(i, step)})) {
                    std::cerr << recorder.health().trouble.toStdString() << std::endl;
                    _exit(4);
                }
            }
            if (isReported && step % (stepsOfADay * 7) == 0) {
                const Health health = recorder.health();
                report.write("%1,%2,%3,%4\n"_q.arg(step / stepsOfADay)
                                 .arg(health.fileBytes)
                                 .arg(health.logBytes)
                                 .arg(health.trimmed)
                                 .toLatin1());
                report.flush();
            }
            if (step % 20 == 0)
                QCoreApplication::processEvents();
        }
        if (!recorder.stop(milliseconds(60000)))
            _exit(5);
    }
    qint64 ceiling() const
    {
        // The least for the log, the sums, and some of the rows.
        const qint64 sums = series * (days / 3 * 24 + days) * 80;
        return (1000 + series * 20 * 5 + 700) * 4200LL + 2000000 + sums + series * 60000;
    }
};

TEST_F(Years, FitIntoAFileThatIsFullAfterWeeksAndCanAllBeLookedAt)
{
    const QByteArray file = path().toLocal8Bit();
    Seen *const seen = shared<Seen>();
    ASSERT_TRUE(seen);
    const Child watcher([&] { watch(file, *seen); });
    std::mt19937_64 random(1);
    const qint64 steps = days * stepsOfADay;
    int cuts = 0;
    for (;;) {
        Child device([&] { live(steps); });
        // A power cut for the program, most of the time somewhere in a few days to a few months.
        const qint64 most = std::max<qint64>(300, days * series / 20);
        const int status = [&] {
            usleep(unsigned(200000 + random() % quint64(most * 1000)));
            return cuts < 25 ? device.end(SIGKILL) : device.end(0);
        }();
        if (WIFEXITED(status)) {
            ASSERT_EQ(WEXITSTATUS(status), 0);
            break;
        }
        ++cuts;
    }
    EXPECT_LE(seen->most, ceiling());
    EXPECT_EQ(valueOf(path(), "pragma integrity_check"_q), "ok"_q);
    auto store = require(HistoryStore::open(library(), path()));
    qint64 rowsLeft = 0;
    for (int i = 0; i < series; ++i)
        rowsLeft += require(store.count(table(nameOf(i))));
    // Of all together: a slice takes hundreds of one, and where the last life ends is chance.
    EXPECT_LT(rowsLeft, steps * series / 2);
    for (const int number : {0, series / 2, series - 1}) {
        // All days of the simulation as columns of a day each.
        std::map<QDate, Bounds> expected;
        for (qint64 step = 0; step < steps; ++step) {
            const double value = valueAt(number, step).toDouble();
            Bounds &bounds = expected[timeAt(step).date()];
            ++bounds.rows;
            bounds.lowest = std::min(bounds.lowest, value);
            bounds.highest = std::max(bounds.highest, value);
            bounds.sum += value;
        }
        const TableName name = table(nameOf(number));
        EXPECT_EQ(valueOf(path(), "select seq from sqlite_sequence where name='%1'"_q.arg(name.text())),
                  QString::number(steps));
        const QDate firstDay = expected.begin()->first;
        for (QDate from = firstDay; from <= std::prev(expected.end())->first; from = from.addYears(1)) {
            const QDate to = from.addYears(1).addDays(-1);
            const Trend trend = require(store.trend(
                name,
                TrendQuery::between(LocalTime(from, QTime(0, 0)), LocalTime(to, QTime(23, 59, 59))).columns(366)));
            ASSERT_TRUE(trend.columns.isEmpty() || trend.width == std::chrono::hours(24));
            for (const TrendColumn &column : trend.columns) {
                const auto found = expected.find(column.from.date());
                ASSERT_NE(found, expected.end());
                EXPECT_EQ(column.rows, found->second.rows) << column.from.date().toString().toStdString();
                EXPECT_EQ(column.lowest.number(), found->second.lowest);
                EXPECT_EQ(column.highest.number(), found->second.highest);
                EXPECT_NEAR(column.mean, found->second.sum / double(found->second.rows), 1e-9);
                found->second.isSeen = true;
            }
        }
        EXPECT_TRUE(std::all_of(expected.begin(), expected.end(), [](const auto &each) { return each.second.isSeen; }));
    }
    std::cout << days << " days of " << series << " series, " << steps * series << " rows, " << cuts
              << " kills, most bytes " << seen->most << " of " << ceiling() << ", rows left " << rowsLeft << std::endl;
}

} // namespace
