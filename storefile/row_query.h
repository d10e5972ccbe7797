// SPDX-License-Identifier: MIT
#ifndef STOREFILE_ROW_QUERY_H
#define STOREFILE_ROW_QUERY_H

#include "storefile/tables.h"

#include <optional>
#include <vector>

namespace device_db
{

/// Which rows of a table, as a person asks for them.
struct RowFilter {
    QString from; ///< As typed; empty: open.
    QString to;
    bool active = false;
    bool ended = false;
    std::vector<qint64> levels;
    QStringList objects; ///< Of alarms.
    QStringList types;   ///< Of alarms.
    QStringList values;  ///< Of samples: comparisons such as ">80" or "=ON", all of which hold.
    QStringList users;
    QString containing; ///< In any text of the row, whatever the case of its letters.
    std::optional<qint64> afterId;

    /// The kinds of tables that have what is asked for; empty: any.
    QVector<Kind> kinds() const;
};

/// A comparison as a person types it: ">80", "=ON".
struct Comparison {
    QByteArray operation;         ///< Of SQL.
    QByteArray text;              ///< What is compared with.
    std::optional<double> number; ///< Where it is one: the comparison is that of numbers then.
};
Result<Comparison> comparisonIn(const QString &given);

enum class Order { OldestFirst, NewestFirst, AsRecorded };

struct RowQuery {
    RowFilter filter;
    Order order = Order::OldestFirst;
    qint64 limit = -1; ///< Negative: all.
    qint64 offset = 0;
    bool utc = false; ///< The bounds were given in UTC.
};

/// The rows of a table: ID, then the columns of its kind, at the places of SampleColumn, AlarmColumn, LogColumn.
Result<Statement> rowsOf(const Database &database, const Table &table, const RowQuery &query);
Result<qint64> countOf(const Database &database, const Table &table, const RowFilter &filter, bool utc);

/// `head`, the filter as a WHERE with its places filled, `tail`.
Result<Statement> filtered(const Database &database, const Table &table, const RowFilter &filter, bool utc,
                           const QByteArray &head, const QByteArray &tail);

} // namespace device_db

#endif
