// SPDX-License-Identifier: MIT
#include "sqlite_calls.h"

#include <QMutex>
#include <QMutexLocker>

#include <dlfcn.h>
#include <sqlite3.h>

#include <utility>

namespace
{

QMutex mutex;
bool listening = false;
QStringList texts;
std::vector<SqliteCall> calls;

/// One call into SQLite. Calls that SQLite makes of itself are not heard: sqlite3_get_table() runs sqlite3_exec().
class Call
{
public:
    explicit Call(const char *sql) : m_sql(sql)
    {
        if (depth++ > 0)
            return;
        QMutexLocker lock(&mutex);
        if (listening)
            texts.append(QString::fromUtf8(sql));
    }
    ~Call() { --depth; }

    int returned(int code, sqlite3 *connection, char **error)
    {
        if (depth > 1)
            return code;
        QMutexLocker lock(&mutex);
        if (listening)
            calls.push_back({QString::fromUtf8(m_sql), code, error ? QByteArray(*error) : QByteArray(),
                             connection && !sqlite3_get_autocommit(connection)});
        return code;
    }

private:
    Q_DISABLE_COPY(Call)
    const char *const m_sql;
    static thread_local int depth;
};

thread_local int Call::depth = 0;

template<typename Function>
Function next(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

Q_DECL_EXPORT int sqlite3_exec(sqlite3 *connection, const char *sql, int (*callback)(void *, int, char **, char **),
                               void *target, char **error)
{
    static const auto real = next<decltype(&sqlite3_exec)>("sqlite3_exec");
    Call call(sql);
    return call.returned(real(connection, sql, callback, target, error), connection, error);
}

Q_DECL_EXPORT int sqlite3_get_table(sqlite3 *connection, const char *sql, char ***cells, int *rows, int *columns,
                                    char **error)
{
    static const auto real = next<decltype(&sqlite3_get_table)>("sqlite3_get_table");
    Call call(sql);
    return call.returned(real(connection, sql, cells, rows, columns, error), connection, error);
}
}

SqliteCalls::SqliteCalls()
{
    take();
    takeCalls();
    QMutexLocker lock(&mutex);
    listening = true;
}

SqliteCalls::~SqliteCalls()
{
    QMutexLocker lock(&mutex);
    listening = false;
}

QStringList SqliteCalls::take()
{
    QMutexLocker lock(&mutex);
    QStringList taken;
    taken.swap(texts);
    return taken;
}

std::vector<SqliteCall> SqliteCalls::takeCalls()
{
    QMutexLocker lock(&mutex);
    return std::exchange(calls, {});
}
