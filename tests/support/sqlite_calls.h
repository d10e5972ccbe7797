// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

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

private:
    Q_DISABLE_COPY(SqliteCalls)
};
