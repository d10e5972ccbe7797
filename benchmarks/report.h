// SPDX-License-Identifier: MIT
#pragma once

#include "workload.h"

#include <QJsonArray>
#include <QJsonObject>

#include <benchmark/benchmark.h>

/// The counter in which a benchmark gives the figure of its contender at this place.
std::string contenderCounter(size_t place, const std::string &contender);

/// Prints a table of ratios for each workload and keeps them as JSON. A ratio is made within one round; the
/// report is about the median over the rounds and its quartiles.
class Report : public benchmark::BenchmarkReporter
{
public:
    Report(const std::vector<Workload> &workloads, QJsonObject environment);

    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;

    QJsonObject json() const;
    bool failed() const { return m_failed; } ///< A workload could not be run, or gave something else.

private:
    const std::vector<Workload> &m_workloads;
    QJsonObject m_environment;
    QJsonArray m_results;
    bool m_failed = false;
};
