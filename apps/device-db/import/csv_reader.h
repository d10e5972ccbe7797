// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_CSV_READER_H
#define DEVICE_DB_CSV_READER_H

#include "import/row_reader.h"

#include <QIODevice>

#include <deque>
#include <memory>

namespace device_db
{

/// Reads CSV of RFC 4180 (line ends of any kind, also within quotes), cell by cell to the byte.
class CsvReader : public RowReader
{
public:
    /// `input` is open, at the place where reading begins, and outlives this. A byte order mark at `offset` 0 is
    /// skipped.
    CsvReader(QIODevice *input, char separator, qint64 offset = 0, qint64 line = 1);
    ~CsvReader() override;

    std::optional<QStringList> header() override;
    bool next(InputRow &row) override;

    bool atBoundary() const override { return m_rows.empty() && m_betweenRows; }
    qint64 offset() const override { return m_offset; }
    qint64 line() const override { return m_line; }

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
    InputRow m_current;
    std::deque<InputRow> m_rows;
};

} // namespace device_db

#endif
