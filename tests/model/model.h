// SPDX-License-Identifier: MIT
#pragma once

#include "call.h"

#include <QHash>

struct sqlite3;
struct sqlite3_stmt;

/// What docs/operations.md says that a store does, on a file of its own: other statements, prepared and with bound
/// values where the page allows, other conversions. Nothing here is shared with src/.
class Model
{
public:
    Model(Kind kind, const QString &path);
    ~Model();

    /// What the store must answer to the call, which is made on the model's file.
    Answer ask(const Call &call);

    /// The number of rows, and the highest ID; 0 when the table does not answer.
    int count(const QString &table) { return number("SELECT count(*) FROM \"%1\""_q, table); }
    int lastId(const QString &table) { return number("SELECT max(ID) FROM \"%1\""_q, table); }

private:
    Q_DISABLE_COPY(Model)

    struct Result {
        bool isOk = false;
        QList<QStringList> rows;
    };

    void open();
    void close();
    /// Runs a prepared statement with its values; kept for the next call.
    Result run(const QString &sql, const QVariantList &values = {});
    /// Runs the statements of a text until one fails.
    Result runText(const QString &sql);
    int number(const QString &sql, const QString &table);

    Answer askClosed(const Call &call) const;
    bool create(const QString &table, const QString &configName);
    void insert(const Call &call);
    void insertConfig(const QString &collector, const QString &name);
    Answer statements(const Call &call);
    Answer records(const Result &result) const;
    Answer rowsBehindMark(const Result &result) const;
    int counted(const Result &result) const;
    Result range(const Call &call, const QString &order, bool isPage);

    Kind m_kind;
    QString m_path;
    sqlite3 *m_connection = nullptr;
    QHash<QString, sqlite3_stmt *> m_prepared;
};
