// SPDX-License-Identifier: MIT
#include "workload.h"

#include "connection.h"
#include "loaded_library.h"
#include "peer.h"
#include "plain.h"

#include <QCryptographicHash>
#include <QFile>
#include <QMap>

#include <sqlite3.h>

#include <deque>
#include <memory>
#include <stdexcept>

namespace
{

const std::vector<std::string> floorAndOurs{"FLOOR", "OURS"};
const PeerType *const peers[] = {&qtSqlPeer, &sqliteCppPeer, &sociPeer, &pocoPeer};

using Store = std::shared_ptr<interface_data_base>;

Store openStore(const Kind &kind, const QString &path)
{
    const Store store = library::store(kind.key);
    if (store->openDB(path) != SQLITE_OK)
        throw std::runtime_error("openDB failed");
    return store;
}

/// The database files, made on demand.
class Files
{
public:
    Files(const Data &data, const QString &folder) : m_data(data), m_folder(folder) {}

    /// A new file with an empty table, made by the library itself.
    QString empty(const Kind &kind)
    {
        const QString path = QStringLiteral("%1/%2.db").arg(m_folder).arg(++m_count);
        if (!openStore(kind, path)->createTable(QLatin1String(kind.table), QString()))
            throw std::runtime_error("createTable failed");
        return path;
    }

    /// A file that holds the first `rows` rows; always the same one: it is for reading.
    QString filled(const Kind &kind, int rows, bool indexed = false)
    {
        QString &path = m_filled[{QLatin1String(kind.name), QString::number(rows), QString::number(indexed)}];
        if (!path.isEmpty())
            return path;
        if (indexed) {
            const QString copy = filled(kind, rows) + QStringLiteral(".indexed");
            QFile::copy(filled(kind, rows), copy);
            Connection(copy).run("create index byTime on " + QByteArray(kind.table) + " (DATETIME)");
            return path = copy;
        }
        return path = fill(kind, rows);
    }

