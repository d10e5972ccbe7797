// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TIMES_H
#define STOREFILE_TIMES_H

#include "storefile/error.h"

#include <QByteArray>
#include <QDateTime>

namespace device_db
{

enum class Bound { First, Last };

/// A point in time as a person types it, as the text that a table with (or without) milliseconds compares with:
/// `2024-05-06`, `2024-05-06 07:08`, with seconds, with milliseconds, `/` and `T` too; `now`, `today`, `yesterday`;
/// a span back from now such as `90m`, `24h`, `7d`. What is left out is filled up to the bound: a day as the last
/// bound ends at 23:59:59. `utc`: what was given is UTC and is turned into the time of the zone.
Result<QByteArray> boundText(const QString &given, Bound bound, bool milliseconds, bool utc);

/// Milliseconds since 1970 of a time of the tables, as if it were UTC: for differences; -1 for any other text.
qint64 millisecondsOf(const QByteArray &time, bool milliseconds);

/// Whether it is a time of the tables, of a day and an hour that exist.
bool isTime(const QByteArray &text, bool milliseconds);
/// The end of an alarm in the form of the other times: the store takes any text, hosts write `/` or `-`.
QByteArray endOfAlarm(const QByteArray &date, const QByteArray &time);

/// A time of the tables in UTC; any other text as it is. An hour that summer time repeats counts as its first. A time
/// in an hour that summer time leaves out has no UTC and comes as it is with " local" after it.
QByteArray inUtc(const QByteArray &time, bool milliseconds);
/// The first characters of such a time, for a day or an hour; " local" after it stays.
QByteArray beginningOf(const QByteArray &time, int size);

/// "2 d 03:04:05", "1:05:00", "0.250 s".
QString duration(qint64 milliseconds);

} // namespace device_db

#endif
