// SPDX-License-Identifier: MIT
#include "rollups.h"

#include "row_text.h"

#include <algorithm>

namespace device
{

namespace
{

// Both with a blank, as all that this layer adds to a file: see schema.cpp.
constexpr const char *series = "\"device trend series\"";
constexpr const char *trend = "\"device trend\"";
constexpr int version = 1;

constexpr int bitsOfTime = 36; // a day's number, or a second's, of the years 1 to 9999
constexpr int bitsOfLevel = 4;
constexpr int bitsOfBucket = bitsOfTime + bitsOfLevel;
constexpr qint64 widths[] = {10, 60, 600, 3600, 86400}; // by TrendLevel

constexpr qint64 rowsInMemory = 2000; // a reader looks at so many rows by themselves
constexpr std::chrono::seconds timeInMemory{60};
constexpr qint64 spanInMemory = 60;
constexpr qint64 rowsOfASlice = 5000;
constexpr int bucketsOfAStatement = 200;
constexpr int bucketsToRemove = 2000;

Site siteOf(const QString &table)
{
    return {QStringLiteral("keep the trend of"), table};
}

Result<bool> areThere(Connection &connection, const Site &site)
{
    const auto found = connection.ask(
        site,
        QStringLiteral("select name,(select group_concat(name) from pragma_table_info(m.name)) from sqlite_master "
                       "m where type='table' and name in ('device trend','device trend series') order by name"));
    if (!found)
        return found.error();
    if (found->isEmpty())
        return false;
    const QList<QStringList> expected{
        {QStringLiteral("device trend"), QStringLiteral("K,D")},
        {QStringLiteral("device trend series"), QStringLiteral("N,COLLECTOR,LEVELS,MARK,MARKED,FRONT,VERSION")}};
    if (*found != expected)
        return site.error(Error::TableLayout, QStringLiteral("the tables for trends have other columns"));
    return true;
}

Result<std::optional<RollupState>> stateOf(Connection &connection, const Site &site, const QString &table)
{
    const auto rows = connection.ask(
        site,
        QStringLiteral("select N,LEVELS,MARK,ifnull((select seq from sqlite_sequence where name=COLLECTOR collate "
                       "nocase),0),MARKED is null or not exists(select 1 from %1 where ID=MARK) or MARKED is (select "
                       "DATETIME||' '||Value from %1 where ID=MARK),FRONT,VERSION from %2 where COLLECTOR=%3")
            .arg(table, QLatin1String(series), quoted(table)));
    if (!rows)
        return rows.error();
    if (rows->isEmpty())
        return std::optional<RollupState>();
    const QStringList &cells = rows->first();
    if (cells.at(6).toInt() != version)
        return site.error(Error::TableLayout,
                          QStringLiteral("its trend is of version %1; this program knows version %2")
                              .arg(cells.at(6), QString::number(version)));
    RollupState state;
    state.number = cells.at(0).toLongLong();
    const QStringList levels = cells.at(1).split(QLatin1Char(','));
    for (const QString &level : levels)
        state.levels.push_back(level.toLongLong());
    state.mark = cells.at(2).toLongLong();
    state.last = cells.at(3).toLongLong();
    state.front = cells.at(5).toLongLong();
    state.isOfThisTable = cells.at(4) == QLatin1String("1") && state.last >= state.mark;
    return std::optional<RollupState>(state);
}

QString unusedNumber()
{
    return QStringLiteral("(select max(ifnull((select max(N) from %1),0),ifnull((select max(K)>>%2 from %3),0))+1)")
        .arg(QLatin1String(series), QString::number(bitsOfBucket), QLatin1String(trend));
}

using Buckets = std::map<qint64, Bucket>; // by the time at which they begin

// Buckets of any levels and tables, on their way into the file.
class NewBuckets
{
public:
    void add(qint64 number, qint64 width, qint64 start, const Bucket &bucket)
    {
        m_buckets.push_back({bucketKey(number, width, start), start, &bucket});
    }
    /// Adds them to those that are in the file.
    Status write(Connection &connection, const Site &site) const;

private:
    struct Each {
        qint64 key;
        qint64 start;
        const Bucket *bucket;
    };
    using Some = std::vector<Each>::const_iterator;

