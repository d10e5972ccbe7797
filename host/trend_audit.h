// SPDX-License-Identifier: MIT
#ifndef DEVICE_TREND_AUDIT_H
#define DEVICE_TREND_AUDIT_H

#include "rollup_file.h"

#include <QStringList>

namespace device
{

/// Looks, a slice at a time, for sums that are no longer those of the rows: another program edited rows or sums. The
/// mark tells of rows that were added, and of a table that was emptied; of nothing else.
///
/// A bucket of the finest level is compared with its rows, one of a wider level with those of the level below, and what
/// differs is made anew. A bucket with more rows than the table has is frozen where rows were removed: nothing says
/// what it should be. Tables whose rows no index finds by time are left out, unless they are small.
class TrendAudit
{
public:
    /// Begins a pass through these tables, of whose rows the caller has read none so far.
    void begin(SqlChannel &connection, const QStringList &tables);
    /// Through this connection: some sums of the table have more rows than it from now on.
    void rowsRemoved(const QString &table);
    bool hasTables() const { return !m_tables.isEmpty(); }

    struct Step {
        bool goesOn = false; ///< The pass has not ended.
        QStringList tables;  ///< Whose rows or sums may no longer be those that the caller knows.
        qint64 mended = 0;   ///< Sums made anew, without the wider ones that followed.
    };
    /// One slice of some milliseconds. When a pass has ended the next one begins once another connection has written.
    /// After an Error the same slice is tried again.
    Result<Step> step(SqlChannel &connection);

private:
    /// What a slice looks at: buckets of one level, from where the last one ended.
    struct Stretch {
        qint64 end = 0;
        Buckets expected;   ///< All that are known up to the end.
        RightBuckets wrong; ///< Of these and those in the file.
    };

    Result<Step> look(SqlChannel &connection, const Site &site);
    Status lookForRemovedRows(SqlChannel &connection, const Site &site, const RollupState &state);
    Result<Stretch> compare(SqlChannel &connection, const Site &site, const RollupState &state) const;
    Status sumRowsUp(SqlChannel &connection, const Site &site, const RollupState &state, Stretch &stretch) const;
    Status sumBucketsUp(SqlChannel &connection, const Site &site, const RollupState &state, Stretch &stretch) const;
    Result<qint64> mend(SqlChannel &connection, const Site &site);
    void beginPass(const QString &version);
    void beginTable();
    void endLevel(const RollupState &state);
    void endTable();

    QStringList m_tables;
    QStringList m_left; ///< Of the pass under way; the first one is being looked at.
    QString m_version;  ///< Of the file when the pass began; empty: not known.
    bool m_removedAreKnown = false;
    bool m_someAreRemoved = false; ///< Rows up to the mark, as far as is known.
    qint64 m_countedThrough = 0;   ///< IDs, to find that out.
    size_t m_level = 0;
    qint64 m_begin = 0; ///< Seconds: so far the level is looked through.
    qint64 m_most = 0;  ///< Rows or buckets that a slice reads.
};

} // namespace device

#endif
