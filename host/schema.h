// SPDX-License-Identifier: MIT
#ifndef DEVICE_SCHEMA_H
#define DEVICE_SCHEMA_H

#include "device/store.h"

#include <QStringList>

namespace device
{

class Connection;
class SqlChannel;
struct Site;

/// The columns of the kind after ID, as a SELECT takes them.
template<typename Record>
QString columnList();

/// Whether the rows of a table are found by their time without looking at all of them.
Result<bool> hasTimeIndex(SqlChannel &connection, const Site &site, const QString &table);

/// Makes the table if it is missing, within the caller's transaction: true if it was made, false if it exists already.
/// An Error if it exists with other columns. With a profile that has an index on time, makes that as well unless there
/// is one. `info` is of samples only.
template<typename Record>
Result<bool> makeTable(Connection &connection, const TableName &table, const SeriesInfo &info = {});

/// The columns of every table of the file, ID included, by the name of the table in lower case.
Result<QHash<QString, QStringList>> layoutsIn(Connection &connection);

/// The series that the configuration table lists; none in a file without one.
Result<QList<Series>> seriesIn(Connection &connection);

} // namespace device

#endif
