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

// In a transaction: two at once would meet in the catalogs. No lock is waited for long: a device can hold this one and
// those of its own rows for as long as it likes.
Status alone(ArchiveConnection &archive, const std::function<Status()> &change)
{
    const auto changed = [&]() -> Status {
        const auto begun = archive.query("begin; set local lock_timeout = '10s'; "
                                         "select pg_advisory_xact_lock(hashtextextended('fleet.version', 0))");
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

// Else a device could fill the server's disk with large objects. Their functions belong to the superuser: for anybody
// else, the statement that a superuser has to run.
Result<QByteArray> refuseLargeObjects(ArchiveConnection &archive)
{
    static const QByteArray revoke(
        "revoke execute on function lo_create(oid), lo_creat(integer), lo_from_bytea(oid, bytea), lo_put(oid, bigint, "
        "bytea), lowrite(integer, bytea), lo_open(oid, integer), lo_truncate(integer, integer), lo_truncate64(integer, "
        "bigint) from public");
    const auto known = archive.query("select has_function_privilege('public', 'lo_create(oid)', 'execute'), rolsuper "
                                     "from pg_roles where rolname = current_user");
    if (!known)
        return known.error();
    if (known->first().at(0) != "t")
        return QByteArray();
    if (known->first().at(1) != "t")
        return revoke;
    const auto done = archive.query(revoke);
    return done ? Result<QByteArray>(QByteArray()) : done.error();
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
    if (version < schemaVersion()) // else the lock is not needed, which a device can hold
        sql += "insert into fleet.version (version) select generate_series(" + QByteArray::number(version + 1) + ", " +
               QByteArray::number(schemaVersion()) + ");";
    sql += "select fleet.make_months()";
    const auto done = archive.query(sql);
    return done ? Result<int>(version) : done.error();
}

} // namespace

Result<Initialised> initialise(ArchiveConnection &archive)
{
    const auto encoding = archive.query("show server_encoding");
    if (!encoding)
        return encoding.error();
    if (encoding->first().first() != "UTF8")
        return failure(QStringLiteral("archive"),
                       QStringLiteral("its encoding is %1; make a database with the encoding UTF8")
                           .arg(QString::fromLatin1(encoding->first().first())));
    Initialised initialised;
    const Status done = alone(archive, [&]() -> Status {
        const auto toRevoke = refuseLargeObjects(archive); // first, because the other goes on as fleet_owner
        if (!toRevoke)
            return toRevoke.error();
        initialised.toRevoke = *toRevoke;
        const auto version = bringUpToDate(archive);
        if (!version)
            return version.error();
        initialised.former = *version;
        return {};
    });
    return done ? Result<Initialised>(initialised) : done.error();
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
        // A role that somebody made for something else keeps what it may do. Not counted is what devices can give
        // themselves and each other, which would refuse one another password.
        const auto known = archive.query(
            "select rolsuper or rolcreaterole or rolcreatedb or rolreplication or rolbypassrls or exists ("
            "    select from pg_auth_members where member = r.oid and roleid <> 'fleet_device'::regrole),"
            " (select string_agg(distinct pg_describe_object(classid, objid, 0), ', ') from pg_shdepend"
            "  where refclassid = 'pg_authid'::regclass and refobjid = r.oid"
            "      and classid not in ('pg_default_acl'::regclass, 'pg_largeobject'::regclass)"
            "      and dbid in (0, (select oid from pg_database where datname = current_database())))"
            " from pg_roles r where rolname = $1",
            {role});
        if (!known)
            return known.error();
        const QString granted = known->isEmpty() ? QString() : QString::fromUtf8(known->first().at(1));
        if (!granted.isEmpty() || (!known->isEmpty() && known->first().at(0) == "t"))
            return failure(
                QStringLiteral("archive"),
                QStringLiteral("the role %1 exists and may do more than a device%2; drop it, or take away what "
                               "it may do and its memberships")
                    .arg(QString::fromLatin1(role),
                         granted.isEmpty() ? QString() : QStringLiteral(" with ") + granted));
        QByteArray sql;
        if (known->isEmpty())
            sql += "create role " + role + ";";
        sql += "alter role " + role + " login connection limit 4" +
               (secret.isEmpty() ? QByteArray() : " password '" + secret + "'") + ";grant fleet_device to " + role +
               ';';
        // A role may have changed its own settings, with which no password helps.
        sql += "alter role " + role + " reset all;do $$ begin execute format('alter role " + role +
               " in database %I reset all', current_database()); end $$;";
        // A statement that waits, a transaction that is left open, and a session whose device is gone must not last: a
        // few would lock the device out. A service reports each minute.
        for (const char *limit : {"statement_timeout = '5min'", "idle_session_timeout = '5min'",
                                  "idle_in_transaction_session_timeout = '1min'"})
            sql += "alter role " + role + " set " + limit + ';';
        if (const auto made = archive.query(sql); !made)
            return made.error();
        // A row that stays as it is is not touched: the device can hold it, and gets another password even so.
        const QList<QByteArray> row{QByteArray::number(number), name.toUtf8().append("")};
        const auto listed = archive.query("insert into fleet.device (device, name) select $1, $2 "
                                          "where not exists (select from fleet.device where device = $1)",
                                          row);
        if (!listed)
            return listed.error();
        const auto named =
            archive.query("update fleet.device set name = $2 where device = $1 and $2 not in ('', name)", row);
        return named ? Status() : named.error();
    });
}

} // namespace device_ship
