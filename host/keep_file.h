// SPDX-License-Identifier: MIT
//
// What a file says of how long its rows are kept.
#ifndef DEVICE_KEEP_FILE_H
#define DEVICE_KEEP_FILE_H

#include "device/retention.h"
#include "device/table_name.h"
#include "sql_channel.h"

#include <QHash>

#include <map>

namespace device
{

Site keepSite(const QString &table);
/// The statement that creates the table.
QString creationOfKeep();

/// Whether this can be kept to: an age is positive, ages of sums are not longer than of a finer level's.
Status checkKeep(const Site &site, const Keep &keep);

/// By the width of a level in seconds, the second from which the file has all of its sums.
using SumFloors = std::map<qint64, qint64>;

/// All tables with an entry, by name in lower case. Empty for a file in which nothing was ever kept.
struct KeepFile {
    QHash<QString, Kept> tables;
    QHash<QString, SumFloors> floors;
    std::optional<qint64> believed; ///< The device's time as last believed, in seconds,
    std::optional<qint64> since;    ///< and since when it had gone on without a jump.
};
Result<KeepFile> keepFile(SqlChannel &connection);

/// Within the caller's transaction: this is how long the rows of the table are kept from now on. True if that is new.
Result<bool> setKeep(SqlChannel &connection, const TableName &table, const Keep &keep);

/// Of one table; none where nothing was removed by age.
Result<SumFloors> sumFloors(SqlChannel &connection, const QString &table);

/// What one transaction removed from a table.
struct TrimmedRows {
    QString table;
    qint64 rows = 0;
    qint64 unshipped = 0;
    qint64 throughId = 0;
    QString through;
};
/// Within the caller's transaction.
Status countTrimmed(SqlChannel &connection, const Site &site, const TrimmedRows &trimmed);
/// Within the caller's transaction: the sums before `floor` are removed.
Status setSumFloors(SqlChannel &connection, const Site &site, const QString &table, const SumFloors &floors);
Status noteBelieved(SqlChannel &connection, const Site &site, qint64 seconds, qint64 since);

} // namespace device

#endif
