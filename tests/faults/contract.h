// SPDX-License-Identifier: MIT
#pragma once

#include "operations.h"
#include "sqlite_calls.h"

/// An operation, called as `call` says and described by `meaning`.
struct Operation {
    Call<interface_data_base> call;
    const Meaning *meaning; ///< Null: it does nothing for this kind of store.
};

/// The cell of an input row that takes any text: value, description or message.
QString &freeText(QStringList &row);

/// All operations of a kind but openDB and closeDB, and a batch of many long rows.
std::vector<Operation> operationsOf(Kind kind);

/// What an operation runs, logs and answers.
struct Conduct {
    QStringList runs;
    QStringList log;
    QString answer;
};

/// What docs/operations.md promises of an operation whose statements ended as `heard` says.
Conduct conductOf(const Operation &operation, Kind kind, const std::vector<SqliteCall> &heard);

/// False for a query, a pragma, VACUUM, and the two ends of a transaction.
bool changesContent(const QString &statement);

/// What the file must hold, by what SQLite acknowledged. Nothing else may change it.
class Acknowledged
{
public:
    void add(const std::vector<SqliteCall> &heard);
    /// The connection was closed: an open transaction is dropped.
    void close();

    /// The statements whose work is in the file. Mostly one list; a commit that ended with an error and left no
    /// transaction may have been done or not, which gives two.
    const std::vector<QStringList> &possible() const { return m_possible; }

private:
    void commit(const QStringList &statements);
    void mayHaveCommitted(const QStringList &statements);

    std::vector<QStringList> m_possible{{}};
    QStringList m_open;
    bool m_inTransaction = false;
};
