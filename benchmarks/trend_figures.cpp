// SPDX-License-Identifier: MIT
//
// What trends cost while rows are stored, and how long they take to read: trend_figures LIBRARY [ROWS]. Processor time
// of the whole process; ROWS (10,000,000) is the length of the table that is read.
#include "device/recorder.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <random>
#include <vector>

#include <sqlite3.h>

using namespace device;

namespace
{

constexpr int rounds = 5;
constexpr int zooms = 400;
constexpr int columns = 2000;

template<typename T>
T must(Result<T> result)
{
    if (!result)
        qFatal("%s", qPrintable(result.error().text()));
    return std::move(result).value();
}

double milliseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

double at(std::vector<double> values, double part)
{
    std::sort(values.begin(), values.end());
    return values[size_t(double(values.size() - 1) * part)];
}

LocalTime moment(qint64 second)
{
    static const QDate day(2024, 1, 1);
    return {day.addDays(second / 86400), QTime::fromMSecsSinceStartOfDay(int(second % 86400) * 1000)};
}

// --- Storing

struct Stored {
    double microseconds; // of a row
    double bytes;        // of a row
};

enum Kept { Nothing, Minutes, TenSeconds };

// Each series once a second, in turn.
Stored store(const Library &library, int series, int batch, int rows, Kept kept)
{
    const QTemporaryDir folder(QStringLiteral("/dev/shm/trend-XXXXXX"));
    const QString path = folder.filePath(QStringLiteral("store.db"));
    RecorderOptions options;
    options.file.profile = Profile::Durable;
    options.batchRows = batch;
    options.batchTime = std::chrono::hours(1);
    options.capacity = 10 * batch;
    options.whenFull = WhenFull::Wait;
    options.waitAtMost = std::chrono::milliseconds::max();
    HistoryRecorder recorder(library, path, options);
    std::vector<TableName> tables;
    for (int i = 0; i < series; ++i) {
        tables.push_back(must(TableName::from(QStringLiteral("Series%1").arg(i))));
        recorder.createTable(tables.back());
        TrendOptions trend;
        if (kept == TenSeconds)
            trend.levels.prepend(TrendLevel::TenSeconds);
        if (kept != Nothing)
            recorder.keepTrend(tables.back(), trend);
    }
    if (const auto started = recorder.start(); !started)
        qFatal("%s", qPrintable(started.error().text()));
    (void)recorder.flush(std::chrono::minutes(1));
    std::mt19937 random(1);
    std::vector<Sample> samples;
    samples.reserve(size_t(rows));
    for (int i = 0; i < rows; ++i)
        samples.emplace_back(moment(i / series), QString::number(double(random() % 1000000) / 1e4, 'g', 10));
    const double before = milliseconds();
    for (int i = 0; i < rows; ++i) {
        if (const auto taken = recorder.record(tables[size_t(i % series)], samples[size_t(i)]); !taken)
            qFatal("%s", qPrintable(taken.error().text()));
    }
    const auto settled = recorder.stop(std::chrono::minutes(10));
    const double taken = milliseconds() - before;
    if (settled.stored != rows)
        qFatal("%lld of %d rows are stored", settled.stored, rows);
    OpenOptions asIs;
    auto file = must(HistoryStore::open(library, path, asIs));
    return {taken * 1000 / rows, double(must(file.usedBytes())) / rows};
}

void storing(const Library &library, int rows)
{
    std::printf(
        "| series | rows per batch | us/row without | with | ratio | with 10 s | ratio | bytes/row without | with | "
        "with 10 s |\n|---|---|---|---|---|---|---|---|---|---|\n");
    for (const int series : {1, 50}) {
        for (const int batch : {100, 1000}) {
            std::vector<double> times[3], ratios[3];
            double bytes[3] = {};
            for (int round = 0; round < rounds; ++round) {
                Stored found[3] = {};
                for (int i = 0; i < 3; ++i) {
                    const int kept = (i + round) % 3;
                    found[kept] = store(library, series, batch, rows, Kept(kept));
                }
                for (int kept = 0; kept < 3; ++kept) {
                    times[kept].push_back(found[kept].microseconds);
                    ratios[kept].push_back(found[kept].microseconds / found[Nothing].microseconds);
                    bytes[kept] = found[kept].bytes;
                }
            }
            std::printf("| %d | %d | %.2f | %.2f | %.2f | %.2f | %.2f | %.1f | %.1f | %.1f |\n", series, batch,
                        at(times[0], 0.5), at(times[1], 0.5), at(ratios[1], 0.5), at(times[2], 0.5), at(ratios[2], 0.5),
                        bytes[0], bytes[1], bytes[2]);
            std::fflush(stdout);
        }
    }
}

// --- Reading

void run(const QString &path, const QByteArray &sql)
{
    sqlite3 *connection = nullptr;
    sqlite3_open(path.toUtf8().constData(), &connection);
    if (sqlite3_exec(connection, sql.constData(), nullptr, nullptr, nullptr) != SQLITE_OK)
        qFatal("%s", sqlite3_errmsg(connection));
    sqlite3_close(connection);
}

double read(HistoryStore &store, const TableName &table, qint64 first, qint64 last)
{
    const double before = milliseconds();
    const Trend trend = must(store.trend(table, TrendQuery::between(moment(first), moment(last)).columns(columns)));
    if (trend.columns.isEmpty())
        qFatal("the trend is empty");
    return milliseconds() - before;
}

void reading(const Library &library, qint64 rows)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("store.db"));
    const TableName table = TableName::must("Boiler");
    OpenOptions options;
    options.profile = Profile::Durable;
    auto store = must(HistoryStore::open(library, path, options));
    (void)must(store.createTable(table));
    run(path, "pragma synchronous=off; with recursive n(i) as (select 0 union all select i+1 from n where i<" +
                  QByteArray::number(rows - 1) +
                  ") insert into Boiler select NULL,datetime('2024-01-01','+'||i||' seconds'),"
                  "printf('%.8g',(abs(random())%100000000)/1e5) from n");
    const double raw = rows <= 10000000 ? read(store, table, 0, rows - 1) : 0;
    TrendOptions trend;
    trend.levels.prepend(TrendLevel::TenSeconds);
    const double before = milliseconds();
    {
        RecorderOptions recording;
        recording.file.profile = Profile::Flash;
        HistoryRecorder recorder(library, path, recording);
        recorder.keepTrend(table, trend);
        if (const auto started = recorder.start(); !started)
            qFatal("%s", qPrintable(started.error().text()));
        (void)recorder.flush(std::chrono::minutes(1));
        for (qint64 mark = 0; mark < rows;) {
            QThread::msleep(100);
            sqlite3 *connection = nullptr;
            sqlite3_open(path.toUtf8().constData(), &connection);
            sqlite3_exec(
                connection, "select MARK from \"device trend series\"",
                [](void *to, int, char **cells, char **) {
                    *static_cast<qint64 *>(to) = std::atoll(cells[0]);
                    return 0;
                },
                &mark, nullptr);
            sqlite3_close(connection);
        }
    }
    const double built = milliseconds() - before;
    std::vector<double> whole, zoomed;
    for (int round = 0; round < 9; ++round)
        whole.push_back(read(store, table, 0, rows - 1));
    std::mt19937 random(1);
    std::uniform_real_distribution<double> part(0, 1);
    for (int i = 0; i < zooms; ++i) {
        const qint64 span = qint64(600 * std::pow(double(rows) / 600, part(random)));
        const qint64 first = qint64(part(random) * double(rows - span));
        zoomed.push_back(read(store, table, first, first + span));
    }
    std::printf(
        "\n| rows | whole span from rows, ms | from the trend | ratio | zooms p50 | p99 | longest | made in, s |\n"
        "|---|---|---|---|---|---|---|---|\n| %lld | %.0f | %.1f | %.0f | %.1f | %.1f | %.1f | %.0f |\n",
        rows, raw, at(whole, 0.5), raw / at(whole, 0.5), at(zoomed, 0.5), at(zoomed, 0.99), at(zoomed, 1),
        built / 1000);
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("TZ", "UTC");
    QCoreApplication application(argc, argv);
    const Library library = must(Library::load(application.arguments().value(1)));
    const qint64 rows = application.arguments().value(2, QStringLiteral("10000000")).toLongLong();
    std::printf("Qt %s, SQLite %s\n\n", qVersion(), sqlite3_libversion());
    storing(library, int(std::min<qint64>(rows, 200000)));
    reading(library, rows);
}
