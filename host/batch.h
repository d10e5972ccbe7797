// SPDX-License-Identifier: MIT
#ifndef DEVICE_BATCH_H
#define DEVICE_BATCH_H

#include "connection.h"

namespace device
{

/// Makes a table inside the transaction of the caller: true when it was made, false when it exists already.
using Creation = std::function<Result<bool>(Connection &)>;

/// One step of a batch.
struct Write {
    enum Kind {
        Row,        ///< `text` is a row, as RowText has it: see insertsOf().
        Change,     ///< `text` is one statement that changes or inserts rows of `table`.
        CreateTable ///< `create` makes `table`.
    };
    Kind kind = Row;
    QString table;
    QString text;
    Creation create;
};

/// A row of a transaction as it was before the commit. After a commit whose answer was lost, the transaction is in the
/// file if and only if this row is.
struct Witness {
    QString table;
    QStringList cells; ///< All of them, the ID first.
};

/// Steps that are stored together, and what became of them.
struct Batch {
    QVector<Write> writes;
    /// Done in the same transaction, before the steps. Where it fails, for want of room too, nothing is left of it
    /// and the steps are stored without.
    std::function<Status(Connection &)> before;
    std::function<Status(Connection &)> after; ///< The same, after the steps.

    QVector<Refusal> refused; ///< Steps that the table itself does not take, in order.
    QVector<qint64> changed;  ///< One number per step: the rows a Change changed; 1 or 0 for a table made or found.
    std::optional<Witness> inDoubt; ///< Set while it is unknown whether the steps are in the file already.
};

/// Does the steps in order in one transaction; rows of different tables between two other steps may change places. A
/// step that the table itself refuses (a constraint, a trigger, no such table) is left out and listed. An Error when
/// anything else fails: then the file is as it was, or the batch is in doubt, which the next call with it settles
/// first.
Status store(Connection &connection, const Site &site, Batch &batch);

} // namespace device

#endif
