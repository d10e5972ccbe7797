// SPDX-License-Identifier: MIT
#ifndef DEVICE_ROLLUPS_H
#define DEVICE_ROLLUPS_H

#include "batch.h"
#include "bucket.h"
#include "deadline.h"
#include "time_text.h"

#include <limits>
#include <map>
#include <vector>

namespace device
{

/// How the rollups of one table stand in the file.
struct RollupState {
    qint64 number = 0;          ///< Its buckets have this number.
    std::vector<qint64> levels; ///< The widths of the buckets in seconds, the finest first.
    qint64 mark = 0;            ///< The highest ID that is in the buckets.
    qint64 last = 0;            ///< The highest ID that the table gave.
    qint64 front = 0;           ///< The latest bucket of the finest level, in seconds; see closed().
    bool isOfThisTable =
        true; ///< False when the table was emptied and began its IDs anew: nothing of the buckets holds.

    /// The wider levels have a bucket once a later one began. This is where they end; the finest level has all.
    qint64 closed(size_t level) const
    {
        return level == 0 ? std::numeric_limits<qint64>::max() : front / levels[level] * levels[level];
    }
};

/// The key of a bucket; those of one level of a table are in the order of time, one after the other.
qint64 bucketKey(qint64 number, qint64 width, qint64 time);

/// Nothing for a table without rollups.
Result<std::optional<RollupState>> rollupState(Connection &connection, const Site &site, const QString &table);

/// Within the caller's transaction: the rollups of a table are kept from now on, true if they were not before. Other
/// levels than before begin anew.
Result<bool> beginRollups(Connection &connection, const TableName &table, const TrendOptions &options);
/// The same: they are no longer kept; false if they were not.
Result<bool> endRollups(Connection &connection, const TableName &table);

/// The rollups of a file, as the thread that stores its rows keeps them.
///
/// Rows are summed up in memory and go into the file with the rows of a later batch, together with the mark. So the
/// buckets in the file are at every commit those of the rows up to the mark, and a reader adds the rows above it. A
/// trigger would be three to fourteen times as slow, and lose rows when it is broken.
class Rollups
{
public:
    /// Looks which tables have rollups. They are behind until catchUp() says otherwise.
    Status open(Connection &connection);
    bool isEmpty() const { return m_tables.empty() && m_gone.empty(); }

    /// A row that is in the file now.
    void stored(const Write &row);

    /// Something waits to be written for long enough.
    bool isDue() const;
    /// Writes what is due, or all, within the caller's transaction and in front of its rows. Where rows were added
    /// behind its back, a table is behind afterwards.
    Status write(Connection &connection, bool all);
    /// The transaction of write() is in the file.
    void written();

    /// Rows or left-over buckets wait for catchUp().
    bool isBehind() const;
    /// One slice of some milliseconds, in a transaction of its own.
    Status catchUp(Connection &connection);

    /// An Error that is not the file's: the table at fault is left alone from now on. Empty when all goes well.
    std::optional<Error> takeTrouble();

private:
    struct Table {
        QString name;
        RollupState state;
        bool behind = true;
        std::map<qint64, Bucket> buckets; ///< Of the finest level, since the mark.
        qint64 rows = 0;                  ///< In them.
        QString newest;                   ///< The last of these, as RowText has it.
        Clock::time_point since = {};     ///< The first of these was stored.
        bool isWritten = false;           ///< By the transaction under way,
        qint64 newMark = 0;               ///< up to here.
        qint64 newFront = 0;
    };

    static bool isDue(const Table &table);
    static void forget(Table &table);
    Status write(Connection &connection, std::vector<Table *> tables);
    Status catchUp(Connection &connection, Table &table);
    Status removeGone(Connection &connection);

    TimeReader m_times{false};
    std::vector<Table> m_tables;
    std::vector<qint64> m_gone; ///< Numbers whose buckets nobody needs.
    std::optional<Error> m_trouble;
};

} // namespace device

#endif
