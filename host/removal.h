// SPDX-License-Identifier: MIT
#ifndef DEVICE_REMOVAL_H
#define DEVICE_REMOVAL_H

#include "connection.h"

#include <limits>

namespace device
{

/// A deletion of many rows in slices, each a short transaction of its own, so that rows can be stored between two.
/// It goes through the table once, in the order of the IDs.
struct Removal {
    explicit Removal(const TableName &table) : site{QStringLiteral("remove from"), table.text()} {}

    /// The same, only of rows before `time`.
    Result<Removal> before(LocalTime time, bool withMilliseconds) const;
    /// The same, but for the `rows` newest.
    Result<Removal> keeping(qint64 rows) const;

    Site site;
    QString condition;          ///< "" for every row.
    QString alternative;        ///< Rows that go whatever their time is.
    qint64 keep = -1;           ///< Not negative: only what is older than this number of newest rows.
    qint64 last = -1;           ///< The highest ID to delete; negative: the highest at the first slice.
    std::optional<qint64> next; ///< Where the next slice begins; empty before the first one.
    qint64 width = 1000;        ///< IDs the next slice covers; follows the time that slices take,
    qint64 widest = std::numeric_limits<qint64>::max(); ///< up to this.
    qint64 removed = 0;
    bool resetsIds = false; ///< Of a table that is empty afterwards, IDs begin at 1 again.
    bool done = false;
};

/// The highest ID that `removal` may delete for the sake of what it keeps; -1 for none.
Result<qint64> newestToRemove(Connection &connection, const Removal &removal);

/// Deletes one slice. An Error leaves the removal as it was before it: the slice may be tried again.
Status removeSlice(Connection &connection, Removal &removal);

} // namespace device

#endif
