// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/row_query.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/table_writer.h"

#include <map>

namespace device_db
{

namespace
{

struct CountCommand {
    QString path;
    ReadOptions reading;
    QString table;
    RowFilter filter;
    QString per; ///< "hour", "day", "month", or empty.
    OutputOptions output;
};

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
    const int size = command.per == QLatin1String("hour") ? 13 : command.per == QLatin1String("day") ? 10 : 7;
    auto times = filtered(database, table, command.filter, command.output.utc,
                          "select DATETIME from " + identifier(table.name), "");
    if (!times)
        return times.error();
    std::map<QByteArray, qint64> counts;
    const bool milliseconds = hasMilliseconds(table.kind);
    while (times->step()) {
        const QByteArray time = times->cell(0);
        ++counts[beginningOf(command.output.utc ? inUtc(time, milliseconds) : time, size)];
    }
    if (const Status status = times->status(); !status)
        return status.error();
    return counts;
}

Outcome run(const CountCommand &command)
{
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    const auto tables = tablesToCount(file->database, command);
    if (!tables)
        return tables.error();
    QVector<OutputColumn> columns{{"table", QStringLiteral("Table")}, {"kind", QStringLiteral("Kind")}};
    if (!command.per.isEmpty())
        columns.append({command.per.toLatin1(), command.per.left(1).toUpper() + command.per.mid(1)});
    columns.append({"rows", QStringLiteral("Rows"), true, true});
    Output output(command.output);
    const auto writer = rowWriter(command.output.format, columns, output);
    const auto number = [&](qint64 rows) {
        return isForPeople(command.output.format) ? grouped(rows).toLatin1() : QByteArray::number(rows);
    };
    for (const Table &table : *tables) {
        if (command.per.isEmpty()) {
            const auto rows = countOf(file->database, table, command.filter, command.output.utc);
            if (!rows)
                return rows.error();
            if (!writer->row({table.name.toUtf8(), nameOf(table.kind), number(*rows)}, Tone::Plain))
                return Done; // nobody looks any more
            continue;
        }
        const auto counts = countsOf(file->database, table, command);
        if (!counts)
            return counts.error();
        for (const auto &[period, rows] : *counts) {
            if (!writer->row({table.name.toUtf8(), nameOf(table.kind), period, number(rows)}, Tone::Plain))
                return Done;
        }
    }
    if (tables->isEmpty() && isForPeople(command.output.format))
        output.write("no tables of records\n");
    else if (isForPeople(command.output.format))
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
    addFile(command, options->path, options->reading);
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
