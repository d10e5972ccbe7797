// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TRENDS_H
#define STOREFILE_TRENDS_H

#include "storefile/sqlite.h"

#include "host/rollup_file.h"

#include <functional>

namespace device_db
{

using device::RollupState;

/// A time as the tables have it, from the seconds that trends count.
QByteArray timeOfTrend(qint64 seconds);

/// "10s", "1min", "10min", "1h", "1d"; the seconds of any other width.
QString levelName(qint64 width);
/// The opposite, for a list between commas.
Result<QVector<device::TrendLevel>> levelsNamed(const QString &list);
/// In seconds, the finest first.
std::vector<qint64> widthsOf(const QVector<device::TrendLevel> &levels);

/// What the file has of one level of a trend.
struct TrendLevelFacts {
    qint64 width = 0; ///< Seconds.
    qint64 buckets = 0;
    qint64 bytes = 0; ///< Of keys and values, without what pages take.
    QByteArray first; ///< The times at which the first and the last bucket begin.
    QByteArray last;
};

/// What the file has of the trend of one table.
struct TrendFacts {
    QString table;
    RollupState state;
    QString trouble;    ///< Why it cannot be read; the rest is empty then.
    QByteArray through; ///< The time of the last row that is summed up, if that is still there.
    qint64 behind = 0;  ///< Rows above the mark.
    QList<TrendLevelFacts> levels;
};

/// The trends that the file keeps, in the order of comesBefore(). With the facts of the levels every bucket is counted.
Result<QList<TrendFacts>> trendsOf(const Database &database, bool withLevels);
/// The state of the trend of this table, or that it has none.
Result<std::optional<RollupState>> trendOf(const Database &database, const QString &table);

/// Whether there is an index by which rows are found by their time.
Result<bool> hasTimeIndex(const Database &database, const QString &table);

/// Puts the rows above the mark into the sums, in slices of a transaction each. Sums of a table that was emptied begin
/// anew. Stops between two slices when `goOn`, which is told how far the mark has come, says so.
Status catchUpTrend(const Database &database, const QString &table, const std::function<bool(qint64)> &goOn);

/// Removes the buckets that belong to no table, in slices.
Status removeLeftBuckets(const Database &database, const std::function<bool()> &goOn);

} // namespace device_db

#endif
