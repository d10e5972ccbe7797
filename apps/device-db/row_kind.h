// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_ROW_KIND_H
#define DEVICE_DB_ROW_KIND_H

#include "sqlite_pages.h"

#include <QString>

#include <vector>

namespace device_db
{

/// The table that a row comes from: one of the stores', the list of tables, SQLite's list of last IDs, or another.
enum RowKind { Samples, Names, Alarms, Log, Schema, Sequence, Foreign, KindCount };

/// A table as the stores make it, word for word.
struct Layout {
    const char *kind;      ///< "samples", "names", ...
    const char *columns;   ///< Between the parentheses of "create table".
    int timeColumn;        ///< -1: none.
    const char *usualName; ///< For a table whose name is lost.
};

bool isStore(RowKind kind);
/// Of a kind for which isStore() is true.
const Layout &layoutOf(RowKind kind);

/// By the names of the columns in a "create table" statement.
RowKind kindOfDefinition(const QString &sql);
/// By the types of the row's own cells. Foreign when the cells are empty.
RowKind kindOfRow(const std::vector<Value> &row, Encoding encoding);
/// Whether a row can be one of a store's table. On a page that is not `sound` each cell must look like it.
bool belongs(const std::vector<Value> &row, RowKind kind, Encoding encoding, bool sound);

/// A text of the form "2024-05-06 07:08:09", with or without milliseconds.
bool isTime(const Value &value, Encoding encoding);

} // namespace device_db

#endif
