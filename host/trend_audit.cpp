// SPDX-License-Identifier: MIT
#include "trend_audit.h"

#include "deadline.h"
#include "row_text.h"
#include "schema.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr qint64 rowsAtFirst = 2000;
constexpr qint64 fewestRows = 100;
constexpr qint64 mostRows = 20000;
constexpr qint64 idsAtOnce = 50000;
constexpr std::chrono::milliseconds sliceTime{10};
constexpr qint64 endOfTime = lastSecond + 1;

Result<QString> versionOf(SqlChannel &connection, const Site &site)
{
    const auto version = connection.query(site, QStringLiteral("pragma data_version"));
    return version ? Result<QString>(version->first().first()) : version.error();
}

} // namespace

void TrendAudit::begin(SqlChannel &connection, const QStringList &tables)
{
    m_tables = tables;
    m_left.clear();
    const auto version = versionOf(connection, trendSite(QStringLiteral("all tables")));
    if (version)
        beginPass(*version);
    else
        m_version.clear();
}

void TrendAudit::beginPass(const QString &version)
{
    m_version = version;
    m_left = m_tables;
    beginTable();
}

void TrendAudit::rowsRemoved(const QString &table)
{
    if (!m_left.isEmpty() && m_left.first().compare(table, Qt::CaseInsensitive) == 0)
        m_removedAreKnown = m_someAreRemoved = true;
}

void TrendAudit::beginTable()
{
    m_removedAreKnown = m_someAreRemoved = false;
    m_countedThrough = 0;
    m_level = 0;
    m_begin = 0;
    m_most = rowsAtFirst;
}

void TrendAudit::endTable()
{
    m_left.removeFirst();
    beginTable();
}

Result<TrendAudit::Step> TrendAudit::step(SqlChannel &connection)
{
    if (m_left.isEmpty()) {
        const auto version = versionOf(connection, trendSite(QStringLiteral("all tables")));
        if (!version)
            return version.error();
        if (*version == m_version || m_tables.isEmpty())
            return Step();
        beginPass(*version);
        return Step{true, m_tables, 0}; // rows that are not in the file's sums yet may have been edited, too
    }
    const Site site = trendSite(m_left.first());
    const auto started = Clock::now();
    const qint64 most = m_most;
    auto done = look(connection, site);
    if (!done && !isOfTheFile(done.error().code()) && !isPassing(done.error().code())) {
        endTable(); // what cannot be read is told of by whoever keeps it up
        done = Step();
    }
    if (done) {
        if (m_most == most)
            m_most = nextSlice(most, Clock::now() - started, sliceTime, fewestRows, mostRows);
        done->goesOn = !m_left.isEmpty();
    }
    return done;
}

Result<TrendAudit::Step> TrendAudit::look(SqlChannel &connection, const Site &site)
{
    const auto state = rollupState(connection, site, site.table);
    if (!state)
        return state.error();
    if (!*state || !(*state)->isOfThisTable) {
        endTable();
        return Step{false, *state ? QStringList(site.table) : QStringList(), 0};
    }
    if (!m_removedAreKnown) {
        const Status looked = lookForRemovedRows(connection, site, **state);
        return looked ? Result<Step>(Step()) : looked.error();
    }
    const auto stretch = compare(connection, site, **state);
    if (!stretch)
        return stretch.error();
    if (stretch->end <= m_begin) { // more in one bucket than was read
        if (m_most < mostRows)
            m_most = std::min(mostRows, m_most * 4);
        else if (!stretch->expected.empty())
            m_begin += (*state)->levels.at(m_level);
        else
            endLevel(**state); // times in strange forms
        return Step();
    }
    Step step;
    bool isWrong = !stretch->wrong.empty();
    if (m_level == 0 && m_begin == 0) {
        const auto front = rightFront(connection, site, **state);
        if (!front)
            return front.error();
        isWrong = isWrong || *front != (*state)->front;
    }
    if (isWrong) {
        const auto mended = mend(connection, site);
        if (!mended)
            return mended.error();
        step.mended = *mended;
        step.tables << site.table;
    }
    m_begin = stretch->end;
    if (m_begin >= endOfTime)
        endLevel(**state);
    return step;
}

void TrendAudit::endLevel(const RollupState &state)
{
    m_begin = 0;
    if (++m_level == state.levels.size())
        endTable();
}

