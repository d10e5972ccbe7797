// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/chart.h"
#include "commands/options.h"
#include "program/program.h"
#include "storefile/new_file.h"
#include "storefile/row_query.h"
#include "storefile/system_error.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "storefile/trend_points.h"

#include "device/number.h"

#include <QFile>

#include <algorithm>
#include <cstdio>
#include <optional>

namespace device_db
{

namespace
{

struct PlotCommand {
    QString path;
    ReadOptions reading;
    QStringList series;
    QStringList right; ///< Series of the axis at the right.
    QString title;
    RowFilter range;
    QString target;
    QString alarmFile;
    bool noAlarms = false;
    bool onlyAlarms = false;
    bool force = false;
    bool utc = false;
    std::string size;
};

Picture pictureOf(const QString &target)
{
    if (target.isEmpty())
        return Picture::Terminal;
    return target.endsWith(QLatin1String(".svg"), Qt::CaseInsensitive) ? Picture::Svg : Picture::Png;
}

qint64 shown(const QByteArray &time, bool milliseconds, bool utc)
{
    return millisecondsOf(utc ? inUtc(time, milliseconds) : time, milliseconds);
}

Result<QString> titleOf(const Database &database, const QString &table)
{
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    const auto registrations = registrationsOf(database, *tables);
    if (!registrations)
        return registrations.error();
    QString name;
    for (const Registration &each : *registrations) { // the last one counts
        if (table.compare(QString::fromUtf8(each.collector), Qt::CaseInsensitive) == 0)
            name = QString::fromUtf8(each.name);
    }
    return name.isEmpty() || name == table ? table : name + QLatin1String(" (") + table + QLatin1Char(')');
}

// Sums know the times of the tables alone.
std::optional<TrendPoints> sumsOf(const Database &database, const Table &table, const PlotCommand &command)
{
    if (command.utc || table.kind != Kind::Samples)
        return std::nullopt;
    return TrendPoints::of(database, table.name);
}

// By the index on time, with those that only the sums have. False if a text that is no time is in the way.
Result<bool> findRangeBySums(const Database &database, const Table &table, const TrendPoints &sums,
                             const PlotCommand &command, QByteArray &first, QByteArray &last)
{
    for (const bool isFirst : {true, false}) {
        auto row = filtered(
            database, table, command.range, false,
            (isFirst ? "select min(DATETIME) from " : "select max(DATETIME) from ") + identifier(table.name), "");
        if (!row)
            return row.error();
        if (!row->step())
            return row->status() ? Result<bool>(false) : row->status().error();
        const QByteArray time = row->cell(0);
        if (time.isNull())
            break;
        if (!isTime(time, false) || millisecondsOf(time, false) < 0)
            return false;
        first = first.isEmpty() ? time : std::min(first, time);
        last = std::max(last, time);
    }
    auto removed = sums.removedRange();
    if (!removed)
        return removed.error();
    if (removed->first.isEmpty())
        return true;
    for (const Bound bound : {Bound::First, Bound::Last}) {
        const QString &given = bound == Bound::First ? command.range.from : command.range.to;
        if (given.isEmpty())
            continue;
        const auto text = boundText(given, bound, false, false);
        if (!text)
            return text.error();
        if (bound == Bound::First)
            removed->first = std::max(removed->first, *text);
        else
            removed->second = std::min(removed->second, *text);
    }
    if (removed->first > removed->second)
        return true;
    first = first.isEmpty() ? removed->first : std::min(first, removed->first);
    last = std::max(last, removed->second);
    return true;
}

// The ends of what will be drawn: of the rows that have a time, whatever else is in the column. Alarms count with their
// ends.
Status findRange(const Database &database, const QList<Table> &tables, const PlotCommand &command, Chart &chart)
{
    QByteArray first;
    QByteArray last;
    for (const Table &table : tables) {
        if (const auto sums = sumsOf(database, table, command)) {
            const auto found = findRangeBySums(database, table, *sums, command, first, last);
            if (!found)
                return found.error();
            if (*found)
                continue;
        }
        const bool hasEnds = table.kind == Kind::Alarms;
        auto times = filtered(
            database, table, command.range, command.utc,
            (hasEnds ? "select DATETIME,EndDate,EndTime from " : "select DATETIME from ") + identifier(table.name), "");
        if (!times)
            return times.error();
        while (times->step()) {
            const QByteArray time = times->cell(0);
            if (!isTime(time, false))
                continue;
            first = first.isEmpty() ? time : std::min(first, time);
            const QByteArray end = hasEnds ? endOfAlarm(times->cell(1), times->cell(2)) : QByteArray();
            last = std::max({last, time, isTime(end, false) ? end : time});
        }
        if (const Status status = times->status(); !status)
            return status;
    }
    if (first.isEmpty())
        return failure(database.name(), QStringLiteral("there is no row with a time in this range; \"device-db info\" "
                                                       "says what the file holds"));
    chart.first = shown(first, false, command.utc);
    chart.last = shown(last, false, command.utc);
    return {};
}

Status readSeries(const Database &database, const Table &table, bool right, const PlotCommand &command, Chart &chart)
{
    const auto title = titleOf(database, table.name);
    if (!title)
        return title.error();
    Series series{table.name, *title, right, Reduction(chart.first, chart.last, chart.width)};
    if (const auto sums = sumsOf(database, table, command);
        sums && chart.first >= 0 && sums->helps(chart.first, chart.last, chart.width)) {
        const auto left = sums->add(chart.first, chart.last, chart.width, series.points);
        if (left) {
            series.left = *left;
            chart.series.push_back(std::move(series));
            return {};
        }
        complain(QStringLiteral("%1: its trend is not used: %2").arg(table.name, left.error().cause()));
    }
    RowQuery query;
    query.filter = command.range;
    query.order = Order::AsRecorded;
    query.utc = command.utc;
    auto rows = rowsOf(database, table, query);
    if (!rows)
        return rows.error();
    while (rows->step()) {
        const qint64 time = shown(rows->cell(SampleTime), false, command.utc);
        const auto value = device::number(rows->cell(SampleValue));
        if (time >= 0 && value)
            series.points.add({time, *value});
        else
            ++series.left;
    }
    if (const Status status = rows->status(); !status)
        return status;
    chart.series.push_back(std::move(series));
    return {};
}

Status readAlarms(const Database &database, const PlotCommand &command, Chart &chart)
{
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    for (const Table &table : *tables) {
        if (table.kind != Kind::Alarms)
            continue;
        // An alarm that began before the range may last into it.
        auto rows = rowsOf(database, table, {});
        if (!rows)
            return rows.error();
        while (rows->step()) {
            const qint64 begin = shown(rows->cell(AlarmStart), false, command.utc);
            const QByteArray endText = endOfAlarm(rows->cell(AlarmEndDate), rows->cell(AlarmEndTime));
            const qint64 end = shown(endText, false, command.utc);
            if (begin < 0 || begin > chart.last || (end >= 0 && end < chart.first))
                continue;
            chart.bands.push_back({std::max(begin, chart.first), end < 0 ? chart.last : std::min(end, chart.last),
                                   int(rows->number(AlarmLevel))});
            ++chart.alarms;
        }
        if (const Status status = rows->status(); !status)
            return status;
    }
    return {};
}

/// What is drawn: series and on which side, or the tables of alarms alone.
struct Choice {
    QList<Table> tables;
    int left = 0; ///< The number of them on the left axis; the others are on the right one.
};

Result<Choice> chosen(const Database &database, const PlotCommand &command)
{
    Choice choice;
    if (command.onlyAlarms) {
        const auto all = tablesOf(database);
        if (!all)
            return all.error();
        std::copy_if(all->begin(), all->end(), std::back_inserter(choice.tables),
                     [](const Table &table) { return table.kind == Kind::Alarms; });
        if (choice.tables.isEmpty())
            return failure(database.name(), QStringLiteral("it has no table of alarms; \"device-db info\" says what it "
                                                           "holds"));
        return choice;
    }
    // Without a name it is the only series of the file.
    const QStringList left =
        command.series.isEmpty() && command.right.isEmpty() ? QStringList{QString()} : command.series;
    for (const QString &name : left + command.right) {
        const auto table = chooseTable(database, name, {Kind::Samples});
        if (!table)
            return table.error();
        choice.tables << *table;
    }
    choice.left = int(left.size());
    return choice;
}

Status read(const Database &database, const PlotCommand &command, Chart &chart)
{
    const auto choice = chosen(database, command);
    if (!choice)
        return choice.error();
    if (const Status found = findRange(database, choice->tables, command, chart); !found)
        return found;
    for (int i = 0; i < choice->tables.size() && !command.onlyAlarms; ++i) {
        if (const Status done = readSeries(database, choice->tables.at(i), i >= choice->left, command, chart); !done)
            return done;
    }
    if (command.noAlarms)
        return {};
    if (command.alarmFile.isEmpty()) {
        if (const Status done = readAlarms(database, command, chart); !done)
            return done;
    } else {
        const auto file = openFile(command.alarmFile, command.reading);
        if (!file)
            return file.error();
        if (const Status done = readAlarms(file->database, command, chart); !done)
            return done;
    }
    mergeBands(chart);
    return {};
}

Outcome run(const PlotCommand &command)
{
    const Picture picture = pictureOf(command.target);
    if (!command.target.isEmpty() && picture == Picture::Png &&
        !command.target.endsWith(QLatin1String(".png"), Qt::CaseInsensitive))
        return failure(command.target, QStringLiteral("the name ends in neither .png nor .svg; the ending says what is "
                                                      "drawn"));
    OutputOptions straight;
    straight.noPager = true;
    Output terminal(straight);
    Chart chart;
    chart.title = command.title;
    chart.utc = command.utc;
    if (std::sscanf(command.size.c_str(), "%dx%d", &chart.width, &chart.height) != 2) {
        chart.width = picture == Picture::Terminal ? terminal.width() : 1200;
        chart.height = picture == Picture::Terminal ? 24 : 500;
        if (chart.width == 0)
            chart.width = 80;
    }
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    std::optional<NewFile> target;
    if (picture != Picture::Terminal) {
        auto made = NewFile::make(command.target, command.force, {command.path, command.alarmFile});
        if (!made)
            return made.error();
        target.emplace(std::move(made).value());
    }
    if (const Status done = read(file->database, command, chart); !done)
        return done.error();

    qint64 samples = 0;
    qint64 left = 0;
    for (const Series &series : chart.series) {
        samples += series.points.count();
        left += series.left;
        if (series.left > 0)
            complain(QStringLiteral("%1: left out because they are not numbers or have no time: %2 values")
                         .arg(series.table, grouped(series.left)));
    }
    if (samples == 0 && !command.onlyAlarms)
        return failure(command.path, QStringLiteral("none of the values in this range is a number"));
    const auto image = drawn(chart, picture);
    if (!image)
        return image.error();
    if (!target) {
        terminal.write(*image);
    } else {
        QFile output(target->part());
        if (!output.open(QIODevice::WriteOnly) || output.write(*image) != image->size() || !output.flush())
            return failure(command.target, systemError() + QStringLiteral("; check the free space"));
        if (const Status placed = target->putInPlace(); !placed)
            return placed.error();
        say(QStringLiteral("%1: %2 samples, %3 alarms").arg(command.target, grouped(samples), grouped(chart.alarms)));
    }
    return left > 0 ? Attention : Done;
}

} // namespace

void addPlot(Program &program)
{
    CLI::App *const command = program.add(
        "plot", "Draw series over time, with alarms as bands",
        "Of each column of the picture the first, the lowest, the highest and the last value are drawn, so that no "
        "spike is lost however many samples there are. Pauses stay empty. Alarms of the file, or of the one that "
        "--alarms names, are bands behind them in the colour of their level; on the terminal they are a row of digits, "
        "their levels. Values that are not numbers are left out and counted; exit code 3 then. Needs gnuplot.");
    const auto options = std::make_shared<PlotCommand>();
    addFile(command, options->path, options->reading);
    CLI::Option *const series =
        addTexts(command, "SERIES", options->series, "The tables; may be left out when the file has only one series")
            ->type_name("");
    CLI::Option *const right = addTexts(command, "--right", options->right,
                                        "A series with a scale of its own, at the right; may be given several times")
                                   ->type_name("SERIES");
    addText(command, "--title", options->title, "A title above the picture");
    addRange(command, options->range);
    addPath(command, "-o,--output", options->target, "A picture, .png or .svg; default: the terminal")
        ->type_name("PICTURE");
    command->add_flag("--force", options->force, "Replace PICTURE when it is there");
    command->add_option("--size", options->size, "Default: 1200x500 pixels, or the terminal's width and 24 lines")
        ->type_name("WxH")
        ->check([](const std::string &text) {
            int width = 0;
            int height = 0;
            char more = 0;
            const bool fits = std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &more) == 2 && width >= 40 &&
                              height >= 10 && width <= 20000 && height <= 20000;
            return fits ? std::string() : "give a size such as 1200x500, from 40x10 to 20000x20000";
        });
    CLI::Option *const from =
        addPath(command, "--alarms", options->alarmFile, "Take the alarms from this file")->type_name("FILE");
    CLI::Option *const none = command->add_flag("--no-alarms", options->noAlarms, "Draw no alarms")->excludes(from);
    command
        ->add_flag("--only-alarms", options->onlyAlarms, "Draw no series, but the alarms of FILE, a row for each level")
        ->excludes(from)
        ->excludes(none)
        ->excludes(series)
        ->excludes(right);
    command->add_flag("--utc", options->utc, "Times in UTC, given and drawn");
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
