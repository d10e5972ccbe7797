// SPDX-License-Identifier: MIT
#include "commands/chart.h"

#include "storefile/texts.h"

#include <QProcess>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

namespace device_db
{

namespace
{

constexpr int mostBands = 400; // more cannot be told apart

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

const char *colourOf(int level)
{
    return level >= 3 ? "#d62728" : level == 2 ? "#ff7f0e" : level == 1 ? "#e0b400" : "#7f7f7f";
}

QByteArray number(double value)
{
    return QByteArray::number(value, 'g', 12);
}

QByteArray terminalOf(const Chart &chart, Picture picture)
{
    const QByteArray size = QByteArray::number(chart.width) + ',' + QByteArray::number(chart.height);
    switch (picture) {
    case Picture::Png:
        return "set terminal pngcairo size " + size + " font 'sans,10' background '#ffffff' noenhanced\n";
    case Picture::Svg:
        return "set terminal svg size " + size + " font 'sans,12' background '#ffffff' noenhanced\n";
    case Picture::Terminal:
        break;
    }
    return "set terminal dumb size " + size + '\n';
}

QByteArray axesOf(const Chart &chart, Picture picture)
{
    QByteArray text;
    const qint64 span = chart.last - chart.first;
    // Alarms alone need room at the sides: on a terminal the axes would hide a short one there.
    const qint64 pad = span == 0 ? 30000 : chart.series.empty() ? span / 25 : 0;
    const char *format = span < 4 * 60000              ? "%H:%M:%S\\n%Y-%m-%d"
                         : span < qint64(4) * 86400000 ? "%H:%M\\n%Y-%m-%d"
                                                       : "%Y-%m-%d";
    text += "set xdata time\nset format x \"" + QByteArray(format) + "\" timedate\nset xrange [" +
            seconds(chart.first - pad) + ':' + seconds(chart.last + pad) + "]\n";
    // A label of a date is wide: this many fit beside each other.
    const int labelWidth = picture == Picture::Terminal ? 14 : 110;
    const int labels = std::max(2, chart.width / labelWidth);
    static constexpr qint64 steps[] = {1,       2,        5,        10,       15,       30,      60,      120,
                                       300,     600,      900,      1800,     3600,     7200,    10800,   21600,
                                       43200,   86400,    172800,   432000,   604800,   1209600, 2592000, 5184000,
                                       7776000, 15552000, 31536000, 63072000, 157680000};
    const auto step = std::find_if(std::begin(steps), std::end(steps),
                                   [&](qint64 each) { return each * 1000 * labels >= span + 2 * pad; });
    text += "set xtics " + QByteArray::number(step == std::end(steps) ? span / 1000 / labels : *step) + "\n";
    text += "set tics nomirror\nset key outside top center horizontal\nset offsets 0,0,graph 0.06,graph 0.06\n";
    text += "set xlabel " + quoted(chart.utc ? QStringLiteral("UTC") : QStringLiteral("device time")) + '\n';
    if (std::any_of(chart.series.begin(), chart.series.end(), [](const Series &series) { return series.right; }))
        text += "set y2tics nomirror\n";
    return text;
}

std::set<int> levelsOf(const Chart &chart)
{
    std::set<int> levels;
    for (const Band &band : chart.bands)
        levels.insert(band.level);
    return levels;
}

// Where a level has its row when there are no series.
int rowOf(const std::set<int> &levels, int level)
{
    return 1 + int(std::distance(levels.begin(), levels.find(level)));
}

QByteArray rowsOf(const std::set<int> &levels)
{
    QByteArray tics;
    for (const int level : levels)
        tics += (tics.isEmpty() ? "" : ",") + QByteArray("'level ") + QByteArray::number(level) + "' " +
                QByteArray::number(rowOf(levels, level));
    return "set offsets 0,0,0,0\nset yrange [0.4:" + QByteArray::number(double(levels.size()) + 0.6) +
           "]\nset ytics (" + tics + ")\n";
}

QByteArray rectanglesOf(const Chart &chart, const std::set<int> &levels)
{
    QByteArray text;
    int count = 0;
    for (const Band &band : chart.bands) {
        const int row = rowOf(levels, band.level);
        const QByteArray bottom = chart.series.empty() ? QByteArray::number(row - 0.4) : QByteArray("graph 0");
        const QByteArray top = chart.series.empty() ? QByteArray::number(row + 0.4) : QByteArray("graph 1");
        const QByteArray colour = colourOf(band.level);
        text += "set object " + QByteArray::number(++count) + " rectangle from " + seconds(band.begin) + ',' + bottom +
                " to " + seconds(band.end) + ',' + top + " behind fillcolor rgb '" + colour +
                "' fillstyle solid 0.25 border lc rgb '" + colour + "' lw 0.3\n";
    }
    return text;
}

QByteArray pointsOf(const Series &series)
{
    QByteArray text;
    for (const auto &line : series.points.lines()) {
        for (const Point &point : line)
            text += seconds(point.time) + ' ' + number(point.value) + '\n';
        // A single point between two pauses is not a line; drawn twice it is a dot.
        if (line.size() == 1)
            text += seconds(line.front().time) + ' ' + number(line.front().value) + '\n';
        text += '\n';
    }
    return text;
}

// A terminal has no bands: a row of marks below the series.
QByteArray marksOf(const Chart &chart, int level)
{
    QByteArray text;
    const qint64 aColumn = std::max<qint64>(1, (chart.last - chart.first) / std::max(1, chart.width - 10));
    for (const Band &band : chart.bands) {
        for (qint64 time = band.begin; band.level == level && time <= band.end; time += aColumn)
            text += seconds(time) + " 0\n";
    }
    return text;
}

// The series of the axis at the left, which the marks are below; else those of the other.
double lowestValue(const Chart &chart)
{
    double lowest = 0;
    for (const bool right : {true, false}) {
        bool any = false;
        for (const Series &series : chart.series) {
            if (series.right != right)
                continue;
            for (const Point &point : series.points.points()) {
                lowest = any ? std::min(lowest, point.value) : point.value;
                any = true;
            }
        }
    }
    return lowest;
}

/// The lines of a terminal that are left for the values, about.
int linesOf(const Chart &chart, const std::set<int> &levels)
{
    const int titles = int(chart.series.size() + levels.size());
    const int titlesOfLine = std::max(1, chart.width / 26);
    return chart.height - 6 - (chart.title.isEmpty() ? 0 : 1) - (titles + titlesOfLine - 1) / titlesOfLine;
}

// gnuplot's own labels may be more than there are lines: they overlap then, and show numbers that are none.
QByteArray fewLabels(const Chart &chart, bool right, int lines)
{
    double lowest = std::numeric_limits<double>::infinity();
    double highest = -lowest;
    for (const Series &series : chart.series) {
        for (const Point &point : series.points.points()) {
            if (series.right != right)
                break;
            lowest = std::min(lowest, point.value);
            highest = std::max(highest, point.value);
        }
    }
    if (lowest > highest)
        return QByteArray();
    // Of values that are all the same gnuplot shows one hundredth above and below.
    const double span = highest > lowest ? highest - lowest : lowest == 0 ? 2 : std::abs(lowest) / 50;
    const double atLeast = span / std::max(1.0, 0.6 * lines); // two more where the axis is extended to whole steps
    double step = std::pow(10, std::floor(std::log10(atLeast)));
    for (const double factor : {2.0, 2.5, 2.0}) { // 2, 5, 10
        if (step < atLeast)
            step *= factor;
    }
    return (right ? "set y2tics " : "set ytics ") + number(step) + '\n';
}

QByteArray script(const Chart &chart, Picture picture)
{
    const bool isTerminal = picture == Picture::Terminal;
    const std::set<int> levels = levelsOf(chart);
    QByteArray text = terminalOf(chart, picture);
    if (!isTerminal)
        text += "set grid back linetype 1 linecolor rgb '#d8d8d8' linewidth 0.5\n";
    if (!chart.title.isEmpty())
        text += "set title " + quoted(chart.title) + '\n';
    text += axesOf(chart, picture);
    if (chart.series.empty())
        text += rowsOf(levels);
    if (!isTerminal)
        text += rectanglesOf(chart, levels);
    else if (const int lines = linesOf(chart, levels); lines < 12)
        text += fewLabels(chart, false, lines) + fewLabels(chart, true, lines);
    QByteArray plots;
    const auto add = [&](const QByteArray &plot) { plots += (plots.isEmpty() ? "" : ", ") + plot; };
    for (size_t i = 0; i < chart.series.size(); ++i) {
        const Series &series = chart.series[i];
        const QByteArray block = "$series" + QByteArray::number(int(i));
        text += block + " << EOD\n" + pointsOf(series) + "EOD\n";
        add(block + " using (timecolumn(1,\"%s\")):2 " + (series.right ? "axes x1y2 " : "") +
            "with lines lw 1.3 title " +
            quoted(series.right ? series.title + QStringLiteral(", right axis") : series.title));
    }
    for (const int level : levels) {
        const QByteArray title = quoted(QStringLiteral("alarm, level %1").arg(level));
        if (!isTerminal) {
            add("NaN with boxes fillstyle solid 0.25 fillcolor rgb '" + QByteArray(colourOf(level)) + "' title " +
                title);
            continue;
        }
        const QByteArray block = "$level" + QByteArray::number(level + 1000000);
        text += block + " << EOD\n" + marksOf(chart, level) + "EOD\n";
        const QByteArray height =
            chart.series.empty() ? QByteArray::number(rowOf(levels, level)) : number(lowestValue(chart));
        add(block + " using (timecolumn(1,\"%s\")):(" + height + ") with points pt \"" +
            QByteArray::number(std::abs(level) % 10) + "\" title " + title);
    }
    return text + "plot " + plots + '\n';
}

} // namespace

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

Result<QByteArray> drawn(const Chart &chart, Picture picture)
{
    QProcess gnuplot;
    gnuplot.start(QStringLiteral("gnuplot"), {QStringLiteral("-")});
    if (!gnuplot.waitForStarted())
        return failure(QStringLiteral("gnuplot"),
                       QStringLiteral("the program that draws cannot be started; install "
                                      "gnuplot (Debian: gnuplot-nox), or \"export\" the rows"));
    gnuplot.write(script(chart, picture));
    gnuplot.closeWriteChannel();
    const bool finished = gnuplot.waitForFinished(60000);
    const QString complaint = QString::fromUtf8(gnuplot.readAllStandardError()).simplified();
    if (!finished || gnuplot.exitStatus() != QProcess::NormalExit || gnuplot.exitCode() != 0)
        return failure(QStringLiteral("gnuplot"), QStringLiteral("it failed: ") + complaint.right(300));
    QByteArray image = gnuplot.readAllStandardOutput();
    if (image.startsWith('\f')) // on a terminal it begins with a new page
        image.remove(0, 1);
    return image;
}

} // namespace device_db
