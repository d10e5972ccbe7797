// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/sql_query.h"
#include "storefile/texts.h"
#include "terminal/table_writer.h"

#include <sqlite3.h>

namespace device_db
{

namespace
{

struct SqlCommand {
    QString path;
    ReadOptions reading;
    QString statement;
    OutputOptions output;
};

Outcome run(const SqlCommand &command)
{
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    auto prepared = queryOf(file->database, command.statement);
    if (!prepared)
        return prepared.error();
    Statement rows = std::move(prepared).value();
    // A result has no types but those of its cells; the first row decides for all.
    bool isRow = rows.step();
    QVector<OutputColumn> columns;
    for (int i = 0; i < rows.columns(); ++i) {
        OutputColumn column{rows.nameOf(i).toUtf8(), visible(rows.nameOf(i))};
        const int type = isRow ? rows.type(i) : SQLITE_NULL;
        column.right = type == SQLITE_INTEGER || type == SQLITE_FLOAT;
        columns << column;
    }
    Output output(command.output);
    const auto writer = rowWriter(command.output.format, columns, output);
    const bool isJson = command.output.format == Format::Json;
    qint64 changed = 0;
    for (; isRow; isRow = rows.step()) {
        QVector<QByteArray> cells;
        for (int i = 0; i < rows.columns(); ++i) {
            cells << rows.cell(i);
            columns[i].number = rows.type(i) == SQLITE_INTEGER || rows.type(i) == SQLITE_FLOAT;
            changed += isJson && !isUtf8(cells.last()) ? 1 : 0;
        }
        if (!(isJson ? output.writeData(jsonRow(columns, cells)) : writer->row(cells, Tone::Plain)))
            return Done; // nobody looks any more
    }
    if (const Status status = rows.status(); !status)
        return status.error();
    writer->end();
    if (changed == 0)
        return Done;
    complain(
        QStringLiteral("%1: cells that are not UTF-8 and were changed: %2; --csv keeps the bytes, hex(COLUMN) makes "
                       "a text of them")
            .arg(command.path, grouped(changed)));
    return Attention;
}

} // namespace

void addSql(Program &program)
{
    CLI::App *const command =
        program.add("sql", "Run a statement of your own that only reads",
                    "For what the other commands have no option for. The file is read as they read it, without "
                    "disturbing a device; a statement that changes anything is refused. \"device-db sql FILE 'select "
                    "name, sql from sqlite_master'\" lists the tables and their columns.");
    const auto options = std::make_shared<SqlCommand>();
    addFile(command, options->path, options->reading);
    addText(command, "STATEMENT", options->statement, "One statement of SQL")->type_name("")->required();
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