    static Status write(Connection &connection, const Site &site, Some begin, Some end);

    std::vector<Each> m_buckets;
};

Status NewBuckets::write(Connection &connection, const Site &site) const
{
    for (auto begin = m_buckets.begin(); begin != m_buckets.end();) {
        const auto end = begin + std::min<std::ptrdiff_t>(bucketsOfAStatement, m_buckets.end() - begin);
        if (const Status done = write(connection, site, begin, end); !done)
            return done;
        begin = end;
    }
    return {};
}

Status NewBuckets::write(Connection &connection, const Site &site, Some begin, Some end)
{
    QStringList keys;
    for (auto each = begin; each != end; ++each)
        keys << QString::number(each->key);
    const auto rows = connection.ask(
        site,
        QStringLiteral("select K,D from %1 where K in (%2)").arg(QLatin1String(trend), keys.join(QLatin1Char(','))));
    if (!rows)
        return rows.error();
    QHash<QString, QByteArray> inFile;
    for (const QStringList &row : *rows)
        inFile.insert(row.at(0), row.at(1).toUtf8());
    QByteArray sql = QByteArray("insert or replace into ") + trend + " values ";
    for (auto each = begin; each != end; ++each) {
        const QString key = keys.at(int(each - begin));
        Bucket all;
        if (const auto there = inFile.constFind(key);
            there != inFile.constEnd() && !all.add(there->constData(), there->constData() + there->size(), each->start))
            return site.error(Error::Failed, QStringLiteral("bucket %1 of its trend cannot be read").arg(key));
        all.add(*each->bucket);
        sql += '(' + key.toLatin1() + ",'" + all.text(each->start) + "'),";
    }
    sql.chop(1);
    return connection.run(site, QString::fromLatin1(sql));
}

qint64 latestIn(const Buckets &buckets)
{
    return buckets.empty() ? 0 : buckets.rbegin()->first;
}

// The buckets of one of the wider levels. Those behind the front are in the file: what came late is added to them.
// Those that the front passes now are put together from the level below, which is in the file up to there.
Status addToWider(Connection &connection, const Site &site, const RollupState &state, size_t level, qint64 newFront,
                  const Buckets &finest)
{
    const qint64 width = state.levels[level];
    const qint64 narrower = state.levels[level - 1];
    const qint64 closed = state.front / width * width;
    const qint64 nowClosed = newFront / width * width;
    Buckets wider;
    for (auto late = finest.begin(); late != finest.end() && late->first < closed; ++late)
        wider[late->first / width * width].add(late->second);
    if (nowClosed > closed) {
        const auto rows = connection.ask(site, QStringLiteral("select K,D from %1 where K>=%2 and K<%3 order by K")
                                                   .arg(QLatin1String(trend))
                                                   .arg(bucketKey(state.number, narrower, closed))
                                                   .arg(bucketKey(state.number, narrower, nowClosed)));
        if (!rows)
            return rows.error();
        for (const QStringList &row : *rows) {
            const qint64 start =
                closed + (row.at(0).toLongLong() - bucketKey(state.number, narrower, closed)) * narrower;
            const QByteArray text = row.at(1).toUtf8();
            if (!wider[start / width * width].add(text.constData(), text.constData() + text.size(), start))
                return site.error(Error::Failed,
                                  QStringLiteral("bucket %1 of its trend cannot be read").arg(row.at(0)));
        }
    }
    NewBuckets buckets;
    for (const auto &[start, bucket] : wider)
        buckets.add(state.number, width, start, bucket);
    return buckets.write(connection, site);
}

// What rows above the mark made, buckets of the finest level, is in the file already on that level.
Status addToAllWider(Connection &connection, const Site &site, const RollupState &state, qint64 newFront,
                     const Buckets &finest)
{
    for (size_t level = 1; level < state.levels.size(); ++level) {
        if (const Status done = addToWider(connection, site, state, level, newFront, finest); !done)
            return done;
    }
    return {};
}

QString listOf(const std::vector<qint64> &levels)
{
    QStringList list;
    for (const qint64 level : levels)
        list << QString::number(level);
    return list.join(QLatin1Char(','));
}

// A row of the table of series; `marked` is SQL.
QString seriesRow(const QString &table, const RollupState &state, qint64 mark, const QString &marked, qint64 front)
{
    return QStringLiteral("(%1,%2,'%3',%4,%5,%6,%7)")
        .arg(QString::number(state.number), quoted(table), listOf(state.levels), QString::number(mark), marked,
             QString::number(front), QString::number(version));
}

Status replaceSeries(Connection &connection, const Site &site, const QStringList &rows)
{
    return connection.run(site, QStringLiteral("insert or replace into ") + QLatin1String(series) +
                                    QLatin1String(" values ") + rows.join(QLatin1Char(',')));
}

} // namespace

qint64 bucketKey(qint64 number, qint64 width, qint64 time)
{
    const qint64 level = std::find(std::begin(widths), std::end(widths), width) - std::begin(widths);
    return (((number << bitsOfLevel) | level) << bitsOfTime) | (time / width);
}

Result<std::optional<RollupState>> rollupState(Connection &connection, const Site &site, const QString &table)
{
    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    return *there ? stateOf(connection, site, table) : std::optional<RollupState>();
}

Result<bool> beginRollups(Connection &connection, const TableName &table, const TrendOptions &options)
{
    const Site site = siteOf(table.text());
    QVector<TrendLevel> levels = options.levels;
    std::sort(levels.begin(), levels.end());
    levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
    if (levels.isEmpty() || levels.first() < TrendLevel::TenSeconds || levels.last() > TrendLevel::Day)
        return site.error(Error::OptionRefused, QStringLiteral("levels are none, or not all are of TrendLevel"));
    QStringList seconds;
    for (const TrendLevel level : levels)
        seconds << QString::number(widths[int(level)]);

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
        statements << QStringLiteral("create table %1(K INTEGER PRIMARY KEY,D text)").arg(QLatin1String(trend))
                   << QStringLiteral("create table %1(N INTEGER PRIMARY KEY,COLLECTOR text UNIQUE COLLATE NOCASE,"
                                     "LEVELS text,MARK integer,MARKED text,FRONT integer,VERSION integer)")
                          .arg(QLatin1String(series));
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
                           QString::number(version));
    for (const QString &statement : statements) {
        if (const Status done = connection.run(site, statement); !done)
            return done.error();
    }
    return true;
}