// Without a gap in the IDs every row is there.
Status TrendAudit::lookForRemovedRows(SqlChannel &connection, const Site &site, const RollupState &state)
{
    if (m_countedThrough == 0 && state.mark > mostRows) {
        const auto isIndexed = hasTimeIndex(connection, site, site.table);
        if (!isIndexed)
            return isIndexed.error();
        if (!*isIndexed) {
            const auto first = connection.query(site, QStringLiteral("select ifnull(max(ID),0) from (select ID from %1 "
                                                                     "where ID>0 order by ID limit %2)")
                                                          .arg(site.table)
                                                          .arg(mostRows));
            if (!first)
                return first.error();
            if (first->first().first().toLongLong() < state.mark) { // more rows than that
                endTable();
                return {};
            }
        }
    }
    const auto ids = connection.query(
        site, QStringLiteral("select count(*),max(ID) from (select ID from %1 where ID>%2 and ID<=%3 order by ID limit "
                             "%4)")
                  .arg(site.table)
                  .arg(m_countedThrough)
                  .arg(state.mark)
                  .arg(idsAtOnce));
    if (!ids)
        return ids.error();
    const qint64 count = ids->first().at(0).toLongLong();
    const qint64 through = count > 0 ? ids->first().at(1).toLongLong() : m_countedThrough;
    m_someAreRemoved = through - m_countedThrough != count || (count < idsAtOnce && through != state.mark);
    m_removedAreKnown = m_someAreRemoved || count < idsAtOnce;
    m_countedThrough = through;
    return {};
}

Result<TrendAudit::Stretch> TrendAudit::compare(SqlChannel &connection, const Site &site,
                                                const RollupState &state) const
{
    Stretch stretch;
    const Status summed =
        m_level == 0 ? sumRowsUp(connection, site, state, stretch) : sumBucketsUp(connection, site, state, stretch);
    if (!summed)
        return summed.error();
    const qint64 floor = std::max(state.floors.at(m_level), m_level == 0 ? 0 : state.floors.at(m_level - 1));
    const qint64 begin = std::max(m_begin, floor);
    auto stored =
        storedBuckets(connection, site, state.number, state.levels.at(m_level), {begin, stretch.end}, m_most * 2);
    if (!stored)
        return stored.error();
    if (qint64(stored->size()) == m_most * 2)
        stretch.end = stored->back().start;
    std::map<qint64, const StoredBucket *> inFile;
    for (const StoredBucket &each : *stored)
        inFile[each.start] = &each;
    for (const auto &[start, bucket] : stretch.expected) {
        if (start >= begin && start < stretch.end && inFile.count(start) == 0)
            stretch.wrong[start] = bucket;
    }
    for (const auto &[start, found] : inFile) {
        if (start >= stretch.end)
            break;
        const auto right = stretch.expected.find(start);
        const qint64 rows = right == stretch.expected.end() ? 0 : right->second.rows();
        if (found->bucket && rows > 0 && isSame(*found->bucket, right->second))
            continue;
        if (found->bucket && found->bucket->rows() > rows && m_someAreRemoved)
            continue;
        stretch.wrong[start] = rows > 0 ? std::optional<Bucket>(right->second) : std::nullopt;
    }
    return stretch;
}

Status TrendAudit::sumRowsUp(SqlChannel &connection, const Site &site, const RollupState &state, Stretch &stretch) const
{
    QString from;
    appendTime(from, timeOfSeconds(std::max(m_begin, state.floors.front())), false);
    const auto rows = connection.query(
        site, QStringLiteral(
                  "select DATETIME,Value from %1 where DATETIME>=%2 and DATETIME<x'' and ID>0 and +ID<=%3 order by "
                  "DATETIME,ID limit %4")
                  .arg(site.table, quoted(from), QString::number(state.mark), QString::number(m_most)));
    if (!rows)
        return rows.error();
    stretch.expected = bucketsOf(*rows, 0, state.levels.front());
    if (rows->size() < m_most)
        stretch.end = endOfTime;
    else if (!stretch.expected.empty())
        stretch.end = stretch.expected.rbegin()->first; // it may have more rows
    return {};
}

Status TrendAudit::sumBucketsUp(SqlChannel &connection, const Site &site, const RollupState &state,
                                Stretch &stretch) const
{
    const qint64 width = state.levels.at(m_level);
    const qint64 begin = std::max({m_begin, state.floors.at(m_level), state.floors.at(m_level - 1) / width * width});
    const auto parts = storedBuckets(connection, site, state.number, state.levels.at(m_level - 1),
                                     {begin, state.closed(m_level)}, m_most);
    if (!parts)
        return parts.error();
    for (const StoredBucket &part : *parts) {
        if (part.bucket)
            stretch.expected[part.start / width * width].add(*part.bucket);
    }
    stretch.end = qint64(parts->size()) < m_most ? endOfTime : parts->back().start / width * width;
    return {};
}

// What was found wrong is looked at once more, now that nobody else writes.
Result<qint64> TrendAudit::mend(SqlChannel &connection, const Site &site)
{
    qint64 mended = 0;
    const Status done = connection.transaction(site, [&]() -> Status {
        mended = 0;
        const auto state = rollupState(connection, site, site.table);
        const auto version = versionOf(connection, site);
        if (!state || !version)
            return !state ? state.error() : version.error();
        if (!*state || !(*state)->isOfThisTable)
            return {};
        if (*version != m_version) // what was removed since is not known
            m_someAreRemoved = true;
        const auto stretch = compare(connection, site, **state);
        if (!stretch)
            return stretch.error();
        mended = qint64(stretch->wrong.size());
        return replaceBuckets(connection, site, **state, m_level, stretch->wrong, !m_someAreRemoved);
    });
    return done ? Result<qint64>(mended) : done.error();
}

} // namespace device
