// SPDX-License-Identifier: MIT
#include "rollup_file.h"

#include "keep_file.h"
#include "row_text.h"
#include "time_text.h"

#include <algorithm>

namespace device
{

namespace
{

// Both with a blank, as all that this layer adds to a file: see schema.cpp.
constexpr const char *series = "\"device trend series\"";
constexpr const char *trend = "\"device trend\"";

constexpr int bitsOfTime = 36; // a day's number, or a second's, of the years 1 to 9999
constexpr int bitsOfLevel = 4;
constexpr int bitsOfBucket = bitsOfTime + bitsOfLevel;
constexpr qint64 widths[] = {10, 60, 600, 3600, 86400}; // by TrendLevel
constexpr qint64 mostNumbers = 1LL << (63 - bitsOfBucket);

constexpr int bucketsToRemove = 2000;

Result<bool> areThere(SqlChannel &connection, const Site &site)
{
    const auto found = connection.query(
        site, QStringLiteral(
                  "select name,(select group_concat(name||' '||upper(type)||' '||pk) from pragma_table_info(m.name)) "
                  "from sqlite_master m where type='table' and name in ('device trend','device trend series') order by "
                  "name"));
    if (!found)
        return found.error();
    const QList<QStringList> expected{
        {QStringLiteral("device trend"), QStringLiteral("K INTEGER 1,D TEXT 0")},
        {QStringLiteral("device trend series"),
         QStringLiteral("N INTEGER 1,COLLECTOR TEXT 0,LEVELS TEXT 0,MARK INTEGER 0,MARKED TEXT 0,FRONT INTEGER 0,"
                        "VERSION INTEGER 0")}};
    const bool isOurs =
        std::all_of(found->begin(), found->end(), [&](const QStringList &table) { return expected.contains(table); });
    if (!isOurs)
        return site.error(Error::TableLayout, QStringLiteral("the tables for trends have other columns"));
    return found->size() == expected.size(); // one alone says nothing
}

Result<std::optional<RollupState>> stateOf(SqlChannel &connection, const Site &site, const QString &table)
{
    // SQLite works out both sides of an "or": with it, the rows would be counted each time.
    const auto rows = connection.query(
        site,
        QStringLiteral("select N,LEVELS,MARK,max(ifnull((select seq from sqlite_sequence where name=COLLECTOR collate "
                       "nocase),0),ifnull((select max(ID) from %1),0)),case when MARKED is null or not exists(select 1 "
                       "from %1 where ID=MARK) or exists(select 1 from %1 where ID=MARK and "
                       "substr(MARKED,1,length(DATETIME)+1) is DATETIME||' ') then 1 "
                       "else (select count(*) from %1 where ID>0 and ID<=MARK)<MARK end,FRONT,VERSION from %2 where "
                       "COLLECTOR=%3")
            .arg(table, QLatin1String(series), quoted(table)));
    if (!rows)
        return rows.error();
    if (rows->isEmpty())
        return std::optional<RollupState>();
    const QStringList &cells = rows->first();
    if (cells.at(6).toInt() != rollupVersion)
        return site.error(Error::TableLayout,
                          QStringLiteral("its trend is of version %1; this program knows version %2")
                              .arg(cells.at(6), QString::number(rollupVersion)));
    RollupState state;
    state.number = cells.at(0).toLongLong();
    state.mark = cells.at(2).toLongLong();
    state.last = cells.at(3).toLongLong();
    state.front = cells.at(5).toLongLong();
    bool isOurs = state.number > 0 && state.number < mostNumbers && state.mark >= 0 && state.front >= 0 &&
                  state.front <= lastSecond;
    const QStringList levels = cells.at(1).split(QLatin1Char(','));
    for (const QString &level : levels) {
        const qint64 width = level.toLongLong();
        isOurs = isOurs && std::find(std::begin(widths), std::end(widths), width) != std::end(widths) &&
                 (state.levels.empty() || state.levels.back() < width);
        state.levels.push_back(width);
    }
    if (!isOurs)
        return site.error(Error::Failed, QStringLiteral("what the file says of its trend cannot be read"));
    state.isOfThisTable = cells.at(4) == QLatin1String("1") && state.last >= state.mark;
    return std::optional<RollupState>(state);
}

QString unusedNumber()
{
    return QStringLiteral("(select max(ifnull((select max(N) from %1),0),ifnull((select max(K)>>%2 from %3),0))+1)")
        .arg(QLatin1String(series), QString::number(bitsOfBucket), QLatin1String(trend));
}

} // namespace

Buckets bucketsOf(const QList<QStringList> &rows, int timeColumn, qint64 width)
{
    TimeReader times(false);
    Buckets buckets;
    for (const QStringList &row : rows) {
        const QString &text = row.at(timeColumn);
        const LocalTime time = times.read(text.constData(), text.size());
        if (time.isValid())
            buckets[secondsOf(time) / width * width].add(secondsOf(time), row.at(timeColumn + 1));
    }
    return buckets;
}

qint64 widthOf(TrendLevel level)
{
    return widths[int(level)];
}

std::optional<TrendLevel> levelOf(qint64 width)
{
    const auto found = std::find(std::begin(widths), std::end(widths), width);
    if (found == std::end(widths))
        return {};
    return TrendLevel(found - std::begin(widths));
}

Site trendSite(const QString &table)
{
    return {QStringLiteral("keep the trend of"), table};
}

qint64 RollupState::frontWith(const Buckets &buckets) const
{
    return buckets.empty() ? front : std::max(front, buckets.rbegin()->first);
}

qint64 bucketKey(qint64 number, qint64 width, qint64 time)
{
    const qint64 level = std::find(std::begin(widths), std::end(widths), width) - std::begin(widths);
    return (((number << bitsOfLevel) | level) << bitsOfTime) | (time / width);
}

QStringList creationOfRollups()
{
    return {QStringLiteral("create table if not exists %1(K INTEGER PRIMARY KEY,D text)").arg(QLatin1String(trend)),
            QStringLiteral("create table if not exists %1(N INTEGER PRIMARY KEY,COLLECTOR text UNIQUE COLLATE NOCASE,"
                           "LEVELS text,MARK integer,MARKED text,FRONT integer,VERSION integer)")
                .arg(QLatin1String(series))};
}

QString keysOf(qint64 number)
{
    const qint64 first = number << bitsOfBucket;
    return QStringLiteral("K>=%1 and K<=%2").arg(first).arg(first + ((1LL << bitsOfBucket) - 1));
}

Result<std::vector<StoredBucket>> storedBuckets(SqlChannel &connection, const Site &site, qint64 number, qint64 width,
                                                TimeSpan span, qint64 most)
{
    const qint64 zero = bucketKey(number, width, 0);
    std::vector<StoredBucket> buckets;
    if (span.begin >= span.end)
        return buckets;
    const auto rows =
        connection.query(site, QStringLiteral("select K,case length(cast(D as blob)) when length(D) then D end from %1 "
                                              "where K>=%2 and K<=%3 order by K limit %4")
                                   .arg(QLatin1String(trend))
                                   .arg(zero + span.begin / width)
                                   .arg(zero + (span.end - 1) / width)
                                   .arg(most));
    if (!rows)
        return rows.error();
    buckets.reserve(size_t(rows->size()));
    for (const QStringList &row : *rows) {
        const qint64 start = (row.at(0).toLongLong() - zero) * width;
        const QByteArray text = row.at(1).toUtf8();
        Bucket bucket;
        const bool isRead = bucket.add(text.constData(), text.constData() + text.size(), {start, start + width});
        buckets.push_back({start, isRead ? std::optional<Bucket>(std::move(bucket)) : std::nullopt});
    }
    return buckets;
}

Result<std::optional<RollupState>> rollupState(SqlChannel &connection, const Site &site, const QString &table)
{
    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    if (!*there)
        return std::optional<RollupState>();
    auto state = stateOf(connection, site, table);
    if (!state || !*state)
        return state;
    const auto floors = sumFloors(connection, table);
    if (!floors)
        return floors.error();
    for (const qint64 width : (*state)->levels) {
        const auto floor = floors->find(width);
        (*state)->floors.push_back(floor == floors->end() ? 0 : (floor->second + width - 1) / width * width);
    }
    return state;
}

Result<bool> beginRollups(SqlChannel &connection, const TableName &table, const TrendOptions &options)
{
    const Site site = trendSite(table.text());
    QVector<TrendLevel> levels = options.levels;
    std::sort(levels.begin(), levels.end());
    levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
    if (levels.isEmpty() || levels.first() < TrendLevel::TenSeconds || levels.last() > TrendLevel::Day)
        return site.error(Error::OptionRefused, QStringLiteral("levels are none, or not all are of TrendLevel"));
    QStringList seconds;
    for (const TrendLevel level : levels)
        seconds << QString::number(widthOf(level));

    // The mark is an ID: where IDs are given a second time it would say nothing.
    const auto counted =
        connection.ask(site, QStringLiteral("select (select group_concat(name) from pragma_table_info(m.name)),"
                                            "instr(upper(sql),'AUTOINCREMENT') from sqlite_master m where "
                                            "type='table' and name=%1 collate nocase")
                                 .arg(quoted(table.text())));
    if (!counted)
        return counted.error();
    if (counted->isEmpty())
        return site.error(Error::TableMissing, QStringLiteral("there is no such table"));
    if (counted->first().at(0) != QLatin1String("ID,DATETIME,Value") || counted->first().at(1) == QLatin1String("0"))
        return site.error(Error::TableLayout, QStringLiteral("it is not a table of samples with IDs of its own"));

    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    QStringList statements;
    if (!*there) {
        statements = creationOfRollups();
        // Where somebody dropped the buckets, all tables begin anew.
        statements << QStringLiteral("update %1 set MARK=0,MARKED=NULL,FRONT=0").arg(QLatin1String(series));
    } else {
        const auto levelsNow = connection.ask(site, QStringLiteral("select LEVELS from %1 where COLLECTOR=%2")
                                                        .arg(QLatin1String(series), quoted(table.text())));
        if (!levelsNow)
            return levelsNow.error();
        if (!levelsNow->isEmpty() && levelsNow->first().first() == seconds.join(QLatin1Char(',')))
            return false;
    }
    statements << QStringLiteral("insert or replace into %1 select %2,%3,'%4',0,NULL,0,%5")
                      .arg(QLatin1String(series), unusedNumber(), quoted(table.text()), seconds.join(QLatin1Char(',')),
                           QString::number(rollupVersion));
    for (const QString &statement : statements) {
        if (const Status done = connection.run(site, statement); !done)
            return done.error();
    }
    return true;
}

Result<bool> endRollups(SqlChannel &connection, const TableName &table)
{
    const Site site{QStringLiteral("drop the trend of"), table.text()};
    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    if (!*there)
        return false;
    if (const Status done = connection.run(
            site, QStringLiteral("delete from %1 where COLLECTOR=%2").arg(QLatin1String(series), quoted(table.text())));
        !done)
        return done.error();
    const auto changed = connection.ask(site, QStringLiteral("select changes()"));
    if (!changed)
        return changed.error();
    return changed->first().first() != QLatin1String("0");
}

Result<QStringList> tablesWithRollups(SqlChannel &connection)
{
    const Site site = trendSite(QStringLiteral("all tables"));
    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    QStringList tables;
    if (!*there)
        return tables;
    const auto rows = connection.query(site, QStringLiteral("select COLLECTOR from %1").arg(QLatin1String(series)));
    if (!rows)
        return rows.error();
    for (const QStringList &row : *rows) {
        if (TableName::from(row.first())) // it goes into statements
            tables << row.first();
    }
    return tables;
}

Result<QVector<qint64>> rollupsOfNoTable(SqlChannel &connection)
{
    const Site site = trendSite(QStringLiteral("all tables"));
    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    QVector<qint64> numbers;
    if (!*there)
        return numbers;
    const auto rows = connection.query(
        site, QStringLiteral("with recursive n(N) as (select min(K)>>%1 from %2 union select (select min(K)>>%1 "
                             "from %2 where K>=(N+1)<<%1) from n where N is not null) select N from n where N is not "
                             "null and N not in (select N from %3)")
                  .arg(QString::number(bitsOfBucket), QLatin1String(trend), QLatin1String(series)));
    if (!rows)
        return rows.error();
    for (const QStringList &row : *rows) {
        if (const qint64 number = row.first().toLongLong(); number > 0 && number < mostNumbers)
            numbers << number;
    }
    return numbers;
}

Result<bool> removeRollups(SqlChannel &connection, qint64 number)
{
    const auto removed = connection.change(
        trendSite(QStringLiteral("all tables")),
        {QStringLiteral(
             "delete from %1 where K in (select K from %1 where %2 limit %3) and not exists(select 1 from %4 "
             "where N=%5)")
             .arg(QLatin1String(trend), keysOf(number), QString::number(bucketsToRemove), QLatin1String(series),
                  QString::number(number))});
    if (!removed)
        return removed.error();
    return *removed < bucketsToRemove;
}

Status removeRollupsBefore(SqlChannel &connection, const Site &site, const QString &table, qint64 width, qint64 second)
{
    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    if (!*there)
        return {};
    const auto number = connection.ask(
        site, QStringLiteral("select N from %1 where COLLECTOR=%2").arg(QLatin1String(series), quoted(table)));
    if (!number)
        return number.error();
    if (number->isEmpty())
        return {};
    const qint64 ours = number->first().first().toLongLong();
    return connection.run(site, QStringLiteral("delete from %1 where K>=%2 and K<%3")
                                    .arg(QLatin1String(trend))
                                    .arg(bucketKey(ours, width, 0))
                                    .arg(bucketKey(ours, width, second)));
}

Status beginAnew(SqlChannel &connection, const Site &site, const RollupState &state)
{
    return connection.run(site, QStringLiteral("update %1 set N=%2,MARK=0,MARKED=NULL,FRONT=0 where N=%3")
                                    .arg(QLatin1String(series), unusedNumber(), QString::number(state.number)));
}

Result<QHash<QString, RollupMark>> rollupMarks(SqlChannel &connection, const Site &site)
{
    const auto rows = connection.ask(site, QStringLiteral("select COLLECTOR,N,MARK from %1 union all select name,NULL,"
                                                          "seq from sqlite_sequence")
                                               .arg(QLatin1String(series)));
    if (!rows)
        return rows.error();
    QHash<QString, RollupMark> marks;
    for (const QStringList &row : *rows) {
        RollupMark &mark = marks[row.at(0).toLower()];
        if (row.at(1).isEmpty()) {
            mark.last = row.at(2).toLongLong();
        } else {
            mark.number = row.at(1).toLongLong();
            mark.mark = row.at(2).toLongLong();
        }
    }
    return marks;
}

} // namespace device
