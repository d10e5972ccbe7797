// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_ROW_STORE_H
#define DEVICE_DB_ROW_STORE_H

#include "storefile/tables.h"

#include <optional>
#include <vector>

namespace device_db
{

/// Stores the rows that RowCheck gives.
class RowStore
{
public:
    /// All cells of a row after ID, in one table. `database` outlives the result.
    static Result<RowStore> ofTable(const Database &database, const QString &table, Kind kind);
    /// The time and the value of each series, in a table each. A value that is empty is not stored.
    static Result<RowStore> ofSeries(const Database &database, const QStringList &tables);

    /// The number of rows stored: 1, or one per series. When a table refuses its row, or leaves it out, by a rule of
    /// its own, nothing is stored and `reason` says why. An Error when such a rule ended the transaction.
    Result<int> store(const QVector<QByteArray> &cells, QByteArray &reason);
    /// The rows of the tables, if a trigger or a conflict clause may delete some while others are stored. Else null:
    /// counting takes long.
    Result<std::optional<qint64>> rowsIfAnyMayGo() const;

private:
    struct Target {
        QString table;
        Statement insert;
    };
    explicit RowStore(const Database &database) : m_database(&database) {}
    Status prepare(const QString &table, Kind kind);
    Status insert(Target &target, const QVector<QByteArray> &cells, QByteArray &reason);
    bool hasHighestId(const QString &table) const;

    const Database *m_database;
    std::vector<Target> m_targets;
    bool m_isWide = false;
};

} // namespace device_db

#endif
