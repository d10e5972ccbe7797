// SPDX-License-Identifier: MIT
#include "commands/destinations.h"

#include "device/store.h"

#include <QFileInfo>

#include <optional>
#include <utility>
#include <vector>

namespace device_db
{

namespace
{

template<typename Store, typename Make>
Status makeTables(const WriteOptions &file, const QVector<Destination> &destinations, const Make &make)
{
    const auto library = storeLibrary(file);
    if (!library)
        return library.error();
    std::vector<std::pair<device::TableName, QString>> tables;
    for (const Destination &destination : destinations) {
        if (destination.kind != Kind::Foreign)
            continue;
        const auto name = device::TableName::from(destination.table);
        if (!name)
            return name.error();
        tables.emplace_back(*name, destination.title);
    }
    auto store = Store::open(*library, file.path);
    if (!store)
        return store.error();
    for (const auto &[name, title] : tables) {
        if (const auto made = make(*store, name, title); !made)
            return made.error();
    }
    return {};
}

Status lookUp(const Database &database, const QString &path, const Lookup &lookup, Destination &destination)
{
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    for (const Table &table : *tables) {
        if (table.name.compare(destination.table, Qt::CaseInsensitive) != 0)
            continue;
        if (!holdsRecords(table.kind) || (lookup.samplesOnly && table.kind != Kind::Samples))
            return failure(path, QStringLiteral("table %1 has other columns (%2); take another name")
                                     .arg(table.name, table.columns.join(QLatin1String(", "))));
        destination.table = table.name;
        destination.kind = table.kind;
        return {};
    }
    if (lookup.create)
        return {};
    const auto chosen = chooseTable(database, destination.table); // for its words
    return failure(path, (chosen ? QString() : chosen.error().cause()) + QStringLiteral(", or make it with --create"));
}

} // namespace

Status lookUp(const WriteOptions &file, const Lookup &lookup, QVector<Destination> &destinations)
{
    if (!QFileInfo::exists(file.path)) {
        if (lookup.create)
            return {};
        return failure(file.path, QStringLiteral("there is no such file; check the name, or make it with "
                                                 "--create"));
    }
    std::optional<OpenFile> readable;
    std::optional<Database> writable;
    if (lookup.onlyRead) {
        auto opened = openForDryRun(file);
        if (!opened)
            return opened.error();
        readable.emplace(std::move(opened).value());
    } else {
        auto opened = openForWriting(file);
        if (!opened)
            return opened.error();
        writable.emplace(std::move(opened).value());
    }
    for (Destination &destination : destinations) {
        if (const Status found =
                lookUp(lookup.onlyRead ? readable->database : *writable, file.path, lookup, destination);
            !found)
            return found;
    }
    return {};
}

Status mayBeMade(const QVector<Destination> &destinations, Kind kind)
{
    for (const Destination &destination : destinations) {
        // An alarm store writes into this table and no other.
        if (destination.kind == Kind::Foreign && kind != Kind::Alarms &&
            destination.table.compare(QLatin1String("AlarmData"), Qt::CaseInsensitive) == 0)
            return failure(destination.table, QStringLiteral("only a table of alarms may have this name, or no device "
                                                             "could store alarms in the file; take another"));
    }
    return {};
}

Status makeTables(const WriteOptions &file, const QVector<Destination> &destinations, Kind kind)
{
    const auto plain = [](auto &store, const device::TableName &name, const QString &) {
        return store.createTable(name);
    };
    const auto series = [](auto &store, const device::TableName &name, const QString &title) {
        return store.createTable(name, title);
    };
    switch (kind) {
    case Kind::Alarms:
        return makeTables<device::AlarmStore>(file, destinations, plain);
    case Kind::Log:
        return makeTables<device::LogStore>(file, destinations, plain);
    default:
        return makeTables<device::HistoryStore>(file, destinations, series);
    }
}

} // namespace device_db
