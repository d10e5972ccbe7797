// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

#include <string>

/// What work took from the heap, in MB.
struct Memory {
    double peak = 0; ///< The most at any time.
    double kept = 0; ///< What its result takes.
};

/// Runs one contender of a workload in a process of its own, in which allocations are counted.
Memory childMemory(const std::string &workload, const std::string &contender, const QStringList &options);

/// In the child: counts from here on; nothing when allocations are not counted in this process.
class MemoryCount
{
public:
    MemoryCount();
    void print() const;

private:
    long long m_before = 0;
};
