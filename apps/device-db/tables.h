// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_TABLES_H
#define DEVICE_DB_TABLES_H

#include "sqlite.h"

#include <QList>
#include <QStringList>
#include <QVector>

namespace device_db
{

/// What a table holds, told by its columns.
enum class Kind { Samples, Alarms, Log, Configuration, Foreign };

/// A column of the known tables behind ID.
struct KnownColumn {
    const char *name;  ///< In the file.
    const char *key;   ///< In CSV and JSON, and for options.
    const char *title; ///< For people.
    bool twice;        ///< The store library encodes its texts twice.
};

/// How a kind of table looks. Empty for a foreign one.
const QVector<KnownColumn> &columnsOf(Kind kind);
/// "samples", "alarms", ...
const char *nameOf(Kind kind);
/// The times of the table have milliseconds.
bool hasMilliseconds(Kind kind);
bool holdsRecords(Kind kind);

struct Table {
    QString name;
    Kind kind = Kind::Foreign;
    QStringList columns;
};

/// The tables of a file in the order of their names; SQLite's own and what the host layer adds
/// ("device ...") are left out.
Result<QList<Table>> tablesOf(const Database &database);

/// The record table of that name, or with an empty name the only one of the file. `kinds`: those that will do,
/// empty for each.
Result<Table> chooseTable(const Database &database, const QString &wanted, const QVector<Kind> &kinds = {});

/// A cell that the store library encoded twice as it was meant; any other as it is.
QByteArray decodedTwice(const QByteArray &cell);

} // namespace device_db

#endif
