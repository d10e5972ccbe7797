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
        throw UsageError(QStringLiteral("--%1 \"%2\": give a whole number from %3 to %4")
                             .arg(name, parser.value(name))
                             .arg(least)
                             .arg(most));
    return value;
}

QString seriesKeys()
{
    QStringList keys;
    for (const Series &series : allSeries)
        keys.append(QLatin1String(series.key));
    return keys.join(QStringLiteral(", "));
}

LimitChange limitChange(const QString &text)
{
    static const QRegularExpression form(QStringLiteral("^(\\w+)=(\\d+(?:\\.\\d+)?)(?:@(\\d+(?:\\.\\d+)?))?$"));
    const QRegularExpressionMatch match = form.match(text);
    const auto series = std::find_if(allSeries.begin(), allSeries.end(),
                                     [&](const Series &each) { return match.captured(1) == QLatin1String(each.key); });
    if (!match.hasMatch() || series == allSeries.end())
        throw UsageError(QStringLiteral("--limit \"%1\": give NAME=VALUE or NAME=VALUE@SECOND, NAME one of %2; "
                                        "for example --limit memory=80")
                             .arg(text, seriesKeys()));
    return {size_t(series - allSeries.begin()), match.captured(2).toDouble(), match.captured(3).toDouble()};
}

} // namespace

Options parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Watches this machine and keeps its figures, alarms and operator log in three database files; "
                       "at the end reads them back."));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    parser.addOptions({
        {QStringLiteral("seconds"), QStringLiteral("How long to watch; 0: until Ctrl-C."), QStringLiteral("N"),
         QStringLiteral("10")},
        {QStringLiteral("rate"), QStringLiteral("Samples a second (10)."), QStringLiteral("N"), QStringLiteral("10")},
        {QStringLiteral("dir"),
         QStringLiteral("Folder of the files; what it holds is kept and added to. Without it: a new one for temporary "
                        "files."),
         QStringLiteral("DIR")},
        {QStringLiteral("limit"),
         QStringLiteral("Alarm limit of %1, from the start or from that second on. May be given again and again.")
             .arg(seriesKeys()),
         QStringLiteral("NAME=VALUE[@SECOND]")},
        {QStringLiteral("max-samples"), QStringLiteral("Keep this many samples a table; the oldest go (36000)."),
         QStringLiteral("N"), QStringLiteral("36000")},
        {QStringLiteral("keep-days"), QStringLiteral("Active alarms older than this go to the archive (365)."),
         QStringLiteral("N"), QStringLiteral("365")},
        {QStringLiteral("library"), QStringLiteral("The database library to load."), QStringLiteral("FILE")},
        {QStringLiteral("verbose"), QStringLiteral("Show the library's debug output.")},
    });

    if (!parser.parse(arguments))
        throw UsageError(parser.errorText());
    if (parser.isSet(help))
        parser.showHelp();
    if (parser.isSet(version))
        parser.showVersion();
    if (!parser.positionalArguments().isEmpty())
        throw UsageError(
            QStringLiteral("\"%1\": this program takes options only").arg(parser.positionalArguments().first()));

    Options options;
    options.seconds = number(parser, QStringLiteral("seconds"), 0, 1000000);
    options.rate = number(parser, QStringLiteral("rate"), 1, 100);
    options.maxSamples = number(parser, QStringLiteral("max-samples"), 1, 100000000);
    options.keepDays = number(parser, QStringLiteral("keep-days"), 1, 36500);
    options.folder = parser.value(QStringLiteral("dir"));
    options.library = parser.value(QStringLiteral("library"));
    options.verbose = parser.isSet(QStringLiteral("verbose"));
    const QStringList limits = parser.values(QStringLiteral("limit"));
    for (size_t i = 0; i < allSeries.size(); ++i)
        options.limits.push_back({i, allSeries[i].limit, 0});
    for (const QString &text : limits) {
        const LimitChange change = limitChange(text);
        if (change.second > 0)
            options.limits.push_back(change);
        else
            options.limits[change.series] = change;
    }
    std::stable_sort(options.limits.begin(), options.limits.end(),
                     [](const LimitChange &a, const LimitChange &b) { return a.second < b.second; });
    return options;
}
