// SPDX-License-Identifier: MIT
//
// Reading a trend: whole buckets in the middle, rows at the ends, and the rows that are in no bucket yet.
#include "bucket.h"
#include "one_moment.h"
#include "reading.h"
#include "rollup_file.h"
#include "row_text.h"

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <vector>

namespace device
{

namespace
{

constexpr int mostColumns = 100000;
constexpr qint64 rowsAtOnce = 50000;
constexpr qint64 bucketsAtOnce = 20000;
constexpr qint64 rowsSpan = 86400; // seconds whose rows are held at once

QString literal(qint64 seconds)
{
    QString text;
    appendTime(text, timeOfSeconds(seconds), false);
    return quoted(text);
}

// From `begin` until before `end`, in seconds.
struct Span {
    qint64 begin;
    qint64 end;
};

// Rows that are wanted: with IDs above `after`, up to `through`.
struct Ids {
    qint64 after = -1;
    qint64 through = -1; // -1: all
};

class TrendReading
{
public:
    TrendReading(Connection &connection, const Site &site)
        : m_connection(connection), m_site(site), m_moment(connection, site)
    {
    }

    Result<Trend> read(const TrendQuery &query);

private:
    Status readAll(Span span, int columns);
    Status span(Span span, int level);
    using BucketReader = std::function<bool(qint64 start, const char *text, const char *stop)>;
    using RowReader = std::function<void(const Sample &)>;

    Status rowsOrBuckets(Span span);
    Status buckets(Span span, qint64 width, const BucketReader &add);
    Status rows(Span span, Ids ids, const RowReader &add);
    Status rowsOf(const QString &where, const RowReader &add);
    Status lookForFirstRow();

