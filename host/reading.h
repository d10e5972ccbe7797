// SPDX-License-Identifier: MIT
#ifndef DEVICE_READING_H
#define DEVICE_READING_H

#include "sql_channel.h"

namespace device
{

/// Which records of a table, in the words of SQL.
struct Selection {
    QString table;
    QString where; ///< " where ...", or nothing.
    bool newestFirst;
    qint64 offset;
    qint64 limit; ///< Negative: all.
};

/// The selected records in order of time, those of equal time in order of recording (both reversed with newestFirst).
/// They are those of one moment, whatever other connections store in the meantime. A Reader's large table is read in
/// several moments: no record that is stored after the first is among them, and none that is removed before the last of
/// them is certain to be.
template<typename Record>
Result<QList<Record>> readRecords(SqlChannel &connection, const Site &site, const Selection &selection);

} // namespace device

#endif
