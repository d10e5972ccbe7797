// SPDX-License-Identifier: MIT
#pragma once

#include "alarm_db.h"
#include "history_db.h"
#include "operatorlog_db.h"

#include <QList>
#include <QString>
#include <QStringList>

using Rows = QList<QStringList>;

/// What differs between the three stores for a benchmark.
struct Kind {
    const char *name;          ///< In the benchmarks' names.
    const char *key;           ///< For device_createDB().
    const char *table;         ///< Alarms go into "AlarmData" whatever the host says.
    const char *format;        ///< Of the time in the file.
    bool startIsSplit;         ///< The host gives the start as date and time, one column in the file.
    int columns;               ///< In the file, without the ID.
    const char *boundsTail[2]; ///< What the store appends to the bounds of a time range.
    const char *onlyActive;    ///< What the record queries ask for besides the time.
};

inline constexpr Kind historyKind{"history", "historyDB", "Temperature", "yyyy-MM-dd hh:mm:ss", false, 2, {"", ""}, ""};
inline constexpr Kind alarmKind{"alarm", "alarmDB", "AlarmData", "yyyy-MM-dd hh:mm:ss",
                                true,    9,         {"", ""},    "and EndDate = '' and EndTime = '' "};
inline constexpr Kind logKind{
    "log", "operatorLogDB", "OperatorLog", "yyyy-MM-dd hh:mm:ss.zzz", false, 4, {".000", ".999"}, ""};

template<typename Record>
const Kind &kindOf();
template<>
inline const Kind &kindOf<DataContent>()
{
    return historyKind;
}
template<>
inline const Kind &kindOf<AlarmData>()
{
    return alarmKind;
}
template<>
inline const Kind &kindOf<OperatorLogData>()
{
    return logKind;
}

/// Calls `column(index, text)` for each column of the file, ID left out.
template<typename Function>
void forEachColumn(const Kind &kind, const QStringList &row, Function column)
{
    int index = 0;
    for (int cell = 0; cell < row.size(); ++cell, ++index) {
        if (kind.startIsSplit && cell == 1) {
            column(index, row.at(1) + QLatin1Char(' ') + row.at(2));
            ++cell;
        } else {
            column(index, row.at(cell));
        }
    }
}
