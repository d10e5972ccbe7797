// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_CSV_READER_H
#define DEVICE_DB_CSV_READER_H

#include <QByteArray>
#include <QIODevice>
#include <QVector>

#include <deque>
#include <memory>

namespace device_db
{

struct CsvRow {
    qint64 line = 0; ///< Of the input, where the row begins; the first is 1.
    QVector<QByteArray> cells;
    QByteArray fault; ///< Why this is no row of CSV, whose text is then the only cell; else empty.
};

/// Reads CSV of RFC 4180 (line ends of any kind, also within quotes), cell by cell to the byte. A row that breaks
/// the rules comes with its fault, and reading goes on in the next line. Empty lines are no rows.
class CsvReader
{
public:
    /// `input` is open, stands where reading begins, and outlives this. A byte order mark at `offset` 0 is skipped.
    CsvReader(QIODevice *input, char separator, qint64 offset = 0, qint64 line = 1);
    ~CsvReader();

    /// The next row; false at the end, or when the input cannot be read, which failed() tells.
    bool next(CsvRow &row);
    bool failed() const { return m_failed; }

    /// Everything up to offset() has been handed out as rows: reading may begin there again, in line().
    bool atBoundary() const { return m_rows.empty() && m_betweenRows; }
    qint64 offset() const { return m_offset; }
    qint64 line() const { return m_line; }

private:
    struct Parser;

    bool feed();
    void fault(const QByteArray &why, const QByteArray &text);

    QIODevice *m_input;
    std::unique_ptr<Parser> m_parser;
    QByteArray m_buffer;
    qsizetype m_place = 0;
    qint64 m_offset;
    qint64 m_line;
    bool m_betweenRows = true;
    bool m_ended = false;
    bool m_failed = false;
    CsvRow m_current;
    std::deque<CsvRow> m_rows;
};

} // namespace device_db

#endif
