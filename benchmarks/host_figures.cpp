// SPDX-License-Identifier: MIT
//
// The figures of docs/host.md: host_figures LIBRARY [ROWS]. Medians of nine rounds; the order within a round changes.
#include "slow_disk.h"

#include "device/store.h"

#include "alarm_db.h"
#include "history_db.h"
#include "operatorlog_db.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include <sqlite3.h>

using namespace device;

namespace
{

constexpr int rounds = 9;

double milliseconds(const std::function<void()> &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return double(timer.nsecsElapsed()) / 1e6;
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + rounds / 2, values.end());
    return values[size_t(rounds) / 2];
}

template<typename T>
T must(Result<T> result)
{
    if (!result)
        qFatal("%s", qPrintable(result.error().text()));
    return std::move(result).value();
}

QDateTime moment(int i)
{
    static const QDateTime start(QDate(2024, 5, 6), QTime(0, 0));
    return start.addSecs(i);
}

QString timeText(int i, const char *format)
{
    return moment(i).toString(QLatin1String(format));
}

// What a host does today with the slots, and with the typed store, for one kind of record.
struct Sides {
    const char *kind;
    const char *key;
    const char *table;
    std::function<void(interface_data_base &, int)> directAppend;
    std::function<int(interface_data_base &, int)> directRead;
    std::function<void(const Library &, const QString &)> create;
    std::function<void(int)> typedAppend;
    std::function<int()> typedRead;
};

void compare(const Library &library, const Sides &sides, int rows)
{
    std::vector<double> figures[4];
    for (int round = 0; round < rounds; ++round) {
        const QTemporaryDir folder;
        interface_data_base *direct = library.createStore(QLatin1String(sides.key));
        direct->openDB(folder.filePath(QStringLiteral("direct")));
        direct->createTable(QLatin1String(sides.table), QString());
        sides.create(library, folder.filePath(QStringLiteral("typed")));
        int read[2] = {};
        for (const bool typedNow : {round % 2 == 0, round % 2 != 0}) {
            figures[typedNow].push_back(milliseconds([&] {
                if (typedNow)
                    sides.typedAppend(rows);
                else
                    sides.directAppend(*direct, rows);
            }));
        }
        for (const bool typedNow : {round % 2 == 0, round % 2 != 0}) {
            figures[2 + typedNow].push_back(
                milliseconds([&] { read[typedNow] = typedNow ? sides.typedRead() : sides.directRead(*direct, rows); }));
        }
        if (read[0] != rows || read[1] != rows)
            qFatal("%s: %d and %d of %d rows", sides.kind, read[0], read[1], rows);
        library.closeStore(direct);
    }
    std::printf("| %-8s | %8.1f | %8.1f | %5.2f | %8.1f | %8.1f | %5.2f |\n", sides.kind, median(figures[0]),
                median(figures[1]), median(figures[1]) / median(figures[0]), median(figures[2]), median(figures[3]),
                median(figures[3]) / median(figures[2]));
}

template<typename StoreType, typename Record>
void compareKind(const Library &library, Sides sides, const std::function<Record(int)> &make, int rows)
{
    std::optional<StoreType> store;
    const TableName table = TableName::from(QLatin1String(sides.table)).value();
    sides.create = [&](const Library &loaded, const QString &path) {
        store.emplace(must(StoreType::open(loaded, path)));
        must(store->createTable(table));
    };
    sides.typedAppend = [&](int count) {
        QList<Record> records;
        for (int i = 0; i < count; ++i)
            records.append(make(i));
        must(store->append(table, records));
    };
    sides.typedRead = [&] {
        return int(must(store->read(table, Query<Record>().between(moment(0), moment(10000000)).oldestFirst())).size());
    };
    compare(library, sides, rows);
}

const char seconds[] = "yyyy-MM-dd hh:mm:ss";

template<typename Record>
int readDirect(interface_data_base &store, const char *table)
{
    QList<Record> records;
    store.findDataOfTime(timeText(0, seconds), timeText(10000000, seconds), &records, QLatin1String(table),
                         QStringLiteral("asc"));
    return int(records.size());
}