    Connection &m_connection;
    const Site m_site;
    OneMoment m_moment;
    std::optional<RollupState> m_rollups;
    std::optional<TrendColumns> m_columns;
    qint64 m_firstRow = 0; ///< Seconds. Rows before are deleted, as far as the file can tell.
};

Result<Trend> TrendReading::read(const TrendQuery &query)
{
    if (query.atMost < 1 || query.atMost > mostColumns)
        return m_site.error(Error::OptionRefused,
                            QStringLiteral("columns is %1; it can be 1 to %2").arg(query.atMost).arg(mostColumns));
    QString bound;
    if (!appendTime(bound, query.from, false) || !appendTime(bound, query.to, false))
        return m_site.error(Error::TimeRefused,
                            QStringLiteral("a bound of the range is not a time that the tables can hold"));
    const Span span{secondsOf(query.from), std::min(secondsOf(query.to), lastSecond) + 1};
    if (span.begin >= span.end)
        return Trend();
    if (const Status done = readAll(span, query.atMost); !done)
        return done.error();
    return m_columns->take();
}

Status TrendReading::readAll(Span span, int columns)
{
    const auto state = rollupState(m_connection, m_site, m_site.table);
    if (!state)
        return state.error();
    const qint64 width = columnWidth(span.begin, span.end - 1, columns);
    const auto add = [this](const Sample &sample) {
        m_columns->at(secondsOf(sample.time)).add(secondsOf(sample.time), sample.value);
    };
    if (!*state || !(*state)->isOfThisTable) {
        m_columns.emplace(width);
        return rows(span, {}, add);
    }
    m_rollups = *state;
    if (const Status found = lookForFirstRow(); !found)
        return found;
    const std::vector<qint64> &levels = m_rollups->levels;
    m_columns.emplace(span.begin < m_firstRow ? std::max(width, levels.front()) : width);
    // The coarsest level whose buckets lie within one column each.
    int level = int(levels.size()) - 1;
    while (level >= 0 && m_columns->width() % levels[size_t(level)] != 0)
        --level;
    if (const Status done = this->span(span, level); !done)
        return done;
    return rows(span, {m_rollups->mark, -1}, add);
}

// Without rows that were deleted, a table begins with ID 1.
Status TrendReading::lookForFirstRow()
{
    const auto first =
        m_connection.query(m_site, QStringLiteral("select ID,DATETIME from %1 order by ID limit 1").arg(m_site.table));
    if (!first)
        return first.error();
    if (first->isEmpty()) {
        m_firstRow = lastSecond + 1;
        return {};
    }
    if (first->first().at(0) == QLatin1String("1"))
        return {};
    TimeReader times(false);
    const QString &text = first->first().at(1);
    const LocalTime time = times.read(text.constData(), text.size());
    m_firstRow = time.isValid() ? secondsOf(time) : 0;
    return {};
}

// Up to the mark: whole buckets of this level, and what is left at both ends from the finer ones.
Status TrendReading::span(Span span, int level)
{
    if (span.begin >= span.end)
        return {};
    if (level < 0)
        return rowsOrBuckets(span);
    const qint64 width = m_rollups->levels[size_t(level)];
    const qint64 begin = (span.begin + width - 1) / width * width;
    const qint64 end = std::min(span.end / width * width, m_rollups->closed(size_t(level)));
    if (begin >= end)
        return this->span(span, level - 1);
    if (const Status done = this->span({span.begin, begin}, level - 1); !done)
        return done;
    const auto add = [&](qint64 start, const char *text, const char *stop) {
        if (start < m_firstRow)
            m_columns->setInexact(start);
        return m_columns->at(start).add(text, stop, start);
    };
    if (const Status done = buckets({begin, end}, width, add); !done)
        return done;
    return this->span({end, span.end}, level - 1);
}

// All of a slice in one text: a text per bucket would take three times as long.
Status TrendReading::buckets(Span span, qint64 width, const BucketReader &add)
{
    for (qint64 begin = span.begin; begin < span.end; begin += bucketsAtOnce * width) {
        const qint64 count = std::min(bucketsAtOnce, (span.end - begin) / width);
        const qint64 first = bucketKey(m_rollups->number, width, begin);
        const auto joined = m_connection.query(
            m_site, QStringLiteral("select group_concat(K||';'||D,'|') from \"device trend\" where K>=%1 and K<%2")
                        .arg(first)
                        .arg(first + count));
        if (!joined)
            return joined.error();
        const QByteArray text = joined->first().first().toUtf8();
        const char *const end = text.constData() + text.size();
        for (const char *at = text.constData(); at < end;) {
            const char *const stop = std::find(at, end, '|');
            const char *const value = std::find(at, stop, ';');
            const qint64 place = QByteArray::fromRawData(at, int(value - at)).toLongLong() - first;
            if (value == stop || place < 0 || place >= count || !add(begin + place * width, value + 1, stop))
                return m_site.error(Error::Failed, QStringLiteral("the buckets of its trend cannot be read"));
            at = stop + 1;
        }
    }
    return {};
}

// Finer than the finest level, the rows say it. Where some of a bucket's rows are deleted, the whole bucket does.
Status TrendReading::rowsOrBuckets(Span span)
{
    const qint64 width = m_rollups->levels.front();
    for (qint64 begin = span.begin / width * width; begin < span.end; begin += rowsSpan) {
        const Span all{begin, std::min(begin + rowsSpan, (span.end + width - 1) / width * width)};
        std::map<qint64, qint64> rowsOf;
        std::vector<Sample> samples;
        const Status read = rows(all, {-1, m_rollups->mark}, [&](const Sample &sample) {
            ++rowsOf[secondsOf(sample.time) / width];
            samples.push_back(sample);
        });
        if (!read)
            return read;
        std::set<qint64> shown; // whose rows are no longer all there
        const auto look = [&](qint64 start, const char *text, const char *stop) {
            Bucket bucket;
            if (!bucket.add(text, stop, start))
                return false;
            if (rowsOf[start / width] != bucket.rows()) {
                shown.insert(start / width);
                m_columns->setInexact(start);
                m_columns->at(start).add(bucket);
            }
            return true;
        };
        if (const Status done = buckets(all, width, look); !done)
            return done;
        for (const Sample &sample : samples) {
            const qint64 time = secondsOf(sample.time);
            if (shown.count(time / width) == 0 && time >= span.begin && time < span.end)
                m_columns->at(time).add(time, sample.value);
        }
    }
    return {};
}

// Few rows are found by an index on time, if there is one; many are read in the order of recording.
Status TrendReading::rows(Span span, Ids ids, const RowReader &add)
{
    const QString times = QStringLiteral("%1DATETIME>=%2 and %1DATETIME<=%3");
    const QString byIndex = times.arg(QString(), literal(span.begin), literal(span.end - 1));
    const QString bySlice = times.arg(QStringLiteral("+"), literal(span.begin), literal(span.end - 1));
    QString where = QLatin1String(" where ") + (ids.after >= 0 ? bySlice : byIndex);
    if (ids.after >= 0)
        where += QStringLiteral(" and ID>%1").arg(ids.after);
    if (ids.through >= 0)
        where += QStringLiteral(" and +ID<=%1").arg(ids.through);
    const auto found =
        m_connection.query(m_site, QStringLiteral("select count(*),min(ID),max(ID) from ") + m_site.table + where);
    if (!found)
        return found.error();
    const QStringList &cells = found->first();
    if (cells.at(0) == QLatin1String("0"))
        return {};
    if (cells.at(0).toLongLong() <= rowsAtOnce)
        return rowsOf(where, add);
    const qint64 last = cells.at(2).toLongLong();
    for (qint64 first = cells.at(1).toLongLong();;) {
        const auto end = m_connection.query(
            m_site, QStringLiteral("select (select ID from %1 where ID>=%2 order by ID limit 1 offset %3)")
                        .arg(m_site.table, QString::number(first), QString::number(rowsAtOnce - 1)));
        if (!end)
            return end.error();
        const QString &id = end->first().first();
        const qint64 through = id.isEmpty() ? last : std::min(last, id.toLongLong());
        const QString slice = QStringLiteral(" where %1 and ID>=%2 and ID<=%3")
                                  .arg(bySlice, QString::number(first), QString::number(through));
        if (const Status done = rowsOf(slice, add); !done || through == last)
            return done;
        first = through + 1;
        if (m_connection.isReader())
            m_moment.renew(); // so that the write-ahead log can be checkpointed
    }
}

Status TrendReading::rowsOf(const QString &where, const RowReader &add)
{
    const auto samples = readRecords<Sample>(m_connection, m_site, {m_site.table, where, false, 0, -1});
    if (!samples)
        return samples.error();
    for (const Sample &sample : *samples) {
        if (sample.time.isValid())
            add(sample);
    }
    return {};
}

Site site(const char *operation, const TableName &table)
{
    return {QLatin1String(operation), table.text()};
}

} // namespace

Result<Trend> HistoryStore::trend(const TableName &table, const TrendQuery &query)
{
    return TrendReading(*m_connection, site("read the trend of", table)).read(query);
}

Result<bool> HistoryStore::keepTrend(const TableName &table, const TrendOptions &options)
{
    bool begun = false;
    const Status done = m_connection->transaction(site("keep the trend of", table), [&]() -> Status {
        const auto tried = beginRollups(*m_connection, table, options);
        begun = tried.valueOr(false);
        return tried ? Status() : tried.error();
    });
    if (!done)
        return done.error();
    return begun;
}

Result<bool> HistoryStore::dropTrend(const TableName &table)
{
    bool dropped = false;
    const Status done = m_connection->transaction(site("drop the trend of", table), [&]() -> Status {
        const auto tried = endRollups(*m_connection, table);
        dropped = tried.valueOr(false);
        return tried ? Status() : tried.error();
    });
    if (!done)
        return done.error();
    return dropped;
}

} // namespace device
