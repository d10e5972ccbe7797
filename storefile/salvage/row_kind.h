// SPDX-License-Identifier: MIT
#ifndef STOREFILE_ROW_KIND_H
#define STOREFILE_ROW_KIND_H

#include "storefile/salvage/sqlite_pages.h"
#include "storefile/tables.h"

#include <QString>

#include <vector>

namespace device_db
{

/// The table that a row comes from: one of the stores', the list of tables, SQLite's list of last IDs, the two tables
/// of trends, that of how long rows are kept, or another.
enum RowKind {
    Samples = int(Kind::Samples),
    Alarms = int(Kind::Alarms),
    Log = int(Kind::Log),
    Configuration = int(Kind::Configuration),
    Schema,
    Sequence,
    TrendSums,
    TrendSeries,
    KeepRules,
    Foreign,
    KindCount
};

/// The kind of table that such rows make; Kind::Foreign for those that are not a store's.
Kind kindOf(RowKind kind);

inline bool isOfTrends(RowKind kind)
{
    return kind == TrendSums || kind == TrendSeries;
}
/// A table that the host layer adds to a file.
inline bool isOfHostLayer(RowKind kind)
{
    return isOfTrends(kind) || kind == KeepRules;
}
/// The name of such a table.
QString nameOfHostLayer(RowKind kind);

/// By the names of the columns in a "create table" statement, and that of the table if it is one of the host layer's.
RowKind kindOfDefinition(const QString &name, const QString &sql);
/// By the types of the row's own cells. Foreign when the cells are empty.
RowKind kindOfRow(const std::vector<Value> &row, Encoding encoding);
/// Whether a row can be one of a store's table. On a page that is not `sound` each cell must look like it.
bool belongs(const std::vector<Value> &row, RowKind kind, Encoding encoding, bool sound);

/// A text of the form "2024-05-06 07:08:09", with or without milliseconds.
bool isTime(const Value &value, Encoding encoding);

} // namespace device_db

#endif
