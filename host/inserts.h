// SPDX-License-Identifier: MIT
#ifndef DEVICE_INSERTS_H
#define DEVICE_INSERTS_H

#include "batch.h"

namespace device
{

/// One INSERT, and the steps whose rows it stores, in order.
struct Insert {
    QString table;
    QString sql;
    QVector<int> rows;
};

/// The INSERTs for these of the writes, all of them rows: grouped by table, in order within each, as few as the length
/// of a statement allows. `withJson`: the device's SQLite has json_each(), with which samples take a third of the time.
QVector<Insert> insertsOf(const QVector<Write> &writes, const QVector<int> &rows, bool withJson);

/// Fails where SQLite has no JSON functions, or where a table of the file hides them.
QString jsonTrial();

} // namespace device

#endif