    /// The same, but a file of its own.
    QString fill(const Kind &kind, int rows)
    {
        const QString path = empty(kind);
        Connection connection(path);
        connection.run("begin");
        sqlite3_stmt *insert = nullptr;
        sqlite3_prepare_v2(connection.handle(), preparedInsert(kind).toUtf8().constData(), -1, &insert, nullptr);
        for (int row = 0; row < rows; ++row) {
            forEachColumn(kind, m_data.row(kind, row), [insert](int column, const QString &text) {
                const QByteArray bytes = text.toUtf8();
                sqlite3_bind_text(insert, column + 1, bytes.constData(), int(bytes.size()), SQLITE_TRANSIENT);
            });
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        connection.run("commit");
        return path;
    }

    const Data &data() const { return m_data; }

private:
    const Data m_data;
    const QString m_folder;
    int m_count = 0;
    QMap<QStringList, QString> m_filled;
};

// Fingerprints

QByteArray hash(const std::function<void(QCryptographicHash &)> &add)
{
    QCryptographicHash sum(QCryptographicHash::Sha1);
    add(sum);
    return sum.result();
}

void add(QCryptographicHash &sum, const QString &text)
{
    sum.addData(text.toUtf8().append('\0'));
}

void add(QCryptographicHash &sum, const DataContent &sample)
{
    for (const QString &text : {sample.date, sample.time, sample.extraText, sample.value})
        add(sum, text);
}

void add(QCryptographicHash &sum, const AlarmData &alarm)
{
    for (const QString &text : {QString::number(alarm.level), QString::number(alarm.limitValue), alarm.description,
                                alarm.alarmObject, alarm.alarmType, alarm.currentValue, alarm.extraText,
                                alarm.startTime.toString(Qt::ISODateWithMs), alarm.endTime.toString(Qt::ISODateWithMs)})
        add(sum, text);
}

void add(QCryptographicHash &sum, const OperatorLogData &entry)
{
    for (const QString &text :
         {entry.userName, entry.logName, entry.message, entry.dateTime.toString(Qt::ISODateWithMs)})
        add(sum, text);
}

void add(QCryptographicHash &sum, const QStringList &row)
{
    for (const QString &text : row)
        add(sum, text);
}

/// What stands in a table of a file, the IDs left out.
QByteArray contents(const Kind &kind, const QString &path)
{
    return hash([&](QCryptographicHash &sum) {
        Connection connection(path);
        const Table table(connection.handle(), "select * from " + QByteArray(kind.table) + " order by ID");
        for (int row = 1; row <= table.rows; ++row) {
            for (int column = 1; column < table.columns; ++column)
                sum.addData(QByteArray(table.cells[row * table.columns + column]).append('\0'));
        }
    });
}

// Inserts

QString statement(const Kind &kind, const QStringList &row)
{
    const QString table = QLatin1String(kind.table);
    if (&kind == &historyKind)
        return plain::historyStatement(row, table);
    return &kind == &alarmKind ? plain::alarmStatement(row) : plain::logStatement(row, table);
}

void run(Connection &connection, const QByteArray &sql)
{
    sqlite3_exec(connection.handle(), sql.constData(), nullptr, nullptr, nullptr);
}

Contender inserting(const Kind &kind, const QString &path, const std::string &name, int rows,
                    std::function<void()> insert, std::function<void()> clear)
{
    return {name, double(rows), std::move(insert), [&kind, path] { return contents(kind, path); }, std::move(clear),
            {}};
}

Contender floorInsert(const Kind &kind, const QString &path, const Rows &rows, const QByteArray &clear)
{
    const auto connection = std::make_shared<Connection>(path);
    std::vector<QByteArray> texts;
    for (const QStringList &row : rows)
        texts.push_back(statement(kind, row).toUtf8());
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
                run(*connection, statement(kind, row).toUtf8());
            run(*connection, "commit transaction");
        },
        [connection, clear] { connection->run(clear); });
}

Contender ourInsert(const Kind &kind, const QString &path, const Rows &rows, std::function<void(Store)> clear)
{
    const Store store = openStore(kind, path);
    const auto batch = std::make_shared<Rows>(rows);
    return inserting(
        kind, path, "OURS", int(rows.size()),
        [&kind, store, batch] { store->insertManyDatas(*batch, QLatin1String(kind.table)); },
        [store, clear] { clear(store); });
}

/// A batch into an empty table, which is emptied behind it.
std::vector<Contender> insertContenders(const Kind &kind, Files &files, int batch)
{
    const Rows rows = files.data().rows(kind, batch);
    const QByteArray clear = "delete from " + QByteArray(kind.table);
    std::vector<Contender> contenders{
        floorInsert(kind, files.empty(kind), rows, clear),
        plainInsert(kind, files.empty(kind), rows, clear),
        ourInsert(kind, files.empty(kind), rows,
                  [&kind](const Store &store) {
                      store->deleteTable(QLatin1String(kind.table),
                                         QStringLiteral("9999")); // alarms: all before the year
                  }),
    };
    for (const PeerType *type : peers) {
        for (const bool prepared : {true, false}) {
            const QString path = files.empty(kind);
            const std::shared_ptr<Peer> peer = type->open(path);
            const auto cleaner = std::make_shared<Connection>(path);
            contenders.push_back(inserting(
                kind, path, std::string(type->name) + (prepared ? " prepared" : " text"), batch,
                [&kind, peer, prepared, rows] {
                    if (prepared)
                        peer->insertPrepared(kind, rows);
                    else
                        peer->insertText(kind, rows);
                },
                [cleaner, clear] { cleaner->run(clear); }));
        }
    }
    return contenders;
}

// Reads

