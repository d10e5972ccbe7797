// SPDX-License-Identifier: MIT
#include "schema.h"

#include "archive_sql.h"

#include <functional>

namespace device_ship
{

using device_db::failure;

int schemaVersion()
{
    return int(archiveSql().size());
}

namespace
{

// In a transaction: two at once would meet in the catalogs. A device could hold the lock, too, but only until somebody
// looks.
Status alone(ArchiveConnection &archive, const std::function<Status()> &change)
{
    const auto changed = [&]() -> Status {
        const auto begun = archive.query("begin; set local lock_timeout = '1min'; "
                                         "select pg_advisory_xact_lock(hashtextextended('fleet.version', 0)); "
                                         "set local lock_timeout = default");
        if (!begun)
            return begun.error();
        if (const Status done = change(); !done)
            return done;
        const auto committed = archive.query("commit");
        return committed ? Status() : committed.error();
    }();
    if (!changed)
        (void)archive.query("rollback");
    return changed;
}

Result<int> bringUpToDate(ArchiveConnection &archive)
{
    const auto exists = archive.query("select to_regclass('fleet.version') is not null");
    if (!exists)
        return exists.error();
    int version = 0;
    if (exists->first().first() == "t") {
        const auto found = archive.query("select max(version) from fleet.version");
        if (!found)
            return found.error();
        version = found->first().first().toInt();
    }
    if (version > schemaVersion())
        return failure(QStringLiteral("archive"), QStringLiteral("it is of version %1, made by a later device-ship; "
                                                                 "this one knows %2")
                                                      .arg(version)
                                                      .arg(schemaVersion()));
    QByteArray sql;
    for (int next = version; next < schemaVersion(); ++next)
        sql += archiveSql().at(next);
    sql += "insert into fleet.version (version) select generate_series(" + QByteArray::number(version + 1) + ", " +
           QByteArray::number(schemaVersion()) + "); select fleet.make_months()";
    const auto done = archive.query(sql);
    return done ? Result<int>(version) : done.error();
}

} // namespace

Result<int> initialise(ArchiveConnection &archive)
{
    const auto encoding = archive.query("show server_encoding");
    if (!encoding)
        return encoding.error();
    if (encoding->first().first() != "UTF8")
        return failure(QStringLiteral("archive"),
                       QStringLiteral("its encoding is %1; make a database with the encoding UTF8")
                           .arg(QString::fromLatin1(encoding->first().first())));
    int former = 0;
    const Status done = alone(archive, [&]() -> Status {
        const auto version = bringUpToDate(archive);
        if (!version)
            return version.error();
        former = *version;
        return {};
    });
    return done ? Result<int>(former) : done.error();
}

Status addDevice(ArchiveConnection &archive, int number, const QString &name, const QByteArray &password)
{
    const QByteArray role = "dev_" + QByteArray::number(number);
    QByteArray secret;
    if (!password.isEmpty()) {
        const auto encrypted = archive.encryptedPassword(password, role);
        if (!encrypted)
            return encrypted.error();
        secret = *encrypted;
    }
    return alone(archive, [&]() -> Status {
        const auto known = archive.query("select from pg_roles where rolname = $1", {role});
        if (!known)
            return known.error();
        QByteArray sql;
        if (known->isEmpty())
            sql += "create role " + role + ";";
        // A statement that waits, or a transaction that is left open, must not last.
        sql += "alter role " + role + " login connection limit 4" +
               (secret.isEmpty() ? QByteArray() : " password '" + secret + "'") + ";grant fleet_device to " + role +
               ";alter role " + role + " set statement_timeout = '5min';alter role " + role +
               " set idle_in_transaction_session_timeout = '1min';";
        if (const auto made = archive.query(sql); !made)
            return made.error();
        const auto listed =
            archive.query("insert into fleet.device (device, name) values ($1, $2) "
                          "on conflict (device) do update set name = coalesce(nullif($2, ''), device.name)",
                          {QByteArray::number(number), name.toUtf8().append("")});
        return listed ? Status() : listed.error();
    });
}

} // namespace device_ship
