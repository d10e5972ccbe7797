// SPDX-License-Identifier: MIT
//
// Rollups as they stand in a file.
#ifndef DEVICE_ROLLUP_FILE_H
#define DEVICE_ROLLUP_FILE_H

#include "bucket.h"
#include "device/table_name.h"
#include "sql_channel.h"

#include <QHash>

#include <limits>
#include <map>
#include <optional>
#include <vector>

namespace device
{

constexpr int rollupVersion = 1;

using Buckets = std::map<qint64, Bucket>; ///< By the time at which they begin.
/// What the file should have at these times; nothing: no bucket.
using RightBuckets = std::map<qint64, std::optional<Bucket>>;

/// Of rows with the time in this column and the value in the next, in the order of recording where times are equal. One
/// without a time that the tables have is in no bucket.
Buckets bucketsOf(const QList<QStringList> &rows, int timeColumn, qint64 width);

/// Of the buckets of a level, in seconds.
qint64 widthOf(TrendLevel level);
std::optional<TrendLevel> levelOf(qint64 width);

/// How the rollups of one table stand in the file.
struct RollupState {
    qint64 number = 0;          ///< Its buckets have this number.
    std::vector<qint64> levels; ///< The widths of the buckets in seconds, the finest first.
    std::vector<qint64> floors; ///< By level: the second from which its buckets are kept.
    qint64 mark = 0;            ///< The highest ID that is in the buckets.
    qint64 last = 0;            ///< The highest ID that the table gave.
    qint64 front = 0;           ///< The latest bucket of the finest level, in seconds; see closed().
    bool isOfThisTable =
        true; ///< False when the table was emptied and began its IDs anew: nothing of the buckets holds.

    qint64 frontWith(const Buckets &buckets) const;
    /// The wider levels have a bucket once a later one began. This is where they end; the finest level has all.
    qint64 closed(size_t level) const
    {
        return level == 0 ? std::numeric_limits<qint64>::max() : front / levels[level] * levels[level];
    }
};

/// The key of a bucket; those of one level of a table are in the order of time, one after the other.
qint64 bucketKey(qint64 number, qint64 width, qint64 time);

/// The statements that create the two tables.
QStringList creationOfRollups();

/// All buckets of this number, as a condition of SQL.
QString keysOf(qint64 number);

/// A bucket as it is in the file.
struct StoredBucket {
    qint64 start = 0;
    std::optional<Bucket> bucket; ///< Nothing: it cannot be read.
};

/// Those of one level that begin in the span, in the order of time, the first so many of them.
Result<std::vector<StoredBucket>> storedBuckets(SqlChannel &connection, const Site &site, qint64 number, qint64 width,
                                                TimeSpan span, qint64 most = -1);

/// Nothing for a table without rollups.
Result<std::optional<RollupState>> rollupState(SqlChannel &connection, const Site &site, const QString &table);

/// Within the caller's transaction: the rollups of a table are kept from now on, true if they were not before. Other
/// levels than before begin anew.
Result<bool> beginRollups(SqlChannel &connection, const TableName &table, const TrendOptions &options);
/// The same: they are no longer kept; false if they were not.
Result<bool> endRollups(SqlChannel &connection, const TableName &table);

/// Where the rollups of a table, and its IDs, end: enough to see whether somebody else stored rows.
struct RollupMark {
    qint64 number = 0; ///< 0: the table has no rollups.
    qint64 mark = 0;
    qint64 last = 0;
};

/// Of every table, by its name in lower case.
Result<QHash<QString, RollupMark>> rollupMarks(SqlChannel &connection, const Site &site);

/// What the rows up to a new mark made.
struct RollupAddition {
    QString table;
    RollupState state;
    const Buckets *buckets = nullptr; ///< Of the finest level.
    qint64 mark = 0;                  ///< The new one.
    QString marked;                   ///< Time and value of the row with this ID, as SQL: it is known again by them.
};

/// Within the caller's transaction. Few statements, however many tables: compiling them is what this costs.
Status addToRollups(SqlChannel &connection, const Site &site, const std::vector<RollupAddition> &additions);

/// Within the caller's transaction: sums up the rows above the mark, the first so many of them, and moves `state` on.
/// Whether there were no more.
Result<bool> addNextRows(SqlChannel &connection, const Site &site, const QString &table, qint64 most,
                         RollupState &state);

/// What `front` should be.
Result<qint64> rightFront(SqlChannel &connection, const Site &site, const RollupState &state);

/// Within the caller's transaction: puts buckets of a level in the place of those that the file has, and makes the
/// wider ones fit them. Unless sums `mayShrink`, those of the wider ones that say more than the narrower ones stay.
Status replaceBuckets(SqlChannel &connection, const Site &site, const RollupState &state, size_t level,
                      RightBuckets right, bool mayShrink);

/// Within the caller's transaction: the table was emptied, so its rollups get another number and begin at the first ID.
Status beginAnew(SqlChannel &connection, const Site &site, const RollupState &state);

/// Within the caller's transaction: the buckets of a level that begin before this second are removed; none of a table
/// without rollups.
Status removeRollupsBefore(SqlChannel &connection, const Site &site, const QString &table, qint64 width, qint64 second);

Site trendSite(const QString &table);
Result<QStringList> tablesWithRollups(SqlChannel &connection);
/// Numbers whose buckets nobody needs.
Result<QVector<qint64>> rollupsOfNoTable(SqlChannel &connection);
/// Removes some buckets of this number, which may have been given again; whether there is nothing more to remove.
Result<bool> removeRollups(SqlChannel &connection, qint64 number);

} // namespace device

#endif
