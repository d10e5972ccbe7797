// SPDX-License-Identifier: MIT
#include "report.h"

#include "limits.h"

#include <algorithm>
#include <cstdio>

namespace
{

struct Spread {
    double low, median, high;
};

double quantile(const std::vector<double> &sorted, double part)
{
    const double position = part * double(sorted.size() - 1);
    const size_t below = size_t(position);
    const size_t above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (position - double(below)) * (sorted[above] - sorted[below]);
}

Spread spread(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return {quantile(values, 0.25), quantile(values, 0.5), quantile(values, 0.75)};
}

/// Of the ratios within each round.
Spread spread(const std::vector<double> &top, const std::vector<double> &bottom)
{
    std::vector<double> ratios;
    for (size_t round = 0; round < top.size(); ++round)
        ratios.push_back(top[round] / bottom[round]);
    return spread(ratios);
}

QString ratioColumn(const Spread &ratio, const Limit *limit)
{
    QString text =
        QStringLiteral("  %1 %2..%3").arg(ratio.median, 5, 'f', 3).arg(ratio.low, 5, 'f', 3).arg(ratio.high, 5, 'f', 3);
    if (limit) {
        text += QStringLiteral(" %1%2 %3")
                    .arg(QLatin1String(limit->sense == Limit::AtMost ? "<=" : ">="))
                    .arg(limit->value(), -4)
                    .arg(QLatin1String(limit->kept(ratio.median) ? "yes" : "NO"));
    }
    return text.leftJustified(31);
}

QJsonObject ratioObject(const std::string &base, const Spread &ratio, const Limit *limit)
{
    QJsonObject object{
        {"base", QString::fromStdString(base)}, {"median", ratio.median}, {"low", ratio.low}, {"high", ratio.high}};
    if (limit) {
        object.insert(limit->sense == Limit::AtMost ? "atMost" : "atLeast", limit->value());
        object.insert("kept", limit->kept(ratio.median));
    }
    return object;
}

void print(QString line)
{
    while (line.endsWith(QLatin1Char(' ')))
        line.chop(1);
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

} // namespace

// Google Benchmark keeps counters sorted by name.
std::string contenderCounter(size_t place, const std::string &contender)
{
    return std::string{char('a' + place), ' '} + contender;
}

static std::string counterContender(const std::string &counter)
{
    return counter.substr(2);
}

Report::Report(const std::vector<Workload> &workloads, QJsonObject environment)
    : m_workloads(workloads), m_environment(std::move(environment))
{
}

bool Report::ReportContext(const Context &)
{
    for (auto item = m_environment.constBegin(); item != m_environment.constEnd(); ++item)
        std::printf("%-12s %s\n", qPrintable(item.key()), qPrintable(item.value().toString()));
    std::printf("\nFigures are medians over the rounds; ratios are made within a round, quartiles beside them.\n");
    return true;
}

void Report::ReportRuns(const std::vector<Run> &runs)
{
    if (runs.front().run_type != Run::RT_Iteration)
        return; // Google Benchmark's own statistics know no ratios
    const std::string &name = runs.front().run_name.function_name;
    const Workload &workload =
        *std::find_if(m_workloads.begin(), m_workloads.end(), [&](const Workload &each) { return each.name == name; });
    QString heading = QStringLiteral("\n%1%2").arg(QString::fromStdString(name), -28).arg(workload.unit, 9);
    for (const std::string &base : workload.bases)
        heading += QStringLiteral("  of %1").arg(QString::fromStdString(base), -26);
    print(heading);

    std::map<std::string, std::vector<double>> figures;
    for (const Run &run : runs) {
        if (run.error_occurred) {
            print(QStringLiteral("  FAILED: ") + QString::fromStdString(run.error_message));
            m_failed = true;
        }
        for (const auto &[contender, counter] : run.counters)
            figures[contender].push_back(counter.value);
    }
    for (const auto &[counter, figure] : figures) {
        const std::string contender = counterContender(counter);
        const double median = spread(figure).median;
        QString line = QStringLiteral("  %1%2").arg(QString::fromStdString(contender), -26).arg(median, 9, 'f', 3);
        QJsonArray ratios;
        for (const std::string &base : workload.bases) {
            const auto bottom = std::find_if(figures.begin(), figures.end(),
                                             [&](const auto &each) { return counterContender(each.first) == base; });
            if (bottom == figures.end() || contender == base) {
                line += QString(31, QLatin1Char(' '));
                continue;
            }
            const Spread ratio = spread(figure, bottom->second);
            const Limit *limit = findLimit(name, contender, base, spread(bottom->second).median);
            line += ratioColumn(ratio, limit);
            ratios.append(ratioObject(base, ratio, limit));
        }
        print(line);
        m_results.append(QJsonObject{{"workload", QString::fromStdString(name)},
                                     {"contender", QString::fromStdString(contender)},
                                     {"unit", workload.unit},
                                     {"rounds", int(figure.size())},
                                     {"median", median},
                                     {"ratios", ratios}});
    }
}

QJsonObject Report::json() const
{
    return {{"environment", m_environment}, {"results", m_results}};
}
