// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_BOOKKEEPING_H
#define DEVICE_DB_BOOKKEEPING_H

#include "storefile/sqlite.h"

#include <QFile>
#include <QStringList>

namespace device_db
{

/// How far an import is. It is kept in a table of the file itself, in the transaction of the rows that it is about:
/// after whatever end, each row of the input is in the table once or not at all. The table goes with the last rows.
struct Place {
    qint64 offset = 0; ///< In the input.
    qint64 line = 1;
    qint64 stored = 0;
    qint64 refused = 0;
    qint64 refusedBytes = 0; ///< Of the file of refused rows.
};

/// The bookkeeping of one import in the file.
class Bookkeeping
{
public:
    static constexpr QLatin1String tableName{"device_db_import"};

    /// `database` outlives this.
    Bookkeeping(const Database &database, const QFile &input, const QString &table);

    /// Where an earlier run stopped; the start when there was none. An Error when the input was changed since, unless
    /// `restart`.
    Result<Place> find(bool restart) const;
    /// Within the transaction of the rows.
    Status keep(const Place &place) const;
    /// With the last rows.
    Status forget() const;

private:
    const Database &m_database;
    QString m_input;
    QByteArray m_source;
    QByteArray m_table;
    QByteArray m_marks;
};

/// The imports into this file that were stopped and not finished, one line each.
Result<QStringList> unfinishedImports(const Database &database);

} // namespace device_db

#endif
