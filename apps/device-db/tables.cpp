// SPDX-License-Identifier: MIT
#include "tables.h"

#include <algorithm>

namespace device_db
{

namespace
{

Kind kindOf(const QStringList &columns)
{
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log, Kind::Configuration}) {
        QStringList known{QStringLiteral("ID")};
        for (const KnownColumn &column : columnsOf(kind))
            known << QLatin1String(column.name);
        if (columns.join(QLatin1Char(',')).compare(known.join(QLatin1Char(',')), Qt::CaseInsensitive) == 0)
            return kind;
    }
    return Kind::Foreign;
}

} // namespace

const QVector<KnownColumn> &columnsOf(Kind kind)
{
    static const QVector<KnownColumn> samples{{"DATETIME", "time", "Time", false}, {"Value", "value", "Value", false}};
    static const QVector<KnownColumn> alarms{{"LevelID", "level", "Level", false},
                                             {"DATETIME", "start", "Start", false},
                                             {"AlarmObject", "object", "Object", false},
                                             {"AlarmType", "type", "Type", false},
                                             {"CurrentValue", "value", "Value", false},
                                             {"LimitValue", "limit", "Limit", false},
                                             {"AlarmDescription", "description", "Description", true},
                                             {"EndDate", "end_date", "End date", false},
                                             {"EndTime", "end_time", "End time", false}};
    static const QVector<KnownColumn> log{{"DATETIME", "time", "Time", false},
                                          {"userName", "user", "User", false},
                                          {"logName", "log", "Log", false},
                                          {"message", "message", "Message", false}};
    static const QVector<KnownColumn> configuration{{"COLLECTOR", "collector", "Collector", true},
                                                    {"NAME", "name", "Name", true}};
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
    auto rows =
        database.prepare("select m.name,c.name from sqlite_master m join pragma_table_info(m.name) c where "
                         "m.type='table' and m.name not like 'sqlite\\_%' escape '\\' and m.name not like 'device %' "
                         "order by m.name,c.cid");
    if (!rows)
        return rows.error();
    QList<Table> tables;
    while (rows->step()) {
        const QString name = QString::fromUtf8(rows->cell(0));
        if (tables.isEmpty() || tables.last().name != name)
            tables.append({name, Kind::Foreign, {}});
        tables.last().columns << QString::fromUtf8(rows->cell(1));
    }
    if (const Status status = rows->status(); !status)
        return status.error();
    for (Table &table : tables)
        table.kind = kindOf(table.columns);
    return tables;
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
    const QString all = names.join(QLatin1String(", "));
    if (!wanted.isEmpty() && chosen.name.isEmpty()) {
        if (names.contains(wanted, Qt::CaseInsensitive))
            return failure(database.name(), QStringLiteral("table %1 is of another kind; this takes %2")
                                                .arg(wanted, fitting.isEmpty() ? QStringLiteral("none of its tables")
                                                                               : fitting.join(QLatin1String(", "))));
        return failure(database.name(),
                       names.isEmpty() ? QStringLiteral("it has no table of records; \"device-db info\" tells more")
                                       : QStringLiteral("there is no table %1; it has %2").arg(wanted, all));
    }
    if (fitting.isEmpty())
        return failure(database.name(),
                       names.isEmpty() ? QStringLiteral("it has no table of records; \"device-db info\" tells more")
                                       : QStringLiteral("it has no table of the kind asked for; it has ") + all);
    if (wanted.isEmpty() && fitting.size() > 1)
        return failure(database.name(), QStringLiteral("name one of its tables: ") + fitting.join(QLatin1String(", ")));
    return chosen;
}

QByteArray decodedTwice(const QByteArray &cell)
{
    if (std::all_of(cell.begin(), cell.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
        return cell;
    const QString text = QString::fromUtf8(cell);
    if (std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() > 0xff; }))
        return cell;
    const QByteArray once = text.toLatin1();
    return QString::fromUtf8(once).toUtf8() == once ? once : cell;
}

} // namespace device_db
