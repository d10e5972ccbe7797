// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QStringList>

#include <functional>

struct sqlite3;

/// Sees the text of every statement that SQLite starts on any connection opened while it lives, through
/// SQLite's own trace hook (an automatic extension of this process). A text that does not compile is
/// never started; it is seen as SQLite's error. One at a time; from every thread.
class StatementTrace
{
public:
    StatementTrace();
    ~StatementTrace();

    /// The statements since the last call, in order.
    QStringList take();
    /// The connection opened last.
    sqlite3 *connection() const;

    using Hook = std::function<void(sqlite3 *connection, const QString &statement)>;
    /// Called for each statement from now on, on the thread that starts it, which waits until the hook returns.
    void onStart(Hook hook);

private:
    Q_DISABLE_COPY(StatementTrace)
};
