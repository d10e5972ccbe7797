// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_BOOKKEEPING_H
#define DEVICE_DB_BOOKKEEPING_H

#include "storefile/sqlite.h"

#include <QFile>
#include <QJsonObject>
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
    /// No table of a store can have this name, since the library takes no blank in one.
    static constexpr QLatin1String tableName{"device-db import"};

    /// `target`: a name for `tables`, all those that rows go to. `form`: the options, by name, that decide what a line
    /// means. `database` outlives this.
    Bookkeeping(const Database &database, const QFile &input, const QString &target, const QStringList &tables,
                const QJsonObject &form);

    /// Where an earlier run stopped; the start when there was none. Unless `restart`, an Error when to go on there
    /// would lose or mix up rows: the input was changed since, the options are others, or the rows of that run are
    /// gone.
    Result<Place> find(bool restart) const;
    /// Within the transaction of the rows.
    Status keep(const Place &place) const;
    /// With the last rows.
    Status forget() const;

private:
    Status sameForm(const QByteArray &earlier, const QString &begun) const;
    Result<QStringList> newestRows() const;
    Status hasRows(const QStringList &newest, const QString &begun) const;

    const Database &m_database;
    QString m_input;
    QByteArray m_source;
    QByteArray m_target;
    QByteArray m_marks;
    QStringList m_tables;
    QJsonObject m_form;
};

/// The imports into this file that were stopped and not finished, one line each.
Result<QStringList> unfinishedImports(const Database &database);

} // namespace device_db

#endif