Result<bool> endRollups(Connection &connection, const TableName &table)
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

Status Rollups::open(Connection &connection)
{
    m_tables.clear();
    m_gone.clear();
    const Site site = siteOf(QStringLiteral("all tables"));
    const auto there = areThere(connection, site);
    if (!there)
        return there.error();
    if (!*there)
        return {};
    const auto rows = connection.ask(
        site, QStringLiteral("select COLLECTOR from %1 where VERSION=%2").arg(QLatin1String(series)).arg(version));
    if (!rows)
        return rows.error();
    const auto numbers = connection.ask(
        site, QStringLiteral("with recursive n(N) as (select min(K)>>%1 from %2 union all select (select min(K)>>%1 "
                             "from %2 where K>=(N+1)<<%1) from n where N is not null) select N from n where N is not "
                             "null and N not in (select N from %3)")
                  .arg(QString::number(bitsOfBucket), QLatin1String(trend), QLatin1String(series)));
    if (!numbers)
        return numbers.error();
    for (const QStringList &row : *rows) {
        Table table;
        table.name = row.at(0);
        m_tables.push_back(std::move(table));
    }
    for (const QStringList &row : *numbers)
        m_gone.push_back(row.first().toLongLong());
    return {};
}

void Rollups::stored(const Write &row)
{
    const auto table = std::find_if(m_tables.begin(), m_tables.end(), [&](const Table &each) {
        return each.name.compare(row.table, Qt::CaseInsensitive) == 0;
    });
    if (table == m_tables.end() || table->behind)
        return;
    if (table->rows++ == 0)
        table->since = Clock::now();
    table->newest = row.text;
    const RowText::SampleCells cells = RowText::sampleCells(row.text);
    const LocalTime time = m_times.read(cells.time, m_times.length());
    if (!time.isValid())
        return;
    const qint64 seconds = secondsOf(time);
    const qint64 width = table->state.levels.front();
    table->buckets[seconds / width * width].add(seconds, cells.value, cells.valueSize);
}

