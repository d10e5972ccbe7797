// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_SELECTION_H
#define DEVICE_DB_SELECTION_H

#include "serve/table_pass.h"
#include "storefile/row_query.h"

#include <deque>
#include <functional>
#include <memory>

namespace device_db
{

/// Which rows, and in which order.
struct SelectionQuery {
    RowFilter filter;
    QByteArray column; ///< Sorted by it and then by the ID; empty: as recorded.
    bool descending = false;
};

/// The rows that one question finds, as a list of IDs. A question for all rows as recorded needs none.
class Selection
{
public:
    Selection(std::shared_ptr<TablePass> pass, SelectionQuery query);

    /// Looks on for a slice.
    Status find(const Database &database, SliceEnd until);
    /// All rows are known, those that came in the meantime among them if there is a way.
    bool isExact() const { return m_isAll ? m_pass->isDone() : m_isDone; }
    /// How much of the table was looked through, by the IDs.
    double share() const;
    bool needsMore() const { return !m_isAll && !m_isDone; }
    /// Rows have come; false if the rows are to be looked for anew.
    bool grow();
    qint64 total() const { return m_isAll ? m_pass->expectedRows() : qint64(m_ids.size()); }

    /// The cells of so many rows from an offset on: ID, then the columns of the kind. `before`: the ID of the row
    /// before them, where it is known; they need not be looked for then.
    Result<std::vector<std::vector<QByteArray>>> page(const Database &database, qint64 offset, qint64 limit,
                                                      std::optional<qint64> before = std::nullopt) const;
    /// The number of the row with this ID; -1 if it is not among them.
    Result<qint64> placeOfId(const Database &database, qint64 id) const;
    /// The number of the first row from this time on, or back from it where the latest come first; -1 without rows.
    Result<qint64> placeOfTime(const Database &database, qint64 time) const;

private:
    Result<qint64> firstPlace(const Database &database,
                              const std::function<bool(const std::vector<QByteArray> &)> &isBefore) const;
    Status findSome(const Database &database, bool &isAtEnd);
    Status takeSorted(SliceEnd until);
    Status beginToSort();
    Result<std::optional<qint64>> endOfChunk(const Database &database) const;

    std::shared_ptr<TablePass> m_pass;
    SelectionQuery m_query;
    bool m_isAll;
    bool m_isDone = false;
    std::deque<qint64> m_ids;
    qint64 m_idSoFar;

    // SQLite sorts, but not in one step. In a database of its own, because a statement that is open over two slices
    // keeps a connection's view of the file, and so the device's log.
    std::optional<Database> m_sorter;
    std::optional<Statement> m_insertion;
    std::optional<Statement> m_sorted;
};

} // namespace device_db

#endif
