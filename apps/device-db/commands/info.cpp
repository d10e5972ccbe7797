// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "import/bookkeeping.h"
#include "program/program.h"
#include "storefile/file_facts.h"
#include "storefile/keeping.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "storefile/trends.h"
#include "terminal/progress.h"
#include "terminal/table_writer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace device_db
{

namespace
{

struct InfoOptions {
    QString path;
    ReadOptions reading;
    OutputOptions output;
};

QString journalText(const FileFacts &facts)
{
    if (facts.journal != "wal") {
        return facts.journalBytes > 0 ? QStringLiteral("rollback, %1 of a transaction that is under way or was cut off")
                                            .arg(bytesText(facts.journalBytes))
                                      : QStringLiteral("rollback: a reader can make the device's commits fail");
    }
    return facts.walBytes > 0 ? QStringLiteral("write-ahead, %1 in the log").arg(bytesText(facts.walBytes))
                              : QStringLiteral("write-ahead");
}

/// What the file keeps for trends, or why that cannot be read.
struct Trends {
    QList<TrendFacts> tables;
    QString trouble;
};

Trends trendsIn(const Database &database)
{
    Trends trends;
    const auto read = trendsOf(database, true);
    if (read)
        trends.tables = *read;
    else
        trends.trouble = read.error().cause();
    return trends;
}

/// How long rows are kept, a line for each table that has a rule; or why that cannot be read.
QStringList keepLines(const FileFacts &facts, const Result<device::KeepFile> &keep)
{
    if (!keep)
        return {QStringLiteral("cannot be read: %1; %2").arg(keep.error().cause(), QLatin1String(keepRemedy))};
    QStringList lines;
    for (const TableFacts &each : facts.tables) {
        const auto found = keep->tables.constFind(each.table.name.toLower());
        if (found != keep->tables.constEnd() && !(found->keep == device::Keep()))
            lines << each.table.name + QLatin1String(": ") + keepText(found->keep);
    }
    return lines;
}

void printTrends(const InfoOptions &options, const Trends &trends, Output &output)
{
    if (!trends.trouble.isEmpty())
        output.write("\nTrends    " + visible(trends.trouble).toUtf8() + '\n');
    if (trends.tables.isEmpty())
        return;
    output.write("\n");
    const auto levels = rowWriter(Format::Table,
                                  {{"", QStringLiteral("Trend of")},
                                   {"", QStringLiteral("Level")},
                                   {"", QStringLiteral("Sums"), true, false, true},
                                   {"", QStringLiteral("First"), false, false, true},
                                   {"", QStringLiteral("Last"), false, false, true},
                                   {"", QStringLiteral("Size"), true, false, true}},
                                  output);
    for (const TrendFacts &trend : trends.tables) {
        const auto time = [&](const QByteArray &text) {
            return beginningOf(options.output.utc ? inUtc(text, false) : text, 16);
        };
        for (const TrendLevelFacts &level : trend.levels)
            levels->row({trend.table.toUtf8(), levelName(level.width).toLatin1(), grouped(level.buckets).toLatin1(),
                         time(level.first), time(level.last), bytesText(level.bytes).toLatin1()},
                        Tone::Plain);
        if (!trend.trouble.isEmpty())
            levels->row({trend.table.toUtf8(), trend.trouble.toUtf8(), "", "", "", ""}, Tone::Warning);
    }
    levels->settle();
}

void print(const InfoOptions &options, const FileFacts &facts, const Trends &trends,
           const Result<device::KeepFile> &keep, const QStringList &unfinished)
{
    Output output(options.output);
    const auto line = [&](const char *title, const QString &text) {
        output.write(QByteArray(title).leftJustified(10) + visible(text).toUtf8() + '\n');
    };
    line("File", options.path);
    line("Size", QStringLiteral("%1: %2 pages of %3 bytes, %4 free")
                     .arg(bytesText(facts.bytes), grouped(facts.pages))
                     .arg(facts.pageSize)
                     .arg(grouped(facts.freePages)));
    line("Journal", journalText(facts));
    line("Texts", QString::fromLatin1(facts.encoding));
    line("Open in",
         facts.processes.isEmpty() ? QStringLiteral("no process that can be seen from here") : listed(facts.processes));
    for (const QString &import : unfinished)
        line("Unfinished", QStringLiteral("import of %1; run it again to go on").arg(import));
    for (const QString &rules : keepLines(facts, keep))
        line("Kept", rules);

    output.write("\n");
    const auto tables = rowWriter(Format::Table,
                                  {{"", QStringLiteral("Table")},
                                   {"", QStringLiteral("Kind")},
                                   {"", QStringLiteral("Rows"), true, false, true},
                                   {"", QStringLiteral("First"), false, false, true},
                                   {"", QStringLiteral("Last"), false, false, true},
                                   {"", QStringLiteral("Last ID"), true, false, true},
                                   {"", QStringLiteral("Size"), true, false, true},
                                   {"", QStringLiteral("Index"), false, false, true}},
                                  output);
    // To the minute where there is room, to the day in 80 columns.
    const int shown = output.width() == 0 || output.width() >= 96 ? 16 : 10;
    for (const TableFacts &each : facts.tables) {
        const auto time = [&](const QByteArray &text) {
            return beginningOf(options.output.utc ? inUtc(text, hasMilliseconds(each.table.kind)) : text, shown);
        };
        const bool records = holdsRecords(each.table.kind);
        tables->row({each.table.name.toUtf8(), nameOf(each.table.kind),
                     each.rows < 0 ? QByteArray("") : grouped(each.rows).toLatin1(),
                     records && each.rows > 0 ? time(each.first) : "", records && each.rows > 0 ? time(each.last) : "",
                     records ? grouped(each.lastId).toLatin1() : "",
                     each.bytes < 0 ? QByteArray("") : bytesText(each.bytes).toLatin1(),
                     !records       ? ""
                     : each.indexed ? "time"
                                    : "none"},
                    Tone::Plain);
    }
    tables->settle();
    if (facts.tables.isEmpty())
        output.write("no tables\n");

    printTrends(options, trends, output);

    if (!facts.registrations.isEmpty()) {
        output.write("\n");
        const auto series = rowWriter(
            Format::Table, {{"", QStringLiteral("Collector")}, {"", QStringLiteral("Name")}, {"", QString()}}, output);
        for (const Registration &each : facts.registrations)
            series->row({each.collector, each.name, each.hasTable ? "" : "there is no such table"},
                        each.hasTable ? Tone::Plain : Tone::Warning);
        series->settle();
    }
    if (facts.findings.isEmpty())
        return;
    output.write("\nWorth a look\n");
    for (const Finding &finding : facts.findings) {
        QString text = finding.table.isEmpty() ? QStringLiteral("(file)") : finding.table;
        if (finding.rows > 0)
            text += QLatin1String(", ") + rowsText(finding.rows);
        output.write("  " + visible(text + QLatin1String(": ") + finding.what).toUtf8() + '\n');
        if (!finding.detail.isEmpty())
            output.write("      " + visible(finding.detail).toUtf8() + '\n');
    }
}

QJsonArray findingsOf(const FileFacts &facts, const QString &table)
{
    QJsonArray findings;
    for (const Finding &finding : facts.findings) {
        if (finding.table == table)
            findings.append(QJsonObject{{QStringLiteral("what"), finding.what},
                                        {QStringLiteral("rows"), finding.rows},
                                        {QStringLiteral("id"), finding.firstId},
                                        {QStringLiteral("detail"), finding.detail}});
    }
    return findings;
}

QJsonObject jsonOf(const TrendFacts &trend)
{
    if (!trend.trouble.isEmpty())
        return {{QStringLiteral("trouble"), trend.trouble}};
    QJsonArray levels;
    for (const TrendLevelFacts &level : trend.levels) {
        QJsonObject object{{QStringLiteral("level"), levelName(level.width)},
                           {QStringLiteral("sums"), level.buckets},
                           {QStringLiteral("bytes"), level.bytes}};
        if (level.buckets > 0) {
            object.insert(QStringLiteral("first"), QString::fromLatin1(level.first));
            object.insert(QStringLiteral("last"), QString::fromLatin1(level.last));
        }
        levels.append(object);
    }
    return {{QStringLiteral("levels"), levels},
            {QStringLiteral("through_id"), trend.state.mark},
            {QStringLiteral("behind"), trend.behind}};
}

QJsonObject jsonOf(const device::Keep &keep)
{
    QJsonObject object;
    if (keep.age)
        object.insert(QStringLiteral("age"), spanText(*keep.age));
    if (keep.rows >= 0)
        object.insert(QStringLiteral("rows"), keep.rows);
    if (keep.atLeast)
        object.insert(QStringLiteral("at_least"), spanText(*keep.atLeast));
    if (!keep.sums.isEmpty())
        object.insert(QStringLiteral("sums"), sumsText(keep));
    return object;
}

void printJson(const InfoOptions &options, const FileFacts &facts, const Trends &trends,
               const Result<device::KeepFile> &keep, const QStringList &unfinished)
{
    QJsonArray tables;
    for (const TableFacts &each : facts.tables) {
        QJsonObject table{{QStringLiteral("name"), each.table.name},
                          {QStringLiteral("kind"), QLatin1String(nameOf(each.table.kind))},
                          {QStringLiteral("columns"), QJsonArray::fromStringList(each.table.columns)},
                          {QStringLiteral("findings"), findingsOf(facts, each.table.name)}};
        if (each.rows >= 0)
            table.insert(QStringLiteral("rows"), each.rows);
        if (each.bytes >= 0)
            table.insert(QStringLiteral("bytes"), each.bytes);
        if (holdsRecords(each.table.kind)) {
            const bool milliseconds = hasMilliseconds(each.table.kind);
            for (const auto &[key, time] : {std::pair{"first", each.first}, std::pair{"last", each.last}}) {
                if (each.rows > 0)
                    table.insert(QLatin1String(key),
                                 QString::fromUtf8(options.output.utc ? inUtc(time, milliseconds) : time));
            }
            table.insert(QStringLiteral("last_id"), each.lastId);
            table.insert(QStringLiteral("time_index"), each.indexed);
        }
        for (const TrendFacts &trend : trends.tables) {
            if (trend.table.compare(each.table.name, Qt::CaseInsensitive) == 0)
                table.insert(QStringLiteral("trend"), jsonOf(trend));
        }
        if (keep) {
            const auto found = keep->tables.constFind(each.table.name.toLower());
            if (found != keep->tables.constEnd())
                table.insert(QStringLiteral("keep"), jsonOf(found->keep));
        }
        tables.append(table);
    }
    QJsonArray registrations;
    for (const Registration &each : facts.registrations)
        registrations.append(QJsonObject{{QStringLiteral("collector"), QString::fromUtf8(each.collector)},
                                         {QStringLiteral("name"), QString::fromUtf8(each.name)},
                                         {QStringLiteral("table"), each.hasTable}});
    QJsonArray processes;
    for (const OpenProcess &each : facts.processes)
        processes.append(QJsonObject{{QStringLiteral("id"), each.id}, {QStringLiteral("name"), each.name}});
    const QJsonObject file{
        {QStringLiteral("file"), options.path},
        {QStringLiteral("bytes"), facts.bytes},
        {QStringLiteral("pages"), facts.pages},
        {QStringLiteral("page_size"), facts.pageSize},
        {QStringLiteral("free_pages"), facts.freePages},
        {QStringLiteral("journal"), facts.journal == "wal" ? QStringLiteral("wal") : QStringLiteral("rollback")},
        {QStringLiteral("encoding"), QString::fromLatin1(facts.encoding)},
        {QStringLiteral("processes"), processes},
        {QStringLiteral("unfinished_imports"), QJsonArray::fromStringList(unfinished)},
        {QStringLiteral("configuration"), registrations},
        {QStringLiteral("findings"), findingsOf(facts, QString())},
        {QStringLiteral("tables"), tables}};
    Output output(options.output);
    output.writeData(QJsonDocument(file).toJson());
}

Outcome run(const InfoOptions &options)
{
    const auto file = openFile(options.path, options.reading);
    if (!file)
        return file.error();
    const auto unfinished = unfinishedImports(file->database);
    if (!unfinished)
        return unfinished.error();
    Progress progress(QStringLiteral("rows looked at"));
    auto facts = factsOf(file->database, options.path, [&](qint64 rows) { progress.show(0, 0, rows); });
    if (!facts)
        return facts.error();
    const Trends trends = trendsIn(file->database);
    const auto keep = keepFileOf(file->database);
    if (!keep && keep.error().code() != Error::TableLayout)
        return keep.error();
    progress.wipe();
    auto &tables = facts->tables;
    tables.erase(std::remove_if(tables.begin(), tables.end(),
                                [](const TableFacts &each) {
                                    return each.table.kind == Kind::Foreign &&
                                           each.table.name == Bookkeeping::tableName;
                                }),
                 tables.end());
    if (options.output.format == Format::Json)
        printJson(options, *facts, trends, keep, *unfinished);
    else
        print(options, *facts, trends, keep, *unfinished);
    return Done;
}

} // namespace

void addInfo(Program &program)
{
    CLI::App *const command = program.add(
        "info", "Say what the file is, what is in it and what looks odd",
        "Every row is looked at once, in the order of recording: times in another form, before 2000 or in the future, "
        "a clock that went back, gaps between samples, ends of alarms that no query finds.");
    const auto options = std::make_shared<InfoOptions>();
    addFile(command, options->path, options->reading);
    command->add_flag_callback(
        "--json", [options = options.get()] { options->output.format = Format::Json; }, "Print JSON");
    addLook(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
