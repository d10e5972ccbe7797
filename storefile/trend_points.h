// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TREND_POINTS_H
#define STOREFILE_TREND_POINTS_H

#include "storefile/reduction.h"
#include "storefile/trends.h"

#include "host/bucket.h"

namespace device_db
{

/// A column of a picture: what its samples have in common.
struct SummedColumn {
    int place = 0;
    qint64 rows = 0;
    qint64 numbers = 0;
    double sum = 0;
    std::array<Point, 4> points; ///< Of the numbers: the first, the lowest, the highest and the last.
};

/// The columns of a picture as far as they were read: a part of the range at a time, so that nobody who waits for the
/// thread waits for all of it.
class TrendPicture
{
public:
    /// The columns between two times, milliseconds since 1970, both included.
    TrendPicture(qint64 first, qint64 last, int columns);

    bool isDone() const { return m_next > m_last; }
    /// Those that have rows.
    std::vector<SummedColumn> columns() const;

private:
    friend class TrendPoints;

    qint64 m_last; ///< In seconds, as m_next.
    qint64 m_next;
    qint64 m_part; ///< The length of a part, about.
    device::TrendColumns m_read;
};

/// The points of a picture from the sums of a trend: those that all rows would give, those of rows that are removed
/// among them.
class TrendPoints
{
public:
    /// Nothing if the table has no trend that helps: there is none, it is behind an emptied table or cannot be read, or
    /// no index on time finds the rows beside it.
    static std::optional<TrendPoints> of(const Database &database, const QString &table);

    /// The first and the last time of rows that are removed; empty: of none.
    Result<std::pair<QByteArray, QByteArray>> removedRange() const;

    /// False where columns are so narrow that the rows alone say as much.
    bool helps(qint64 first, qint64 last, int columns) const;

    /// Reads the next part.
    Status read(TrendPicture &picture) const;
    /// Adds what lies between two times, milliseconds since 1970, both included. The rows that are not numbers, or an
    /// Error, and nothing was added.
    Result<qint64> add(qint64 first, qint64 last, int count, Reduction &points) const;

private:
    TrendPoints(const Database &database, QString table, RollupState state)
        : m_database(&database), m_table(std::move(table)), m_state(std::move(state))
    {
    }

    const Database *m_database;
    QString m_table;
    RollupState m_state;
};

} // namespace device_db

#endif
