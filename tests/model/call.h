// SPDX-License-Identifier: MIT
#pragma once

#include "kind_test.h"

/// What a step does. Those behind FirstOfTheTest are not the store's own: they happen to both files alike.
enum class Operation {
    Create,
    Insert,
    InsertOdd, ///< Cells that hold markers, single quotes, U+0000.
    Statements,
    EndAlarm,
    InsertConfig,
    ConfigInfo,
    TableIsExist,
    Purge,
    Trim,
    Reset,
    Vacuum,
    Checkpoint,
    Count,
    CountTo,
    CountRange,
    CountUser,
    RowsByTime,
    RowsNewest,
    RowsOldest,
    RowsPage,
    RowsPageTo,
    RowsActive,
    ByValue,
    ByUser,
    ByUserPage,
    ByTime,
    ByTimePage,
    All,
    Newest,
    FirstOfTheTest,
    Close = FirstOfTheTest,
    Open,
    StartReader, ///< Another connection begins to read; in rollback-journal mode commits fail then.
    EndReader
};

/// One step: the operation and all that any operation takes.
struct Call {
    Operation operation = Operation::Count;
    QString table, start, end, user, value, order;
    int offset = 0, count = 0, span = 0, mode = 0;
    bool newestFirst = false;
    QList<QStringList> rows;
    QStringList statements;

    QString description() const;
};

/// What a step gave: a result as a number, 0 without one, and the output list, records as rows of texts.
struct Answer {
    int number = 0;
    QList<QStringList> rows;

    bool operator==(const Answer &other) const { return number == other.number && rows == other.rows; }
};

/// Where two answers part.
QString difference(const Answer &answer, const Answer &expected);

/// The row that stands in every output list before the call: lists are appended to.
inline const QStringList rowBefore{QStringLiteral("before")};

/// Makes the call on the store.
Answer ask(interface_data_base &store, Kind kind, const Call &call);
