// SPDX-License-Identifier: MIT
//
// Which rows of a table are old, for who removes them and for who says what would go.
#ifndef DEVICE_OLD_ROWS_H
#define DEVICE_OLD_ROWS_H

#include "device/retention.h"
#include "sql_channel.h"

#include <optional>

namespace device
{

/// A table as the questions below need it. Its name goes into statements as it is.
struct AgingTable {
    QString name;
    bool isAlarm = false;           ///< Only what has ended may go.
    std::optional<qint64> believed; ///< The device's time, in seconds.
};

/// Where a table begins and ends.
struct TableEnds {
    qint64 first = 0;         ///< The lowest ID that may go; 0 for none.
    qint64 firstSeconds = -1; ///< Its time, or where that cannot be believed that of the rows that follow; negative if
                              ///< there is none.
    qint64 last = 0;          ///< The highest ID.
};

/// What nothing undercuts: the rule, or without one what its kind has.
std::chrono::hours atLeastOf(const Keep &keep, bool isLog);
/// Whether the time has gone on without a jump for so long that what is old may go, however much that is.
bool isEven(qint64 believed, qint64 since);

/// In seconds; nothing for a cell that is no time.
std::optional<qint64> secondsOfCell(const QString &cell);
/// As the tables hold it, between quotes.
QString timeLiteral(qint64 seconds);
/// " and ..." for what may go at all.
QString mayGo(const AgingTable &table);
/// " and ..." for what goes with rows before this second: rows whose times cannot be believed go with those around
/// them.
QString goesBefore(const AgingTable &table, qint64 second);

/// The time of most of these tables, by their last rows: most are right. Nothing where there are no times.
Result<std::optional<qint64>> timeOfMost(SqlChannel &connection, const QStringList &tables);
Result<TableEnds> endsOf(SqlChannel &connection, const AgingTable &table);
/// Whether more than a tenth, and `more` rows, are before this second. Asks the rows at one place instead of counting:
/// what is old is at the beginning of a table, as a rule.
Result<bool> isTooMuch(SqlChannel &connection, const AgingTable &table, const TableEnds &ends, qint64 before,
                       qint64 more);

} // namespace device

#endif
