// SPDX-License-Identifier: MIT
#include "options.h"
#include "failure.h"
#include "series.h"

#include <QCommandLineParser>
#include <QRegularExpression>

#include <algorithm>

namespace
{

int number(const QCommandLineParser &parser, const QString &name, int least, int most)
{
    bool isNumber = false;
    const int value = parser.value(name).toInt(&isNumber);
    if (!isNumber || value < least || value > most)
        throw UsageError(QString("--%1 \"%2\": give a whole number from %3 to %4")
                             .arg(name, parser.value(name))
                             .arg(least)
                             .arg(most));
    return value;
}

QString seriesKeys()
{
    QStringList keys;
    for (const Series &series : allSeries)
        keys.append(series.key);
    return keys.join(", ");
}

LimitChange limitChange(const QString &text)
{
    static const QRegularExpression form("^(\\w+)=(\\d+(?:\\.\\d+)?)(?:@(\\d+(?:\\.\\d+)?))?$");
    const QRegularExpressionMatch match = form.match(text);
    const auto series = std::find_if(allSeries.begin(), allSeries.end(),
                                     [&](const Series &each) { return match.captured(1) == each.key; });
    if (!match.hasMatch() || series == allSeries.end())
        throw UsageError(QString("--limit \"%1\": give NAME=VALUE or NAME=VALUE@SECOND, NAME one of %2; "
                                 "for example --limit memory=80")
                             .arg(text, seriesKeys()));
    return {size_t(series - allSeries.begin()), match.captured(2).toDouble(), match.captured(3).toDouble()};
}

} // namespace

Options parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Watches this machine and keeps its figures, alarms and operator log in three database files; "
        "at the end reads them back.");
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    parser.addOptions({
        {"seconds", "How long to watch (10); 0: until Ctrl-C.", "N", "10"},
        {"rate", "Samples a second (10).", "N", "10"},
        {"dir",
         "Folder of the files; what it holds is kept and added to. Without it: a new one for temporary "
         "files.",
         "DIR"},
        {"limit",
         QString("Alarm limit of %1, from the start or from that second on. May be given again and again.")
             .arg(seriesKeys()),
         "NAME=VALUE[@SECOND]"},
        {"max-samples", "Keep this many samples a table; the oldest go (36000).", "N", "36000"},
        {"keep-days", "Active alarms older than this many days go to the archive (365).", "N", "365"},
        {"library", "The database library to load.", "FILE"},
        {"verbose", "Show the library's debug output."},
    });

    if (!parser.parse(arguments))
        throw UsageError(parser.errorText());
    if (parser.isSet(help))
        parser.showHelp();
    if (parser.isSet(version))
        parser.showVersion();
    if (!parser.positionalArguments().isEmpty())
        throw UsageError(QString("\"%1\": this program takes options only").arg(parser.positionalArguments().first()));

    Options options;
    options.seconds = number(parser, "seconds", 0, 10000000);
    options.rate = number(parser, "rate", 1, 100);
    options.maxSamples = number(parser, "max-samples", 1, 100000000);
    options.keepDays = number(parser, "keep-days", 1, 36500);
    options.folder = parser.value("dir");
    options.library = parser.value("library");
    options.verbose = parser.isSet("verbose");
    const QStringList limits = parser.values("limit");
    for (size_t i = 0; i < allSeries.size(); ++i)
        options.limits.push_back({i, allSeries[i].limit, 0});
    for (const QString &text : limits) {
        const LimitChange change = limitChange(text);
        if (options.seconds > 0 && change.second > options.seconds)
            throw UsageError(QString("--limit \"%1\": the run is over after %2 s; --seconds makes it longer")
                                 .arg(text)
                                 .arg(options.seconds));
        if (change.second > 0)
            options.limits.push_back(change);
        else
            options.limits[change.series] = change;
    }
    std::stable_sort(options.limits.begin(), options.limits.end(),
                     [](const LimitChange &a, const LimitChange &b) { return a.second < b.second; });
    return options;
}
