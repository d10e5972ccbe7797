// SPDX-License-Identifier: MIT
#include "inserts.h"

#include "row_text.h"

#include <QHash>

namespace device
{

namespace
{

constexpr int statementLength = 60000; // characters; far below SQLite's limit, long enough to pay
// Compiling the statement with json_each() costs what five to eight terms of VALUES cost.
constexpr int fewestMembers = 8;

QString statement(const QVector<Write> &writes, const Insert &insert, int length, bool withJson)
{
    const bool members =
        withJson && insert.rows.size() >= fewestMembers && RowText::isMember(writes.at(insert.rows.first()).text);
    QString sql;
    sql.reserve(length + (members ? 2 : 12) * int(insert.rows.size()) + int(insert.table.size()) + 60);
    sql += QLatin1String("insert into ") + insert.table;
    sql += members ? QLatin1String(" select NULL,key,value from json_each('{") : QLatin1String(" values");
    for (const int i : insert.rows) {
        if (i != insert.rows.first())
            sql += QLatin1Char(',');
        sql += members ? writes.at(i).text : RowText::values(writes.at(i).text);
    }
    if (members)
        sql += QLatin1String("}')");
    return sql;
}

// For each table the INSERT that takes its next row. SQLite ignores the case of a table's name.
class Tables
{
public:
    /// -1 for a table that is new here.
    int &latestInsert(const QString &table)
    {
        auto found = m_numbers.constFind(table);
        if (found == m_numbers.constEnd()) {
            const QString folded = table.toLower();
            if (!m_numbers.contains(folded)) {
                m_numbers.insert(folded, int(m_latest.size()));
                m_latest.append(-1);
            }
            found = m_numbers.insert(table, m_numbers.value(folded));
        }
        return m_latest[*found];
    }

private:
    QHash<QString, int> m_numbers; // by every spelling
    QVector<int> m_latest;
};

} // namespace

QVector<Insert> insertsOf(const QVector<Write> &writes, const QVector<int> &rows, bool withJson)
{
    QVector<Insert> inserts;
    QVector<int> lengths; // of the texts of their rows
    Tables tables;
    for (const int i : rows) {
        const Write &row = writes.at(i);
        const int length = int(row.text.size());
        int &latest = tables.latestInsert(row.table);
        if (latest < 0 || lengths.at(latest) + length > statementLength ||
            (withJson &&
             RowText::isMember(row.text) != RowText::isMember(writes.at(inserts.at(latest).rows.first()).text))) {
            latest = int(inserts.size());
            inserts.append({row.table, QString(), {}});
            lengths.append(0);
        }
        inserts[latest].rows.append(i);
        lengths[latest] += length;
    }
    for (int i = 0; i < inserts.size(); ++i)
        inserts[i].sql = statement(writes, inserts.at(i), lengths.at(i), withJson);
    return inserts;
}

QString jsonTrial()
{
    return QStringLiteral("select key,value from json_each('{\"a\":\"b\"}')");
}

} // namespace device
