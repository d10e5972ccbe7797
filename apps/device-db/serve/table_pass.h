// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_TABLE_PASS_H
#define DEVICE_DB_TABLE_PASS_H

#include "serve/events.h"
#include "storefile/findings.h"

#include <QHash>

#include <chrono>
#include <limits>

namespace device_db
{

/// Until when a slice of work lasts: between two slices everybody else has a turn.
using SliceEnd = std::chrono::steady_clock::time_point;

/// The least and the greatest of some times.
struct TimeExtent {
    std::optional<qint64> from;
    std::optional<qint64> to;

    void add(qint64 time);
};

/// Where the rows of a table lie.
struct TableEnds {
    qint64 firstId = 0;   ///< That is there; 0 in an empty table, as the next.
    qint64 highestId = 0; ///< That is there.
    qint64 lastId = 0;    ///< The highest that the table ever gave; the next row gets a higher one.

    /// The rows are above it; but for one with the lowest ID that SQLite has, which no table gives.
    qint64 beforeFirst() const { return firstId == std::numeric_limits<qint64>::min() ? firstId : firstId - 1; }
    /// How much of the IDs is read with this one; less than 1, because a row may come.
    double shareThrough(qint64 id) const;
};
Result<TableEnds> endsOf(const Database &database, const QString &table);

/// A table that is read once from end to end, in the order of recording, and from then on where rows come: findings,
/// figures, and what later pictures need. No statement lives from one slice to the next, so that a device's log never
/// waits for this reader.
class TablePass
{
public:
    TablePass(Table table, const TableEnds &ends);

    /// What is known without reading rows; call it first. Of a table with an index on time, and times alone at its
    /// ends, that is what a picture of all shows, too; whether it is so.
    Result<bool> lookAround(const Database &database);
    /// Reads on for a slice.
    Status read(const Database &database, SliceEnd until);
    /// Rows have come; or the first ones have gone, which it does not forget: see isOutdated().
    void grow(const TableEnds &ends);
    /// The time of a row, in turn or out of it.
    void addTime(qint64 time);

    const Table &table() const { return m_table; }
    const TableEnds &ends() const { return m_ends; }
    bool isDone() const { return m_isDone; }
    /// It was read to its end, some of its rows are no longer there, and it may be read anew: for a device that removes
    /// a row for each that it stores, a fifth of the time.
    bool isOutdated() const { return m_isDone && m_hasRemovedRows && Clock::now() >= *m_keptUntil; }
    bool isIndexed() const { return m_isIndexed; }
    /// How much of the table was read, by the IDs.
    double share() const;
    qint64 rows() const { return m_rows; }
    /// How many rows the table has; by the IDs, as long as not all of it was read.
    qint64 expectedRows() const;

    const Blocks &blocks() const { return m_blocks; }
    Lanes &lanes() { return m_lanes; }
    Marks &marks() { return m_marks; }

    const QByteArray &first() const { return m_first; } ///< Null: no row was read.
    const QByteArray &last() const { return m_last; }
    /// What a picture of all shows.
    TimeExtent extent() const { return m_plausible.from ? m_plausible : m_times; }
    QList<Finding> findings() const;
    const std::vector<ClockStep> &steps() const { return m_judge.steps(); }
    const SeriesStatistics &statistics() const { return m_statistics; }
    /// Levels of alarms, users of a log, with their rows; the most frequent first.
    std::vector<std::pair<QByteArray, qint64>> choices() const;

private:
    using Clock = std::chrono::steady_clock;

    Status readOn(const Database &database, SliceEnd until);
    void addRow(const Statement &row);
    Status addRemoved(const Database &database);
    void note(qint64 time);
    void choose(const QByteArray &text);

    Table m_table;
    TableEnds m_ends;
    bool m_isIndexed = false;
    bool m_isDone = false;
    bool m_hasRemovedRows = false;
    Clock::duration m_took{}; ///< To read it for the first time.
    std::optional<Clock::time_point> m_keptUntil;
    qint64 m_idSoFar;
    qint64 m_rows = 0;
    RowJudge m_judge;
    SeriesStatistics m_statistics;
    Blocks m_blocks;
    Lanes m_lanes;
    Marks m_marks;
    QByteArray m_first; ///< The least and the greatest of the times, as texts.
    QByteArray m_last;
    TimeExtent m_times;
    TimeExtent m_plausible;
    QList<Finding> m_ofDefinition;
    QHash<QByteArray, int> m_choicePlaces;
    std::vector<std::pair<QByteArray, qint64>> m_choices;
};

} // namespace device_db

#endif
