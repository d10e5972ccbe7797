// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/new_file.h"
#include "storefile/salvage/damaged_source.h"
#include "storefile/salvage/salvage.h"
#include "storefile/texts.h"
#include "terminal/progress.h"
#include "terminal/table_writer.h"
#include "terminal/text.h"

namespace device_db
{

namespace
{

struct SalvageCommand {
    QString damaged;
    QString target;
    bool force = false;
    quint32 pageSize = 0;
    OutputOptions output;
};

const char *textOf(SalvagedTable::NameFrom from)
{
    switch (from) {
    case SalvagedTable::FromSchema:
        return "the file";
    case SalvagedTable::LastId:
        return "last ID";
    case SalvagedTable::MadeUp:
        break;
    }
    return "salvage";
}

QByteArray summary(const SalvageReport &report, const QString &target, int width)
{
    QStringList lines;
    lines << QStringLiteral("%1 pages of %2 bytes: %3 with rows, %4 of these damaged; %5 of trees and indexes, %6 of "
                            "long rows, %7 free; %8 unreadable or unused")
                 .arg(grouped(report.pages), QString::number(report.pageSize),
                      grouped(report.rowPages + report.damagedPages), grouped(report.damagedPages),
                      grouped(report.treePages), grouped(report.overflowPages), grouped(report.freePages),
                      grouped(report.unknownPages));
    if (report.logPages > 0)
        lines << QStringLiteral("%1 pages were taken from the write-ahead log").arg(grouped(report.logPages));
    if (report.journalPages > 0)
        lines << QStringLiteral("%1 pages were taken from the rollback journal: its transaction was never committed")
                     .arg(grouped(report.journalPages));
    if (report.journalDamaged)
        lines << QStringLiteral(
            "The rollback journal is damaged: rows of a transaction that was never committed may be "
            "among these");
    if (!report.headerIntact)
        lines << QStringLiteral("The beginning of the file is gone.");
    else if (!report.schemaIntact)
        lines << QStringLiteral("The list of the tables is damaged.");
    if (report.rejectedCells > 0)
        lines << QStringLiteral("%1 rows were there only in part and were left out").arg(grouped(report.rejectedCells));
    if (report.duplicates > 0)
        lines << QStringLiteral("%1 rows had an ID that was there already").arg(grouped(report.duplicates));
    if (report.deletedRows > 0)
        lines << QStringLiteral("%1 rows are on pages that no table uses: they were deleted and stay so")
                     .arg(grouped(report.deletedRows));
    if (report.trendSums > 0)
        lines << QStringLiteral("%1 sums of trends, %2 made anew from the rows")
                     .arg(grouped(report.trendSums), grouped(report.trendSumsMade));
    if (report.keepRules > 0)
        lines << QStringLiteral("%1 entries of how long rows are kept").arg(grouped(report.keepRules));
    if (report.keepRulesLeft > 0)
        lines << QStringLiteral("%1 entries of how long rows are kept cannot be read and were left out: rows are kept "
                                "for ever until \"device-db keep\" sets it anew")
                     .arg(grouped(report.keepRulesLeft));
    if (report.foreignRows > 0)
        lines << QStringLiteral("%1 rows of tables that are not a store's were left out")
                     .arg(grouped(report.foreignRows));
    lines << QStringLiteral("%1: %2 rows").arg(target, grouped(report.rows()));
    QByteArray text;
    for (const QString &line : lines)
        text += QByteArray::fromStdString(wrapped(line.toStdString(), size_t(width > 0 ? width : 80), "  ")) + '\n';
    return text;
}

Outcome run(const SalvageCommand &command)
{
    const auto source = DamagedSource::open(command.damaged);
    if (!source)
        return source.error();
    if (!source->whyNoSnapshot().isNull())
        complain(QStringLiteral("%1: %2").arg(command.damaged, source->whyNoSnapshot()));
    auto target = NewFile::make(command.target, command.force, {command.damaged});
    if (!target)
        return target.error();

    SalvageReport report;
    {
        const auto database = Database::open(target->part(), Database::ReadWrite, command.target);
        if (!database)
            return database.error();
        // The file is put in its place when it is whole, so its journal need not survive, only serve a rollback.
        if (const Status set = database->run("pragma journal_mode=memory; pragma synchronous=off"); !set)
            return set.error();
        Progress progress(QStringLiteral("rows"));
        SalvageOptions options;
        options.pageSize = command.pageSize;
        options.progress = [&](double part) { progress.show(qint64(part * 1000), 1000, 0); };
        auto salvaged = salvage(source->files(), *database, options);
        if (!salvaged)
            return salvaged.error();
        report = *salvaged;
        if (const Status set = database->run("pragma journal_mode=delete"); !set)
            return set.error();
    }
    if (report.pages == 0)
        return failure(command.damaged, QStringLiteral("it is empty; look for an older copy"));
    if (report.rows() == 0)
        return failure(command.damaged,
                       QStringLiteral("no row of a store's table was found in its %1 pages of %2 bytes; "
                                      "--page-size may help")
                           .arg(grouped(report.pages))
                           .arg(report.pageSize));
    if (const Status placed = target->putInPlace(); !placed)
        return placed.error();

    const bool forPeople = command.output.format == Format::Table || command.output.format == Format::Full;
    Output output(command.output);
    const auto writer = rowWriter(command.output.format,
                                  {{"table", QStringLiteral("Table")},
                                   {"kind", QStringLiteral("Kind")},
                                   {"rows", QStringLiteral("Rows"), true, true},
                                   {"first_id", QStringLiteral("First ID"), true, true},
                                   {"last_id", QStringLiteral("Last ID"), true, true},
                                   {"lost_pages", QStringLiteral("Lost pages"), true, true},
                                   {"rejected", QStringLiteral("Partial"), true, true},
                                   {"name_from", QStringLiteral("Named by")}},
                                  output);
    const auto number = [&](qint64 value) { return forPeople ? grouped(value).toLatin1() : QByteArray::number(value); };
    qint64 lost = report.rejectedCells + report.trendPagesLost + report.keepPagesLost + report.keepRulesLeft;
    for (const SalvagedTable &table : report.tables) {
        lost += table.lostPages;
        writer->row({table.name.toUtf8(), nameOf(table.kind), number(table.rows), number(table.firstId),
                     number(table.lastId), number(table.lostPages), number(table.rejected), textOf(table.nameFrom)},
                    table.lostPages + table.rejected > 0 ? Tone::Warning : Tone::Plain);
    }
    writer->settle();
    if (forPeople)
        output.write('\n' + summary(report, command.target, output.width()));
    const bool isAll = lost == 0 && report.schemaIntact && !report.journalDamaged && source->whyNoSnapshot().isNull();
    return isAll ? Done : Attention;
}

} // namespace

void addSalvage(Program &program)
{
    CLI::App *const command = program.add(
        "salvage", "Get the rows out of a damaged file into a new one",
        "Reads every page of DAMAGED, even when its beginning is gone, pages are overwritten or the end is missing, and "
        "writes the rows that are there in full, with their IDs, to NEW. DAMAGED is never written. A write-ahead log or "
        "a rollback journal beside it is taken into account, and a file that is in use is read from a snapshot. Rows of "
        "a table whose name is lost go into tables called salvaged_..., into several where nothing says what belongs "
        "together. \"Lost pages\" are those that a table still names and that hold nothing any more, \"Partial\" are "
        "rows that were left out because a part of them is gone. Exit code 3: something is lost.");
    const auto options = std::make_shared<SalvageCommand>();
    addPath(command, "DAMAGED", options->damaged, "The damaged file")->type_name("")->required();
    addPath(command, "NEW", options->target, "The file to make")->type_name("")->required();
    command->add_flag("--force", options->force, "Replace NEW when it is there");
    command->add_option("--page-size", options->pageSize, "The size of a page; default: found out")
        ->type_name("BYTES")
        ->check(wholeNumber())
        ->check(CLI::IsMember({512, 1024, 2048, 4096, 8192, 16384, 32768, 65536}));
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
