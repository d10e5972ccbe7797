// SPDX-License-Identifier: MIT
#include "query.h"

#include "cells.h"

#include <sqlite3.h>

namespace detail
{

TableQuery::TableQuery(sqlite3 *connection, const char *sql)
    : m_cells(nullptr), m_error(nullptr), m_rows(0), m_columns(0), m_code(0)
{
    m_code = sqlite3_get_table(connection, sql, &m_cells, &m_rows, &m_columns, &m_error);
}

TableQuery::~TableQuery()
{
    sqlite3_free_table(m_cells);
    sqlite3_free(m_error);
}

int TableQuery::count() const
{
    // A table name may turn the text into one without rows; then there is no cell to read.
    return m_rows < 1 ? 0 : toInt(cell(0, 0));
}

void TableQuery::appendTo(QList<QStringList> &result) const
{
    reserveFor(result, m_rows);
    for (int row = 0; row < m_rows; ++row) {
        QStringList &texts = appendNew(result);
        texts.reserve(m_columns);
        for (int column = 0; column < m_columns; ++column)
            texts.append(toText(cell(row, column)));
    }
}

Execution::Execution(sqlite3 *connection, const char *sql) : m_error(nullptr), m_code(0)
{
    m_code = sqlite3_exec(connection, sql, nullptr, nullptr, &m_error);
}

Execution::~Execution()
{
    sqlite3_free(m_error);
}

} // namespace detail
