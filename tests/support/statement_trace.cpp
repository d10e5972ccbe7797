// SPDX-License-Identifier: MIT
#include "statement_trace.h"

#include <QMutex>
#include <QMutexLocker>

#include <sqlite3.h>

namespace
{

QMutex mutex;
QStringList statements;

int record(unsigned, void *, void *statement, void *text)
{
    // A trigger's statements come as a comment; they are not the library's.
    const char *started = static_cast<const char *>(text);
    if (started[0] == '-' && started[1] == '-')
        return 0;
    QMutexLocker lock(&mutex);
    statements.append(QString::fromUtf8(sqlite3_sql(static_cast<sqlite3_stmt *>(statement))));
    return 0;
}

int traceConnection(sqlite3 *connection, const char **, const void *)
{
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
}

QStringList StatementTrace::take()
{
    QMutexLocker lock(&mutex);
    QStringList taken;
    taken.swap(statements);
    return taken;
}
