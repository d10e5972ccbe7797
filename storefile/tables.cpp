// SPDX-License-Identifier: MIT
#include "storefile/tables.h"

#include "storefile/texts.h"

#include <QCryptographicHash>
#include <QSet>

#include <algorithm>

namespace device_db
{

Kind kindOf(const QStringList &columns)
{
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log, Kind::Configuration}) {
        if (columns.size() == 1 + columnsOf(kind).size() &&
            qstricmp(columns.join(QLatin1Char(',')).toUtf8().constData(), columnList(kind).constData()) == 0)
            return kind;
    }
    return Kind::Foreign;
}

const QVector<KnownColumn> &columnsOf(Kind kind)
{
    static const QVector<KnownColumn> samples{{"DATETIME", "dateTime", "time", "Time", false},
                                              {"Value", "text", "value", "Value", false}};
    static const QVector<KnownColumn> alarms{{"LevelID", "INTEGER", "level", "Level", false},
                                             {"DATETIME", "dateTime", "start", "Start", false},
                                             {"AlarmObject", "text", "object", "Object", false},
                                             {"AlarmType", "text", "type", "Type", false},
                                             {"CurrentValue", "text", "value", "Value", false},
                                             {"LimitValue", "text", "limit", "Limit", false},
                                             {"AlarmDescription", "text", "description", "Description", true},
                                             {"EndDate", "text", "end_date", "End date", false},
                                             {"EndTime", "text", "end_time", "End time", false}};
    static const QVector<KnownColumn> log{{"DATETIME", "dateTime NOT NULL", "time", "Time", false},
                                          {"userName", "text", "user", "User", false},
                                          {"logName", "text", "log", "Log", false},
                                          {"message", "text", "message", "Message", false}};
    static const QVector<KnownColumn> configuration{{"COLLECTOR", "text", "collector", "Collector", true},
                                                    {"NAME", "text", "name", "Name", true}};
    static const QVector<KnownColumn> none;
    switch (kind) {
    case Kind::Samples:
        return samples;
    case Kind::Alarms:
        return alarms;
    case Kind::Log:
        return log;
    case Kind::Configuration:
        return configuration;
    case Kind::Foreign:
        break;
    }
    return none;
}

const char *nameOf(Kind kind)
{
    switch (kind) {
    case Kind::Samples:
        return "samples";
    case Kind::Alarms:
        return "alarms";
    case Kind::Log:
        return "log";
    case Kind::Configuration:
        return "configuration";
    case Kind::Foreign:
        break;
    }
    return "foreign";
}

QByteArray definitionOf(Kind kind)
{
    if (kind == Kind::Foreign)
        return QByteArray();
    QByteArray definition("ID INTEGER PRIMARY KEY AUTOINCREMENT");
    for (const KnownColumn &column : columnsOf(kind))
        definition += QByteArray(",") + column.name + ' ' + column.declaration;
    return definition;
}

QByteArray columnList(Kind kind)
{
    QByteArray list("ID");
    for (const KnownColumn &column : columnsOf(kind))
        list += QByteArray(",") + column.name;
    return list;
}

int timeColumnOf(Kind kind)
{
    return kind == Kind::Alarms ? int(AlarmStart) : int(SampleTime); // the log's is at the same place
}

bool hasMilliseconds(Kind kind)
{
    return kind == Kind::Log;
}

bool holdsRecords(Kind kind)
{
    return kind == Kind::Samples || kind == Kind::Alarms || kind == Kind::Log;
}

Result<QList<Table>> tablesOf(const Database &database)
{
    // A virtual table has no root page; asking for its columns would run its module.
    auto rows = database.prepare("select m.name,c.name,m.rootpage from sqlite_master m left join "
                                 "pragma_table_info(iif(m.rootpage>0,m.name,'')) c where m.type='table' and m.name not "
                                 "like 'sqlite\\_%' escape '\\' and m.name not like 'device %' order by m.name,c.cid");
    if (!rows)
        return rows.error();
    QList<Table> tables;
    QByteArray last;
    while (rows->step()) {
        const QByteArray name = rows->cell(0);
        if (tables.isEmpty() || last != name)
            tables.append({fromUtf8(name), Kind::Foreign, {}, rows->number(2) == 0, !isUtf8(name)});
        last = name;
        if (!tables.last().isVirtual)
            tables.last().columns << fromUtf8(rows->cell(1));
    }
    if (const Status status = rows->status(); !status)
        return status.error();
    for (Table &table : tables)
        table.kind = table.isMisnamed ? Kind::Foreign : kindOf(table.columns);
    std::sort(tables.begin(), tables.end(), [](const Table &a, const Table &b) { return comesBefore(a.name, b.name); });
    return tables;
}

