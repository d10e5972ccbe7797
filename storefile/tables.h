// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TABLES_H
#define STOREFILE_TABLES_H

#include "storefile/sqlite.h"

#include <QList>
#include <QStringList>
#include <QVector>

namespace device_db
{

/// What a table holds, recognised by its columns.
enum class Kind { Samples, Alarms, Log, Configuration, Foreign };

/// A column of the known tables after ID.
struct KnownColumn {
    const char *name;        ///< In the file.
    const char *declaration; ///< Its type and rules there.
    const char *key;         ///< In CSV and JSON, and for options.
    const char *title;       ///< For people.
    bool twice;              ///< The store library encodes its texts twice.
};

/// The places of the columns in a row that rowsOf() gives; ID is at 0.
enum SampleColumn { SampleTime = 1, SampleValue };
enum AlarmColumn {
    AlarmLevel = 1,
    AlarmStart,
    AlarmObject,
    AlarmType,
    AlarmValue,
    AlarmLimit,
    AlarmDescription,
    AlarmEndDate,
    AlarmEndTime
};
enum LogColumn { LogTime = 1, LogUser, LogName, LogMessage };

/// The kind of table that has these columns.
Kind kindOf(const QStringList &columns);
/// The columns of a kind of table after ID. Empty for a foreign one.
const QVector<KnownColumn> &columnsOf(Kind kind);
/// "samples", "alarms", ...
const char *nameOf(Kind kind);
/// Between the parentheses of "create table", word for word as the store library makes it. Empty for a foreign one.
QByteArray definitionOf(Kind kind);
/// "ID,DATETIME,Value": named in each query, because * would compute columns that the file itself defines.
QByteArray columnList(Kind kind);
/// The place of the column with the time of a record: SampleTime, AlarmStart or LogTime.
int timeColumnOf(Kind kind);
/// The times of the table have milliseconds.
bool hasMilliseconds(Kind kind);
bool holdsRecords(Kind kind);

struct Table {
    QString name;
    Kind kind = Kind::Foreign;
    QStringList columns;
    bool isVirtual = false;  ///< Rows come from a module and not from the file; never touched, not even to count them.
    bool isMisnamed = false; ///< Its name is not UTF-8, and no query can have it: foreign, and never touched.
};

/// The tables of a file in the order of comesBefore(); SQLite's own and views are left out.
Result<QList<Table>> tablesOf(const Database &database);

/// What differs when the tables of a file may be others, or those of another file. Not the number that SQLite gives the
/// schema: a file that takes the place of this one may have the same.
Result<QByteArray> schemaDigest(const Database &database);

/// The record table of that name, or with an empty name the only one of the file. `kinds`: those that will do,
/// empty for each. The Error names the tables that there are.
Result<Table> chooseTable(const Database &database, const QString &wanted, const QVector<Kind> &kinds = {});

/// Whether a table's ID is the key that SQLite finds its rows by. In one that somebody made by "create table as select"
/// it is a column like any other: it need be neither a number nor one of a kind.
Result<bool> isKeyedById(const Database &database, const Table &table);

/// The triggers of a file, as "NAME on TABLE": what runs by itself when somebody writes.
Result<QStringList> triggersOf(const Database &database);

/// A table's name in the form in which SQLite compares it: only the letters of ASCII have two cases.
QByteArray foldedName(const QByteArray &name);

/// A pair of the configuration table: the series' table and its name for people.
struct Registration {
    QByteArray collector; ///< Decoded.
    QByteArray name;      ///< Decoded.
    bool hasTable = false;
};
/// What tb_config lists, in its order; nothing when there is none.
Result<QList<Registration>> registrationsOf(const Database &database, const QList<Table> &tables);

} // namespace device_db

#endif
