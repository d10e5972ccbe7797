// SPDX-License-Identifier: MIT
#ifndef PRIVATE_QUERY_H
#define PRIVATE_QUERY_H

#include "qt_versions.h"

#include <QList>
#include <QStringList>

#include <cstddef>

struct sqlite3;

namespace detail
{

/// Runs one statement text that returns rows and owns what SQLite gave for it.
class TableQuery
{
public:
    TableQuery(sqlite3 *connection, const char *sql); ///< `sql` in UTF-8
    ~TableQuery();

    bool failed() const { return m_code != 0; }
    const char *errorText() const { return m_error; } ///< SQLite's own; null when it gave none.
    int rowCount() const { return m_rows; }
    int columnCount() const { return m_columns; }
    /// The UTF-8 text of a cell, the header row not counted; null for NULL.
    const char *cell(int row, int column) const
    {
        return m_cells[(size_t(row) + 1) * size_t(m_columns) + size_t(column)];
    }
    /// The first cell as a number; 0 when there is none or it is not a number.
    int count() const;
    /// Appends every row, all columns, to `result`.
    void appendTo(QList<QStringList> &result) const;

private:
    Q_DISABLE_COPY(TableQuery)

    char **m_cells;
    char *m_error;
    int m_rows;
    int m_columns;
    int m_code;
};

/// Runs one statement text that returns no rows and owns SQLite's error text.
class Execution
{
public:
    Execution(sqlite3 *connection, const char *sql); ///< `sql` in UTF-8
    ~Execution();

    bool failed() const { return m_code != 0; }
    const char *errorText() const { return m_error; } ///< SQLite's own; null when it gave none.

private:
    Q_DISABLE_COPY(Execution)

    char *m_error;
    int m_code;
};

/// Runs a statement whose failure is ignored: the contract reports neither a failed "begin" nor a row that is lost.
inline void executeSilently(sqlite3 *connection, const char *sql)
{
    const Execution ignored(connection, sql);
}

/// Makes room for `more` elements before they are appended one by one. Does nothing unless that at least doubles
/// the list: lists grow geometrically on their own, and reserving for many small batches would defeat that.
template<typename T>
void reserveFor(QList<T> &list, int more)
{
    if (more > int(list.size()))
        list.reserve(list.size() + more);
}

} // namespace detail

#endif
