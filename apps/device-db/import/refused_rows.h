// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_REFUSED_ROWS_H
#define DEVICE_DB_REFUSED_ROWS_H

#include "import/row_reader.h"
#include "storefile/error.h"

#include <QFile>

#include <memory>

namespace device_db
{

/// The file of refused rows; made with the first of them. As long as the import is not over it has a name of its own,
/// by which a run that goes on finds it again; then it gets the name that it is to have. No other file is ever
/// replaced.
class RefusedRows
{
public:
    /// `named`: as a person named it, which must not exist; empty: INPUT.refused.csv beside `input`, or
    /// INPUT.refused.2.csv where that exists. `import`: what tells this import from any other. `keep`: this many bytes
    /// are of an earlier run; what the file holds beyond is of rows that come again.
    static Result<RefusedRows> make(const QString &named, const QString &input, const QByteArray &import, qint64 keep);

    Status add(const InputRow &row, const QByteArray &reason);
    /// What was added is with the system.
    Status flush();
    /// Gives the file its name: nothing more comes.
    Status finish();
    /// Nothing was stored, so no run goes on with the file.
    void discard();

    qint64 size() const { return m_file ? m_file->size() : m_keep; }
    QString path() const { return m_path; } ///< What it is called now.

private:
    RefusedRows(QString wanted, bool mayBeNumbered, const QByteArray &import, qint64 keep);
    bool open();
    Error trouble(const QString &why) const;

    QString m_wanted;
    bool m_mayBeNumbered;
    QString m_path;
    qint64 m_keep;
    std::unique_ptr<QFile> m_file;
};

} // namespace device_db

#endif
