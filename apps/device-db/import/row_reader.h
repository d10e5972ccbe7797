// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_ROW_READER_H
#define DEVICE_DB_ROW_READER_H

#include <QByteArray>
#include <QStringList>
#include <QVector>

#include <optional>

namespace device_db
{

/// A row of an input, before anything is known of its cells.
struct InputRow {
    qint64 line = 0;           ///< Of the input, where the row begins; the first is 1.
    QVector<QByteArray> cells; ///< A null cell is NULL.
    QByteArray fault;          ///< Why this is not a row, whose text is then the only cell; else empty.
};

/// Reads rows out of an input of some form. A row that breaks the form's rules comes with its fault, and reading goes
/// on after it. Empty lines are not rows.
class RowReader
{
public:
    virtual ~RowReader() = default;

    /// What the input calls its columns, from its first row; null when there is none that does.
    virtual std::optional<QStringList> header() = 0;
    /// The next row; false at the end, or when the input cannot be read, which the input itself says.
    virtual bool next(InputRow &row) = 0;

    /// Everything up to offset() has been handed out as rows: reading may begin there again, in line().
    virtual bool atBoundary() const = 0;
    virtual qint64 offset() const = 0;
    virtual qint64 line() const = 0;
};

} // namespace device_db

#endif
