// SPDX-License-Identifier: MIT
#pragma once

#include "workload.h"

#include <random>

/// The contenders of one workload, measured in turn, so that ratios hold on a machine that others use too.
class Session
{
public:
    /// Runs everybody once: to be warm, to compare the results, to see how many runs make a measurable time.
    /// Throws when the results differ.
    explicit Session(const Workload &workload);

    /// Measures everybody once, in a new order. The figures per item, in the order of names(). The first
    /// contender runs before and after each other one, and what the machine did to it is taken out of theirs.
    std::vector<double> round();
    std::vector<std::string> names() const;

private:
    double measure(const Contender &contender) const;

    std::vector<Contender> m_contenders;
    int m_calls = 1;
    double m_floor = 0; ///< What FLOOR took last.
    std::mt19937 m_order;
};

/// Everything that counts happens inside; a profiler starts and stops here.
extern "C" void device_database_measured(const std::function<void()> &run, int calls);

/// Runs one contender alone, warm, `calls` times in a row. Says what memory it took when that is counted.
void runOnce(const Workload &workload, const std::string &contender, int calls);

/// Processor time of this process: other people's work does not count.
double processorSeconds();
