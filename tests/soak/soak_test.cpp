// SPDX-License-Identifier: MIT
//
// A device's years in seconds: three stores in write-ahead-log mode that are written, asked, trimmed, purged,
// compacted and reopened while another process reads the files. Times are data, so the clock is a number. Once warm,
// the process must not grow: resident memory, file descriptors and files. DEVICE_SOAK_SECONDS is the length.
#include "long_test.h"

#include <QDir>
#include <QElapsedTimer>

#include <iostream>

#include <csignal>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" __attribute__((weak)) void __asan_init(); // there when the program is built with AddressSanitizer

namespace
{

/// Another process that counts rows all the time, in short transactions, until it is destroyed.
class Reader
{
public:
    explicit Reader(const QStringList &paths) : m_process(fork())
    {
        if (m_process != 0)
            return;
        for (;;) {
            for (const QString &path : paths) {
                sqlite3 *connection = nullptr;
                if (sqlite3_open_v2(path.toUtf8().constData(), &connection, SQLITE_OPEN_READWRITE, nullptr) ==
                    SQLITE_OK) // the file may not be there yet
                    sqlite3_exec(connection,
                                 "begin; select count(*) from AlarmData; select max(DATETIME) from AlarmData", nullptr,
                                 nullptr, nullptr);
                usleep(3000);
                sqlite3_close(connection);
                if (getppid() == 1)
                    _exit(0);
            }
        }
    }
    ~Reader()
    {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }

private:
    Q_DISABLE_COPY(Reader)
    pid_t m_process;
};

const QString Table = "AlarmData"_q; // the one name that suits all stores
const int Most = 300;                ///< Rows that a device keeps.
const int DaysOfHousekeeping = 8;    ///< After so many, files are compacted and opened anew.

/// One kind of store at work.
class Device
{
public:
    Device(Kind kind, const QString &path) : m_kind(kind), m_path(path)
    {
        open();
        insist([this] { return m_store->createTable(Table, "Boiler 1"_q); });
    }

    /// A day of the device: batches, questions, and in the evening the housekeeping.
    void day(int day)
    {
        const QString date =
            "2024-%1-%2"_q.arg(1 + day / 28 % 12, 2, 10, QLatin1Char('0')).arg(1 + day % 28, 2, 10, QLatin1Char('0'));
        for (int minute = 0; minute < 10; ++minute) {
            QList<QStringList> rows;
            const int count = 1 + minute * 7 % 15;
            for (int second = 0; second < count; ++second)
                rows.append(
                    row(date, "07:%1:%2"_q.arg(minute, 2, 10, QLatin1Char('0')).arg(second, 2, 10, QLatin1Char('0'))));
            m_store->insertManyDatas(rows, Table);
            m_written += count;
            ask(date);
        }
        if (m_kind == Alarm) {
            QList<QStringList> none;
            EXPECT_TRUE(m_store->execSQL(
                {"update AlarmData set EndDate='%1',EndTime='08:00:00' where ID % 3 = 0"_q.arg(date)}, none, 0));
            if (day % 10 == 9) {
                EXPECT_TRUE(m_store->deleteTable(Table, ""_q)); // the ended ones
            }
        } else if (day % 200 == 199) {
            EXPECT_TRUE(m_store->deleteTable(Table, ""_q));
        }
        const int rows = m_store->getDataCountOfTable(Table);
        EXPECT_GT(rows, -1);
        if (rows > Most) {
            EXPECT_TRUE(m_store->deleteDataForMax(rows - Most, Table));
        }
        m_store->dbWalCheckPoint();
        if (day % DaysOfHousekeeping == DaysOfHousekeeping - 1) {
            m_store->vacuumSqliteDB(); // a reader may refuse it
            m_store.reset();
            open();
            insist([this] { return m_store->getDataCountOfTable(Table) >= 0; });
        }
    }

    qint64 fileSize() const { return QFile(m_path).size(); }
    qint64 logSize() const { return QFile(m_path + "-wal"_q).size(); }
    qint64 written() const { return m_written; }

private:
    void open()
    {
        m_store = library::store(keyOf(m_kind));
        EXPECT_EQ(m_store->openDB(m_path), 0);
    }

    // The reader locks a file for a moment when it is the last to close it, until this store has read it.
    template<typename Operation>
    static void insist(Operation operation)
    {
        for (int tries = 0; tries < 10000; ++tries) {
            if (operation())
                return;
            usleep(1000);
        }
        ADD_FAILURE() << "the file stays locked";
    }

    QStringList row(const QString &date, const QString &time) const
    {
        switch (m_kind) {
        case History:
            return {date + " "_q + time, "87.5 °C"_q};
        case Alarm:
            return {"2"_q, date, time, "Pump 1"_q, "High"_q, "87.5"_q, "80"_q, "Level above limit Ö"_q, ""_q, ""_q};
        default:
            return {date + " "_q + time + ".125"_q, "admin"_q, "Login"_q, "it's a message"_q};
        }
    }

