// SPDX-License-Identifier: MIT
#ifndef DEVICE_CELLS_H
#define DEVICE_CELLS_H

#include "row_text.h"

#include <QStringList>
#include <QVector>

#include <vector>

namespace device
{

struct Column;

/// The cells of one row after the other, ID first, as the interface gives them: each by itself. It costs an allocation
/// or two per cell, and there is nothing that it cannot hold.
class RowCells
{
public:
    explicit RowCells(bool withMilliseconds) : m_times(withMilliseconds), m_ends(false) {}

    static QString selection(const QVector<Column> &columns);
    void begin(QStringList row);

    qint64 id() { return next().toLongLong(); }
    LocalTime time();
    int number();
    QString text() { return std::move(next()); }
    QString recurring() { return text(); }
    /// Two cells; nothing when both are empty.
    std::optional<LocalTime> dateAndClock();

private:
    QString &next() { return m_row[m_next++]; }

    TimeReader m_times;
    TimeReader m_ends;
    QStringList m_row;
    int m_next = 0;
};

/// The cells of many rows, where SQLite has joined each column into one text: a third to a half of the time for SQLite,
/// and one text per column through the interface.
///
/// Whether the cells are exactly those of the table is found out on the way; only a true exact() after the last row
/// says that they were. Not exact are: a cell that is NULL, that holds the separator or U+0000, a byte order mark or
/// bytes that are no UTF-8, and a time in another form.
class ColumnCells
{
public:
    ColumnCells(const QStringList &row, bool withMilliseconds);

    /// What to select for one row of all. In no order that SQLite promises: the caller puts the records in order.
    static QString selection(const QVector<Column> &columns);

    int rows() const { return m_rows; }
    bool exact() const;

    /// The first of the next row. The others follow in the order of the columns.
    qint64 id();
    LocalTime time();
    int number();
    QString text();
    /// text() for a column whose texts recur: equal ones share their memory.
    QString recurring();
    std::optional<LocalTime> dateAndClock();

private:
    struct Cell {
        const QChar *text;
        int size;
    };
    struct JoinedColumn {
        QString cells;
        const QChar *at = nullptr; ///< Where the next cell begins; null after the last.
        std::vector<QString> known;
    };

    Cell next();

    TimeReader m_times;
    TimeReader m_ends;
    std::vector<JoinedColumn> m_columns;
    size_t m_next = 0;
    int m_rows = 0;
    bool m_exact = true;
};

} // namespace device

#endif