void overhead(const Library &library, int rows)
{
    std::printf("| %d rows | append direct, ms | typed, ms | ratio | read direct, ms | typed, ms | ratio |\n"
                "|---|---|---|---|---|---|---|\n",
                rows);
    Sides samples;
    samples.kind = "samples";
    samples.key = "historyDB";
    samples.table = "Boiler";
    samples.directAppend = [](interface_data_base &store, int count) {
        QList<QStringList> list;
        for (int i = 0; i < count; ++i)
            list.append(QStringList{timeText(i, seconds), QString::number(i * 0.5)});
        store.insertManyDatas(list, QStringLiteral("Boiler"));
    };
    samples.directRead = [](interface_data_base &store, int) { return readDirect<DataContent>(store, "Boiler"); };
    compareKind<HistoryStore, Sample>(
        library, samples,
        [](int i) {
            return Sample{moment(i), QString::number(i * 0.5)};
        },
        rows);

    Sides alarms;
    alarms.kind = "alarms";
    alarms.key = "alarmDB";
    alarms.table = "AlarmData";
    alarms.directAppend = [](interface_data_base &store, int count) {
        QList<QStringList> list;
        for (int i = 0; i < count; ++i) {
            list.append(QStringList{QStringLiteral("2"), timeText(i, "yyyy-MM-dd"), timeText(i, "hh:mm:ss"),
                                    QStringLiteral("Pump 1"), QStringLiteral("High"), QString::number(i * 0.5),
                                    QStringLiteral("80"), QStringLiteral("Level above limit"), QString(), QString()});
        }
        store.insertManyDatas(list, QString());
    };
    alarms.directRead = [](interface_data_base &store, int) { return readDirect<AlarmData>(store, "AlarmData"); };
    compareKind<AlarmStore, Alarm>(
        library, alarms,
        [](int i) {
            return Alarm{2,
                         moment(i),
                         QStringLiteral("Pump 1"),
                         QStringLiteral("High"),
                         QString::number(i * 0.5),
                         QStringLiteral("80"),
                         QStringLiteral("Level above limit"),
                         std::nullopt};
        },
        rows);

    Sides log;
    log.kind = "log";
    log.key = "operatorLogDB";
    log.table = "OperatorLog";
    log.directAppend = [](interface_data_base &store, int count) {
        QList<QStringList> list;
        for (int i = 0; i < count; ++i)
            list.append(QStringList{timeText(i, "yyyy-MM-dd hh:mm:ss.zzz"), QStringLiteral("admin"),
                                    QStringLiteral("Login"), QString::number(i)});
        store.insertManyDatas(list, QStringLiteral("OperatorLog"));
    };
    log.directRead = [](interface_data_base &store, int) { return readDirect<OperatorLogData>(store, "OperatorLog"); };
    compareKind<LogStore, LogEntry>(
        library, log,
        [](int i) {
            return LogEntry{moment(i), QStringLiteral("admin"), QStringLiteral("Login"), QString::number(i)};
        },
        rows);
}

// Batches of 100 rows, then an hour out of the middle and a whole trip through the file.
void profiles(const Library &library, int rows)
{
    std::printf("\n| profile | rows a second | syncs a batch | bytes a row | an hour of %d rows, ms |\n"
                "|---|---|---|---|---|\n",
                rows);
    const TableName table = TableName::from(QStringLiteral("Boiler")).value();
    const struct {
        Profile profile;
        const char *name;
    } all[] = {{Profile::AsIs, "AsIs"}, {Profile::Durable, "Durable"}, {Profile::Flash, "Flash"}};
    for (const auto &each : all) {
        const QTemporaryDir folder;
        const SlowDisk disk(0);
        OpenOptions options;
        options.profile = each.profile;
        auto store = must(HistoryStore::open(library, folder.filePath(QStringLiteral("store.db")), options));
        must(store.createTable(table));
        const int before = disk.syncs();
        const double taken = milliseconds([&] {
            for (int first = 0; first < rows; first += 100) {
                QList<Sample> batch;
                for (int i = first; i < first + 100; ++i)
                    batch.append({moment(i), QString::number(i * 0.5)});
                must(store.append(table, batch));
            }
        });
        const int syncs = disk.syncs() - before;
        std::vector<double> reads;
        const auto hour = Query<Sample>().between(moment(rows / 2), moment(rows / 2 + 3600));
        for (int round = 0; round < rounds; ++round)
            reads.push_back(milliseconds([&] { must(store.read(table, hour)); }));
        std::printf("| %-8s | %8.0f | %5.2f | %5.0f | %6.1f |\n", each.name, rows / taken * 1000,
                    syncs / (rows / 100.0), double(must(store.usedBytes())) / rows, median(reads));
    }
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("TZ", "UTC");
    QCoreApplication application(argc, argv);
    const int rows = argc > 2 ? std::atoi(argv[2]) : 10000;
    const Library library = must(Library::load(QString::fromLocal8Bit(argc > 1 ? argv[1] : "")));
    std::printf("Qt %s, SQLite %s, %u cores\n\n", qVersion(), sqlite3_libversion(),
                std::thread::hardware_concurrency());
    overhead(library, rows);
    profiles(library, rows * 10);
}
