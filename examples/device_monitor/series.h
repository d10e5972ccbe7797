// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <array>

/// One figure of the machine: where its samples go and when it raises an alarm.
struct Series {
    enum Side { Above, Below };

    const char *key;   ///< On the command line.
    const char *table; ///< In history.db.
    const char *name;  ///< In tb_config, alarms and the report. ASCII: the store encodes other text twice.
    const char *unit;
    int decimals;
    Side side;         ///< The side of the limit on which the alarm lies.
    double limit;      ///< Until another one is set.
    double hysteresis; ///< How far back inside the limit the value must come before the alarm ends.
    int level;         ///< 1 notice, 2 warning, 3 critical.
};

inline constexpr std::array<Series, 4> allSeries{{
    {"cpu", "cpu_load", "CPU load", "%", 1, Series::Above, 90, 10, 2},
    {"memory", "memory_used", "Memory in use", "%", 1, Series::Above, 90, 2, 2},
    {"disk", "disk_free", "Disk free", "%", 2, Series::Below, 5, 1, 3},
    {"switches", "context_switches", "Context switches", "/s", 0, Series::Above, 200000, 20000, 1},
}};

/// One value a series, in the order of allSeries.
using Values = std::array<double, allSeries.size()>;

/// Without trailing zeros.
inline QString numberText(double limit)
{
    return QString::number(limit, 'g', 12);
}

inline QString valueText(const Series &series, double value)
{
    return QString::number(value, 'f', series.decimals);
}