    void ask(const QString &date)
    {
        QList<DataContent> samples;
        QList<AlarmData> alarms;
        QList<OperatorLogData> entries;
        void *const list = m_kind == History ? static_cast<void *>(&samples)
                           : m_kind == Alarm ? static_cast<void *>(&alarms)
                                             : static_cast<void *>(&entries);
        QList<QStringList> rows;
        m_store->getAllDataPage(Table, list, "desc"_q, 0, 20, 50);
        m_store->findDataOfTimePage(date + " 00:00:00"_q, date + " 23:59:59"_q, list, Table, "asc"_q, 0, 20, 100);
        m_store->findDataOfTime(date + " 07:00:00"_q, date + " 07:01:00"_q, list, Table, ""_q);
        m_store->selectNewDataOfRows(Table, 5, rows);
        m_store->selectDataOfRows("missing"_q, 0, 5, rows, true); // failures must not grow either
        m_store->getDataCountOfTimeQuery(date, date + " 23:59:59"_q, Table);
        EXPECT_FALSE(rows.isEmpty());
    }

    Kind m_kind;
    QString m_path;
    library::StorePtr m_store;
    qint64 m_written = 0;
};

/// What must stay flat.
struct Size {
    qint64 memory = 0; ///< Resident, bytes.
    int descriptors = 0;
    qint64 files = 0; ///< Bytes of the databases.
    qint64 logs = 0;  ///< Bytes of their write-ahead logs.
};

qint64 residentMemory()
{
    malloc_trim(0); // what the allocator keeps for later is no growth
    QFile file("/proc/self/statm"_q);
    return file.open(QIODevice::ReadOnly) ? file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE) : 0;
}

int openDescriptors()
{
    return int(QDir("/proc/self/fd"_q).entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot).size());
}

class SoakTest : public LongTest<int>
{
};
INSTANTIATE_TEST_SUITE_P(AllStores, SoakTest, ::testing::Values(0));

TEST_P(SoakTest, NothingGrowsWithTime)
{
    const qint64 milliseconds = 1000 * numberFrom("DEVICE_SOAK_SECONDS", 2);
    const int fewestDays = 3 * DaysOfHousekeeping; // also where a day takes long
    const QStringList paths{path("history.db"), path("alarms.db"), path("log.db")};
    for (const QString &each : paths)
        PlainConnection(each).run("PRAGMA journal_mode = wal"_q); // while nobody reads, who would refuse it
    const Reader reader(paths);
    Device history(History, paths.at(0)), alarms(Alarm, paths.at(1)), operatorLog(OperatorLog, paths.at(2));
    Device *const devices[] = {&history, &alarms, &operatorLog};

    // The largest of each third: the first is for warming up, the last must be like the one in the middle.
    Size largest[3];
    QElapsedTimer timer;
    timer.start();
    int day = 0;
    for (double progress = 0; progress < 1; ++day) {
        Size now{residentMemory(), openDescriptors(), 0, 0};
        for (Device *device : devices) {
            device->day(day);
            now.files += device->fileSize();
            now.logs += device->logSize();
        }
        Size &most = largest[int(3 * progress)];
        most = {std::max(most.memory, now.memory), std::max(most.descriptors, now.descriptors),
                std::max(most.files, now.files), std::max(most.logs, now.logs)};
        progress = std::min(double(timer.elapsed()) / double(milliseconds), double(day + 1) / fewestDays);
        const QStringList messages = log.take();
        if (HasFailure()) {
            std::cout << qPrintable(messages.join(QLatin1Char('\n'))) << std::endl;
            break;
        }
    }
    for (const Size &size : largest) {
        std::cout << "third of the run: memory " << size.memory / 1024 << " KiB, descriptors " << size.descriptors
                  << ", files " << size.files / 1024 << " KiB, their logs " << size.logs / 1024 << " KiB" << std::endl;
    }
    std::cout << day << " days, " << history.written() + alarms.written() + operatorLog.written() << " rows in "
              << timer.elapsed() << " ms" << std::endl;

    EXPECT_EQ(largest[2].descriptors, largest[1].descriptors);
    EXPECT_LE(largest[2].files, largest[1].files + largest[1].files / 4 + (64 << 10));
    // A log keeps the size that the slowest reader gave it: what SQLite allows without one, 1000 pages, and as much
    // again.
    EXPECT_LE(largest[2].logs, 3 * 2 * 1000 * 4096);
    if (!__asan_init) { // AddressSanitizer keeps what is freed
        EXPECT_LE(largest[2].memory, largest[1].memory + (2 << 20));
    }
}

} // namespace
