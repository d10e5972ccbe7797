// SPDX-License-Identifier: MIT
#include "storefile/trends.h"

#include "storefile/rollup_channel.h"
#include "storefile/tables.h"
#include "storefile/texts.h"

#include "device/table_name.h"

#include "host/time_text.h"

#include <algorithm>
#include <iterator>

namespace device_db
{

namespace
{

struct Level {
    device::TrendLevel level;
    qint64 width;
    const char *name;
};
constexpr Level knownLevels[] = {{device::TrendLevel::TenSeconds, 10, "10s"},
                                 {device::TrendLevel::Minute, 60, "1min"},
                                 {device::TrendLevel::TenMinutes, 600, "10min"},
                                 {device::TrendLevel::Hour, 3600, "1h"},
                                 {device::TrendLevel::Day, 86400, "1d"}};

constexpr qint64 rowsOfSlice = 20000;

device::Site siteOf(const Database &database)
{
    return {database.name(), QString()};
}

Status readLevels(const Database &database, TrendFacts &facts)
{
    auto statement = database.prepare("select count(*),total(length(D)),min(K),max(K) from \"device trend\" where "
                                      "K>=?1 and K<?2");
    if (!statement)
        return statement.error();
    for (const qint64 width : facts.state.levels) {
        const qint64 first = device::bucketKey(facts.state.number, width, 0);
        statement->reset();
        statement->bind(1, first);
        statement->bind(2, first + device::lastSecond / width + 1);
        if (!statement->step())
            return statement->status();
        TrendLevelFacts level;
        level.width = width;
        level.buckets = statement->number(0);
        level.bytes = statement->number(1) + 9 * level.buckets; // a key takes nine bytes in a row
        if (level.buckets > 0) {
            level.first = timeOfTrend((statement->number(2) - first) * width);
            level.last = timeOfTrend((statement->number(3) - first) * width);
        }
        facts.levels << level;
    }
    return {};
}

Status readThrough(const Database &database, TrendFacts &facts)
{
    const QByteArray name = identifier(facts.table);
    const auto behind =
        database.number("select count(*) from " + name + " where ID>" + QByteArray::number(facts.state.mark));
    if (!behind)
        return behind.error();
    facts.behind = *behind;
    const auto time =
        database.text("select DATETIME from " + name + " where ID=" + QByteArray::number(facts.state.mark));
    if (!time)
        return time.error();
    facts.through = *time;
    return {};
}

} // namespace

QByteArray timeOfTrend(qint64 seconds)
{
    QByteArray text(device::longestTime, '\0');
    text.truncate(device::writeTime(text.data(), device::timeOfSeconds(seconds), false));
    return text;
}

QString levelName(qint64 width)
{
    for (const Level &each : knownLevels) {
        if (each.width == width)
            return QLatin1String(each.name);
    }
    return QString::number(width);
}

Result<QVector<device::TrendLevel>> levelsNamed(const QString &list)
{
    QVector<device::TrendLevel> levels;
    for (const QString &name : list.split(QLatin1Char(','))) {
        const auto *const found = std::find_if(std::begin(knownLevels), std::end(knownLevels), [&](const Level &each) {
            return name.trimmed() == QLatin1String(each.name);
        });
        if (found == std::end(knownLevels))
            return failure(list, QStringLiteral("\"%1\" is not a level; give some of 10s,1min,10min,1h,1d").arg(name));
        levels << found->level;
    }
    return levels;
}

std::vector<qint64> widthsOf(const QVector<device::TrendLevel> &levels)
{
    std::vector<qint64> widths;
    for (const Level &each : knownLevels) {
        if (levels.contains(each.level))
            widths.push_back(each.width);
    }
    return widths;
}

Result<QList<TrendFacts>> trendsOf(const Database &database, bool withLevels)
{
    RollupChannel channel(database);
    const auto names = device::tablesWithRollups(channel);
    if (!names)
        return names.error();
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    QList<TrendFacts> trends;
    for (const QString &name : *names) {
        TrendFacts facts;
        facts.table = name;
        if (std::none_of(tables->begin(), tables->end(), [&](const Table &table) {
                return table.kind == Kind::Samples && table.name.compare(name, Qt::CaseInsensitive) == 0;
            })) {
            facts.trouble = QStringLiteral("there is no such table of samples");
            trends << facts;
            continue;
        }
        const auto state = device::rollupState(channel, siteOf(database), name);
        if (state && *state) {
            facts.state = **state;
            Status read = readThrough(database, facts);
            if (read && withLevels)
                read = readLevels(database, facts);
            if (!read)
                return read.error();
        } else {
            facts.trouble = state ? QStringLiteral("it is gone") : state.error().cause();
        }
        trends << facts;
    }
    std::sort(trends.begin(), trends.end(),
              [](const TrendFacts &a, const TrendFacts &b) { return comesBefore(a.table, b.table); });
    return trends;
}

Result<std::optional<RollupState>> trendOf(const Database &database, const QString &table)
{
    if (!device::TableName::from(table)) // it goes into statements; the device keeps none of such a table
        return std::optional<RollupState>();
    RollupChannel channel(database);
    return device::rollupState(channel, siteOf(database), table);
}

Result<bool> hasTimeIndex(const Database &database, const QString &table)
{
    auto index = database.prepare("select count(*) from pragma_index_list(?1) l join pragma_index_info(l.name) i "
                                  "where l.partial=0 and i.seqno=0 and upper(i.name)='DATETIME'");
    if (!index)
        return index.error();
    index->bind(1, table.toUtf8());
    if (!index->step())
        return index->status() ? Result<bool>(false) : index->status().error();
    return index->number(0) > 0;
}

Status catchUpTrend(const Database &database, const QString &table, const std::function<bool(qint64)> &goOn)
{
    RollupChannel channel(database);
    const device::Site site = siteOf(database);
    qint64 ids = 0;
    for (bool isAtEnd = false; !isAtEnd && goOn(ids);) {
        const Status done = channel.transaction(site, [&]() -> Status {
            const auto state = device::rollupState(channel, site, table);
            if (!state)
                return state.error();
            if (!*state)
                return failure(database.name(), QStringLiteral("%1 keeps no trend").arg(table));
            if (!(*state)->isOfThisTable)
                return device::beginAnew(channel, site, **state);
            RollupState now = **state;
            const auto added = device::addNextRows(channel, site, table, rowsOfSlice, now);
            if (!added)
                return added.error();
            isAtEnd = *added;
            ids += now.mark - (*state)->mark;
            return {};
        });
        if (!done)
            return done;
    }
    return {};
}

Status removeLeftBuckets(const Database &database, const std::function<bool()> &goOn)
{
    RollupChannel channel(database);
    const auto numbers = device::rollupsOfNoTable(channel);
    if (!numbers)
        return numbers.error();
    for (const qint64 number : *numbers) {
        for (bool isDone = false; !isDone && goOn();) {
            const auto removed = device::removeRollups(channel, number);
            if (!removed)
                return removed.error();
            isDone = *removed;
        }
    }
    return {};
}

} // namespace device_db
