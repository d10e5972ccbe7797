// SPDX-License-Identifier: MIT
#include "plain_connection.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

PlainConnection::PlainConnection(const QString &path)
{
    if (sqlite3_open(path.toUtf8().constData(), &m_connection) != SQLITE_OK)
        ADD_FAILURE() << qPrintable(path) << ": " << sqlite3_errmsg(m_connection);
}

PlainConnection::~PlainConnection()
{
    sqlite3_close(m_connection);
}

Rows PlainConnection::run(const QString &sql)
{
    Rows rows;
    const auto append = [](void *target, int columns, char **texts, char **) {
        QStringList row;
        for (int column = 0; column < columns; ++column)
            row.append(QString::fromUtf8(texts[column]));
        static_cast<Rows *>(target)->append(row);
        return 0;
    };
    char *error = nullptr;
    if (sqlite3_exec(m_connection, sql.toUtf8().constData(), append, &rows, &error) != SQLITE_OK)
        ADD_FAILURE() << qPrintable(sql) << ": " << error;
    sqlite3_free(error);
    return rows;
}

QString PlainConnection::value(const QString &sql)
{
    const Rows rows = run(sql);
    return rows.isEmpty() ? QString() : rows.first().first();
}

Rows rowsOf(const QString &path, const QString &sql)
{
    return PlainConnection(path).run(sql);
}

QString valueOf(const QString &path, const QString &sql)
{
    return PlainConnection(path).value(sql);
}

QByteArray errorOf(const QString &path, const QString &sql)
{
    PlainConnection connection(path);
    EXPECT_NE(sqlite3_exec(connection.handle(), sql.toUtf8().constData(), nullptr, nullptr, nullptr), SQLITE_OK);
    return sqlite3_errmsg(connection.handle());
}
