// SPDX-License-Identifier: MIT
#include "store_reader.h"

#include "row_encoder.h"
#include "storefile/texts.h"
#include "storefile/unlocked_read.h"

#include <thread>

#include <sqlite3.h>

namespace device_ship
{

using device::Result;
using device::Status;
using device_db::Database;

Result<bool> StoreReader::tryRead(const std::function<Status(const Database &)> &read)
{
    const Known before = m_known;
    auto done = device_db::readUnlocked(m_file.path, [&](const Database &database) {
        sqlite3_limit(database.handle(), SQLITE_LIMIT_LENGTH, int(largestCell));
        return read(database);
    });
    if (!done || !*done)
        m_known = before;
    return done;
}

Status StoreReader::read(const std::function<Status(const Database &)> &read)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + patience;
    for (;;) {
        const auto done = tryRead(read);
        if (!done)
            return done.error();
        if (*done)
            return {};
        if (Clock::now() > deadline)
            return neverStill();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

device::Error StoreReader::neverStill() const
{
    return device_db::failure(m_file.path, QStringLiteral("it is written without a pause, or held locked; it is read "
                                                          "again later"));
}

Result<bool> StoreReader::tablesChanged(const Database &database)
{
    const auto schema = device_db::schemaDigest(database);
    if (!schema)
        return schema.error();
    QByteArray version = *schema;
    if (const auto series = database.text("select ifnull((select seq from sqlite_sequence where name='tb_config'),0)"))
        version += *series; // no sqlite_sequence, no list
    if (version == m_known.version)
        return false;
    const auto all = device_db::tablesOf(database);
    if (!all)
        return all.error();
    Known known;
    known.version = version;
    for (const device_db::Table &table : *all) {
        if (table.isMisnamed && device_db::holdsRecords(device_db::kindOf(table.columns)))
            known.misnamed << table.name;
        if (!device_db::holdsRecords(table.kind))
            continue;
        const auto isKeyed = device_db::isKeyedById(database, table);
        if (!isKeyed)
            return isKeyed.error();
        if (*isKeyed)
            known.tables << table;
        else
            known.keyless << table.name;
    }
    m_known = known;
    return true;
}

Result<QMap<QString, Title>> StoreReader::titles(const Database &database) const
{
    QMap<QString, Title> titles;
    const auto all = device_db::tablesOf(database);
    if (!all)
        return all.error();
    const auto series = device_db::registrationsOf(database, *all);
    if (!series)
        return series.error();
    for (const device_db::Registration &each : *series)
        titles[QString::fromUtf8(each.collector).toLower()].title = each.name;
    if (auto units = database.prepare("select COLLECTOR,UNIT,DESCRIPTION from \"device series\"")) {
        while (units->step()) {
            Title &title = titles[device_db::fromUtf8(units->cell(0)).toLower()];
            title.unit = units->cell(1);
            title.description = units->cell(2);
        }
    }
    return titles;
}

} // namespace device_ship
