// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

#include <vector>

struct LimitChange {
    size_t series; ///< Index in allSeries.
    double limit;
    double second; ///< Of the run.
};

struct Options {
    int seconds = 0; ///< 0: until a signal comes.
    int rate = 0;    ///< Samples a second.
    int maxSamples = 0;
    int keepDays = 0;
    QString folder;  ///< Empty: a new one.
    QString library; ///< Empty: looked for.
    bool verbose = false;
    std::vector<LimitChange> limits; ///< In the order of their seconds; each series has one at 0.
};

/// Throws UsageError. Answers --help and --version itself.
Options parseOptions(const QStringList &arguments);
