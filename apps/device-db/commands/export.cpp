// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/new_file.h"
#include "storefile/row_query.h"
#include "storefile/system_error.h"
#include "storefile/texts.h"
#include "terminal/progress.h"
#include "terminal/table_writer.h"
#include "terminal/text.h"

#include <QFile>
#include <QFileInfo>

#include <sqlite3.h>

#include <cerrno>

namespace device_db
{

namespace
{

struct ExportOptions {
    QString path;
    ReadOptions reading;
    QString table;
    RowQuery query;
    QString output;
    QString format;
    std::optional<char> separator;
    std::optional<QByteArray> null;
    bool noHeader = false;
    bool withId = false;
    bool byTime = false;
    bool force = false;
};

// The sqlite3 shell takes the carriage return away from a line end of two characters, within a literal too.
QByteArray textLiteral(const QByteArray &text)
{
    const QByteArray literal = '\'' + QByteArray(text).replace('\'', "''") + '\'';
    if (!literal.contains('\r'))
        return literal;
    QByteArray sign("\\r");
    for (int i = 0; literal.contains(sign); ++i)
        sign = "\\r" + QByteArray::number(i) + ';';
    return "replace(" + QByteArray(literal).replace('\r', sign) + ",'" + sign + "',char(13))";
}

QByteArray sqlLiteral(const Statement &row, int column)
{
    const QByteArray cell = row.cell(column);
    switch (row.type(column)) {
    case SQLITE_INTEGER:
        return cell;
    case SQLITE_FLOAT:
        return cell.contains("Inf") ? QByteArray(cell.startsWith('-') ? "-9e999" : "9e999") : cell;
    case SQLITE_NULL:
        return "NULL";
    case SQLITE_BLOB:
        return "X'" + cell.toHex() + '\'';
    default:
        // A literal ends at U+0000, and bytes that are not UTF-8 do not survive every editor.
        if (cell.contains('\0') || !isUtf8(cell))
            return "CAST(X'" + cell.toHex() + "' AS TEXT)";
        return textLiteral(cell);
    }
}

QString formatOf(const ExportOptions &options)
{
    if (!options.format.isEmpty())
        return options.format;
    const QString ending = QFileInfo(options.output).suffix().toLower();
    if (ending == QLatin1String("sql"))
        return QStringLiteral("sql");
    if (ending == QLatin1String("json") || ending == QLatin1String("jsonl"))
        return QStringLiteral("json");
    return QStringLiteral("csv");
}

/// Writes the rows in the form asked for, and counts what that form cannot keep.
class Exporter
{
public:
    /// `isSeen`: the output is a terminal.
    Exporter(const ExportOptions &options, const QString &format, const Table &table, QIODevice &output, bool isSeen)
        : m_options(options), m_format(format), m_table(table), m_output(output), m_isSeen(isSeen)
    {
        if (options.withId)
            m_columns.append({"id", QString(), true, true});
        for (const KnownColumn &column : columnsOf(table.kind))
            m_columns.append({column.key, QString(), false, qstrcmp(column.key, "level") == 0});
    }

    bool head(const QByteArray &creation)
    {
        if (m_format == QLatin1String("sql"))
            return write("BEGIN;\n" + creation + ";\n");
        if (m_format == QLatin1String("json") || m_options.noHeader)
            return true;
        QVector<QByteArray> names;
        for (const OutputColumn &column : m_columns)
            names << column.key;
        return write(csvRow(names, m_options.separator.value_or(',')));
    }

    bool row(const Statement &row)
    {
        if (m_format == QLatin1String("sql")) {
            QByteArray sql = "INSERT INTO " + identifier(m_table.name) + " VALUES(";
            for (int i = 0; i < row.columns(); ++i)
                sql += (i > 0 ? "," : "") + sqlLiteral(row, i);
            return write(sql + ");\n");
        }
        QVector<QByteArray> cells;
        for (int i = m_options.withId ? 0 : 1; i < row.columns(); ++i)
            cells << row.cell(i);
        if (m_format == QLatin1String("json")) {
            for (const QByteArray &cell : cells)
                m_changed += isUtf8(cell) ? 0 : 1;
            return write(jsonRow(m_columns, cells));
        }
        for (QByteArray &cell : cells) {
            if (!cell.isNull())
                continue;
            m_changed += m_options.null ? 0 : 1;
            cell = m_options.null.value_or("");
        }
        return write(csvRow(cells, m_options.separator.value_or(',')));
    }

    bool foot() { return m_format != QLatin1String("sql") || write("COMMIT;\n"); }

