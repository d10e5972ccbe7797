// SPDX-License-Identifier: MIT
//
// How buckets get into a file: added to those that are there, or in their place.
#include "rollup_file.h"

#include "row_text.h"

#include <algorithm>
#include <set>

namespace device
{

namespace
{

constexpr int bucketsOfAStatement = 200;

Error unreadable(const Site &site, qint64 key)
{
    return site.error(Error::Failed, QStringLiteral("bucket %1 of its trend cannot be read").arg(key));
}

// Buckets of any levels and tables, on their way into the file.
class NewBuckets
{
public:
    void add(qint64 number, qint64 width, qint64 start, const Bucket &bucket)
    {
        m_buckets.push_back({bucketKey(number, width, start), {start, start + width}, &bucket});
    }
    /// Adds them to those that are in the file.
    Status write(SqlChannel &connection, const Site &site) const;

private:
    struct Each {
        qint64 key;
        TimeSpan span;
        const Bucket *bucket;
    };
    using Some = std::vector<Each>::const_iterator;

    static Status write(SqlChannel &connection, const Site &site, Some begin, Some end);

    std::vector<Each> m_buckets;
};

Status NewBuckets::write(SqlChannel &connection, const Site &site) const
{
    for (auto begin = m_buckets.begin(); begin != m_buckets.end();) {
        const auto end = begin + std::min<std::ptrdiff_t>(bucketsOfAStatement, m_buckets.end() - begin);
        if (const Status done = write(connection, site, begin, end); !done)
            return done;
        begin = end;
    }
    return {};
}

Status NewBuckets::write(SqlChannel &connection, const Site &site, Some begin, Some end)
{
    QStringList keys;
    for (auto each = begin; each != end; ++each)
        keys << QString::number(each->key);
    const auto rows = connection.ask(
        site, QStringLiteral("select K,D from \"device trend\" where K in (%1)").arg(keys.join(QLatin1Char(','))));
    if (!rows)
        return rows.error();
    QHash<QString, QByteArray> inFile;
    for (const QStringList &row : *rows)
        inFile.insert(row.at(0), row.at(1).toUtf8());
    QByteArray sql = "insert or replace into \"device trend\" values ";
    for (auto each = begin; each != end; ++each) {
        const QString &key = keys.at(int(each - begin));
        Bucket all;
        if (const auto there = inFile.constFind(key);
            there != inFile.constEnd() && !all.add(there->constData(), there->constData() + there->size(), each->span))
            return unreadable(site, each->key);
        all.add(*each->bucket);
        sql += '(' + key.toLatin1() + ",'" + all.text(each->span) + "'),";
    }
    sql.chop(1);
    return connection.run(site, QString::fromLatin1(sql));
}

// In the place of those that are in the file; nothing: none.
Status putInPlace(SqlChannel &connection, const Site &site, qint64 number, qint64 width, const RightBuckets &right)
{
    NewBuckets buckets;
    QStringList keys;
    const auto remove = [&] {
        return keys.isEmpty() ? Status()
                              : connection.run(site, QStringLiteral("delete from \"device trend\" where K in (%1)")
                                                         .arg(std::exchange(keys, {}).join(QLatin1Char(','))));
    };
    for (const auto &[start, bucket] : right) {
        keys << QString::number(bucketKey(number, width, start));
        if (bucket)
            buckets.add(number, width, start, *bucket);
        if (keys.size() == bucketsOfAStatement) {
            if (const Status done = remove(); !done)
                return done;
        }
    }
    const Status done = remove();
    return done ? buckets.write(connection, site) : done;
}

// The buckets of one of the wider levels. Those behind the front are in the file: what came late is added to them.
// Those that the front passes now are put together from the level below, which is in the file up to there.
Status addToWider(SqlChannel &connection, const Site &site, const RollupState &state, size_t level,
                  const Buckets &finest)
{
    const qint64 width = state.levels[level];
    const qint64 narrower = state.levels[level - 1];
    const qint64 closed = state.front / width * width;
    const qint64 nowClosed = state.frontWith(finest) / width * width;
    Buckets wider;
    for (auto late = finest.begin(); late != finest.end() && late->first < closed; ++late)
        wider[late->first / width * width].add(late->second);
    if (nowClosed > closed) {
        const auto parts = storedBuckets(connection, site, state.number, narrower, {closed, nowClosed});
        if (!parts)
            return parts.error();
        for (const StoredBucket &part : *parts) {
            if (!part.bucket)
                return unreadable(site, bucketKey(state.number, narrower, part.start));
            wider[part.start / width * width].add(*part.bucket);
        }
        // None is there yet, unless somebody changed where the latest bucket is: what would be added to it has it
        // already.
        const auto strange = storedBuckets(connection, site, state.number, width, {closed, nowClosed});
        if (!strange)
            return strange.error();
        RightBuckets instead;
        for (const StoredBucket &each : *strange) {
            const auto made = wider.find(each.start);
            if (made == wider.end())
                continue;
            if (!each.bucket || each.bucket->rows() < made->second.rows())
                instead[each.start] = made->second;
            wider.erase(made);
        }
        if (const Status done = putInPlace(connection, site, state.number, width, instead); !done)
            return done;
    }
    NewBuckets buckets;
    for (const auto &[start, bucket] : wider)
        buckets.add(state.number, width, start, bucket);
    return buckets.write(connection, site);
}

// The buckets of a wider level that follow from those of the level below that were put in place, and from where the
// latest bucket is now.
Result<RightBuckets> widerBuckets(SqlChannel &connection, const Site &site, const RollupState &before,
                                  const RollupState &now, size_t level, const RightBuckets &narrower, bool mayShrink)
{
    const qint64 width = now.levels[level];
    const qint64 partWidth = now.levels[level - 1];
    const qint64 closed = before.closed(level);
    const qint64 nowClosed = now.closed(level);
    std::set<qint64> starts;
    for (const auto &part : narrower)
        starts.insert(part.first / width * width);
    for (const auto &[from, levelWidth] : {std::pair(closed, partWidth), std::pair(nowClosed, width)}) {
        const auto between =
            storedBuckets(connection, site, now.number, levelWidth, {from, std::max(closed, nowClosed)});
        if (!between)
            return between.error();
        for (const StoredBucket &each : *between)
            starts.insert(each.start / width * width);
    }
    RightBuckets right;
    for (const qint64 start : starts) {
        if (start < std::max(now.floors.at(level), now.floors.at(level - 1)))
            continue;
        if (start >= nowClosed) {
            right[start].reset();
            continue;
        }
        const TimeSpan span{start, start + width};
        const auto inFile = storedBuckets(connection, site, now.number, width, span);
        const auto parts = storedBuckets(connection, site, now.number, partWidth, span);
        if (!inFile || !parts)
            return !inFile ? inFile.error() : parts.error();
        Bucket sum;
        bool isReadable = true;
        for (const StoredBucket &part : *parts) {
            isReadable = isReadable && part.bucket;
            if (part.bucket)
                sum.add(*part.bucket);
        }
        const bool shrinks = !inFile->empty() && inFile->front().bucket && inFile->front().bucket->rows() > sum.rows();
        if (isReadable && (mayShrink || !shrinks))
            right[start] = sum.rows() > 0 ? std::optional<Bucket>(sum) : std::nullopt;
    }
    return right;
}

QString listOf(const std::vector<qint64> &levels)
{
    QStringList list;
    for (const qint64 level : levels)
        list << QString::number(level);
    return list.join(QLatin1Char(','));
}

// A row of the table of series.
QString seriesRow(const RollupAddition &addition)
{
    const RollupState &state = addition.state;
    return QStringLiteral("(%1,%2,'%3',%4,%5,%6,%7)")
        .arg(QString::number(state.number), quoted(addition.table), listOf(state.levels),
             QString::number(addition.mark), addition.marked, QString::number(state.frontWith(*addition.buckets)),
             QString::number(rollupVersion));
}

} // namespace

Status addToRollups(SqlChannel &connection, const Site &site, const std::vector<RollupAddition> &additions)
{
    NewBuckets finest;
    QStringList rows;
    for (const RollupAddition &each : additions) {
        for (const auto &[start, bucket] : *each.buckets)
            finest.add(each.state.number, each.state.levels.front(), start, bucket);
        rows << seriesRow(each);
    }
    if (const Status written = finest.write(connection, site); !written)
        return written;
    for (const RollupAddition &each : additions) {
        for (size_t level = 1; level < each.state.levels.size(); ++level) {
            if (const Status added = addToWider(connection, site, each.state, level, *each.buckets); !added)
                return added;
        }
    }
    return connection.run(site, QLatin1String("insert or replace into \"device trend series\" values ") +
                                    rows.join(QLatin1Char(',')));
}

Result<bool> addNextRows(SqlChannel &connection, const Site &site, const QString &table, qint64 most,
                         RollupState &state)
{
    const auto rows = connection.ask(
        site, QStringLiteral("select ID,case typeof(DATETIME) when 'text' then DATETIME end,Value from %1 where ID>%2 "
                             "order by ID limit %3")
                  .arg(table, QString::number(state.mark), QString::number(most)));
    if (!rows)
        return rows.error();
    const Buckets buckets = bucketsOf(*rows, 1, state.levels.front());
    const bool isAtEnd = rows->size() < most;
    const qint64 mark = isAtEnd ? state.last : rows->last().at(0).toLongLong();
    if (mark == state.mark)
        return isAtEnd;
    const QString marked = QStringLiteral("(select DATETIME||' '||Value from %1 where ID=%2)").arg(table).arg(mark);
    if (const Status added = addToRollups(connection, site, {{table, state, &buckets, mark, marked}}); !added)
        return added.error();
    state.mark = mark;
    state.front = state.frontWith(buckets);
    return isAtEnd;
}

Result<qint64> rightFront(SqlChannel &connection, const Site &site, const RollupState &state)
{
    const qint64 width = state.levels.front();
    const qint64 first = bucketKey(state.number, width, 0);
    const auto newest =
        connection.query(site, QStringLiteral("select max(K) from \"device trend\" where K>=%1 and K<=%2")
                                   .arg(first)
                                   .arg(bucketKey(state.number, width, lastSecond)));
    if (!newest)
        return newest.error();
    const QString &key = newest->first().first();
    // Before the floor there were buckets, of which nothing is left.
    const qint64 least = std::min(state.front, state.floors.front());
    return key.isEmpty() ? least : std::max(least, (key.toLongLong() - first) * width);
}

// What the buckets of one level should be is known; the wider levels follow from them. A bucket that says more than the
// narrower ones stays: rows may have been removed since.
Status replaceBuckets(SqlChannel &connection, const Site &site, const RollupState &state, size_t level,
                      RightBuckets right, bool mayShrink)
{
    if (const Status done = putInPlace(connection, site, state.number, state.levels[level], right); !done)
        return done;
    RollupState now = state;
    if (level == 0) {
        const auto front = rightFront(connection, site, state);
        if (!front)
            return front.error();
        now.front = *front;
        if (now.front != state.front) {
            if (const Status done =
                    connection.run(site, QStringLiteral("update \"device trend series\" set FRONT=%1 where N=%2")
                                             .arg(now.front)
                                             .arg(state.number));
                !done)
                return done;
        }
    }
    for (size_t wider = level + 1; wider < state.levels.size(); ++wider) {
        auto found = widerBuckets(connection, site, state, now, wider, right, mayShrink);
        if (!found)
            return found.error();
        right = std::move(found).value();
        if (const Status done = putInPlace(connection, site, state.number, state.levels[wider], right); !done)
            return done;
    }
    return {};
}

} // namespace device
