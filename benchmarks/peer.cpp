// SPDX-License-Identifier: MIT
#include "peer.h"

#include "plain.h"

QString preparedInsert(const Kind &kind)
{
    return preparedInsert(kind, QLatin1String(kind.table));
}

QString preparedInsert(const Kind &kind, const QString &table)
{
    return QStringLiteral("insert into %1 values(NULL%2)").arg(table, QStringLiteral(",?").repeated(kind.columns));
}

QString textInsert(const Kind &kind, const QStringList &row)
{
    const QString table = QLatin1String(kind.table);
    if (&kind == &historyKind)
        return plain::historyStatement(row, table);
    return &kind == &alarmKind ? plain::alarmStatement(row) : plain::logStatement(row, table);
}

std::string joinedInsert(const Kind &kind, const QStringList &row)
{
    std::string sql;
    sql.reserve(256);
    sql.append("insert into ").append(kind.table).append(" values(NULL");
    forEachColumn(kind, row, [&sql](int, const QString &text) {
        sql.append(",'");
        const QByteArray bytes = text.toUtf8();
        if (bytes.contains('\''))
            sql.append(QByteArray(bytes).replace('\'', "''").constData());
        else
            sql.append(bytes.constData(), size_t(bytes.size()));
        sql.append("'");
    });
    sql.append(")");
    return sql;
}
