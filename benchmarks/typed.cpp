// SPDX-License-Identifier: MIT
#include "typed.h"

#include "connection.h"
#include "fingerprint.h"
#include "memory.h"
#include "peer.h"

#include "device/recorder.h"
#include "device/store.h"

#include <sqlite3.h>

#include <stdexcept>

namespace
{

const std::vector<std::string> appendBases{"SQLiteCpp prepared", "TYPED"};
const std::vector<std::string> readBases{"SQLiteCpp", "TYPED"};
const PeerType *const peers[] = {&qtSqlPeer, &sqliteCppPeer, &sociPeer, &pocoPeer};

template<typename Record>
struct StoreOf;
template<>
struct StoreOf<device::Sample> {
    using Type = device::HistoryStore;
};
template<>
struct StoreOf<device::Alarm> {
    using Type = device::AlarmStore;
};
template<>
struct StoreOf<device::LogEntry> {
    using Type = device::LogStore;
};

template<typename T>
T must(device::Result<T> result)
{
    if (!result)
        throw std::runtime_error(result.error().text().toStdString());
    return std::move(result).value();
}

void must(const device::Status &status)
{
    if (!status)
        throw std::runtime_error(status.error().text().toStdString());
}

device::Library loaded()
{
    static const device::Library library = must(device::Library::load(
        qEnvironmentVariable("DEVICE_DATABASE_LIBRARY", QStringLiteral(DEVICE_DATABASE_LIBRARY))));
    return library;
}

device::TableName tableName(const QString &name)
{
    return must(device::TableName::from(name));
}

// Records

device::LocalTime time(const QString &text)
{
    return device::TimeReader(text.size() == device::longestTime).read(text.constData(), text.size());
}

void assign(device::Sample &sample, const QStringList &row)
{
    sample.time = time(row.at(0));
    sample.value = row.at(1);
}

void assign(device::Alarm &alarm, const QStringList &row)
{
    alarm.level = row.at(0).toInt();
    alarm.start = time(row.at(1) + QLatin1Char(' ') + row.at(2));
    alarm.object = row.at(3);
    alarm.type = row.at(4);
    alarm.value = row.at(5);
    alarm.limit = row.at(6);
    alarm.description = row.at(7);
}

void assign(device::LogEntry &entry, const QStringList &row)
{
    entry.time = time(row.at(0));
    entry.user = row.at(1);
    entry.name = row.at(2);
    entry.message = row.at(3);
}

template<typename Record>
QList<Record> makeRecords(const Data &data, int count)
{
    QList<Record> records;
    for (int i = 0; i < count; ++i) {
        records.append(Record());
        assign(records.last(), data.row(typedKind<Record>(), i));
    }
    return records;
}

// Appending

/// Everything bound is ready: SQLite's part of a prepared INSERT.
class ReadyInsert
{
public:
    ReadyInsert(const Connection &connection, const Kind &kind, const QString &table)
    {
        sqlite3_prepare_v2(connection.handle(), preparedInsert(kind, table).toUtf8().constData(), -1, &m_insert,
                           nullptr);
    }
    ~ReadyInsert() { sqlite3_finalize(m_insert); }

    void run(const std::vector<QByteArray> &cells)
    {
        for (size_t i = 0; i < cells.size(); ++i)
            sqlite3_bind_text(m_insert, int(i) + 1, cells[i].constData(), int(cells[i].size()), SQLITE_STATIC);
        sqlite3_step(m_insert);
        sqlite3_reset(m_insert);
    }

private:
    Q_DISABLE_COPY(ReadyInsert)
    sqlite3_stmt *m_insert = nullptr;
};

struct Ready {
    std::vector<QByteArray> &cells;

