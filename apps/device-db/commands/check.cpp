// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "import/bookkeeping.h"
#include "program/program.h"
#include "storefile/file_facts.h"
#include "storefile/keeping.h"
#include "storefile/texts.h"
#include "storefile/trend_review.h"
#include "terminal/progress.h"
#include "terminal/table_writer.h"
#include "terminal/text.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace device_db
{

namespace
{

struct CheckCommand {
    QString path;
    bool trends = false;
    ReadOptions reading;
    OutputOptions output;
};

/// A line of the answer: a finding, or that there is none.
struct Line {
    const char *result;
    Tone tone;
    int rank; ///< The worst come first.
    QString table;
    QString text;
};

Line lineOf(const Finding &finding)
{
    switch (finding.severity) {
    case Severity::Note:
        return {"note", Tone::Notice, 1, finding.table, finding.text()};
    case Severity::Attention:
        return {"attention", Tone::Warning, 2, finding.table, finding.text()};
    case Severity::Damage:
        break;
    }
    return {"damage", Tone::Danger, 3, finding.table, finding.text()};
}

Line fine(const QString &table, const QString &text)
{
    return {"ok", Tone::Plain, 0, table, text};
}

bool isDamaged(const QList<Line> &lines)
{
    return std::any_of(lines.begin(), lines.end(), [](const Line &line) { return line.rank == 3; });
}

bool beginsAsADatabase(const QString &path)
{
    QFile file(path);
    return !file.open(QIODevice::ReadOnly) || file.size() == 0 || file.read(16) == QByteArray("SQLite format 3\0", 16);
}

Status judge(const Database &database, const QString &path, QList<Line> &lines)
{
    const auto integrity = integrityFindings(database);
    if (!integrity)
        return integrity.error();
    for (const Finding &finding : *integrity)
        lines << lineOf(finding);
    if (isDamaged(lines))
        return {}; // what a damaged file holds says nothing more
    Progress progress(QStringLiteral("rows looked at"));
    const auto facts = factsOf(database, path, [&](qint64 rows) { progress.show(0, 0, rows); });
    if (!facts)
        return facts.error();
    if (std::none_of(integrity->begin(), integrity->end(),
                     [](const Finding &finding) { return finding.severity != Severity::Note; }))
        lines << fine(QString(), QStringLiteral("integrity, %1 pages").arg(facts->pages));
    for (const Finding &finding : facts->findings)
        lines << lineOf(finding);
    for (const TableFacts &each : facts->tables) {
        if (each.table.kind == Kind::Foreign && each.table.name != Bookkeeping::tableName)
            lines << Line{"note", Tone::Notice, 1, each.table.name,
                          QStringLiteral("no table of a store; it is left alone")};
        const bool clean = std::none_of(facts->findings.begin(), facts->findings.end(), [&](const Finding &finding) {
            return finding.rows > 0 && finding.severity != Severity::Note && finding.table == each.table.name;
        });
        if (holdsRecords(each.table.kind) && clean)
            lines << fine(
                each.table.name,
                QStringLiteral("%1, %2 rows").arg(QLatin1String(nameOf(each.table.kind)), grouped(each.rows)));
    }
    const auto keep = keepFileOf(database);
    if (!keep && keep.error().code() != Error::TableLayout)
        return keep.error();
    if (!keep)
        lines << lineOf({Severity::Attention, QString(),
                         QStringLiteral("how long its rows are kept cannot be read: %1; %2")
                             .arg(keep.error().cause(), QLatin1String(keepRemedy)),
                         0, 0, QString()});
    return {};
}

constexpr int differencesShown = 10;

Status judgeTrend(const Database &database, const TrendFacts &trend, QList<Line> &lines)
{
    const auto attention = [&](const QString &text) {
        lines << lineOf({Severity::Attention, trend.table, text, 0, 0, QString()});
    };
    if (!trend.trouble.isEmpty()) {
        attention(QStringLiteral("its trend: %1; \"device-db trends off\" removes it").arg(trend.trouble));
        return {};
    }
    if (!trend.state.isOfThisTable) {
        attention(QStringLiteral("its trend is of rows before the table was emptied; a recorder begins it anew, and so "
                                 "does \"device-db trends rebuild\""));
        return {};
    }
    qint64 left = 0;
    const auto differs = [&](const TrendDifference &difference) -> Status {
        if (left++ < differencesShown)
            attention(QStringLiteral("its trend, ") + difference.text());
        return {};
    };
    Progress progress(QStringLiteral("rows summed up"));
    const auto review = reviewTrend(database, trend.table, trend.state, differs,
                                    [&](qint64 rows, qint64 all) { progress.show(rows, all, rows); });
    if (!review)
        return review.error();
    if (review->strange > 0)
        attention(QStringLiteral("its trend has %1 sums of levels or times that it does not keep")
                      .arg(grouped(review->strange)));
    if (review->front != trend.state.front)
        attention(QStringLiteral("its trend has another latest sum than the file says"));
    if (review->tooMany > 0)
        attention(QStringLiteral("its trend has %1 more than were ever in the table").arg(rowsText(review->tooMany)));
    QString frozen;
    if (review->frozen > 0)
        frozen = QStringLiteral("; %1 sums have rows that are no longer there, nothing is left to compare them with")
                     .arg(grouped(review->frozen));
    const bool isFine = review->wrong + review->strange + review->tooMany == 0 && review->front == trend.state.front;
    const QString compared =
        QStringLiteral("%1 sums compared with %2").arg(grouped(review->buckets), rowsText(review->rows));
    if (isFine)
        lines << fine(trend.table, QStringLiteral("trend, ") + compared + frozen);
    else
        attention(QStringLiteral("its trend: %1, %2 differ%3; \"device-db trends rebuild\" makes them anew")
                      .arg(compared, grouped(review->wrong), frozen));
    return {};
}

// Of one moment: a recorder moves sums and marks on.
Status judgeTrends(const Database &database, QList<Line> &lines)
{
    if (const Status begun = database.run("begin"); !begun)
        return begun;
    const auto trends = trendsOf(database, false);
    if (!trends)
        return trends.error();
    for (const TrendFacts &trend : *trends) {
        if (const Status judged = judgeTrend(database, trend, lines); !judged)
            return judged;
    }
    if (trends->isEmpty())
        lines << fine(QString(), QStringLiteral("no table keeps a trend"));
    return database.run("commit");
}

// For people: nothing is cut off.
QByteArray paragraph(const Line &line, const QByteArray &table, const Output &output)
{
    const std::string indent(11, ' ');
    const QString text = visible(QString::fromUtf8(table) + QLatin1String(": ") + line.text);
    const std::string body =
        wrapped(text.toStdString(), size_t(output.width() > 30 ? output.width() - 11 : 100000), indent);
    return QByteArray(line.result).leftJustified(11) + QByteArray::fromStdString(body) + '\n';
}

Outcome run(const CheckCommand &command)
{
    QList<Line> lines;
    const auto damage = [&](const QString &text) {
        lines << lineOf({Severity::Damage, QString(), text, 0, 0, QString()});
    };
    if (QFileInfo(command.path).isFile() && !beginsAsADatabase(command.path)) {
        damage(QStringLiteral("it does not begin as a database does"));
    } else {
        const auto file = openForReading(command.path, command.reading);
        if (!file)
            return file.error();
        const auto database = Database::open(file->path(), Database::ReadOnly, command.path);
        if (!database)
            damage(database.error().cause().section(QLatin1Char(';'), 0, 0)); // this command is one of the remedies
        else if (const Status judged = judge(*database, command.path, lines); !judged)
            return judged.error();
        else if (command.trends && !isDamaged(lines)) {
            if (const Status trends = judgeTrends(*database, lines); !trends)
                return trends.error();
        }
    }
    std::stable_sort(lines.begin(), lines.end(), [](const Line &a, const Line &b) { return a.rank > b.rank; });
    Output output(command.output);
    const auto writer = rowWriter(command.output.format,
                                  {{"severity", QStringLiteral("Result")},
                                   {"table", QStringLiteral("Table")},
                                   {"finding", QStringLiteral("What")}},
                                  output);
    for (const Line &line : lines) {
        const QByteArray table = line.table.isEmpty() ? QByteArray("(file)") : line.table.toUtf8();
        if (command.output.format == Format::Table)
            output.write(paragraph(line, table, output));
        else
            writer->row({line.result, table, line.text.toUtf8()}, line.tone);
    }
    writer->settle();
    if (isDamaged(lines) && command.output.format == Format::Table)
        output.write("\n\"device-db salvage\" gets the rows out of a damaged file.\n");
    const int worst = lines.isEmpty() ? 0 : lines.first().rank;
    return worst == 3 ? Damaged : worst == 2 ? Attention : Done;
}

} // namespace

void addCheck(Program &program)
{
    CLI::App *const command =
        program.add("check", "Look for damage and for what will make trouble",
                    "Checks the structure of the file, the definition of each table, the configuration table and every "
                    "row, as info does. Exit code 0: all is well; 3: something needs a look; 4: the file is damaged.");
    const auto options = std::make_shared<CheckCommand>();
    addFile(command, options->path, options->reading);
    command->add_flag("--trends", options->trends, "Compare the sums of trends with the rows, too");
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
