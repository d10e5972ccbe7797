// SPDX-License-Identifier: MIT
#include "device/store.h"

#include "batch.h"
#include "cells.h"
#include "keep_file.h"
#include "kind.h"
#include "reading.h"
#include "removal.h"
#include "schema.h"

#include <algorithm>

namespace device
{

namespace
{

Site at(const char *operation, const TableName &table)
{
    return {QLatin1String(operation), table.text()};
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
            return site.error(Error::TimeRefused,
                              QStringLiteral("a bound of the range is not a time that the tables can hold"));
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

// The table in a transaction of its own.
template<typename Record>
Result<bool> created(Connection &connection, const TableName &table, const SeriesInfo &info = {})
{
    bool made = false;
    const Status done = connection.transaction(at("create", table), [&]() -> Status {
        const auto tried = makeTable<Record>(connection, table, info);
        if (!tried)
            return tried.error();
        made = *tried;
        return {};
    });
    if (!done)
        return done.error();
    return made;
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
                                           "'sqlite\\_%' escape '\\' and name not like 'device %' and "
                                           "name!='tb_config' collate nocase order by name"));
    if (!rows)
        return rows.error();
    QStringList names;
    for (const QStringList &row : *rows)
        names << row.first();
    return names;
}

Result<qint64> StoreFile::keepNewest(const TableName &table, qint64 rows)
{
    const auto removal = Removal(table).keeping(rows);
    if (!removal)
        return removal.error();
    return m_connection->change(removal->site, {QStringLiteral("delete from %1 where ID<=(select ID from %1 order by "
                                                               "ID desc limit 1 offset %2)")
                                                    .arg(table.text(), QString::number(removal->keep))});
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

Result<bool> StoreFile::checkpoint()
{
    return m_connection->checkpoint();
}

qint64 StoreFile::failedCommits() const
{
    return m_connection->failedCommits();
}

Result<bool> StoreFile::keep(const TableName &table, const Keep &keep)
{
    bool isNew = false;
    const Status done = m_connection->transaction(keepSite(table.text()), [&]() -> Status {
        const auto set = setKeep(*m_connection, table, keep);
        isNew = set.valueOr(false);
        return set ? Status() : set.error();
    });
    if (!done)
        return done.error();
    return isNew;
}

Result<std::optional<Kept>> StoreFile::kept(const TableName &table)
{
    return keepFile(*m_connection).map([&](const KeepFile &file) {
        const auto found = file.tables.constFind(table.text().toLower());
        return found == file.tables.constEnd() ? std::optional<Kept>() : *found;
    });
}

Result<qint64> StoreFile::usedBytes()
{
    return m_connection->pageCounts().map([](const PageCounts &pages) { return pages.usedBytes(); });
}

template<typename Record>
Result<bool> Store<Record>::createTable(const TableName &table)
{
    return created<Record>(*m_connection, table);
}

template<typename Record>
Result<Appended> Store<Record>::append(const TableName &table, const QList<Record> &rows)
{
    const Site site = at("append", table);
    Appended appended;
    Batch batch;
    QVector<int> places;
    batch.writes.reserve(rows.size());
    places.reserve(rows.size());
    for (int i = 0; i < rows.size(); ++i) {
        RowText row;
        Kind<Record>::encode(rows.at(i), row);
        auto text = row.take(site.operation, site.table);
        if (text) {
            batch.writes.append({Write::Row, table.text(), std::move(text.value()), {}});
            places.append(i);
        } else {
            appended.refused.append({i, text.error()});
        }
    }
    if (const Status stored = store(*m_connection, site, batch); !stored)
        return stored.error();
    appended.stored = int(batch.writes.size() - batch.refused.size());
    for (const Refusal &refusal : batch.refused)
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
                               {table.text(), *where, query.order == Order::NewestFirst, query.offset, query.count});
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
Result<QList<Latest<Record>>> Store<Record>::latest(const QList<TableName> &tables)
{
    constexpr int tablesPerStatement = 400; // SQLite takes 500 SELECTs in one statement
    const char *operation = "read the latest of";
    const auto layouts = layoutsIn(*m_connection);
    if (!layouts)
        return layouts.error();
    const QString wanted = RowCells::selection(Kind<Record>::columns());
    QList<Latest<Record>> all;
    QStringList selects;
    for (const TableName &table : tables) {
        const QString columns = layouts->value(table.text().toLower()).join(QLatin1Char(','));
        Latest<Record> latest{table, {}, {}};
        if (columns.isEmpty())
            latest.error =
                at(operation, table).error(Error::TableMissing, QLatin1String("no such table: ") + table.text());
        else if (columns != wanted)
            latest.error =
                at(operation, table).error(Error::TableLayout, QLatin1String("it has the columns ") + columns);
        else
            selects << QStringLiteral("select %1,%2 from %3 where ID=(select max(ID) from %3)")
                           .arg(QString::number(all.size()), wanted, table.text());
        all.append(latest);
    }
    RowCells cells(Kind<Record>::milliseconds);
    for (int first = 0; first < selects.size(); first += tablesPerStatement) {
        auto rows = m_connection->query({QLatin1String(operation), QString()},
                                        selects.mid(first, tablesPerStatement).join(QLatin1String(" union all ")));
        if (!rows)
            return rows.error();
        for (QStringList &row : *rows) {
            const int place = row.takeFirst().toInt();
            cells.begin(std::move(row));
            all[place].record = Kind<Record>::decode(cells);
        }
    }
    return all;
}

template<typename Record>
Result<std::optional<TimeRange>> Store<Record>::range(const TableName &table)
{
    // In the order of time, so that an index on it finds both ends at once.
    const QString form = QLatin1String("[0-9][0-9][0-9][0-9]-[0-1][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9]") +
                         QLatin1String(Kind<Record>::milliseconds ? ".[0-9][0-9][0-9]" : "");
    const QString end =
        QStringLiteral("(select DATETIME from %1 where DATETIME glob '%2' order by DATETIME").arg(table.text(), form);
    const auto rows =
        m_connection->query(at("look at", table), QStringLiteral("select %1 limit 1),%1 desc limit 1)").arg(end));
    if (!rows)
        return rows.error();
    const QStringList row = rows->first();
    if (row.value(0).isEmpty())
        return std::optional<TimeRange>();
    TimeReader times(Kind<Record>::milliseconds);
    const auto time = [&](const QString &text) { return times.read(text.constData(), text.size()); };
    return std::optional<TimeRange>({time(row.at(0)), time(row.at(1))});
}

template<typename Record>
Result<qint64> Store<Record>::removeBefore(const TableName &table, LocalTime time)
{
    const Site site = at("remove from", table);
    QString text;
    if (!appendTime(text, time, Kind<Record>::milliseconds))
        return site.error(Error::TimeRefused, QStringLiteral("the tables cannot hold this time"));
    return m_connection->change(site,
                                {QStringLiteral("delete from %1 where DATETIME<%2").arg(table.text(), quoted(text))});
}

template class Store<Sample>;
template class Store<Alarm>;
template class Store<LogEntry>;

Result<HistoryStore> HistoryStore::open(const Library &library, const QString &path, const OpenOptions &options)
{
    return Connection::open(library, path, options).map([](std::shared_ptr<Connection> connection) {
        return HistoryStore(std::move(connection));
    });
}

Result<bool> HistoryStore::createTable(const TableName &table, const SeriesInfo &info)
{
    return created<Sample>(*m_connection, table, info);
}

Result<QList<Series>> HistoryStore::series()
{
    return seriesIn(*m_connection);
}

Result<AlarmStore> AlarmStore::open(const Library &library, const QString &path, const OpenOptions &options)
{
    return Connection::open(library, path, options).map([](std::shared_ptr<Connection> connection) {
        return AlarmStore(std::move(connection));
    });
}

Result<QList<Alarm>> AlarmStore::active(const TableName &table)
{
    return read(table, Query<Alarm>().active());
}

Result<bool> AlarmStore::raiseUnlessActive(const TableName &table, const Alarm &alarm)
{
    const Site site = at("raise", table);
    const auto statement = raisingStatement(site.operation, table.text(), alarm);
    if (!statement)
        return statement.error();
    return m_connection->change(site, {*statement}).map([](qint64 raised) { return raised > 0; });
}

Result<qint64> AlarmStore::end(const TableName &table, const QString &object, const QString &type, LocalTime when)
{
    const Site site = at("end", table);
    const auto statement = endingStatement(site.operation, table.text(), object, type, when);
    if (!statement)
        return statement.error();
    return m_connection->change(site, {*statement});
}

Result<qint64> AlarmStore::removeEndedAndBefore(const TableName &table, LocalTime time)
{
    const Site site = at("remove from", table);
    QString text;
    if (!appendTime(text, time, false))
        return site.error(Error::TimeRefused, QStringLiteral("the tables cannot hold this time"));
    return m_connection->change(site, {QStringLiteral("delete from %1 where DATETIME<%2 or EndDate!='' and EndTime!=''")
                                           .arg(table.text(), quoted(text))});
}

Result<LogStore> LogStore::open(const Library &library, const QString &path, const OpenOptions &options)
{
    return Connection::open(library, path, options).map([](std::shared_ptr<Connection> connection) {
        return LogStore(std::move(connection));
    });
}

} // namespace device