Result<QByteArray> schemaDigest(const Database &database)
{
    QCryptographicHash statements(QCryptographicHash::Sha1);
    auto schema = database.prepare("select sql from sqlite_master");
    if (!schema)
        return schema.error();
    while (schema->step())
        statements.addData(schema->cell(0));
    if (const Status status = schema->status(); !status)
        return status.error();
    return statements.result();
}

Result<Table> chooseTable(const Database &database, const QString &wanted, const QVector<Kind> &kinds)
{
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    QStringList names;
    QStringList fitting;
    Table chosen;
    for (const Table &table : *tables) {
        if (!holdsRecords(table.kind))
            continue;
        names << table.name;
        if (!kinds.isEmpty() && !kinds.contains(table.kind))
            continue;
        fitting << table.name;
        if (wanted.isEmpty() || table.name.compare(wanted, Qt::CaseInsensitive) == 0) // as SQL finds it
            chosen = table;
    }
    if (!wanted.isEmpty() && chosen.name.isEmpty()) {
        if (names.contains(wanted, Qt::CaseInsensitive))
            return failure(database.name(), QStringLiteral("table %1 is of another kind; this takes %2")
                                                .arg(wanted, fitting.isEmpty() ? QStringLiteral("none of its tables")
                                                                               : someOf(fitting, wanted)));
        return failure(database.name(),
                       names.isEmpty()
                           ? QStringLiteral("it has no table of records; \"device-db info\" says more")
                           : QStringLiteral("there is no table %1; it has %2").arg(wanted, someOf(names, wanted)));
    }
    if (fitting.isEmpty())
        return failure(database.name(),
                       names.isEmpty()
                           ? QStringLiteral("it has no table of records; \"device-db info\" says more")
                           : QStringLiteral("it has no table of the kind asked for; it has ") + someOf(names));
    if (wanted.isEmpty() && fitting.size() > 1)
        return failure(database.name(), QStringLiteral("name one of its tables: ") + someOf(fitting));
    return chosen;
}

Result<bool> isKeyedById(const Database &database, const Table &table)
{
    // A primary key without an index of its own is the rowid.
    auto key = database.prepare("select 1 where (select group_concat(lower(name)) from pragma_table_info(?1) where pk)"
                                "='id' and not exists(select 1 from pragma_index_list(?1) where origin='pk')");
    if (!key)
        return key.error();
    key->bind(1, table.name.toUtf8());
    const bool isKeyed = key->step();
    if (const Status status = key->status(); !status)
        return status.error();
    return isKeyed;
}

Result<QStringList> triggersOf(const Database &database)
{
    auto rows = database.prepare("select name,tbl_name from sqlite_master where type='trigger' order by tbl_name,name");
    if (!rows)
        return rows.error();
    QStringList triggers;
    while (rows->step())
        triggers << QStringLiteral("%1 on %2").arg(QString::fromUtf8(rows->cell(0)), QString::fromUtf8(rows->cell(1)));
    if (const Status status = rows->status(); !status)
        return status.error();
    return triggers;
}

QByteArray foldedName(const QByteArray &name)
{
    QByteArray folded = name; // not toLower(), which takes the bytes of other letters for Latin-1 in Qt 5
    for (char &c : folded)
        c = c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
    return folded;
}

Result<QList<Registration>> registrationsOf(const Database &database, const QList<Table> &tables)
{
    QList<Registration> registrations;
    // A table of its columns and not only something of its name, which may be a view.
    const bool listed = std::any_of(tables.begin(), tables.end(), [](const Table &table) {
        return table.kind == Kind::Configuration && table.name == QLatin1String("tb_config");
    });
    if (!listed)
        return registrations;
    auto rows = database.prepare("select COLLECTOR,NAME from tb_config order by ID");
    if (!rows)
        return rows.error();
    QSet<QByteArray> series;
    for (const Table &table : tables) {
        if (table.kind == Kind::Samples)
            series << foldedName(table.name.toUtf8());
    }
    while (rows->step()) {
        const QByteArray collector = decodedTwice(rows->cell(0));
        registrations.append({collector, decodedTwice(rows->cell(1)), series.contains(foldedName(collector))});
    }
    if (const Status status = rows->status(); !status)
        return status.error();
    return registrations;
}

} // namespace device_db
