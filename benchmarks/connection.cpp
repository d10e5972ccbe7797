// SPDX-License-Identifier: MIT
#include "connection.h"

#include <sqlite3.h>

#include <stdexcept>

Connection::Connection(const QString &path)
{
    if (sqlite3_open(path.toUtf8().constData(), &m_handle) != SQLITE_OK)
        throw std::runtime_error(sqlite3_errmsg(m_handle));
    // A recorder asks how large the file is once a batch is settled.
    sqlite3_busy_timeout(m_handle, 10000);
}

Connection::~Connection()
{
    sqlite3_close(m_handle);
}

void Connection::run(const char *sql)
{
    if (sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        throw std::runtime_error(sqlite3_errmsg(m_handle));
}

Table::Table(sqlite3 *connection, const char *sql)
{
    if (sqlite3_get_table(connection, sql, &cells, &rows, &columns, nullptr) != SQLITE_OK)
        throw std::runtime_error(sqlite3_errmsg(connection));
}

Table::~Table()
{
    sqlite3_free_table(cells);
}