    /// NULLs written as empty texts, or texts that are not UTF-8.
    qint64 changed() const { return m_changed; }

private:
    bool write(const QByteArray &text)
    {
        const QByteArray shown = m_isSeen ? visibleLines(text) : text;
        return m_output.write(shown) == shown.size();
    }

    const ExportOptions &m_options;
    QString m_format;
    Table m_table;
    QIODevice &m_output;
    bool m_isSeen;
    QVector<OutputColumn> m_columns;
    qint64 m_changed = 0;
};

Outcome exportRows(ExportOptions &options)
{
    const bool toFile = !options.output.isEmpty() && options.output != QLatin1String("-");
    const QString format = formatOf(options);
    const auto opened = openTable(options.path, options.reading, options.table, options.query.filter.kinds());
    if (!opened)
        return opened.error();
    const Database &database = opened->database;
    const Table &table = opened->table;
    std::optional<NewFile> target;
    if (toFile) {
        auto made = NewFile::make(options.output, options.force, {options.path});
        if (!made)
            return made.error();
        target.emplace(std::move(made).value());
    }
    options.query.order = options.byTime ? Order::OldestFirst : Order::AsRecorded;
    const auto total = countOf(database, table, options.query.filter, false);
    if (!total)
        return total.error();
    auto rows = rowsOf(database, table, options.query);
    if (!rows)
        return rows.error();
    auto creation = database.prepare("select sql from sqlite_master where type='table' and name=?");
    if (!creation)
        return creation.error();
    creation->bind(1, table.name.toUtf8());
    creation->step();

    QFile output;
    if (target)
        output.setFileName(target->part());
    if (!(target ? output.open(QIODevice::WriteOnly) : output.open(stdout, QIODevice::WriteOnly)))
        return failure(options.output, output.errorString() + QStringLiteral("; check the folder and its rights"));
    Exporter exporter(options, format, table, output, !target && outputIsSeen());
    Progress progress(QStringLiteral("rows"));
    qint64 count = 0;
    bool written = exporter.head(creation->cell(0));
    while (written && rows->step()) {
        written = exporter.row(*rows);
        if (++count % 1024 == 0)
            progress.show(count, *total, count);
    }
    if (const Status status = rows->status(); !status)
        return status.error();
    if (!(written && exporter.foot() && output.flush())) {
        if (!target && errno == EPIPE)
            return Done; // nobody looks any more
        return target ? failure(options.output, systemError() + QStringLiteral("; check the free space"))
                      : failure(QStringLiteral("standard output"),
                                systemError() + QStringLiteral("; not all rows were taken"));
    }
    progress.wipe();
    if (target) {
        output.close();
        if (const Status placed = target->putInPlace(); !placed)
            return placed.error();
        say(QStringLiteral("%1: %2 of %3").arg(options.output, rowsText(count), table.name));
    }
    if (exporter.changed() == 0)
        return Done;
    complain(
        options.path + QLatin1String(": ") +
        (format == QLatin1String("json")
             ? QStringLiteral("%1 texts are not UTF-8 and were changed; csv and sql keep them")
             : QStringLiteral("%1 cells are NULL and were written as empty texts; --null TEXT, json and sql keep them"))
            .arg(exporter.changed()));
    return Attention;
}

} // namespace

void addExport(Program &program)
{
    CLI::App *const command = program.add(
        "export", "Write rows as CSV, JSON lines or SQL",
        "The cells are those of the file to the byte, in the order of recording; import takes the CSV back. SQL is "
        "the whole table with its IDs. TABLE may be left out when the file has only one that fits.");
    const auto options = std::make_shared<ExportOptions>();
    addFile(command, options->path, options->reading);
    addText(command, "TABLE", options->table, "The table")->type_name("");
    addPath(command, "-o,--output", options->output, "The file to write; default: standard output");
    addText(command, "--format", options->format, "csv, json or sql; default: by the ending of the output, else csv")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"csv", "json", "sql"}));
    addRange(command, options->query.filter);
    addFilter(command, options->query.filter);
    command->add_option("-n,--limit", options->query.limit, "At most this many rows")
        ->type_name("N")
        ->check(wholeNumber());
    command->add_flag("--by-time", options->byTime, "In the order of time");
    command->add_flag("--id", options->withId, "Write the IDs too");
    addSeparator(command, options->separator);
    command->add_flag("--no-header", options->noHeader, "CSV without a row of names");
    addNull(command, options->null, "In CSV, the text that means NULL; default: an empty text, and a warning");
    command->add_flag("--force", options->force, "Replace the output when it is there");
    program.onRun(command, [options] { return exportRows(*options); });
}

} // namespace device_db
