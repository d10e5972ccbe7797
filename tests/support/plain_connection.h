// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

struct sqlite3;

using Rows = QList<QStringList>;

/// A second, plain SQLite connection: looks at the file instead of the library's answer.
class PlainConnection
{
public:
    explicit PlainConnection(const QString &path);
    ~PlainConnection();

    /// Runs the statements; the rows of all of them, NULL as a null text. A failure fails the test.
    Rows run(const QString &sql);
    /// The first cell of the first row.
    QString value(const QString &sql);
    sqlite3 *handle() const { return m_connection; }

private:
    Q_DISABLE_COPY(PlainConnection)
    sqlite3 *m_connection = nullptr;
};

/// One query on a connection of its own.
Rows rowsOf(const QString &path, const QString &sql);
QString valueOf(const QString &path, const QString &sql);
/// SQLite's own text about a statement that must fail.
QByteArray errorOf(const QString &path, const QString &sql);
