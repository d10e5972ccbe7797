// SPDX-License-Identifier: MIT
#include "statement_trace.h"

#include <QMutex>
#include <QMutexLocker>

#include <sqlite3.h>

#include <utility>

namespace
{

QMutex mutex;
QStringList statements;
sqlite3 *opened = nullptr;
StatementTrace::Hook started;

int record(unsigned, void *, void *statement, void *text)
{
    // A trigger's statements come as a comment; they are not the library's.
    const char *comment = static_cast<const char *>(text);
    if (comment[0] == '-' && comment[1] == '-')
        return 0;
    const QString sql = QString::fromUtf8(sqlite3_sql(static_cast<sqlite3_stmt *>(statement)));
    StatementTrace::Hook hook;
    {
        QMutexLocker lock(&mutex);
        statements.append(sql);
        hook = started;
    }
    if (hook)
        hook(sqlite3_db_handle(static_cast<sqlite3_stmt *>(statement)), sql);
    return 0;
}

int traceConnection(sqlite3 *connection, const char **, const void *)
{
    QMutexLocker lock(&mutex);
    opened = connection;
    return sqlite3_trace_v2(connection, SQLITE_TRACE_STMT, record, nullptr);
}

const auto extension = reinterpret_cast<void (*)()>(traceConnection);

} // namespace

StatementTrace::StatementTrace()
{
    take();
    sqlite3_auto_extension(extension);
}

StatementTrace::~StatementTrace()
{
    sqlite3_cancel_auto_extension(extension);
    onStart(nullptr);
}

QStringList StatementTrace::take()
{
    QMutexLocker lock(&mutex);
    QStringList taken;
    taken.swap(statements);
    return taken;
}

sqlite3 *StatementTrace::connection() const
{
    QMutexLocker lock(&mutex);
    return opened;
}

void StatementTrace::onStart(Hook hook)
{
    QMutexLocker lock(&mutex);
    started = std::move(hook);
}
