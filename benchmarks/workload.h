// SPDX-License-Identifier: MIT
#pragma once

#include "data.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <string>
#include <vector>

/// One way to do the work of a workload.
struct Contender {
    std::string name;
    double items;                       ///< Rows or calls in one run.
    std::function<void()> run;          ///< What is measured.
    std::function<QByteArray()> result; ///< Fingerprint of what the runs gave; must be the same for all that have one.
    std::function<void()> undo;         ///< Makes the next run start where this one did. Not measured.
    std::function<double()> value;      ///< In place of all of these: the figure itself.
};

/// What is compared with what.
struct Workload {
    std::string name;               ///< "operation/rows/store".
    const char *unit;               ///< Of the figures, per item.
    int rounds;                     ///< 0: only for being run once, in a child process.
    std::vector<std::string> bases; ///< The contenders to which the others are set in proportion.
    std::function<std::vector<Contender>()> open;
};

struct Sizes {
    int batch;           ///< Rows of a large batch.
    int small, large;    ///< Rows of the tables for reading.
    int huge;            ///< Rows of the tables for counting, for pages, for memory.
    int rounds;          ///< Of the fast workloads; slow ones take a third, the slowest a fifth.
    QStringList options; ///< What gives a child process the same data.
};

/// Everything that can be measured. Files are made in `folder` when they are needed first.
std::vector<Workload> allWorkloads(const Sizes &sizes, const Data &data, const QString &folder);
