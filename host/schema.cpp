// SPDX-License-Identifier: MIT
#include "schema.h"

#include "connection.h"
#include "kind.h"

namespace device
{

namespace
{

// What this layer adds to a file has a name with a blank: no table that the store library's hosts or TableName can make
// ever collides with it.
constexpr const char *seriesTable = "\"device series\"";

// Word for word what the store library's own createTable() runs, so that the files are the same.
template<typename Record>
QString creation(const TableName &table)
{
    QString sql =
        QLatin1String("create table ") + table.text() + QLatin1String("(ID INTEGER PRIMARY KEY AUTOINCREMENT");
    for (const Column &column : Kind<Record>::columns())
        sql += QLatin1Char(',') + QLatin1String(column.name) + QLatin1Char(' ') + QLatin1String(column.type);
    return sql + QLatin1Char(')');
}

QStringList listing(const TableName &table, const QString &name)
{
    return {QStringLiteral("create table if not exists tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,"
                           "COLLECTOR text,NAME text)"),
            QLatin1String("insert into tb_config values(NULL,") + quoted(table.text()) + QLatin1Char(',') +
                quoted(encodedTwice(name)) + QLatin1Char(')')};
}

// Both change nothing, and so cost no write, when the file holds this already: programs do it at every start.
QStringList description(const TableName &table, const SeriesInfo &info)
{
    const QString side = QLatin1String(seriesTable);
    const QString cells =
        quoted(table.text()) + QLatin1Char(',') + quoted(info.unit) + QLatin1Char(',') + quoted(info.description);
    return {QLatin1String("create table if not exists ") + side +
                QLatin1String("(COLLECTOR text PRIMARY KEY COLLATE NOCASE,UNIT text,DESCRIPTION text)"),
            QLatin1String("insert or replace into ") + side + QLatin1String(" select ") + cells +
                QLatin1String(" where not exists(select 1 from ") + side +
                QLatin1String(" where (COLLECTOR,UNIT,DESCRIPTION)=(") + cells + QLatin1String("))")};
}

} // namespace

Result<bool> hasTimeIndex(SqlChannel &connection, const Site &site, const QString &table)
{
    const auto found = connection.query(
        site, QStringLiteral("select count(*) from pragma_index_list(%1) l join pragma_index_info(l.name) i "
                             "where l.partial=0 and i.seqno=0 and i.name='DATETIME' collate nocase")
                  .arg(quoted(table)));
    if (!found)
        return found.error();
    return found->first().first() != QLatin1String("0");
}

template<typename Record>
QString columnList()
{
    QStringList names;
    for (const Column &column : Kind<Record>::columns())
        names << QLatin1String(column.name);
    return names.join(QLatin1Char(','));
}

template<typename Record>
Result<bool> makeTable(Connection &connection, const TableName &table, const SeriesInfo &info)
{
    const Site site{QStringLiteral("create"), table.text()};
    for (const auto &[text, what] : {std::make_pair(info.name, "name"), std::make_pair(info.unit, "unit"),
                                     std::make_pair(info.description, "description")}) {
        if (const char *why = unstorable(text))
            return site.error(Error::TextRefused,
                              QStringLiteral("the %1 cannot be held: %2").arg(QLatin1String(what), QLatin1String(why)));
    }
    const auto columns =
        connection.ask(site, QStringLiteral("select name from pragma_table_info(%1)").arg(quoted(table.text())));
    if (!columns)
        return columns.error();
    const bool missing = columns->isEmpty();
    QStringList names;
    for (const QStringList &row : *columns)
        names << row.first();
    if (!missing && names.mid(1).join(QLatin1Char(',')) != columnList<Record>())
        return site.error(Error::TableLayout,
                          QStringLiteral("it exists with the columns ") + names.join(QLatin1String(", ")));

    QStringList statements;
    if (missing)
        statements << creation<Record>(table);
    if constexpr (std::is_same_v<Record, Sample>) {
        if (missing)
            statements << listing(table, info.name);
        if (!info.unit.isEmpty() || !info.description.isEmpty())
            statements << description(table, info);
    }
    if (connection.options().profile != Profile::AsIs) {
        const auto indexed = hasTimeIndex(connection, site, table.text());
        if (!indexed)
            return indexed.error();
        if (!*indexed)
            statements << QStringLiteral("create index \"device index %1\" on %1(DATETIME)").arg(table.text());
    }
    for (const QString &statement : statements) {
        if (const Status each = connection.run(site, statement); !each)
            return each.error();
    }
    return missing;
}

template QString columnList<Sample>();
template QString columnList<Alarm>();
template QString columnList<LogEntry>();
template Result<bool> makeTable<Sample>(Connection &, const TableName &, const SeriesInfo &);
template Result<bool> makeTable<Alarm>(Connection &, const TableName &, const SeriesInfo &);
template Result<bool> makeTable<LogEntry>(Connection &, const TableName &, const SeriesInfo &);

Result<QHash<QString, QStringList>> layoutsIn(Connection &connection)
{
    const auto rows = connection.query({QStringLiteral("list tables"), QString()},
                                       QStringLiteral("select m.name,c.name from sqlite_master m join "
                                                      "pragma_table_info(m.name) c where m.type='table' "
                                                      "order by m.name,c.cid"));
    if (!rows)
        return rows.error();
    QHash<QString, QStringList> layouts;
    for (const QStringList &row : *rows)
        layouts[row.at(0).toLower()] << row.at(1);
    return layouts;
}

Result<QList<Series>> seriesIn(Connection &connection)
{
    const Site site{QStringLiteral("list series"), QString()};
    const auto layouts = layoutsIn(connection);
    if (!layouts)
        return layouts.error();
    QList<Series> all;
    if (!layouts->contains(QStringLiteral("tb_config")))
        return all;
    // A table that was listed again keeps its place and has the name that it was given last.
    const QString listed =
        QStringLiteral("(select min(ID) FIRST,max(ID) LAST from tb_config group by COLLECTOR collate nocase) join "
                       "tb_config c on c.ID=LAST");
    const auto rows = connection.query(
        site, layouts->contains(QStringLiteral("device series"))
                  ? QStringLiteral("select c.COLLECTOR,NAME,UNIT,DESCRIPTION from %1 left join %2 s on "
                                   "s.COLLECTOR=c.COLLECTOR order by FIRST")
                        .arg(listed, QLatin1String(seriesTable))
                  : QStringLiteral("select COLLECTOR,NAME,'','' from %1 order by FIRST").arg(listed));
    if (!rows)
        return rows.error();
    for (const QStringList &row : *rows) {
        Series series{{decodedTwice(row.at(1)), row.at(2), row.at(3)}, decodedTwice(row.at(0)), std::nullopt};
        if (const auto table = TableName::from(series.listed))
            series.table = *table;
        all.append(series);
    }
    return all;
}

} // namespace device
