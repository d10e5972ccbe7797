// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TIMES_H
#define STOREFILE_TIMES_H

#include "storefile/error.h"

#include "host/time_text.h"

#include <QByteArray>
#include <QDateTime>
#include <QTimeZone>

#include <optional>

namespace device_db
{

/// A day, or a day and a time, as people and other programs write them: the year first (- / .) or the day first (dots
/// alone: 6.5.2024), times with or without seconds and fractions, a blank or T between them. What is finer than a
/// millisecond is cut off.
struct WrittenTime {
    static constexpr int noOffset = 24 * 60; ///< What was written is the offset of no zone.

    QDate date;    ///< Invalid: of a day that does not exist.
    int hour = -1; ///< -1: left out, as the following.
    int minute = -1;
    int second = -1;
    int millisecond = -1;
    std::optional<int> offset; ///< From UTC in minutes, if one or a Z is written.
};
/// Nothing when the text is of another form.
std::optional<WrittenTime> writtenTime(const QString &text);

enum class Bound { First, Last };

/// A point in time as a person types it, as the text that a table with (or without) milliseconds compares with: one of
/// the forms of writtenTime(); `now`, `today`, `yesterday`; a span back from now such as `90m`, `24h`, `7d`. What is
/// left out is filled up to the bound: a day as the last bound ends at 23:59:59. A Z or an offset names an instant,
/// which is turned into the time of the device's zone. `utc`: so is what has neither, as UTC. `zone`: the device's; an
/// invalid one is this computer's.
Result<QByteArray> boundText(const QString &given, Bound bound, bool milliseconds, bool utc,
                             const QTimeZone &zone = {});

/// Milliseconds since 1970 of a time of the tables, as if it were UTC: for differences; -1 for any other text.
qint64 millisecondsOf(const QByteArray &time, bool milliseconds);

/// The same by a reader that is kept from row to row; nothing for any other text. Negative before 1970.
std::optional<qint64> timeIn(const QByteArray &text, device::TimeReader &reader);
/// The opposite. `time`: of a year from 1 to 9999; the nearest one is taken for any other.
QByteArray timeText(qint64 time, bool milliseconds);

/// Whether it is a time of the tables, of a day and an hour that exist.
bool isTime(const QByteArray &text, bool milliseconds);
/// The end of an alarm in the form of the other times: the store takes any text, hosts write `/` or `-`.
QByteArray endOfAlarm(const QByteArray &date, const QByteArray &time);

/// A time of the tables in UTC; any other text as it is. An hour that summer time repeats counts as its first. A time
/// in an hour that summer time leaves out has no UTC and comes as it is with " local" after it. `zone`: as above.
QByteArray inUtc(const QByteArray &time, bool milliseconds, const QTimeZone &zone = {});
/// The first characters of such a time, for a day or an hour; " local" after it stays.
QByteArray beginningOf(const QByteArray &time, int size);

/// "2 d 03:04:05", "1:05:00", "0.250 s".
QString duration(qint64 milliseconds);

} // namespace device_db

#endif