bool Rollups::isDue(const Table &table)
{
    return !table.behind && table.rows > 0 &&
           (table.rows >= rowsInMemory || Clock::now() - table.since >= timeInMemory ||
            (!table.buckets.empty() && table.buckets.rbegin()->first - table.buckets.begin()->first >= spanInMemory));
}

bool Rollups::isDue() const
{
    return std::any_of(m_tables.begin(), m_tables.end(), [](const Table &table) { return isDue(table); });
}

// What is in memory no longer fits what is in the file; the rows are read there.
void Rollups::forget(Table &table)
{
    table.behind = true;
    table.rows = 0;
    table.buckets.clear();
}

Status Rollups::write(Connection &connection, bool all)
{
    std::vector<Table *> tables;
    for (Table &table : m_tables) {
        table.isWritten = false;
        if (!table.behind && table.rows > 0 && (all || isDue(table)))
            tables.push_back(&table);
    }
    if (tables.empty())
        return {};
    const Status done = write(connection, std::move(tables));
    if (!done && !isOfTheFile(done.error().code())) {
        for (Table &table : m_tables)
            forget(table);
    }
    return done;
}

// Few statements, however many tables there are: compiling them is what this costs.
Status Rollups::write(Connection &connection, std::vector<Table *> tables)
{
    const Site site = siteOf(QStringLiteral("some tables"));
    const auto rowsThere =
        connection.ask(site, QStringLiteral("select COLLECTOR,N,MARK from %1 union all select name,NULL,seq from "
                                            "sqlite_sequence")
                                 .arg(QLatin1String(series)));
    if (!rowsThere)
        return rowsThere.error();
    QHash<QString, QStringList> markOf, lastOf;
    for (const QStringList &row : *rowsThere)
        (row.at(1).isEmpty() ? lastOf : markOf).insert(row.at(0).toLower(), row);

    NewBuckets finest;
    QStringList rows;
    for (Table *&table : tables) {
        const QStringList mark = markOf.value(table->name.toLower());
        const RollupState &state = table->state;
        table->newMark = lastOf.value(table->name.toLower()).value(2).toLongLong();
        if (mark.value(1).toLongLong() != state.number || mark.value(2).toLongLong() != state.mark ||
            table->newMark - state.mark != table->rows) { // somebody else stored or deleted
            forget(*table);
            table = nullptr;
            continue;
        }
        table->newFront = std::max(state.front, latestIn(table->buckets));
        for (const auto &[start, bucket] : table->buckets)
            finest.add(state.number, state.levels.front(), start, bucket);
        const RowText::SampleCells cells = RowText::sampleCells(table->newest);
        rows << seriesRow(table->name, state, table->newMark,
                          QLatin1Char('\'') + QString(cells.time, m_times.length()) + QLatin1Char(' ') +
                              QString(cells.value, int(cells.valueSize)) + QLatin1Char('\''),
                          table->newFront);
    }
    if (rows.isEmpty())
        return {};
    if (const Status written = finest.write(connection, site); !written)
        return written;
    for (Table *table : tables) {
        if (!table)
            continue;
        const Status added = addToAllWider(connection, site, table->state, table->newFront, table->buckets);
        if (!added)
            return added;
        table->isWritten = true;
    }
    return replaceSeries(connection, site, rows);
}

void Rollups::written()
{
    for (Table &table : m_tables) {
        if (!std::exchange(table.isWritten, false))
            continue;
        table.state.mark = table.newMark;
        table.state.front = table.newFront;
        table.rows = 0;
        table.buckets.clear();
    }
}

