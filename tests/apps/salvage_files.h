// SPDX-License-Identifier: MIT
#pragma once

#include "plain_connection.h"

#include "storefile/salvage/salvage.h"

#include <map>
#include <random>
#include <set>
#include <vector>

namespace device_db
{
class Database;
}

/// The variable's number, for long runs.
inline int number(const char *variable, int otherwise)
{
    return qEnvironmentVariableIsSet(variable) ? qEnvironmentVariableIntValue(variable) : otherwise;
}

struct OriginalTable {
    std::map<qint64, QString> rows;                 ///< All cells in one text, by ID.
    std::map<qint64, std::vector<quint32>> pagesOf; ///< The leaf of a row, and the pages that it goes on in.
};

/// A file as it was before the damage.
struct Original {
    QByteArray bytes;
    quint32 pageSize = 0;
    std::map<QString, OriginalTable> tables;

    quint32 pages() const { return quint32(bytes.size()) / pageSize; }
    int offset(quint32 page) const { return int((page - 1) * pageSize); }
};

/// The rows of a table with all their cells in one text, by ID.
std::map<qint64, QString> rowsByIds(PlainConnection &file, QString table);

/// Where each row is, is asked of SQLite's own dbstat table, never of the code under test.
Original lookAt(const QString &path);

/// Inserts into two series, alarms and a log of one file, in turns as on a device.
QString fill(int rows, bool twoSeries = true);

/// A file of the store library's, filled in `rounds`.
Original makeFile(int rounds, int rowsARound, const QString &pragmas = QString(), bool twoSeries = true);

struct Salvaged {
    device_db::SalvageReport report;
    std::map<QString, std::map<qint64, QString>> tables;
};

/// An empty file where rows go; not safe against anything, for speed.
device_db::Database makeTarget(const QString &path);

Salvaged salvage(const QByteArray &bytes, const QByteArray &log = QByteArray(),
                 const QByteArray &journal = QByteArray());

struct Score {
    qint64 standing = 0; ///< Rows that stand in full on pages without damage.
    qint64 found = 0;    ///< Of these.
    qint64 invented = 0; ///< Rows that no table had.
    qint64 mixed = 0;    ///< Tables with rows of two tables.
};

/// A salvaged table must be a part of one table, whatever it is called.
Score compare(const Original &original, const std::set<quint32> &damaged, const Salvaged &salvaged);

/// Overwrites a part of the bytes.
void damage(QByteArray &bytes, int offset, int size, std::mt19937 &random);
