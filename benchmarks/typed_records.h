// SPDX-License-Identifier: MIT
#pragma once

#include "kinds.h"

#include "device/records.h"
#include "time_text.h"

// The host layer's records, and what every way to SQLite needs of them: the same times, written and read by the same
// code straight from and into UTF-8.

template<typename Record>
const Kind &typedKind();
template<>
inline const Kind &typedKind<device::Sample>()
{
    return historyKind;
}
template<>
inline const Kind &typedKind<device::Alarm>()
{
    return alarmKind;
}
template<>
inline const Kind &typedKind<device::LogEntry>()
{
    return logKind;
}

/// A time in UTF-8, without a NUL.
struct TimeText {
    TimeText(device::LocalTime time, bool withMilliseconds) : size(device::writeTime(bytes, time, withMilliseconds)) {}

    char bytes[device::longestTime];
    int size;
};

// Calls `cell(column, value)` for each column of the file, ID left out; a value is an int, a TimeText or a QString.

template<typename Function>
void forEachCell(const device::Sample &sample, Function &&cell)
{
    cell(0, TimeText(sample.time, false));
    cell(1, sample.value);
}

template<typename Function>
void forEachCell(const device::Alarm &alarm, Function &&cell)
{
    static const QString empty = QLatin1String("");
    cell(0, alarm.level);
    cell(1, TimeText(alarm.start, false));
    cell(2, alarm.object);
    cell(3, alarm.type);
    cell(4, alarm.value);
    cell(5, alarm.limit);
    cell(6, alarm.description);
    cell(7, empty); // the end: all are active here
    cell(8, empty);
}

template<typename Function>
void forEachCell(const device::LogEntry &entry, Function &&cell)
{
    cell(0, TimeText(entry.time, true));
    cell(1, entry.user);
    cell(2, entry.name);
    cell(3, entry.message);
}

// One row of a result as a record. `cells` gives id(), time(i), text(i) and integer(i) in the peer's fastest form;
// column 0 is the ID.

template<typename Cells>
void fill(device::Sample &sample, Cells &cells)
{
    sample.id = cells.id();
    sample.time = cells.time(1);
    sample.value = cells.text(2);
}

template<typename Cells>
void fill(device::Alarm &alarm, Cells &cells)
{
    alarm.id = cells.id();
    alarm.level = cells.integer(1);
    alarm.start = cells.time(2);
    alarm.object = cells.text(3);
    alarm.type = cells.text(4);
    alarm.value = cells.text(5);
    alarm.limit = cells.text(6);
    alarm.description = cells.text(7);
    const QString endDate = cells.text(8);
    const QString endClock = cells.text(9);
    if (!endDate.isEmpty() || !endClock.isEmpty()) {
        const QString end = endDate + QLatin1Char(' ') + endClock;
        alarm.end = device::TimeReader(false).read(end.constData(), end.size());
    }
}

template<typename Cells>
void fill(device::LogEntry &entry, Cells &cells)
{
    entry.id = cells.id();
    entry.time = cells.time(1);
    entry.user = cells.text(2);
    entry.name = cells.text(3);
    entry.message = cells.text(4);
}

/// Appends ",'...'" for each cell, quotes doubled.
struct CellTexts {
    QString &sql;

    void operator()(int, int number) const { append(QString::number(number)); }
    void operator()(int, const TimeText &time) const { append(QString(QLatin1String(time.bytes, time.size))); }
    void operator()(int, const QString &text) const
    {
        append(text.contains(QLatin1Char('\'')) ? QString(text).replace(QLatin1Char('\''), QLatin1String("''")) : text);
    }

private:
    void append(const QString &text) const { sql += QLatin1String(",'") + text + QLatin1Char('\''); }
};

/// "insert into Table values(NULL,'...','...')".
template<typename Record>
QString typedTextInsert(const Record &record)
{
    QString sql =
        QLatin1String("insert into ") + QLatin1String(typedKind<Record>().table) + QLatin1String(" values(NULL");
    forEachCell(record, CellTexts{sql});
    return sql + QLatin1Char(')');
}
