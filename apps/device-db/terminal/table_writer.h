// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_TABLE_WRITER_H
#define DEVICE_DB_TABLE_WRITER_H

#include "terminal/output.h"

#include <QVector>

#include <memory>

namespace device_db
{

struct OutputColumn {
    QByteArray key; ///< In CSV and JSON.
    QString title;
    bool right = false;  ///< Numbers are at the right.
    bool number = false; ///< In JSON a number, when the cell is one.
    bool fixed = false;  ///< Not cut while other columns can be.
    bool twice = false;  ///< For people the text is decoded; see decodedTwice().
    bool main = false;   ///< What is read: cut after the others, but before those that are fixed.
    int least = 6;       ///< Not cut below this width.
};

/// Takes rows and prints them in one form.
class RowWriter
{
public:
    virtual ~RowWriter() = default;
    /// A cell for each column; a null cell is NULL. False when nobody takes more.
    virtual bool row(const QVector<QByteArray> &cells, Tone tone) = 0;
    /// Prints what was held back to find the widths of the columns.
    virtual bool settle() { return true; }
    /// After the last row.
    virtual bool end() { return true; }
};

std::unique_ptr<RowWriter> rowWriter(Format format, const QVector<OutputColumn> &columns, Output &output);

/// A CSV row of RFC 4180 with "\n" at its end.
QByteArray csvRow(const QVector<QByteArray> &cells, char separator);
/// A JSON object in one line. Cells that are not UTF-8 are changed: see isUtf8().
QByteArray jsonRow(const QVector<OutputColumn> &columns, const QVector<QByteArray> &cells);

} // namespace device_db

#endif
