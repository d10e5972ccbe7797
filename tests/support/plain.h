// SPDX-License-Identifier: MIT
#pragma once

#include "alarm_db.h"
#include "history_db.h"
#include "operatorlog_db.h"

#include <QList>
#include <QString>
#include <QStringList>

/// What the library does with rows, written as plainly as it can be said. It is what the library's own,
/// faster code is held to: the same statement texts, the same records. It stays as it is.
namespace plain
{

/// What sqlite3_get_table() gives: the header and the rows behind it.
struct CellTable {
    char **cells;
    int rows;
    int columns;
};

// The statement for one row. A null text when the store leaves the row out.
QString historyStatement(const QStringList &row, const QString &table);
QString alarmStatement(const QStringList &row);
QString logStatement(const QStringList &row, const QString &table);

void append(const CellTable &cells, QList<DataContent> &samples);
void append(const CellTable &cells, QList<AlarmData> &alarms);
void append(const CellTable &cells, QList<OperatorLogData> &entries);
void append(const CellTable &cells, QList<QStringList> &result);

} // namespace plain
