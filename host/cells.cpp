// SPDX-License-Identifier: MIT
#include "cells.h"

#include "kind.h"

#include <algorithm>

namespace device
{

namespace
{

// Control characters that no text of an operator holds. One that does is found out.
constexpr ushort separator = 0x1f;
constexpr ushort nullCell = 0x1e;

constexpr size_t knownTexts = 32; // per column; a power of two

int toInt(const QChar *text, int size)
{
    int value = 0;
    for (int i = 0; i < size; ++i) {
        const int digit = text[i].unicode() - '0';
        if (digit < 0 || digit > 9 || i >= 9)
            return QString(text, size).toInt();
        value = value * 10 + digit;
    }
    return value;
}

std::optional<LocalTime> joined(TimeReader &times, const QChar *date, int dateSize, const QChar *clock, int clockSize)
{
    if (dateSize == 0 && clockSize == 0)
        return std::nullopt;
    if (dateSize != 10 || clockSize != 8)
        return LocalTime();
    QChar text[19];
    std::copy(date, date + 10, text);
    text[10] = QLatin1Char(' ');
    std::copy(clock, clock + 8, text + 11);
    return times.read(text, 19);
}

// Whether the text is what SQLite had in this many bytes: not cut off at U+0000, and of nothing but valid UTF-8.
bool isWhole(const QString &text, qint64 bytes)
{
    ushort all = 0;
    for (const QChar c : text)
        all |= c.unicode();
    if (all < 0x80)
        return text.size() == bytes;
    qint64 encoded = 0;
    for (const QChar c : text) {
        if (c.unicode() == 0xfffd || c.unicode() == 0xfeff) // no UTF-8 there, perhaps; taken away in front of a cell
            return false;
        encoded += c.unicode() < 0x80 ? 1 : c.unicode() < 0x800 || c.isSurrogate() ? 2 : 3;
    }
    return encoded == bytes;
}

} // namespace

QString RowCells::selection(const QVector<Column> &columns)
{
    QString list = QStringLiteral("ID");
    for (const Column &column : columns)
        list += QLatin1Char(',') + QLatin1String(column.name);
    return list;
}

void RowCells::begin(QStringList row)
{
    m_row = std::move(row);
    m_next = 0;
}

LocalTime RowCells::time()
{
    const QString &text = next();
    return m_times.read(text.constData(), text.size());
}

int RowCells::number()
{
    const QString &text = next();
    return toInt(text.constData(), int(text.size()));
}

std::optional<LocalTime> RowCells::dateAndClock()
{
    const QString &date = next();
    const QString &clock = next();
    return joined(m_ends, date.constData(), int(date.size()), clock.constData(), int(clock.size()));
}

// group_concat() leaves out a NULL, so NULLs get a text of their own. SQLite runs it once for both places.
QString ColumnCells::selection(const QVector<Column> &columns)
{
    const auto joinedAndCounted = [](const char *name) {
        return QStringLiteral(",group_concat(ifnull(%1,'%2'),'%3'),length(cast(group_concat(ifnull(%1,'%2'),'%3') as "
                              "blob))")
            .arg(QLatin1String(name), QChar(nullCell), QChar(separator));
    };
    QString list = QStringLiteral("count(*)") + joinedAndCounted("ID");
    for (const Column &column : columns)
        list += joinedAndCounted(column.name);
    return list;
}

ColumnCells::ColumnCells(const QStringList &row, bool withMilliseconds)
    : m_times(withMilliseconds),
      m_ends(false),
      m_columns(size_t(row.size() - 1) / 2),
      m_next(m_columns.size()),
      m_rows(row.first().toInt())
{
    for (size_t i = 0; i < m_columns.size(); ++i) {
        JoinedColumn &column = m_columns[i];
        column.cells = row.at(int(2 * i + 1));
        if (m_rows > 0)
            column.at = column.cells.constData();
        m_exact = m_exact && isWhole(column.cells, row.at(int(2 * i + 2)).toLongLong());
    }
}

bool ColumnCells::exact() const
{
    for (const JoinedColumn &column : m_columns) {
        if (column.at)
            return false;
    }
    return m_exact;
}

ColumnCells::Cell ColumnCells::next()
{
    JoinedColumn &column = m_columns[m_next++];
    if (!column.at) {
        m_exact = false;
        return {column.cells.constData(), 0};
    }
    const QChar *const end = column.cells.constData() + column.cells.size();
    const QChar *at = column.at;
    while (at != end && at->unicode() != separator)
        ++at;
    const Cell cell{column.at, int(at - column.at)};
    column.at = at == end ? nullptr : at + 1;
    if (cell.size == 1 && cell.text->unicode() == nullCell)
        m_exact = false;
    return cell;
}

qint64 ColumnCells::id()
{
    m_next = 0;
    const Cell cell = next();
    if (cell.size < 1 || cell.size > 18) {
        m_exact = false;
        return 0;
    }
    qint64 id = 0;
    for (int i = 0; i < cell.size; ++i) {
        const int digit = cell.text[i].unicode() - '0';
        m_exact = m_exact && digit >= 0 && digit <= 9;
        id = id * 10 + digit;
    }
    return id;
}

LocalTime ColumnCells::time()
{
    const Cell cell = next();
    const LocalTime time = m_times.read(cell.text, cell.size);
    m_exact = m_exact && time.isValid();
    return time;
}

int ColumnCells::number()
{
    const Cell cell = next();
    return toInt(cell.text, cell.size);
}

QString ColumnCells::text()
{
    const Cell cell = next();
    return QString(cell.text, cell.size);
}

QString ColumnCells::recurring()
{
    std::vector<QString> &known = m_columns[m_next].known;
    known.resize(knownTexts);
    const Cell cell = next();
    if (cell.size == 0)
        return QString(cell.text, 0);
    const size_t place = size_t(cell.size) + 3 * cell.text[0].unicode() + 5 * cell.text[cell.size / 2].unicode() +
                         7 * cell.text[cell.size - 1].unicode();
    QString &same = known[place % knownTexts];
    if (same.size() != cell.size || !std::equal(cell.text, cell.text + cell.size, same.constData()))
        same = QString(cell.text, cell.size);
    return same;
}

std::optional<LocalTime> ColumnCells::dateAndClock()
{
    const Cell date = next();
    const Cell clock = next();
    return joined(m_ends, date.text, date.size, clock.text, clock.size);
}

} // namespace device
