// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_FLEET_H
#define DEVICE_DB_FLEET_H

#include "storefile/row_query.h"

#include <QTimeZone>

#include <memory>

namespace device_db
{

/// The address of a fleet's archive, and not the path of a file.
inline bool isFleet(const QString &path)
{
    return path.startsWith(QLatin1String("postgresql://")) || path.startsWith(QLatin1String("postgres://"));
}

/// Rows of many devices, read as those of one file: the cells are at the places that rowsOf() gives them.
class FleetRows
{
public:
    virtual ~FleetRows() = default;
    /// Goes to the next row; false at the end and on a failure, which status() reports.
    virtual bool step() = 0;
    virtual Status status() const = 0;
    virtual Kind kind() const = 0;
    virtual int columns() const = 0;
    virtual QByteArray cell(int column) const = 0; ///< A null array for NULL.
    qint64 number(int column) const { return cell(column).toLongLong(); }

    virtual QByteArray device() const = 0;
    virtual QTimeZone zone() const = 0; ///< Of the device's clock.
};

/// The rows of one table of one device, or those of one period of them.
struct FleetCount {
    QByteArray device;
    QByteArray table;
    Kind kind = Kind::Foreign;
    QByteArray period; ///< Its beginning.
    qint64 rows = 0;
};

/// What the devices of a fleet have in its archive. One question at a time; all answers are of the same moment. A table
/// is named "T1", or "history/T1" with the name of its file.
class Fleet
{
public:
    virtual ~Fleet() = default;
    /// Of the tables of that name, with an empty name of the only ones that fit.
    virtual Result<std::unique_ptr<FleetRows>> rows(const QString &table, const RowQuery &query) = 0;
    /// Of the tables of that name, with an empty name of all that fit. `period`: the characters of a time that tell
    /// the periods apart, 0 for none.
    virtual Result<QVector<FleetCount>> counts(const QString &table, const RowFilter &filter, bool utc, int period) = 0;
};

/// `devices`: names or numbers; none stands for all.
Result<std::unique_ptr<Fleet>> openFleet(const QString &address, const QStringList &devices);

} // namespace device_db

#endif
