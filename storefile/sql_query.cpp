// SPDX-License-Identifier: MIT
#include "storefile/sql_query.h"

#include <sqlite3.h>

namespace device_db
{

namespace
{

// A connection that may only read could still attach other files, and "vacuum into" makes one.
int onlyReads(void *, int action, const char *first, const char *second, const char *, const char *)
{
    switch (action) {
    case SQLITE_SELECT:
    case SQLITE_READ:
    case SQLITE_RECURSIVE:
        return SQLITE_OK;
    case SQLITE_FUNCTION:
        return qstricmp(second, "load_extension") == 0 ? SQLITE_DENY : SQLITE_OK;
    case SQLITE_UPDATE: // by this pragma_table_info() and the like declare their columns; onlyReads() refuses a real
                        // one
        return qstricmp(first, "sqlite_master") == 0 ? SQLITE_OK : SQLITE_DENY;
    case SQLITE_PRAGMA: {
        const QByteArray name = QByteArray(first).toLower();
        return !second || name.endsWith("_info") || name.endsWith("_list") ? SQLITE_OK : SQLITE_DENY;
    }
    default:
        return SQLITE_DENY;
    }
}

} // namespace

Result<Statement> queryOf(const Database &database, const QString &sql)
{
    sqlite3_set_authorizer(database.handle(), onlyReads, nullptr);
    auto statement = database.prepare(sql.toUtf8());
    const bool isDenied = sqlite3_errcode(database.handle()) == SQLITE_AUTH;
    if (isDenied || (statement && !statement->onlyReads()))
        return failure(database.name(), QStringLiteral("this statement does more than read, so it is not run; the "
                                                       "sqlite3 shell runs any, on a copy for example"));
    if (statement && statement->columns() == 0)
        return failure(database.name(), QStringLiteral("give one statement that reads, such as \"select count(*) from "
                                                       "AlarmData\""));
    return statement;
}

} // namespace device_db
