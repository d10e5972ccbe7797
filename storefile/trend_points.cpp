// SPDX-License-Identifier: MIT
#include "storefile/trend_points.h"

#include "storefile/rollup_channel.h"
#include "storefile/times.h"

#include "host/one_moment.h"
#include "host/trend_reading.h"

namespace device_db
{

namespace
{

using Range = std::pair<QByteArray, QByteArray>;

constexpr qint64 secondsBefore1970 = 62135596800;
constexpr qint64 columnsOfPart = 100; // some milliseconds

qint64 millisecondsOfTrend(qint64 seconds)
{
    return (seconds - secondsBefore1970) * 1000;
}

qint64 secondsOfTrend(qint64 milliseconds)
{
    return (milliseconds + secondsBefore1970 * 1000) / 1000; // towards the past
}

// A bucket that is all that is left of its time is read whole, so it has to lie in one part: parts end where a bucket
// ends of the finest level that is left there.
qint64 borderBefore(qint64 time, const RollupState &state)
{
    const auto &levels = state.levels;
    size_t level = 0;
    while (level + 1 < levels.size() && state.floors[level] > time - levels.back())
        ++level;
    return time / levels[level] * levels[level];
}

} // namespace

std::optional<TrendPoints> TrendPoints::of(const Database &database, const QString &table)
{
    const auto state = trendOf(database, table);
    if (!state || !*state || !(*state)->isOfThisTable || !hasTimeIndex(database, table).valueOr(false))
        return std::nullopt;
    return TrendPoints(database, table, **state);
}

// A table begins with ID 1, so the time of its first row says what is removed, as host/trend_reading.cpp has it.
Result<std::pair<QByteArray, QByteArray>> TrendPoints::removedRange() const
{
    auto first = m_database->prepare("select ID,DATETIME from " + identifier(m_table) + " order by ID limit 1");
    if (!first)
        return first.error();
    qint64 end = device::lastSecond + 1;
    if (first->step()) {
        const qint64 time = millisecondsOf(first->cell(1), false);
        if (first->number(0) == 1 || time < 0)
            return Range();
        end = time / 1000 + secondsBefore1970;
    }
    if (const Status status = first->status(); !status)
        return status.error();
    const qint64 width = m_state.levels.front();
    const qint64 key = device::bucketKey(m_state.number, width, 0);
    Range range;
    for (const bool isFirst : {true, false}) {
        auto bucket = m_database->prepare("select K,D from \"device trend\" where K>=" + QByteArray::number(key) +
                                          " and K<" + QByteArray::number(key + end / width) + " order by K" +
                                          (isFirst ? "" : " desc") + " limit 1");
        if (!bucket)
            return bucket.error();
        if (!bucket->step())
            return bucket->status() ? Result<Range>(range) : bucket->status().error();
        const qint64 start = (bucket->number(0) - key) * width;
        const QByteArray text = bucket->cell(1);
        device::Bucket read;
        (void)read.add(text.constData(), text.constData() + text.size(), {start, start + width});
        const qint64 time = read.numbers() == 0 ? start : isFirst ? read.first().time : read.last().time;
        (isFirst ? range.first : range.second) = timeOfTrend(time);
    }
    return range;
}

bool TrendPoints::helps(qint64 first, qint64 last, int columns) const
{
    const device::TrendColumns read(first / 1000, last / 1000, columns);
    if (read.levelFor(m_state.levels) >= 0)
        return true;
    const auto removed = removedRange();
    return removed && !removed->first.isEmpty();
}

TrendPicture::TrendPicture(qint64 first, qint64 last, int columns)
    : m_last(secondsOfTrend(last)),
      m_next(secondsOfTrend(first)),
      m_part((m_last - m_next) * columnsOfPart / columns + 1),
      m_read(m_next, m_last, columns)
{
}

std::vector<SummedColumn> TrendPicture::columns() const
{
    std::vector<SummedColumn> columns;
    for (const auto &[place, column] : m_read.all()) {
        const device::Bucket &bucket = column.bucket;
        SummedColumn summed{int(place), bucket.rows(), bucket.numbers(), bucket.sum(), {}};
        auto *point = summed.points.data();
        for (const device::Bucket::Point *each : {&bucket.first(), &bucket.lowest(), &bucket.highest(), &bucket.last()})
            *point++ = {millisecondsOfTrend(each->time), each->value};
        columns.push_back(summed);
    }
    return columns;
}

Status TrendPoints::read(TrendPicture &picture) const
{
    RollupChannel channel(*m_database);
    const device::Site site{m_database->name(), m_table};
    const device::OneMoment moment(channel, site); // a recorder may move the mark on
    const auto state = trendOf(*m_database, m_table);
    if (!state)
        return state.error();
    if (!*state || !(*state)->isOfThisTable)
        return failure(m_database->name(), QStringLiteral("it begins anew at this moment"));
    qint64 end = picture.m_next;
    for (qint64 length = picture.m_part; end <= picture.m_next; length *= 2)
        end = borderBefore(picture.m_next + length, **state);
    end = std::min(end, picture.m_last + 1);
    if (const Status done = device::readColumns(channel, site, **state, {picture.m_next, end}, picture.m_read); !done)
        return done;
    picture.m_next = end;
    return {};
}

Result<qint64> TrendPoints::add(qint64 first, qint64 last, int count, Reduction &points) const
{
    TrendPicture picture(first, last, count);
    while (!picture.isDone()) {
        if (const Status done = read(picture); !done)
            return done.error();
    }
    qint64 left = 0;
    for (const SummedColumn &column : picture.columns()) {
        left += column.rows - column.numbers;
        if (column.numbers > 0)
            points.add(column.points, column.numbers);
    }
    return left;
}

} // namespace device_db
