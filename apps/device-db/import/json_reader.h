// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_JSON_READER_H
#define DEVICE_DB_JSON_READER_H

#include "import/row_reader.h"

#include <QIODevice>

namespace device_db
{

/// Reads JSON lines: one object per line, as export writes them. Texts come as they are, numbers as they
/// are written, null as NULL, true and false as these words. A key that a row lacks gives an empty cell.
class JsonReader : public RowReader
{
public:
    /// `input` is open, at `offset` in line `line`, and outlives this. `keys`: the header that an earlier reader of the
    /// same input gave; empty: it is still to be read.
    explicit JsonReader(QIODevice *input, QStringList keys = {}, qint64 offset = 0, qint64 line = 1);

    std::optional<QStringList> header() override;
    bool next(InputRow &row) override;
    bool atBoundary() const override { return m_waiting.isNull(); }
    qint64 offset() const override { return m_offset; }
    qint64 line() const override { return m_line; }

private:
    QByteArray readLine();

    QIODevice *m_input;
    QStringList m_keys;
    QByteArray m_waiting; ///< The first line, which header() has read; else null.
    qint64 m_offset;
    qint64 m_line;
};

} // namespace device_db

#endif
