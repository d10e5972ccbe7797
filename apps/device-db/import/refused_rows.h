// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_REFUSED_ROWS_H
#define DEVICE_DB_REFUSED_ROWS_H

#include "import/csv_reader.h"
#include "storefile/error.h"

#include <QFile>

namespace device_db
{

/// The file of refused rows; made with the first of them.
class RefusedRows
{
public:
    /// `keep`: this many bytes of an earlier run stay.
    RefusedRows(const QString &path, qint64 keep);

    Status add(const CsvRow &row, const QByteArray &reason);
    Status flush();
    qint64 size() const { return m_file.isOpen() ? m_file.size() : m_keep; }
    QString path() const { return m_file.fileName(); }

private:
    Error trouble() const;

    QFile m_file;
    qint64 m_keep;
};

} // namespace device_db

#endif