/// Runs gather their outputs; freeing them is not measured.
template<typename Record>
Contender reading(const std::string &name, double items, std::function<void(QList<Record> &)> read)
{
    const auto outputs = std::make_shared<std::deque<QList<Record>>>();
    return {name,
            items,
            [outputs, read] {
                outputs->emplace_back();
                read(outputs->back());
            },
            [outputs] {
                return hash([&](QCryptographicHash &sum) {
                    for (const Record &record : outputs->front())
                        add(sum, record);
                });
            },
            [outputs] { outputs->clear(); },
            {}};
}

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
                                      std::function<void(Store, QList<Record> &)> ours)
{
    const Store store = openStore(kind, path);
    std::vector<Contender> contenders{
        floorRead(path, sql.toUtf8(), rows),
        plainRead<Record>(path, sql, rows),
        reading<Record>("OURS", rows, [store, ours](QList<Record> &list) { ours(store, list); }),
    };
    for (const PeerType *type : peers) {
        const std::shared_ptr<Peer> peer = type->open(path);
        contenders.push_back(reading<Record>(type->name, rows,
                                             [&kind, peer, sql](QList<Record> &list) { peer->read(kind, sql, list); }));
    }
    return contenders;
}

template<typename Record>
std::vector<Contender> recordContenders(Files &files, int rows)
{
    const Kind &kind = kindOf<Record>();
    const QString table = QLatin1String(kind.table);
    const QString start = Data::time(0);
    const QString end = Data::time(rows - 1);
    const QString sql =
        QStringLiteral("select * from %1 where DATETIME Between '%2' and  '%3' %4order by DATETIME asc;")
            .arg(table, start + QLatin1String(kind.boundsTail[0]), end + QLatin1String(kind.boundsTail[1]),
                 QLatin1String(kind.onlyActive));
    return readContenders<Record>(kind, files.filled(kind, rows), sql, rows,
                                  [=](const Store &store, QList<Record> &list) {
                                      store->findDataOfTime(start, end, &list, table, QStringLiteral("asc"));
                                  });
}

std::vector<Contender> tableContenders(const Kind &kind, Files &files, int rows)
{
    const QString table = QLatin1String(kind.table);
    const QString sql = QStringLiteral("select * from '%1' order by DATETIME  , ID limit 0,%2 ").arg(table).arg(rows);
    return readContenders<QStringList>(
        kind, files.filled(kind, rows), sql, rows,
        [=](const Store &store, Rows &result) { store->selectDataOfRows(table, 0, rows, result, false); });
}

// All of them

std::string name(const char *operation, int rows, const Kind &kind)
{
    return std::string(operation) + '/' + std::to_string(rows) + '/' + kind.name;
}

template<typename Record>
void addStore(std::vector<Workload> &workloads, const std::shared_ptr<Files> &files, const Sizes &sizes)
{
    const Kind &kind = kindOf<Record>();
    for (const int rows : {1, 10, sizes.batch}) {
        workloads.push_back({name("insert", rows, kind), "us/row", sizes.rounds, floorAndOurs,
                             [=, &kind] { return insertContenders(kind, *files, rows); }});
    }
    for (const int rows : {sizes.small, sizes.large}) {
        const int rounds = rows == sizes.small ? sizes.rounds : (sizes.rounds + 2) / 3;
        workloads.push_back({name("records", rows, kind), "us/row", rounds, floorAndOurs,
                             [=] { return recordContenders<Record>(*files, rows); }});
        workloads.push_back({name("tables", rows, kind), "us/row", rounds, floorAndOurs,
                             [=, &kind] { return tableContenders(kind, *files, rows); }});
    }
}

} // namespace

std::vector<Workload> allWorkloads(const Sizes &sizes, const Data &data, const QString &folder)
{
    const auto files = std::make_shared<Files>(data, folder);
    std::vector<Workload> workloads;
    addStore<DataContent>(workloads, files, sizes);
    addStore<AlarmData>(workloads, files, sizes);
    addStore<OperatorLogData>(workloads, files, sizes);
    return workloads;
}
