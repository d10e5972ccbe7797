// SPDX-License-Identifier: MIT
#ifndef DEVICE_TREND_H
#define DEVICE_TREND_H

#include "records.h"

#include <QVector>

#include <chrono>

namespace device
{

/// Which part of a table a trend shows, and how finely.
///
///     store.trend(boiler, TrendQuery::between(yesterday, now).columns(800))
struct TrendQuery {
    LocalTime from; ///< Both ends belong to the range, to the second.
    LocalTime to;
    int atMost = 1000; ///< Columns.

    static TrendQuery between(LocalTime first, LocalTime last)
    {
        TrendQuery query;
        query.from = first;
        query.to = last;
        return query;
    }
    /// At most this many columns, 1 to 100,000: what a picture has pixels for.
    TrendQuery &columns(int most)
    {
        atMost = most;
        return *this;
    }
};

/// What the samples of one column have in common. A sample whose time has another form than the store's is in none.
struct TrendColumn {
    LocalTime from; ///< The column has the samples from here
    LocalTime to;   ///< until before this, as far as they are in the range.
    qint64 rows = 0;
    /// Those of the rows that device::number() takes for numbers, of up to 64 characters. The rest is of these alone.
    qint64 numbers = 0;
    double mean = 0; ///< 0 without numbers.
    // Each with its own time and the very text of its value; invalid times without numbers. Among equal values the
    // earliest, among equal times the first one recorded, for `last` the last one recorded.
    Sample lowest;
    Sample highest;
    Sample first;
    Sample last;
    /// False where rows are deleted that the column shows: nothing else in the file confirms it. At the ends of the
    /// range such a column may include rows from just outside, by less than the finest level. Judged by the time of the
    /// row with the lowest ID: rows that came late, or that were deleted in another order, can mislead it.
    bool exact = true;
};

/// The columns that have rows, in the order of time.
struct Trend {
    /// Of a column. Columns begin at multiples of it since midnight, wider ones than a day since 0001-01-01.
    std::chrono::seconds width{0};
    QVector<TrendColumn> columns;
};

/// The time spans over which rows are summed up in advance.
enum class TrendLevel { TenSeconds, Minute, TenMinutes, Hour, Day };

/// How finely the trend of a table is prepared.
struct TrendOptions {
    /// Each takes 60 to 70 bytes for every span that has rows. Levels on which a span has fewer than eight rows cost
    /// more than they save.
    QVector<TrendLevel> levels{TrendLevel::Minute, TrendLevel::TenMinutes, TrendLevel::Hour, TrendLevel::Day};
};

} // namespace device

Q_DECLARE_METATYPE(device::Trend)

#endif
