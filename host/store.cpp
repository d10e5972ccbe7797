// SPDX-License-Identifier: MIT
#include "device/store.h"

#include "connection.h"
#include "kind.h"
#include "reading.h"

#include <algorithm>

namespace device
{

namespace
{

Site at(const char *operation, const TableName &table)
{
    return {QLatin1String(operation), table.text()};
}

template<typename Record>
QString columnList()
{
    QStringList names;
    for (const Column &column : Kind<Record>::columns())
        names << QLatin1String(column.name);
    return names.join(QLatin1Char(','));
}

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

// The " where ..." of a query, or why it cannot be asked.
template<typename Record>
Result<QString> conditions(const Site &site, const Query<Record> &query)
{
    QStringList wanted;
    for (const auto &[time, comparison] : {std::make_pair(query.from, ">="), std::make_pair(query.to, "<=")}) {
        if (!time)
            continue;
        QString text;
        if (!appendTime(text, *time, Kind<Record>::milliseconds))
            return site.error(Error::TimeRefused, QStringLiteral("a bound of the range is no time of the tables"));
        wanted << QLatin1String("DATETIME") + QLatin1String(comparison) + quoted(text);
    }
    const QString filter = Kind<Record>::condition(query.filter);
    if (const char *why = unstorable(filter))
        return site.error(Error::TextRefused, QStringLiteral("no row can match the filter: ") + QLatin1String(why));
    if (!filter.isEmpty())
        wanted << filter;
    if (query.throughId >= 0)
        wanted << QStringLiteral("ID<=%1").arg(query.throughId);
    return wanted.isEmpty() ? QString() : QLatin1String(" where ") + wanted.join(QLatin1String(" and "));
}

} // namespace

StoreFile::StoreFile(std::shared_ptr<Connection> connection) : m_connection(std::move(connection)) {}
StoreFile::StoreFile(StoreFile &&) noexcept = default;
StoreFile &StoreFile::operator=(StoreFile &&) noexcept = default;
StoreFile::~StoreFile() = default;

QString StoreFile::path() const
{
    return m_connection->path();
}

Result<bool> StoreFile::tableExists(const TableName &table)
{
    const auto count = m_connection->number(
        at("look for", table),
        QStringLiteral("select count(*) from sqlite_master where type='table' and name=%1 collate nocase")
            .arg(quoted(table.text())));
    if (!count)
        return count.error();
    return *count != 0;
}

Result<QStringList> StoreFile::tables()
{
    const auto rows =
        m_connection->query({QStringLiteral("list tables"), QString()},
                            QStringLiteral("select name from sqlite_master where type='table' and name not like "
                                           "'sqlite\\_%' escape '\\' and name!='tb_config' order by name"));
    if (!rows)
        return rows.error();
    QStringList names;
    for (const QStringList &row : *rows)
        names << row.first();
    return names;
}

Result<qint64> StoreFile::trim(const TableName &table, qint64 keep)
{
    return m_connection->change(at("trim", table),
                                {QStringLiteral("delete from %1 where ID<=(select ID from %1 order by ID desc limit "
                                                "1 offset %2)")
                                     .arg(table.text(), QString::number(qMax(qint64(0), keep)))});
}

Result<qint64> StoreFile::clear(const TableName &table)
{
    const Site site = at("clear", table);
    qint64 deleted = 0;
    const Status done = m_connection->transaction(site, [&]() -> Status {
        const auto rows = m_connection->ask(site, QStringLiteral("select count(*) from %1").arg(table.text()));
        if (!rows)
            return rows.error();
        deleted = rows->first().first().toLongLong();
        if (const Status emptied = m_connection->run(site, QStringLiteral("delete from %1").arg(table.text()));
            !emptied)
            return emptied;
        return m_connection->run(
            site,
            QStringLiteral("update sqlite_sequence set seq=0 where name=%1 collate nocase").arg(quoted(table.text())));
    });
    if (!done)
        return done.error();
    return deleted;
}

Status StoreFile::compact()
{
    return m_connection->alone({QStringLiteral("compact"), QString()}, QStringLiteral("VACUUM"));
}

void StoreFile::checkpoint()
{
    m_connection->checkpoint();
}

qint64 StoreFile::failedCommits() const
{
    return m_connection->failedCommits();
}

Result<qint64> StoreFile::usedBytes()
{
    return m_connection->usedBytes();
}

template<typename Record>
Result<bool> Store<Record>::createTable(const TableName &table, const QString &name)
{
    const Site site = at("create", table);
    if (const char *why = unstorable(name))
        return site.error(Error::TextRefused, QStringLiteral("the name cannot be held: ") + QLatin1String(why));
    const bool indexed = m_connection->options().profile != Profile::AsIs;
    const QString index = QStringLiteral("create index if not exists %1_time on %1(DATETIME)").arg(table.text());
    bool created = false;
    const Status done = m_connection->transaction(site, [&]() -> Status {
        created = false;
        const auto columns =
            m_connection->ask(site, QStringLiteral("select name from pragma_table_info(%1)").arg(quoted(table.text())));
        if (!columns)
            return columns.error();
        if (!columns->isEmpty()) {
            QStringList names;
            for (const QStringList &row : columns->mid(1))
                names << row.first();
            if (names.join(QLatin1Char(',')) == columnList<Record>())
                return indexed ? m_connection->run(site, index) : Status();
            return site.error(Error::TableLayout,
                              QStringLiteral("it stands with the columns ") + names.join(QLatin1String(", ")));
        }
        QStringList statements{creation<Record>(table)};
        if constexpr (std::is_same_v<Record, Sample>) {
            statements << QStringLiteral("create table if not exists tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,"
                                         "COLLECTOR text,NAME text)")
                       << QStringLiteral("insert into tb_config values(NULL,") + quoted(table.text()) +
                              QLatin1Char(',') + quoted(name) + QLatin1Char(')');
        }
        if (indexed)
            statements << index;
        for (const QString &statement : statements) {
            if (const Status each = m_connection->run(site, statement); !each)
                return each;
        }
        created = true;
        return {};
    });
    if (!done)
        return done.error();
    return created;
}

template<typename Record>
Result<Appended> Store<Record>::append(const TableName &table, const QList<Record> &rows)
{
    const Site site = at("append", table);
    Appended appended;
    QVector<Write> writes;
    QVector<int> places;
    writes.reserve(rows.size());
    places.reserve(rows.size());
    for (int i = 0; i < rows.size(); ++i) {
        RowText row;
        Kind<Record>::encode(rows.at(i), row);
        auto text = row.take(site.operation, site.table);
        if (text) {
            writes.append({table.text(), std::move(text.value())});
            places.append(i);
        } else {
            appended.refused.append({i, text.error()});
        }
    }
    const auto written = m_connection->write(site, writes);
    if (!written)
        return written.error();
    appended.stored = written->stored;
    for (const Refusal &refusal : written->refused)
        appended.refused.append({places.at(refusal.row), refusal.error});
    std::sort(appended.refused.begin(), appended.refused.end(),
              [](const Refusal &a, const Refusal &b) { return a.row < b.row; });
    if (appended.stored == 0 && !rows.isEmpty())
        return appended.refused.first().error;
    return appended;
}

template<typename Record>
Result<QList<Record>> Store<Record>::read(const TableName &table, const Query<Record> &query)
{
    const Site site = at("read", table);
    const auto where = conditions(site, query);
    if (!where)
        return where.error();
    return readRecords<Record>(*m_connection, site,
                               {table.text(), *where, query.newestAtTop, query.offset, query.limit});
}

template<typename Record>
Result<qint64> Store<Record>::count(const TableName &table, const Query<Record> &query)
{
    const Site site = at("count", table);
    const auto where = conditions(site, query);
    if (!where)
        return where.error();
    return m_connection->number(site, QLatin1String("select count(*) from ") + table.text() + *where);
}

template<typename Record>
Result<Snapshot> Store<Record>::snapshot(const TableName &table, const Query<Record> &query)
{
    const Site site = at("look at", table);
    const auto where = conditions(site, query);
    if (!where)
        return where.error();
    const auto rows = m_connection->query(site, QLatin1String("select count(*),(select max(ID) from ") + table.text() +
                                                    QLatin1String(") from ") + table.text() + *where);
    if (!rows)
        return rows.error();
    return Snapshot{rows->first().value(0).toLongLong(), rows->first().value(1).toLongLong()};
}

template<typename Record>
Result<qint64> Store<Record>::removeBefore(const TableName &table, LocalTime time)
{
    const Site site = at("remove from", table);
    QString text;
    if (!appendTime(text, time, Kind<Record>::milliseconds))
        return site.error(Error::TimeRefused, QStringLiteral("the time is no time of the tables"));
    return m_connection->change(site,
                                {QStringLiteral("delete from %1 where DATETIME<%2").arg(table.text(), quoted(text))});
}

template class DEVICE_HOST_EXPORT Store<Sample>;
template class DEVICE_HOST_EXPORT Store<Alarm>;
template class DEVICE_HOST_EXPORT Store<LogEntry>;

Result<HistoryStore> HistoryStore::open(const Library &library, const QString &path, const OpenOptions &options)
{
    auto connection = Connection::open(library, path, options);
    if (!connection)
        return connection.error();
    return HistoryStore(*connection);
}

Result<QList<Series>> HistoryStore::series()
{
    const Site site{QStringLiteral("list series"), QString()};
    QList<Series> all;
    const auto rows = m_connection->query(site, QStringLiteral("select COLLECTOR,NAME from tb_config order by ID"));
    if (!rows && rows.error().code() == Error::TableMissing)
        return all; // a file without a value table
    if (!rows)
        return rows.error();
    for (const QStringList &row : *rows)
        all.append({row.value(0), row.value(1)});
    return all;
}

Result<AlarmStore> AlarmStore::open(const Library &library, const QString &path, const OpenOptions &options)
{
    auto connection = Connection::open(library, path, options);
    if (!connection)
        return connection.error();
    return AlarmStore(*connection);
}

Result<qint64> AlarmStore::end(const TableName &table, const QString &object, const QString &type, LocalTime when)
{
    const Site site = at("end", table);
    const auto statement = endingStatement(site.operation, table.text(), object, type, when);
    if (!statement)
        return statement.error();
    return m_connection->change(site, {*statement});
}

Result<qint64> AlarmStore::purge(const TableName &table, LocalTime time)
{
    const Site site = at("purge", table);
    QString text;
    if (!appendTime(text, time, false))
        return site.error(Error::TimeRefused, QStringLiteral("the time is no time of the tables"));
    return m_connection->change(site, {QStringLiteral("delete from %1 where DATETIME<%2 or EndDate!='' and EndTime!=''")
                                           .arg(table.text(), quoted(text))});
}

Result<LogStore> LogStore::open(const Library &library, const QString &path, const OpenOptions &options)
{
    auto connection = Connection::open(library, path, options);
    if (!connection)
        return connection.error();
    return LogStore(*connection);
}

} // namespace device
