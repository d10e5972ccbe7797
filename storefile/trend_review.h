// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TREND_REVIEW_H
#define STOREFILE_TREND_REVIEW_H

#include "storefile/trends.h"

#include <functional>

namespace device_db
{

/// A bucket that is not what the rows make.
struct TrendDifference {
    qint64 width = 0; ///< Of its level.
    qint64 start = 0;
    qint64 key = 0;
    std::optional<device::Bucket> inFile;   ///< Nothing: it is missing, or cannot be read.
    std::optional<device::Bucket> expected; ///< Nothing: no row is in it.
    bool isReadable = true;

    /// "10min, 2024-05-06 07:00:00: the file says 61 rows, the rows are 60", only what differs.
    QString text() const;
};

struct TrendReview {
    qint64 rows = 0;    ///< Up to the mark, of those that are there.
    qint64 removed = 0; ///< Rows up to the mark that are no longer there.
    qint64 buckets = 0; ///< Compared.
    qint64 frozen = 0;  ///< With rows that are removed: nothing says what is right.
    qint64 wrong = 0;
    qint64 tooMany = 0; ///< Rows that frozen buckets have beyond all that were ever removed.
    qint64 strange = 0; ///< Buckets of levels and times that the trend does not have.
    qint64 front = 0;   ///< What the file should say of the latest bucket.
};

/// Compares every bucket of a trend with the rows up to the mark, which it reads in the order of time: the memory it
/// takes does not grow with the table. A wider bucket is compared with the narrower ones as they should be; one with
/// more rows than these is frozen if rows were removed. `differs` is told of each one that is wrong. An Error from
/// there ends it. `seen` is told the rows so far, of all; may be empty.
Result<TrendReview> reviewTrend(const Database &database, const QString &table, const RollupState &state,
                                const std::function<Status(const TrendDifference &)> &differs,
                                const std::function<void(qint64, qint64)> &seen);

struct TrendRepair {
    qint64 written = 0;
    qint64 removed = 0; ///< Buckets.
    qint64 frozen = 0;  ///< Left as they were.
};

/// Within the caller's transaction: makes every bucket anew that differs from its rows, if all of them are there.
Result<TrendRepair> repairTrend(const Database &database, const QString &table, const RollupState &state,
                                const std::function<void(qint64, qint64)> &seen);

} // namespace device_db

#endif
