// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QStringList>

#include <vector>

/// One call, and what SQLite answered.
struct SqliteCall {
    QString text;
    int code;
    QByteArray error;   ///< Null when SQLite gave no text.
    bool inTransaction; ///< When the call returned.
};

/// Hears every text that this process hands to sqlite3_exec() and sqlite3_get_table() while it lives, also one
/// that SQLite rejects and StatementTrace therefore never sees. One at a time; from every thread.
///
/// sqlite_calls.cpp stands in front of the two functions. A test program that wants it names that file among
/// its own sources and exports its symbols, so that the loaded library finds them before SQLite's.
class SqliteCalls
{
public:
    SqliteCalls();
    ~SqliteCalls();

    /// The texts since the last call, in order.
    QStringList take();
    /// The calls that returned since the last call of this function, in that order.
    std::vector<SqliteCall> takeCalls();

private:
    Q_DISABLE_COPY(SqliteCalls)
};
