// SPDX-License-Identifier: MIT
#include "limits.h"

#include <QtGlobal>

#include <fnmatch.h>

namespace
{

constexpr Limit::Sense atMost = Limit::AtMost;
constexpr Limit::Sense atLeast = Limit::AtLeast;

const Limit limits[] = {
    // Workload, contender, base, Qt 6, Qt 5
    {"insert/10000/history", "OURS", "FLOOR", atMost, 1.06, 1.06},
    {"insert/10000/alarm", "OURS", "FLOOR", atMost, 1.10, 1.10},
    {"insert/10000/log", "OURS", "FLOOR", atMost, 1.10, 1.10},
    {"insert/10000/*", "POCO prepared", "OURS", atLeast, 1.00, 1.00},
    {"insert/10000/history", "* text", "OURS", atLeast, 1.15, 1.15},
    {"insert/10000/alarm", "* text", "OURS", atLeast, 1.35, 1.35},
    {"insert/10000/log", "* text", "OURS", atLeast, 1.18, 1.18},
    {"insert*/1/*", "OURS", "FLOOR", atMost, 1.12, 1.12},
    {"insert*/1/*", "* prepared", "OURS", atLeast, 1.00, 1.00},

    {"records/1*0000/history", "OURS", "FLOOR", atMost, 1.20, 1.23},
    {"records/1*0000/alarm", "OURS", "FLOOR", atMost, 1.28, 1.28},
    {"records/1*0000/log", "OURS", "FLOOR", atMost, 1.36, 1.40},
    {"records/1*0000/history", "PLAIN", "OURS", atLeast, 1.2, 0},
    {"records/1*0000/alarm", "PLAIN", "OURS", atLeast, 4, 0},
    {"records/1*0000/log", "PLAIN", "OURS", atLeast, 5, 0},
    {"records/1*0000/history", "Qt SQL", "OURS", atLeast, 1.35, 1.35},
    {"records/1*0000/alarm", "Qt SQL", "OURS", atLeast, 1.6, 1.6},
    {"records/1*0000/log", "Qt SQL", "OURS", atLeast, 1.7, 1.7},
    {"records/1*0000/*", "SOCI", "OURS", atLeast, 1.00, 1.00},
    {"records/1*0000/*", "POCO", "OURS", atLeast, 1.00, 1.00},

    {"tables/1*0000/history", "OURS", "FLOOR", atMost, 1.33, 1.33},
    {"tables/1*0000/alarm", "OURS", "FLOOR", atMost, 1.27, 1.27},
    {"tables/1*0000/log", "OURS", "FLOOR", atMost, 1.30, 1.30},
    {"tables/1*0000/*", "Qt SQL", "OURS", atLeast, 1.4, 1.4},

    {"indexed-page*", "OURS", "FLOOR", atMost, 1.17, 1.17},
    {"*count*", "OURS", "FLOOR", atMost, 1.03, 1.03, 3000},
    {"page*", "OURS", "FLOOR", atMost, 1.03, 1.03, 3000},

    {"growth-insert/*", "OURS 1000000", "OURS 10000", atMost, 1.1, 1.1},
    {"growth-records/*", "OURS 1000000", "OURS 10000", atMost, 1.4, 1.4},
    {"memory-peak/1000000/*", "OURS", "FLOOR + list", atMost, 1.00, 1.00},
    {"memory-list/1000000/history", "OURS", "PLAIN", atMost, 0.85, 0.85},

    {"typed-append/*/history", "TYPED", "SQLiteCpp prepared", atMost, 1.10, 1.10},
    {"typed-append/*/history", "* prepared", "TYPED", atLeast, 1.00, 1.00},
    {"typed-append/*/history", "* text", "TYPED", atLeast, 1.00, 1.00},
    {"typed-series/200/history", "TYPED", "SQLiteCpp prepared", atMost, 1.25, 1.25},
    {"typed-read/*/history", "TYPED", "SQLiteCpp", atMost, 1.10, 1.10},
    {"typed-read/*/history", "SQLiteCpp", "TYPED", atLeast, 1.00, 1.00},
    {"typed-read/*/history", "Qt SQL", "TYPED", atLeast, 1.00, 1.00},
    {"typed-read/*/history", "SOCI", "TYPED", atLeast, 1.00, 1.00},
    {"typed-read/*/history", "POCO", "TYPED", atLeast, 1.00, 1.00},
};

} // namespace

double Limit::value() const
{
    return QT_VERSION_MAJOR == 6 ? qt6 : qt5;
}

const Limit *findLimit(const std::string &workload, const std::string &contender, const std::string &base,
                       double baseMicroseconds)
{
    const auto matches = [](const char *pattern, const std::string &text) {
        return fnmatch(pattern, text.c_str(), 0) == 0;
    };
    for (const Limit &limit : limits) {
        if (matches(limit.workload, workload) && matches(limit.contender, contender) && base == limit.base &&
            baseMicroseconds >= limit.fromMicroseconds && limit.value() > 0)
            return &limit;
    }
    return nullptr;
}
