// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

struct sqlite3;

/// A plain SQLite connection. Failures are thrown.
class Connection
{
public:
    explicit Connection(const QString &path);
    ~Connection();

    sqlite3 *handle() const { return m_handle; }
    void run(const char *sql);

private:
    Q_DISABLE_COPY(Connection)
    sqlite3 *m_handle = nullptr;
};

/// What sqlite3_get_table() gives for a statement, freed again.
class Table
{
public:
    Table(sqlite3 *connection, const char *sql);
    ~Table();

    char **cells = nullptr; ///< The header first.
    int rows = 0;
    int columns = 0;

private:
    Q_DISABLE_COPY(Table)
};
