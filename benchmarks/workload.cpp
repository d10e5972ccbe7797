// SPDX-License-Identifier: MIT
#include "workload.h"

#include "connection.h"
#include "files.h"
#include "fingerprint.h"
#include "memory.h"
#include "peer.h"
#include "plain.h"
#include "typed.h"

#include <sqlite3.h>

#include <memory>

namespace
{

const std::vector<std::string> floorAndOurs{"FLOOR", "OURS"};
const PeerType *const peers[] = {&qtSqlPeer, &sqliteCppPeer, &sociPeer, &pocoPeer};

const struct {
    const PeerType *type;
    const char *name;
    void (Peer::*insert)(const Kind &, const Rows &);
} peerInserts[] = {
    {&qtSqlPeer, "Qt SQL prepared", &Peer::insertPrepared},
    {&sqliteCppPeer, "SQLiteCpp prepared", &Peer::insertPrepared},
    {&sociPeer, "SOCI prepared", &Peer::insertPrepared},
    {&pocoPeer, "POCO prepared", &Peer::insertPrepared},
    {&qtSqlPeer, "Qt SQL text", &Peer::insertText},
    {&sqliteCppPeer, "SQLiteCpp text", &Peer::insertText},
    {&sociPeer, "SOCI text", &Peer::insertText},
    {&pocoPeer, "POCO text", &Peer::insertText},
    {&sqliteCppPeer, "SQLiteCpp joined", &Peer::insertJoined},
};

// Inserts

void run(Connection &connection, const QByteArray &sql)
{
    sqlite3_exec(connection.handle(), sql.constData(), nullptr, nullptr, nullptr);
}

Contender inserting(const Kind &kind, const QString &path, const std::string &name, int rows,
                    std::function<void()> insert, std::function<void()> clear)
{
    return {
        name, double(rows), std::move(insert), [&kind, path] { return contents(kind.table, path); }, std::move(clear),
        {}};
}

Contender floorInsert(const Kind &kind, const QString &path, const Rows &rows, const QByteArray &clear)
{
    const auto connection = std::make_shared<Connection>(path);
    std::vector<QByteArray> texts;
    for (const QStringList &row : rows)
        texts.push_back(textInsert(kind, row).toUtf8());
    return inserting(
        kind, path, "FLOOR", int(rows.size()),
        [connection, texts] {
            run(*connection, "begin transaction");
            for (const QByteArray &text : texts)
                run(*connection, text);
            run(*connection, "commit transaction");
        },
        [connection, clear] { connection->run(clear); });
}

Contender plainInsert(const Kind &kind, const QString &path, const Rows &rows, const QByteArray &clear)
{
    const auto connection = std::make_shared<Connection>(path);
    return inserting(
        kind, path, "PLAIN", int(rows.size()),
        [&kind, connection, rows] {
            run(*connection, "begin transaction");
            for (const QStringList &row : rows)
                run(*connection, textInsert(kind, row).toUtf8());
            run(*connection, "commit transaction");
        },
        [connection, clear] { connection->run(clear); });
}

Contender ourInsert(const Kind &kind, const QString &path, const Rows &rows, std::function<void(Store)> clear)
{
    const Store store = openStore(kind, path);
    const auto batch = std::make_shared<Rows>(rows);
    const QString table = QLatin1String(kind.table);
    return inserting(
        kind, path, "OURS", int(rows.size()), [store, batch, table] { store->insertManyDatas(*batch, table); },
        [store, clear] { clear(store); });
}

/// A batch into an empty table, which is emptied afterwards.
std::vector<Contender> insertContenders(const Kind &kind, Files &files, int batch, bool inMemory)
{
    const Rows rows = files.data().rows(kind, batch);
    const QByteArray clear = "delete from " + QByteArray(kind.table);
    const auto newFile = [&] { return inMemory ? files.emptyInMemory(kind) : files.empty(kind); };
    std::vector<Contender> contenders{
        floorInsert(kind, newFile(), rows, clear),
        plainInsert(kind, newFile(), rows, clear),
        ourInsert(kind, newFile(), rows,
                  [&kind](const Store &store) {
                      store->deleteTable(QLatin1String(kind.table),
                                         QStringLiteral("9999")); // alarms: all before the year
                  }),
    };
    for (const auto &way : peerInserts) {
        const QString path = newFile();
        const std::shared_ptr<Peer> peer = way.type->open(path);
        const auto cleaner = std::make_shared<Connection>(path);
        contenders.push_back(inserting(
            kind, path, way.name, batch, [&kind, peer, way, rows] { (peer.get()->*way.insert)(kind, rows); },
            [cleaner, clear] { cleaner->run(clear); }));
    }
    return contenders;
}

// Reads

Contender floorRead(const QString &path, const QByteArray &sql, double items)
{
    const auto connection = std::make_shared<Connection>(path);
    return {"FLOOR", items, [connection, sql] { Table(connection->handle(), sql); }, {}, [] {}, {}};
}

template<typename Record>
Contender plainRead(const QString &path, const QString &sql, double items)
{
    const auto connection = std::make_shared<Connection>(path);
    return reading<Record>("PLAIN", items, [connection, sql](QList<Record> &list) {
        const Table table(connection->handle(), sql.toUtf8());
        plain::append({table.cells, table.rows, table.columns}, list);
    });
}

template<typename Record>
std::vector<Contender> readContenders(const Kind &kind, const QString &path, const QString &sql, int rows,
                                      bool withPeers, std::function<void(Store, QList<Record> &)> ours)
{
    const Store store = openStore(kind, path);
    std::vector<Contender> contenders{
        floorRead(path, sql.toUtf8(), rows),
        plainRead<Record>(path, sql, rows),
        reading<Record>("OURS", rows, [store, ours](QList<Record> &list) { ours(store, list); }),
    };
    if (!withPeers)
        return contenders;
    for (const PeerType *type : peers) {
        const std::shared_ptr<Peer> peer = type->open(path);
        contenders.push_back(reading<Record>(type->name, rows,
                                             [&kind, peer, sql](QList<Record> &list) { peer->read(kind, sql, list); }));
    }
    return contenders;
}

template<typename Record>
std::vector<Contender> recordContenders(Files &files, int rows, bool withPeers)
{
    const Kind &kind = kindOf<Record>();
    const QString table = QLatin1String(kind.table);
    const QString start = Data::time(0);
    const QString end = Data::time(rows - 1);
    const QString sql =
        QStringLiteral("select * from %1 where DATETIME Between '%2' and  '%3' %4order by DATETIME asc;")
            .arg(table, start + QLatin1String(kind.boundsTail[0]), end + QLatin1String(kind.boundsTail[1]),
                 QLatin1String(kind.onlyActive));
    return readContenders<Record>(kind, files.filled(kind, rows), sql, rows, withPeers,
                                  [=](const Store &store, QList<Record> &list) {
                                      store->findDataOfTime(start, end, &list, table, QStringLiteral("asc"));
                                  });
}

std::vector<Contender> tableContenders(const Kind &kind, Files &files, int rows)
{
    const QString table = QLatin1String(kind.table);
    const QString sql = QStringLiteral("select * from '%1' order by DATETIME  , ID limit 0,%2 ").arg(table).arg(rows);
    return readContenders<QStringList>(
        kind, files.filled(kind, rows), sql, rows, true,
        [=](const Store &store, Rows &result) { store->selectDataOfRows(table, 0, rows, result, false); });
}

// Counts and pages

struct Count {
    const char *name;
    QString sql;
    std::function<int(interface_data_base &)> ours;
};

std::vector<Count> counts(const Kind &kind, int rows)
{
    const QString table = QLatin1String(kind.table);
    const QString start = Data::time(rows / 4);
    const QString end = Data::time(rows / 4 * 3);
    const bool wholeSeconds = &kind != &historyKind;
    return {
        {"count", QStringLiteral("select count(*) from '%1' ").arg(table),
         [=](interface_data_base &store) { return store.getDataCountOfTable(table); }},
        {"count-to", QStringLiteral("select count(*) from '%1' where DATETIME <= '%2'").arg(table, end),
         [=](interface_data_base &store) { return store.getDataCountOfTableEndDate(table, end); }},
        {"count-range",
         QStringLiteral("select count(*) from '%1' where DATETIME Between '%2' and  '%3'")
             .arg(table, start + QLatin1String(wholeSeconds ? ".000" : ""),
                  end + QLatin1String(wholeSeconds ? ".999" : "")),
         [=](interface_data_base &store) { return store.getDataCountOfTimeQuery(start, end, table); }},
    };
}

std::vector<Contender> countContenders(const Count &count, const QString &path, const Kind &kind)
{
    const auto connection = std::make_shared<Connection>(path);
    const Store store = openStore(kind, path);
    const QByteArray sql = count.sql.toUtf8();
    Contender floor = floorRead(path, sql, 1);
    floor.result = [connection, sql] {
        const Table table(connection->handle(), sql);
        return QByteArray(table.cells[1]);
    };
    return {floor,
            {"OURS",
             1,
             [count, store] { count.ours(*store); },
             [count, store] { return QByteArray::number(count.ours(*store)); },
             [] {},
             {}}};
}

constexpr int pageSize = 50;

/// The newest page, as records.
template<typename Record>
std::vector<Contender> pageContenders(const QString &path, int rows)
{
    const Kind &kind = kindOf<Record>();
    const QString table = QLatin1String(kind.table);
    const QString desc = QStringLiteral("desc");
    const QString start = Data::time(0);
    const QString end = Data::time(rows);
    const bool byTime = &kind == &alarmKind; // alarms know no page of all
    const QString sql =
        byTime
            ? QStringLiteral("select * from %1 where DATETIME Between '%2' and  '%3' and EndDate = '' and EndTime = '' "
                             "order by DATETIME desc limit 0, %4;")
                  .arg(table, start, end)
                  .arg(pageSize)
            : QStringLiteral("select * from '%1' order by DATETIME desc limit 0, %2;").arg(table).arg(pageSize);
    const Store store = openStore(kind, path);
    return {floorRead(path, sql.toUtf8(), 1), plainRead<Record>(path, sql, 1),
            reading<Record>("OURS", 1, [=](QList<Record> &list) {
                if (byTime)
                    store->findDataOfTimePage(start, end, &list, table, desc, 0, pageSize, 0);
                else
                    store->getAllDataPage(table, &list, desc, 0, pageSize, 0);
            })};
}

/// The newest page, as a result table.
std::vector<Contender> rowPageContenders(const Kind &kind, const QString &path)
{
    const QString table = QLatin1String(kind.table);
    const QString sql =
        QStringLiteral("select * from '%1' order by DATETIME desc , ID limit 0,%2 ").arg(table).arg(pageSize);
    const Store store = openStore(kind, path);
    return {floorRead(path, sql.toUtf8(), 1), plainRead<QStringList>(path, sql, 1),
            reading<QStringList>("OURS", 1,
                                 [=](Rows &result) { store->selectDataOfRows(table, 0, pageSize, result, true); })};
}

// Growth and memory

std::string named(const char *contender, int rows)
{
    return contender + (' ' + std::to_string(rows));
}

/// The same batch appended to few rows and to many. The oldest rows make room for the next.
std::vector<Contender> growingInserts(const Kind &kind, Files &files, const Sizes &sizes)
{
    const Rows rows = files.data().rows(kind, sizes.batch);
    const QString table = QLatin1String(kind.table);
    const int batch = sizes.batch;
    std::vector<Contender> contenders;
    for (const int size : {sizes.small, sizes.huge}) {
        const QByteArray trim = QStringLiteral("delete from %1 where ID in (select ID from %1 order by ID limit 0,%2)")
                                    .arg(table)
                                    .arg(batch)
                                    .toUtf8();
        contenders.push_back(floorInsert(kind, files.filledCopy(kind, size), rows, trim));
        contenders.back().name = named("FLOOR", size);
        contenders.push_back(ourInsert(kind, files.filledCopy(kind, size), rows,
                                       [table, batch](const Store &store) { store->deleteDataForMax(batch, table); }));
        contenders.back().name = named("OURS", size);
    }
    for (Contender &contender : contenders)
        contender.result = nullptr; // tables of two sizes
    return contenders;
}

template<typename Record>
std::vector<Contender> growingReads(Files &files, const Sizes &sizes)
{
    std::vector<Contender> contenders;
    for (const int size : {sizes.small, sizes.huge}) {
        for (Contender &contender : recordContenders<Record>(files, size, false)) {
            if (contender.name == "PLAIN")
                continue;
            contender.name = named(contender.name.c_str(), size);
            contender.result = nullptr; // lists of two sizes
            contenders.push_back(std::move(contender));
        }
    }
    return contenders;
}

// All of them

std::string name(const std::string &operation, int rows, const Kind &kind)
{
    return operation + '/' + std::to_string(rows) + '/' + kind.name;
}

template<typename Record>
void addStore(std::vector<Workload> &workloads, const std::shared_ptr<Files> &files, const Sizes &sizes)
{
    const Kind &kind = kindOf<Record>();
    const int fast = sizes.rounds;
    const int slow = (sizes.rounds + 2) / 3;
    const int slowest = (sizes.rounds + 4) / 5;

    for (const int rows : {1, 10, sizes.batch}) {
        workloads.push_back({name("insert", rows, kind), "us/row", fast, floorAndOurs,
                             [=, &kind] { return insertContenders(kind, *files, rows, false); }});
    }
    // A small batch on a file is mostly the system calls for its journal; without them:
    for (const int rows : {1, 10}) {
        workloads.push_back({name("insert-memory", rows, kind), "us/row", fast, floorAndOurs,
                             [=, &kind] { return insertContenders(kind, *files, rows, true); }});
    }
    for (const int rows : {sizes.small, sizes.large}) {
        const int rounds = rows == sizes.small ? fast : slow;
        workloads.push_back({name("records", rows, kind), "us/row", rounds, floorAndOurs,
                             [=] { return recordContenders<Record>(*files, rows, true); }});
        workloads.push_back({name("tables", rows, kind), "us/row", rounds, floorAndOurs,
                             [=, &kind] { return tableContenders(kind, *files, rows); }});
    }

    for (const int rows : {sizes.large, sizes.huge}) {
        for (const bool indexed : {false, true}) {
            const std::string prefix = indexed ? "indexed-" : "";
            for (const Count &count : counts(kind, rows)) {
                workloads.push_back({name(prefix + count.name, rows, kind), "us/call", slow, floorAndOurs, [=, &kind] {
                                         return countContenders(count, files->filled(kind, rows, indexed), kind);
                                     }});
            }
            workloads.push_back({name(prefix + "page", rows, kind), "us/call", slow, floorAndOurs, [=, &kind] {
                                     return pageContenders<Record>(files->filled(kind, rows, indexed), rows);
                                 }});
            workloads.push_back({name(prefix + "page-rows", rows, kind), "us/call", slow, floorAndOurs,
                                 [=, &kind] { return rowPageContenders(kind, files->filled(kind, rows, indexed)); }});
        }
    }

    const std::vector<std::string> few{named("FLOOR", sizes.small), named("OURS", sizes.small)};
    workloads.push_back({name("growth-insert", sizes.huge, kind), "us/row", slow, few,
                         [=, &kind] { return growingInserts(kind, *files, sizes); }});
    workloads.push_back({name("growth-records", sizes.huge, kind), "us/row", slowest, few,
                         [=] { return growingReads<Record>(*files, sizes); }});

    const std::string forChildren = name("records", sizes.huge, kind);
    workloads.push_back(
        {forChildren, "us/row", 0, floorAndOurs, [=] { return recordContenders<Record>(*files, sizes.huge, false); }});
    workloads.push_back({name("memory-peak", sizes.huge, kind), "MB", 1, {"FLOOR", "FLOOR + list"}, [=] {
                             const Memory floor = childMemory(forChildren, "FLOOR", sizes.options);
                             const Memory plain = childMemory(forChildren, "PLAIN", sizes.options);
                             const Memory ours = childMemory(forChildren, "OURS", sizes.options);
                             return std::vector<Contender>{figure("FLOOR", floor.peak),
                                                           figure("FLOOR + list", floor.peak + ours.kept),
                                                           figure("PLAIN", plain.peak), figure("OURS", ours.peak)};
                         }});
    workloads.push_back({name("memory-list", sizes.huge, kind), "MB", 1, {"PLAIN"}, [=] {
                             const Memory plain = childMemory(forChildren, "PLAIN", sizes.options);
                             const Memory ours = childMemory(forChildren, "OURS", sizes.options);
                             return std::vector<Contender>{figure("PLAIN", plain.kept), figure("OURS", ours.kept)};
                         }});
}

} // namespace

std::vector<Workload> allWorkloads(const Sizes &sizes, const Data &data, const QString &folder)
{
    const auto files = std::make_shared<Files>(data, folder);
    std::vector<Workload> workloads;
    addStore<DataContent>(workloads, files, sizes);
    addStore<AlarmData>(workloads, files, sizes);
    addStore<OperatorLogData>(workloads, files, sizes);
    addTyped(workloads, files, sizes);
    return workloads;
}