    void operator()(int, int number) const { cells.push_back(QByteArray::number(number)); }
    void operator()(int, const TimeText &text) const { cells.push_back(QByteArray(text.bytes, text.size)); }
    void operator()(int, const QString &text) const { cells.push_back(text.toUtf8()); }
};

template<typename Record>
std::vector<std::vector<QByteArray>> readyCells(const QList<Record> &records)
{
    std::vector<std::vector<QByteArray>> rows;
    for (const Record &record : records) {
        rows.emplace_back();
        forEachCell(record, Ready{rows.back()});
    }
    return rows;
}

/// A contender that stores the same rows again and again; the tables are emptied in between.
Contender appending(const std::string &name, const QStringList &tables, const QString &path, int rows,
                    std::function<void()> append)
{
    const auto cleaner = std::make_shared<Connection>(path);
    return {name,
            double(rows),
            std::move(append),
            [tables, path] {
                QByteArray all;
                for (const QString &table : tables)
                    all += contents(table.toLatin1().constData(), path);
                return all;
            },
            [cleaner, tables] {
                for (const QString &table : tables)
                    cleaner->run("delete from " + table.toLatin1());
            },
            {}};
}

template<typename Record>
std::vector<Contender> appendContenders(Files &files, int rows)
{
    const Kind &kind = typedKind<Record>();
    const QString table = QLatin1String(kind.table);
    const QList<Record> records = makeRecords<Record>(files.data(), rows);
    std::vector<Contender> contenders;
    const auto add = [&](const std::string &name, const QString &path, std::function<void()> append) {
        contenders.push_back(appending(name, {table}, path, rows, std::move(append)));
    };
    QString path = files.empty(kind);
    add("FLOOR", path, [&kind, table, connection = std::make_shared<Connection>(path), cells = readyCells(records)] {
        connection->run("begin");
        {
            ReadyInsert insert(*connection, kind, table);
            for (const std::vector<QByteArray> &row : cells)
                insert.run(row);
        }
        connection->run("commit");
    });
    path = files.empty(kind);
    const auto store =
        std::make_shared<typename StoreOf<Record>::Type>(must(StoreOf<Record>::Type::open(loaded(), path)));
    add("TYPED", path, [store, name = tableName(table), records] { must(store->append(name, records)); });
    for (const PeerType *type : peers) {
        path = files.empty(kind);
        const std::shared_ptr<Peer> prepared = type->open(path);
        add(type->name + std::string(" prepared"), path, [prepared, records] { prepared->appendPrepared(records); });
        path = files.empty(kind);
        const std::shared_ptr<Peer> text = type->open(path);
        add(type->name + std::string(" text"), path, [text, records] { text->appendText(records); });
    }
    return contenders;
}

// Many series

constexpr int seriesCount = 50;

/// Sample after sample into series after series, all in one transaction.
std::vector<Contender> seriesContenders(Files &files, int rowsPerTable)
{
    const int rows = rowsPerTable * seriesCount;
    const QList<device::Sample> samples = makeRecords<device::Sample>(files.data(), rows);
    QStringList tables;
    for (int i = 1; i <= seriesCount; ++i)
        tables.append(QStringLiteral("Series%1").arg(i));
    const auto newFile = [&] {
        const QString path = files.empty(historyKind);
        const Store store = openStore(historyKind, path);
        for (const QString &table : tables)
            store->createTable(table, QString());
        return path;
    };
    std::vector<Contender> contenders;
    QString path = newFile();
    const auto connection = std::make_shared<Connection>(path);
    const auto inserts = std::make_shared<std::vector<std::unique_ptr<ReadyInsert>>>();
    for (const QString &table : tables)
        inserts->push_back(std::make_unique<ReadyInsert>(*connection, historyKind, table));
    contenders.push_back(appending("FLOOR", tables, path, rows, [connection, inserts, cells = readyCells(samples)] {
        connection->run("begin");
        for (size_t i = 0; i < cells.size(); ++i)
            (*inserts)[i % inserts->size()]->run(cells[i]);
        connection->run("commit");
    }));
    path = newFile();
    device::RecorderOptions options;
    options.batchRows = rows;
    options.batchTime = std::chrono::hours(1);
    options.capacity = 2 * rows;
    const auto recorder = std::make_shared<device::HistoryRecorder>(loaded(), path, options);
    if (const auto started = recorder->start(); !started)
        qFatal("%s", qPrintable(started.error().text()));
    std::vector<device::TableName> names;
    for (const QString &table : tables)
        names.push_back(tableName(table));
    contenders.push_back(appending("TYPED", tables, path, rows, [recorder, names, samples] {
        for (int i = 0; i < samples.size(); ++i)
            must(recorder->record(names[size_t(i) % names.size()], samples.at(i)));
        if (const device::Settled settled = recorder->flush(std::chrono::minutes(1)); !settled)
            qFatal("%s", qPrintable(settled.why->text()));
    }));
    for (const PeerType *type : peers) {
        path = newFile();
        const std::shared_ptr<Peer> peer = type->open(path);
        contenders.push_back(appending(type->name + std::string(" prepared"), tables, path, rows,
                                       [peer, tables, samples] { peer->appendRoundRobin(tables, samples); }));
    }
    return contenders;
}

// Reading

/// Steps through the rows and asks for each cell.
void stepThrough(const Connection &connection, const QByteArray &sql)
{
    sqlite3_stmt *query = nullptr;
    sqlite3_prepare_v2(connection.handle(), sql.constData(), -1, &query, nullptr);
    const int columns = sqlite3_column_count(query);
    while (sqlite3_step(query) == SQLITE_ROW) {
        sqlite3_column_int64(query, 0);
        for (int column = 1; column < columns; ++column) {
            sqlite3_column_text(query, column);
            sqlite3_column_bytes(query, column);
        }
    }
    sqlite3_finalize(query);
}

template<typename Record>
std::vector<Contender> readContenders(Files &files, int rows)
{
    const Kind &kind = typedKind<Record>();
    const QString path = files.filled(kind, rows);
    const QString unsorted = QStringLiteral("select * from %1").arg(QLatin1String(kind.table));
    const QString sql = unsorted + QLatin1String(" order by DATETIME,ID");
    const auto connection = std::make_shared<Connection>(path);
    const auto store =
        std::make_shared<typename StoreOf<Record>::Type>(must(StoreOf<Record>::Type::open(loaded(), path)));
    const device::TableName table = tableName(QLatin1String(kind.table));
    std::vector<Contender> contenders{
        {"FLOOR", double(rows), [connection, sql = sql.toUtf8()] { stepThrough(*connection, sql); }, {}, [] {}, {}},
        reading<Record>("TYPED", rows, [store, table](QList<Record> &list) {
            list = must(store->read(table, device::Query<Record>().oldestFirst()));
        })};
    for (const PeerType *type : peers) {
        const std::shared_ptr<Peer> peer = type->open(path);
        contenders.push_back(
            reading<Record>(type->name, rows, [peer, sql](QList<Record> &list) { peer->readTyped(sql, list); }));
    }
    const std::shared_ptr<Peer> peer = sqliteCppPeer.open(path);
    contenders.push_back(reading<Record>("SQLiteCpp unsorted", rows,
                                         [peer, unsorted](QList<Record> &list) { peer->readTyped(unsorted, list); }));
    return contenders;
}

std::string name(const char *operation, int rows, const Kind &kind)
{
    return operation + ('/' + std::to_string(rows)) + '/' + kind.name;
}

template<typename Record>
void addKind(std::vector<Workload> &workloads, const std::shared_ptr<Files> &files, const Sizes &sizes)
{
    const Kind &kind = typedKind<Record>();
    for (const int rows : {sizes.batch / 20, sizes.batch}) {
        workloads.push_back({name("typed-append", rows, kind), "us/row", sizes.rounds, appendBases,
                             [=] { return appendContenders<Record>(*files, rows); }});
    }
    for (const int rows : {sizes.small, sizes.large}) {
        workloads.push_back({name("typed-read", rows, kind), "us/row",
                             rows == sizes.small ? sizes.rounds : (sizes.rounds + 2) / 3, readBases,
                             [=] { return readContenders<Record>(*files, rows); }});
    }
    const std::string forChildren = name("typed-read", sizes.huge, kind);
    workloads.push_back(
        {forChildren, "us/row", 0, readBases, [=] { return readContenders<Record>(*files, sizes.huge); }});
    workloads.push_back({name("typed-memory", sizes.huge, kind), "MB", 1, {"list"}, [=] {
                             const Memory wrapper = childMemory(forChildren, "SQLiteCpp", sizes.options);
                             const Memory typed = childMemory(forChildren, "TYPED", sizes.options);
                             return std::vector<Contender>{figure("list", typed.kept), figure("TYPED", typed.peak),
                                                           figure("SQLiteCpp", wrapper.peak)};
                         }});
}

} // namespace

void addTyped(std::vector<Workload> &workloads, const std::shared_ptr<Files> &files, const Sizes &sizes)
{
    addKind<device::Sample>(workloads, files, sizes);
    addKind<device::Alarm>(workloads, files, sizes);
    addKind<device::LogEntry>(workloads, files, sizes);
    for (const int rows : {10, 200}) {
        workloads.push_back({name("typed-series", rows, historyKind), "us/row", sizes.rounds, appendBases,
                             [=] { return seriesContenders(*files, rows); }});
    }
}
