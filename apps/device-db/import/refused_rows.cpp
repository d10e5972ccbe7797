// SPDX-License-Identifier: MIT
#include "import/refused_rows.h"

#include "terminal/table_writer.h"

#include <algorithm>

namespace device_db
{

RefusedRows::RefusedRows(const QString &path, qint64 keep) : m_file(path), m_keep(keep) {}

Status RefusedRows::add(const CsvRow &row, const QByteArray &reason)
{
    bool written = true;
    if (!m_file.isOpen()) {
        written = m_file.open(QIODevice::ReadWrite) && m_file.resize(std::min(m_keep, m_file.size())) &&
                  m_file.seek(m_file.size());
        if (m_file.size() == 0)
            written = written && m_file.write("line,reason,cells\n") > 0;
    }
    written =
        written && m_file.write(csvRow(QVector<QByteArray>{QByteArray::number(row.line), reason} + row.cells, ',')) > 0;
    return written ? Status() : trouble();
}

Status RefusedRows::flush()
{
    return !m_file.isOpen() || m_file.flush() ? Status() : Status(trouble());
}

Error RefusedRows::trouble() const
{
    return failure(m_file.fileName(),
                   m_file.errorString() + QStringLiteral("; name another place for refused rows with --refused"));
}

} // namespace device_db
