// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/new_file.h"
#include "storefile/reduction.h"
#include "storefile/row_query.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/text.h"

#include "device/number.h"

#include <QDateTime>
#include <QFile>
#include <QProcess>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>

namespace device_db
{

namespace
{

struct PlotCommand {
    QString path;
    ReadOptions reading;
    QStringList series;
    RowFilter range;
    QString target;
    QString alarmFile;
    bool noAlarms = false;
    bool force = false;
    bool utc = false;
    std::string size;
    int width = 0; ///< Pixels, or characters on a terminal.
    int height = 0;
};

enum class Picture { Terminal, Png, Svg };

struct Series {
    QString table;
    QString title;
    Reduction points;
    qint64 left = 0; ///< Values that are no numbers, or without a time.
};

struct Band {
    qint64 begin;
    qint64 end;
    int level;
};

struct Chart {
    qint64 first = 0;
    qint64 last = 0;
    std::vector<Series> series;
    std::vector<Band> bands;
    qint64 alarms = 0;
};

constexpr int mostBands = 400; // more cannot be told apart

Picture pictureOf(const QString &target)
{
    if (target.isEmpty())
        return Picture::Terminal;
    return target.endsWith(QLatin1String(".svg"), Qt::CaseInsensitive) ? Picture::Svg : Picture::Png;
}

// A name between single quotes, in which gnuplot replaces nothing.
QByteArray quoted(const QString &text)
{
    QString inside = visible(text);
    inside.replace(QLatin1Char('\''), QLatin1String("''"));
    return '\'' + inside.toUtf8() + '\'';
}

QByteArray seconds(qint64 milliseconds)
{
    return QByteArray::number(double(milliseconds) / 1000, 'f', 3);
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

// The ends of what will be drawn: of the rows that have a time, whatever else is in the column.
Status findRange(const Database &database, const QList<Table> &tables, const PlotCommand &command, Chart &chart)
{
    QByteArray first;
    QByteArray last;
    for (const Table &table : tables) {
        auto times =
            filtered(database, table, command.range, command.utc, "select DATETIME from " + identifier(table.name), "");
        if (!times)
            return times.error();
        while (times->step()) {
            const QByteArray time = times->cell(0);
            if (!isTime(time, false))
                continue;
            first = first.isEmpty() ? time : std::min(first, time);
            last = std::max(last, time);
        }
        if (const Status status = times->status(); !status)
            return status;
    }
    if (first.isEmpty())
        return failure(database.name(), QStringLiteral("there is no row with a time in this range; \"device-db info\" "
                                                       "tells what the file holds"));
    chart.first = shown(first, false, command.utc);
    chart.last = shown(last, false, command.utc);
    return {};
}

Status readSeries(const Database &database, const Table &table, const PlotCommand &command, Chart &chart, int columns)
{
    const auto title = titleOf(database, table.name);
    if (!title)
        return title.error();
    Series series{table.name, *title, Reduction(chart.first, chart.last, columns)};
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

// Bands of one level that touch become one; where there are too many still, small gaps between them are closed.
void mergeBands(Chart &chart)
{
    std::sort(chart.bands.begin(), chart.bands.end(), [](const Band &a, const Band &b) {
        return std::make_pair(a.level, a.begin) < std::make_pair(b.level, b.begin);
    });
    for (qint64 gap = 0;; gap = std::max<qint64>(1000, 2 * gap)) {
        std::vector<Band> merged;
        for (const Band &band : chart.bands) {
            if (!merged.empty() && merged.back().level == band.level && band.begin <= merged.back().end + gap)
                merged.back().end = std::max(merged.back().end, band.end);
            else
                merged.push_back(band);
        }
        chart.bands = std::move(merged);
        if (int(chart.bands.size()) <= mostBands || gap > chart.last - chart.first)
            return;
    }
}

const char *colourOf(int level)
{
    return level >= 3 ? "#d62728" : level == 2 ? "#ff7f0e" : level == 1 ? "#e0b400" : "#7f7f7f";
}

QByteArray script(const PlotCommand &command, const Chart &chart)
{
    const Picture picture = pictureOf(command.target);
    QByteArray text;
    const QByteArray size = QByteArray::number(command.width) + ',' + QByteArray::number(command.height);
    switch (picture) {
    case Picture::Terminal:
        text += "set terminal dumb size " + size + '\n';
        break;
    case Picture::Png:
        text += "set terminal pngcairo size " + size + " font 'sans,10' background '#ffffff' noenhanced\n";
        break;
    case Picture::Svg:
        text += "set terminal svg size " + size + " font 'sans,12' background '#ffffff' noenhanced\n";
        break;
    }
    if (picture != Picture::Terminal)
        text += "set grid back linetype 1 linecolor rgb '#d8d8d8' linewidth 0.5\n";
    const qint64 span = chart.last - chart.first;
    const qint64 pad = span == 0 ? 30000 : 0;
    const char *format = span < 4 * 60000              ? "%H:%M:%S\\n%Y-%m-%d"
                         : span < qint64(4) * 86400000 ? "%H:%M\\n%Y-%m-%d"
                                                       : "%Y-%m-%d";
    text += "set xdata time\nset format x \"" + QByteArray(format) + "\" timedate\nset xrange [" +
            seconds(chart.first - pad) + ':' + seconds(chart.last + pad) + "]\n";
    // A label of a date is wide; so many fit beside each other.
    const int labelWidth = picture == Picture::Terminal ? 14 : 110;
    const int labels = std::max(2, command.width / labelWidth);
    static constexpr qint64 steps[] = {1,       2,        5,        10,       15,       30,      60,      120,
                                       300,     600,      900,      1800,     3600,     7200,    10800,   21600,
                                       43200,   86400,    172800,   432000,   604800,   1209600, 2592000, 5184000,
                                       7776000, 15552000, 31536000, 63072000, 157680000};
    const auto step = std::find_if(std::begin(steps), std::end(steps),
                                   [&](qint64 each) { return each * 1000 * labels >= span + 2 * pad; });
    text += "set xtics " + QByteArray::number(step == std::end(steps) ? span / 1000 / labels : *step) + "\n";
    text += "set tics nomirror\nset key outside top center horizontal\nset offsets 0,0,graph 0.06,graph 0.06\n";
    text += "set xlabel " + quoted(command.utc ? QStringLiteral("UTC") : QStringLiteral("device time")) + '\n';
    std::map<int, bool> levels;
    int number = 0;
    for (const Band &band : chart.bands) {
        levels[band.level] = true;
        if (picture != Picture::Terminal)
            text += "set object " + QByteArray::number(++number) + " rectangle from " + seconds(band.begin) +
                    ",graph 0 to " + seconds(band.end) + ",graph 1 behind fillcolor rgb '" + colourOf(band.level) +
                    "' fillstyle solid 0.25 border lc rgb '" + colourOf(band.level) + "' lw 0.3\n";
    }
    QByteArray plots;
    for (size_t i = 0; i < chart.series.size(); ++i) {
        const QByteArray block = "$series" + QByteArray::number(int(i));
        text += block + " << EOD\n";
        for (const auto &line : chart.series[i].points.lines()) {
            for (const Point &point : line)
                text += seconds(point.time) + ' ' + QByteArray::number(point.value, 'g', 12) + '\n';
            // A single point between two pauses is no line; drawn twice it is a dot.
            if (line.size() == 1)
                text += seconds(line.front().time) + ' ' + QByteArray::number(line.front().value, 'g', 12) + '\n';
            text += '\n';
        }
        text += "EOD\n";
        if (!plots.isEmpty())
            plots += ", ";
        plots += block + " using (timecolumn(1,\"%s\")):2 with lines lw 1.3 title " + quoted(chart.series[i].title);
    }
    for (const auto &[level, used] : levels) {
        const QByteArray title = quoted(QStringLiteral("alarm, level %1").arg(level));
        if (picture != Picture::Terminal) {
            plots += ", NaN with boxes fillstyle solid 0.25 fillcolor rgb '" + QByteArray(colourOf(level)) +
                     "' title " + title;
            continue;
        }
        // A terminal has no bands: a row of marks below.
        const QByteArray block = "$level" + QByteArray::number(level + 1000000);
        text += block + " << EOD\n";
        for (const Band &band : chart.bands) {
            const qint64 aColumn = std::max<qint64>(1, span / std::max(1, command.width - 10));
            for (qint64 time = band.begin; band.level == level && time <= band.end; time += aColumn)
                text += seconds(time) + " 0\n";
        }
        text += "EOD\n";
        plots += ", " + block + " using (timecolumn(1,\"%s\")):(bottom) with points pt \"" +
                 QByteArray::number(std::abs(level) % 10) + "\" title " + title;
    }
    if (picture == Picture::Terminal && !levels.empty()) {
        double lowest = 0;
        bool any = false;
        for (const Series &series : chart.series) {
            for (const Point &point : series.points.points()) {
                lowest = any ? std::min(lowest, point.value) : point.value;
                any = true;
            }
        }
        text += "bottom = " + QByteArray::number(lowest, 'g', 12) + '\n';
    }
    return text + "plot " + plots + '\n';
}

// The picture, as gnuplot writes it to its standard output.
Result<QByteArray> draw(const QByteArray &commands)
{
    QProcess gnuplot;
    gnuplot.start(QStringLiteral("gnuplot"), {QStringLiteral("-")});
    if (!gnuplot.waitForStarted())
        return failure(QStringLiteral("gnuplot"),
                       QStringLiteral("the program that draws cannot be started; install "
                                      "gnuplot (Debian: gnuplot-nox), or \"export\" the rows"));
    gnuplot.write(commands);
    gnuplot.closeWriteChannel();
    const bool finished = gnuplot.waitForFinished(60000);
    const QString complaint = QString::fromUtf8(gnuplot.readAllStandardError()).simplified();
    if (!finished || gnuplot.exitStatus() != QProcess::NormalExit || gnuplot.exitCode() != 0)
        return failure(QStringLiteral("gnuplot"), QStringLiteral("it failed: ") + complaint.right(300));
    QByteArray picture = gnuplot.readAllStandardOutput();
    if (picture.startsWith('\f')) // on a terminal it begins with a new page
        picture.remove(0, 1);
    return picture;
}

Result<QList<Table>> chosen(const Database &database, const QStringList &wanted)
{
    QList<Table> tables;
    if (wanted.isEmpty()) {
        const auto only = chooseTable(database, QString(), {Kind::Samples});
        if (!only)
            return only.error();
        tables << *only;
    }
    for (const QString &name : wanted) {
        const auto table = chooseTable(database, name, {Kind::Samples});
        if (!table)
            return table.error();
        tables << *table;
    }
    return tables;
}

Outcome run(PlotCommand &command)
{
    const Picture picture = pictureOf(command.target);
    if (!command.target.isEmpty() && picture == Picture::Png &&
        !command.target.endsWith(QLatin1String(".png"), Qt::CaseInsensitive))
        return failure(command.target, QStringLiteral("the name ends in neither .png nor .svg; the ending says what is "
                                                      "drawn"));
    OutputOptions straight;
    straight.noPager = true;
    Output terminal(straight);
    if (std::sscanf(command.size.c_str(), "%dx%d", &command.width, &command.height) != 2) {
        command.width = picture == Picture::Terminal ? terminal.width() : 1200;
        command.height = picture == Picture::Terminal ? 24 : 500;
        if (command.width == 0)
            command.width = 80;
    }
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    const auto tables = chosen(file->database, command.series);
    if (!tables)
        return tables.error();
    std::optional<NewFile> target;
    if (picture != Picture::Terminal) {
        auto made = NewFile::make(command.target, command.force, {command.path, command.alarmFile});
        if (!made)
            return made.error();
        target.emplace(std::move(made).value());
    }
    Chart chart;
    if (const Status found = findRange(file->database, *tables, command, chart); !found)
        return found.error();
    for (const Table &table : *tables) {
        if (const Status read = readSeries(file->database, table, command, chart, command.width); !read)
            return read.error();
    }
    if (!command.noAlarms && command.alarmFile.isEmpty()) {
        if (const Status read = readAlarms(file->database, command, chart); !read)
            return read.error();
    } else if (!command.noAlarms) {
        const auto alarms = openFile(command.alarmFile, command.reading);
        if (!alarms)
            return alarms.error();
        if (const Status read = readAlarms(alarms->database, command, chart); !read)
            return read.error();
    }
    mergeBands(chart);

    qint64 drawn = 0;
    qint64 left = 0;
    for (const Series &series : chart.series) {
        drawn += series.points.count();
        left += series.left;
        if (series.left > 0)
            complain(QStringLiteral("%1: left out because they are no numbers or have no time: %2 values")
                         .arg(series.table, grouped(series.left)));
    }
    if (drawn == 0)
        return failure(command.path, QStringLiteral("none of the values in this range is a number"));
    const auto image = draw(script(command, chart));
    if (!image)
        return image.error();
    if (!target) {
        terminal.write(*image);
    } else {
        QFile output(target->part());
        if (!output.open(QIODevice::WriteOnly) || output.write(*image) != image->size() || !output.flush())
            return failure(command.target, output.errorString() + QStringLiteral("; check the free space"));
        if (const Status placed = target->putInPlace(); !placed)
            return placed.error();
        say(QStringLiteral("%1: %2 samples, %3 alarms").arg(command.target, grouped(drawn), grouped(chart.alarms)));
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
        "--alarms names, lie behind as bands in the colour of their level; on the terminal they are a row of digits, "
        "their levels. Values that are no numbers are left out and counted; exit code 3 then. Needs gnuplot.");
    const auto options = std::make_shared<PlotCommand>();
    addFile(command, options->path, options->reading);
    addTexts(command, "SERIES", options->series, "The tables; may be left out when the file has only one series")
        ->type_name("");
    addRange(command, options->range);
    addText(command, "-o,--output", options->target, "A picture, .png or .svg; default: the terminal")
        ->type_name("PICTURE");
    command->add_flag("--force", options->force, "Replace PICTURE when it is there");
    command->add_option("--size", options->size, "Default: 1200x500 pixels, or the terminal's width and 24 lines")
        ->type_name("WxH")
        ->check([](const std::string &text) {
            int width = 0;
            int height = 0;
            char more = 0;
            const bool right = std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &more) == 2 && width >= 40 &&
                               height >= 10 && width <= 20000 && height <= 20000;
            return right ? std::string() : "a size is such as 1200x500, from 40x10 to 20000x20000";
        });
    CLI::Option *const from =
        addText(command, "--alarms", options->alarmFile, "Take the alarms from this file")->type_name("FILE");
    command->add_flag("--no-alarms", options->noAlarms, "Draw no alarms")->excludes(from);
    command->add_flag("--utc", options->utc, "Times in UTC, given and drawn");
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
