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

/// Of `top / bottom`, round by round.
Spread spread(const std::vector<double> &top, const std::vector<double> &bottom)
{
    std::vector<double> ratios;
    for (size_t round = 0; round < top.size(); ++round)
        ratios.push_back(top[round] / bottom[round]);
    std::sort(ratios.begin(), ratios.end());
    return {quantile(ratios, 0.25), quantile(ratios, 0.5), quantile(ratios, 0.75)};
}

} // namespace

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
    std::printf("\n%-28s%9s", name.c_str(), workload.unit);
    for (const std::string &base : workload.bases)
        std::printf("  %-29s", ("of " + base).c_str());
    std::printf("\n");

    // In the order in which the contenders were named: it stands in front of each counter's name.
    std::map<std::string, std::vector<double>> figures;
    for (const Run &run : runs) {
        if (run.error_occurred) {
            std::printf("  FAILED: %s\n", run.error_message.c_str());
            m_failed = true;
        }
        for (const auto &counter : run.counters)
            figures[counter.first].push_back(counter.second.value);
    }
    const auto figuresOf = [&](const std::string &contender) {
        return std::find_if(figures.begin(), figures.end(),
                            [&](const auto &each) { return each.first.substr(2) == contender; });
    };
    for (const auto &each : figures) {
        const std::string contender = each.first.substr(2);
        const std::vector<double> ones(each.second.size(), 1.0);
        const double figure = spread(each.second, ones).median;
        QJsonObject result{{"workload", QString::fromStdString(name)},
                           {"contender", QString::fromStdString(contender)},
                           {"unit", workload.unit},
                           {"rounds", int(each.second.size())},
                           {"median", figure}};
        QJsonArray ratios;
        std::printf("  %-26s%9.3f", contender.c_str(), figure);
        for (const std::string &base : workload.bases) {
            const auto bottom = figuresOf(base);
            if (bottom == figures.end() || contender == base) {
                std::printf("  %-29s", bottom == figures.end() ? "-" : "1");
                continue;
            }
            const Spread ratio = spread(each.second, bottom->second);
            const Limit *limit = findLimit(name, contender, base, spread(bottom->second, ones).median);
            char text[64];
            std::snprintf(text, sizeof text, "%5.3f %5.3f..%5.3f", ratio.median, ratio.low, ratio.high);
            std::printf("  %-18s", text);
            if (limit)
                std::printf(" %s%-5.4g%s", limit->sense == Limit::AtMost ? "<=" : ">=", limit->value(),
                            limit->kept(ratio.median) ? "yes" : "NO ");
            else
                std::printf("%11s", "");
            QJsonObject entry{{"base", QString::fromStdString(base)},
                              {"median", ratio.median},
                              {"low", ratio.low},
                              {"high", ratio.high}};
            if (limit) {
                entry.insert("limit", limit->value());
                entry.insert("sense", limit->sense == Limit::AtMost ? "at most" : "at least");
                entry.insert("kept", limit->kept(ratio.median));
            }
            ratios.append(entry);
        }
        std::printf("\n");
        result.insert("ratios", ratios);
        m_results.append(result);
    }
    std::fflush(stdout);
}

QJsonObject Report::json() const
{
    return {{"environment", m_environment}, {"results", m_results}};
}
