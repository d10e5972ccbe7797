// SPDX-License-Identifier: MIT
#include "sqlite_calls.h"

#include <QMutex>
#include <QMutexLocker>

#include <dlfcn.h>
#include <sqlite3.h>

namespace
{

QMutex mutex;
bool listening = false;
QStringList texts;

/// One call into SQLite. Calls that SQLite makes of itself are not heard: sqlite3_get_table() runs sqlite3_exec().
class Call
{
public:
    explicit Call(const char *sql)
    {
        if (depth++ > 0)
            return;
        QMutexLocker lock(&mutex);
        if (listening)
            texts.append(QString::fromUtf8(sql));
    }
    ~Call() { --depth; }

private:
    Q_DISABLE_COPY(Call)
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
    const Call call(sql);
    return real(connection, sql, callback, target, error);
}

Q_DECL_EXPORT int sqlite3_get_table(sqlite3 *connection, const char *sql, char ***cells, int *rows, int *columns,
                                    char **error)
{
    static const auto real = next<decltype(&sqlite3_get_table)>("sqlite3_get_table");
    const Call call(sql);
    return real(connection, sql, cells, rows, columns, error);
}
}

SqliteCalls::SqliteCalls()
{
    take();
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