bool Rollups::isBehind() const
{
    return !m_gone.empty() ||
           std::any_of(m_tables.begin(), m_tables.end(), [](const Table &table) { return table.behind; });
}

Status Rollups::catchUp(Connection &connection)
{
    const auto table = std::find_if(m_tables.begin(), m_tables.end(), [](const Table &each) { return each.behind; });
    if (table == m_tables.end())
        return m_gone.empty() ? Status() : removeGone(connection);
    const Status done = catchUp(connection, *table);
    if (done || isOfTheFile(done.error().code()))
        return done;
    // A table that was deleted, or buckets that somebody changed, would fail again and again.
    if (done.error().code() != Error::TableMissing)
        m_trouble = done.error();
    m_tables.erase(table);
    return {};
}

Status Rollups::catchUp(Connection &connection, Table &table)
{
    const Site site = siteOf(table.name);
    std::optional<RollupState> state;
    qint64 gone = 0;
    bool isAtEnd = false;
    const Status done = connection.transaction(site, [&]() -> Status {
        gone = 0;
        const auto found = stateOf(connection, site, table.name);
        if (!found)
            return found.error();
        state = *found;
        if (!state)
            return {};
        if (!state->isOfThisTable) {
            gone = state->number;
            const QString anew = QStringLiteral("update %1 set N=%2,MARK=0,MARKED=NULL,FRONT=0 where N=%3")
                                     .arg(QLatin1String(series), unusedNumber(), QString::number(gone));
            return connection.run(site, anew);
        }
        const auto rows =
            connection.ask(site, QStringLiteral("select ID,DATETIME,Value from %1 where ID>%2 order by ID limit %3")
                                     .arg(table.name, QString::number(state->mark), QString::number(rowsOfASlice)));
        if (!rows)
            return rows.error();
        Buckets buckets;
        const qint64 width = state->levels.front();
        for (const QStringList &row : *rows) {
            const LocalTime time = m_times.read(row.at(1).constData(), row.at(1).size());
            if (time.isValid())
                buckets[secondsOf(time) / width * width].add(secondsOf(time), row.at(2));
        }
        isAtEnd = rows->size() < rowsOfASlice;
        const qint64 mark = isAtEnd ? state->last : rows->last().at(0).toLongLong();
        if (mark == state->mark)
            return {};
        NewBuckets finest;
        for (const auto &[start, bucket] : buckets)
            finest.add(state->number, width, start, bucket);
        if (const Status written = finest.write(connection, site); !written)
            return written;
        const qint64 front = std::max(state->front, latestIn(buckets));
        if (const Status added = addToAllWider(connection, site, *state, front, buckets); !added)
            return added;
        state->mark = mark;
        state->front = front;
        const QString marked =
            QStringLiteral("(select DATETIME||' '||Value from %1 where ID=%2)").arg(table.name).arg(mark);
        return replaceSeries(connection, site, {seriesRow(table.name, *state, mark, marked, front)});
    });
    if (!done)
        return done;
    if (!state)
        return site.error(Error::TableMissing, QStringLiteral("its trend is no longer kept"));
    if (gone != 0) {
        m_gone.push_back(gone);
        return {};
    }
    table.state = *state;
    table.behind = !isAtEnd;
    return {};
}

// The buckets of a trend that was dropped or began anew.
Status Rollups::removeGone(Connection &connection)
{
    const qint64 number = m_gone.back();
    const auto removed =
        connection.change(siteOf(QStringLiteral("all tables")),
                          {QStringLiteral("delete from %1 where K in (select K from %1 where K>=%2 and K<%3 limit %4)")
                               .arg(QLatin1String(trend), QString::number(number << bitsOfBucket),
                                    QString::number((number + 1) << bitsOfBucket), QString::number(bucketsToRemove))});
    if (!removed)
        return removed.error();
    if (*removed < bucketsToRemove)
        m_gone.pop_back();
    return {};
}

std::optional<Error> Rollups::takeTrouble()
{
    return std::exchange(m_trouble, std::nullopt);
}

} // namespace device
