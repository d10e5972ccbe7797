// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "fleet/fleet.h"
#include "program/program.h"
#include "storefile/row_query.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/table_writer.h"

#include <algorithm>
#include <functional>
#include <map>

namespace device_db
{

namespace
{

struct CountCommand {
    QString path;
    ReadOptions reading;
    QStringList devices; ///< Of a fleet.
    QString table;
    RowFilter filter;
    QString per; ///< "hour", "day", "month", or empty.
    OutputOptions output;
};

// The characters of a time that tell the periods apart.
int periodOf(const CountCommand &command)
{
    return command.per == QLatin1String("hour")  ? 13
           : command.per == QLatin1String("day") ? 10
           : command.per.isEmpty()               ? 0
                                                 : 7;
}

Result<QList<Table>> tablesToCount(const Database &database, const CountCommand &command)
{
    const QVector<Kind> kinds = command.filter.kinds();
    if (!command.table.isEmpty()) {
        const auto table = chooseTable(database, command.table, kinds);
        return table ? Result<QList<Table>>(QList<Table>{*table}) : table.error();
    }
    const auto all = tablesOf(database);
    if (!all)
        return all.error();
    QList<Table> tables;
    for (const Table &table : *all) {
        if (kinds.contains(table.kind))
            tables << table;
    }
    return tables;
}

// The rows of each hour, day or month that has some; what has no time comes under its own beginning.
Result<std::map<QByteArray, qint64>> countsOf(const Database &database, const Table &table, const CountCommand &command)
{
    auto times = filtered(database, table, command.filter, command.output.utc,
                          "select DATETIME from " + identifier(table.name), "");
    if (!times)
        return times.error();
    std::map<QByteArray, qint64> counts;
    const bool milliseconds = hasMilliseconds(table.kind);
    while (times->step()) {
        const QByteArray time = times->cell(0);
        ++counts[beginningOf(command.output.utc ? inUtc(time, milliseconds) : time, periodOf(command))];
    }
    if (const Status status = times->status(); !status)
        return status.error();
    return counts;
}

using Take = std::function<bool(const FleetCount &)>;

enum class Counted { All, NoTables, Stopped /* nobody looks any more */ };

Result<Counted> countFile(const CountCommand &command, const Take &take)
{
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    const auto tables = tablesToCount(file->database, command);
    if (!tables)
        return tables.error();
    for (const Table &table : *tables) {
        FleetCount count{QByteArray(), table.name.toUtf8(), table.kind, QByteArray(), 0};
        if (command.per.isEmpty()) {
            const auto rows = countOf(file->database, table, command.filter, command.output.utc);
            if (!rows)
                return rows.error();
            count.rows = *rows;
            if (!take(count))
                return Counted::Stopped;
            continue;
        }
        const auto counts = countsOf(file->database, table, command);
        if (!counts)
            return counts.error();
        for (const auto &[period, rows] : *counts) {
            count.period = period;
            count.rows = rows;
            if (!take(count))
                return Counted::Stopped;
        }
    }
    return tables->isEmpty() ? Counted::NoTables : Counted::All;
}

Result<Counted> countFleet(const CountCommand &command, const Take &take)
{
    const auto fleet = openFleet(command.path, command.devices);
    if (!fleet)
        return fleet.error();
    const auto counts = (*fleet)->counts(command.table, command.filter, command.output.utc, periodOf(command));
    if (!counts)
        return counts.error();
    if (counts->isEmpty() && command.per.isEmpty())
        return Counted::NoTables;
    return std::all_of(counts->begin(), counts->end(), take) ? Counted::All : Counted::Stopped;
}

Outcome run(const CountCommand &command)
{
    const bool ofFleet = isFleet(command.path);
    QVector<OutputColumn> columns{{"table", QStringLiteral("Table")}, {"kind", QStringLiteral("Kind")}};
    if (ofFleet)
        columns.prepend({"device", QStringLiteral("Device")});
    if (!command.per.isEmpty())
        columns.append({command.per.toLatin1(), command.per.left(1).toUpper() + command.per.mid(1)});
    columns.append({"rows", QStringLiteral("Rows"), true, true});
    const bool forPeople = isForPeople(command.output.format);
    Output output(command.output);
    const auto writer = rowWriter(command.output.format, columns, output);
    const auto take = [&](const FleetCount &count) {
        QVector<QByteArray> cells{count.table, nameOf(count.kind)};
        if (ofFleet)
            cells.prepend(count.device);
        if (!command.per.isEmpty())
            cells << count.period;
        cells << (forPeople ? grouped(count.rows).toLatin1() : QByteArray::number(count.rows));
        return writer->row(cells, Tone::Plain);
    };
    const auto counted = ofFleet ? countFleet(command, take) : countFile(command, take);
    if (!counted)
        return counted.error();
    if (*counted == Counted::Stopped)
        return Done;
    if (*counted == Counted::NoTables && forPeople)
        output.write("no tables of records\n");
    else if (forPeople)
        writer->settle();
    else
        writer->end();
    return Done;
}

} // namespace

void addCount(Program &program)
{
    CLI::App *const command = program.add("count", "Count the rows, of one table or of each", aboutTimes);
    const auto options = std::make_shared<CountCommand>();
    addSource(command, options->path, options->reading, options->devices);
    addText(command, "TABLE", options->table, "The table")->type_name("");
    addRange(command, options->filter);
    addFilter(command, options->filter);
    addText(command, "--per", options->per, "Count each hour, day or month by itself")
        ->type_name("PERIOD")
        ->check(CLI::IsMember({"hour", "day", "month"}));
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
