// SPDX-License-Identifier: MIT
//
// Reading a trend: whole buckets in the middle, rows at the ends, and the rows that are in no bucket yet.
#include "trend_reading.h"

#include "one_moment.h"
#include "reading.h"
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
constexpr int spansAtOnce = 100;
constexpr qint64 rowsOfSomeSpans = 5000; // readRecords() takes so few by an index

QString literal(qint64 seconds)
{
    QString text;
    appendTime(text, timeOfSeconds(seconds), false);
    return quoted(text);
}

// Rows that are wanted: with IDs above `after`, up to `through`.
struct Ids {
    qint64 after = -1;
    qint64 through = -1; // -1: all
};

class TrendReading
{
public:
    TrendReading(SqlChannel &connection, const Site &site)
        : m_connection(connection), m_site(site), m_moment(connection, site)
    {
    }

    Result<Trend> read(const TrendQuery &query);
    Status read(const RollupState &rollups, TimeSpan span, TrendColumns &columns);

private:
    using Spans = std::vector<TimeSpan>;
    using BucketReader = std::function<bool(qint64 start, const char *text, const char *stop)>;
    using RowReader = std::function<void(const Sample &)>;

    Status readAll(TimeSpan span, TrendColumns &columns);
    Status readLevel(const Spans &spans, int level);
    Status readRowsOrBuckets(const Spans &spans);
    Status readRowsOrBuckets(const Spans &whole, const Spans &wanted);
    Status buckets(const Spans &spans, qint64 width, const BucketReader &add);
    Status someBuckets(const QStringList &keys, qint64 width, const BucketReader &add);
    Status rows(const Spans &spans, Ids ids, const RowReader &add);
    Status rowsOf(const QString &where, const RowReader &add);
    Status lookForFirstRow();
    size_t finestFrom(qint64 time) const;
    bool onlyFrom(size_t level, qint64 time) const;

    SqlChannel &m_connection;
    const Site m_site;
    OneMoment m_moment;
    std::optional<RollupState> m_rollups;
    TrendColumns *m_columns = nullptr;
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
    const TimeSpan span{secondsOf(query.from), std::min(secondsOf(query.to), lastSecond) + 1};
    if (span.begin >= span.end)
        return Trend();
    const auto state = rollupState(m_connection, m_site, m_site.table);
    if (!state)
        return state.error();
    qint64 width = columnWidth(span.begin, span.end - 1, query.atMost);
    if (*state && (*state)->isOfThisTable) {
        m_rollups = *state;
        if (const Status looked = lookForFirstRow(); !looked)
            return looked.error();
        if (span.begin < m_firstRow)
            width = std::max(width, m_rollups->levels.at(finestFrom(span.begin)));
    }
    TrendColumns columns(width);
    if (const Status done = readAll(span, columns); !done)
        return done.error();
    return columns.take();
}

Status TrendReading::read(const RollupState &rollups, TimeSpan span, TrendColumns &columns)
{
    m_rollups = rollups;
    if (const Status looked = lookForFirstRow(); !looked)
        return looked;
    return readAll(span, columns);
}

Status TrendReading::readAll(TimeSpan span, TrendColumns &columns)
{
    m_columns = &columns;
    const auto add = [this](const Sample &sample) {
        m_columns->at(secondsOf(sample.time)).add(secondsOf(sample.time), sample.value);
    };
    if (!m_rollups)
        return rows({span}, {}, add);
    int level = columns.levelFor(m_rollups->levels);
    if (span.begin < m_firstRow)
        level = std::max(level, int(finestFrom(span.begin)));
    if (const Status done = readLevel({span}, level); !done)
        return done;
    return rows({span}, {m_rollups->mark, -1}, add);
}

// The finest level that reaches back so far, or the widest.
size_t TrendReading::finestFrom(qint64 time) const
{
    size_t level = 0;
    while (level + 1 < m_rollups->floors.size() && m_rollups->floors[level] > time)
        ++level;
    return level;
}

// Neither rows nor finer buckets are left there.
bool TrendReading::onlyFrom(size_t level, qint64 time) const
{
    return time < m_firstRow &&
           std::none_of(m_rollups->floors.begin(), m_rollups->floors.begin() + std::ptrdiff_t(level),
                        [time](qint64 floor) { return floor <= time; });
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

// Up to the mark: the buckets of this level that lie in the spans and within one column, and what is left from the
// finer ones.
Status TrendReading::readLevel(const Spans &spans, int level)
{
    if (spans.empty())
        return {};
    if (level < 0)
        return readRowsOrBuckets(spans);
    const qint64 width = m_rollups->levels[size_t(level)];
    Spans whole;
    Spans left;
    for (const TimeSpan &span : spans) {
        const qint64 before = span.begin / width * width;
        const qint64 upTo = span.end / width * width;
        qint64 begin = before < span.begin && !onlyFrom(size_t(level), before) ? before + width : before;
        const qint64 end = std::min(upTo < span.end && onlyFrom(size_t(level), upTo) ? upTo + width : upTo,
                                    m_rollups->closed(size_t(level)));
        begin = std::max(begin, m_rollups->floors.at(size_t(level)));
        if (begin >= end) {
            left.push_back(span);
            continue;
        }
        whole.push_back({begin, end});
        if (span.begin < begin)
            left.push_back({span.begin, begin});
        if (end < span.end)
            left.push_back({end, span.end});
    }
    const auto add = [&](qint64 start, const char *text, const char *stop) {
        if (!m_columns->isWithinOne(start, start + width) && !onlyFrom(size_t(level), start)) {
            left.push_back({start, start + width});
            return true;
        }
        if (start < m_firstRow)
            m_columns->setInexact(start);
        return m_columns->at(start).add(text, stop, {start, start + width});
    };
    if (const Status done = buckets(whole, width, add); !done)
        return done;
    std::sort(left.begin(), left.end(), [](TimeSpan a, TimeSpan b) { return a.begin < b.begin; });
    return readLevel(left, level - 1);
}

Status TrendReading::buckets(const Spans &spans, qint64 width, const BucketReader &add)
{
    QStringList keys;
    qint64 wanted = 0;
    const auto read = [&] {
        wanted = 0;
        return keys.isEmpty() ? Status() : someBuckets(std::exchange(keys, {}), width, add);
    };
    for (const TimeSpan &span : spans) {
        for (qint64 begin = span.begin; begin < span.end; begin += bucketsAtOnce * width) {
            const qint64 count = std::min(bucketsAtOnce, (span.end - begin) / width);
            if (keys.size() == spansAtOnce || wanted + count > bucketsAtOnce) {
                if (const Status done = read(); !done)
                    return done;
            }
            const qint64 first = bucketKey(m_rollups->number, width, begin);
            keys << QStringLiteral("K>=%1 and K<%2").arg(first).arg(first + count);
            wanted += count;
        }
    }
    return read();
}

// All of them in one text: a text per bucket would take three times as long.
Status TrendReading::someBuckets(const QStringList &keys, qint64 width, const BucketReader &add)
{
    const qint64 first = bucketKey(m_rollups->number, width, 0);
    const auto joined = m_connection.query(
        m_site, QLatin1String("select group_concat(K||';'||D,'|'),count(*) from \"device trend\" where ") +
                    keys.join(QLatin1String(" or ")));
    if (!joined)
        return joined.error();
    const QByteArray text = joined->first().first().toUtf8();
    const char *const end = text.constData() + text.size();
    qint64 count = 0; // a sum that is NULL, or has a NUL in it, is missing in the text
    for (const char *at = text.constData(); at < end;) {
        const char *const stop = std::find(at, end, '|');
        const char *const value = std::find(at, stop, ';');
        const qint64 place = QByteArray::fromRawData(at, int(value - at)).toLongLong() - first;
        if (value == stop || place < 0 || place > lastSecond / width || !add(place * width, value + 1, stop))
            return m_site.error(Error::Failed, QStringLiteral("the buckets of its trend cannot be read"));
        at = stop + 1;
        ++count;
    }
    if (count != joined->first().at(1).toLongLong())
        return m_site.error(Error::Failed, QStringLiteral("the buckets of its trend cannot be read"));
    return {};
}

// Finer than the finest level.
Status TrendReading::readRowsOrBuckets(const Spans &spans)
{
    const qint64 width = m_rollups->levels.front();
    Spans whole;
    Spans wanted;
    qint64 length = 0;
    for (const TimeSpan &span : spans) {
        for (qint64 begin = span.begin / width * width; begin < span.end; begin += rowsSpan) {
            const qint64 end = std::min(begin + rowsSpan, (span.end + width - 1) / width * width);
            length += end - begin;
            if (length > rowsSpan || whole.size() == size_t(spansAtOnce)) {
                if (const Status done = readRowsOrBuckets(whole, wanted); !done)
                    return done;
                whole.clear();
                wanted.clear();
                length = end - begin;
            }
            whole.push_back({begin, end});
            wanted.push_back({std::max(begin, span.begin), std::min(end, span.end)});
        }
    }
    return whole.empty() ? Status() : readRowsOrBuckets(whole, wanted);
}

// The rows say it. Where some of a bucket's rows are deleted, the whole bucket does.
Status TrendReading::readRowsOrBuckets(const Spans &whole, const Spans &wanted)
{
    const qint64 width = m_rollups->levels.front();
    std::map<qint64, qint64> rowsOf;
    std::vector<Sample> samples;
    const Status read = rows(whole, {-1, m_rollups->mark}, [&](const Sample &sample) {
        ++rowsOf[secondsOf(sample.time) / width];
        samples.push_back(sample);
    });
    if (!read)
        return read;
    std::set<qint64> shown; // whose rows are no longer all there
    const auto look = [&](qint64 start, const char *text, const char *stop) {
        Bucket bucket;
        if (!bucket.add(text, stop, {start, start + width}))
            return false;
        if (rowsOf[start / width] != bucket.rows()) {
            shown.insert(start / width);
            m_columns->setInexact(start);
            m_columns->at(start).add(bucket);
        }
        return true;
    };
    if (const Status done = buckets(whole, width, look); !done)
        return done;
    for (const Sample &sample : samples) {
        const qint64 time = secondsOf(sample.time);
        const auto after = std::upper_bound(wanted.begin(), wanted.end(), time,
                                            [](qint64 t, TimeSpan span) { return t < span.begin; });
        if (shown.count(time / width) == 0 && after != wanted.begin() && time < std::prev(after)->end)
            m_columns->at(time).add(time, sample.value);
    }
    return {};
}

// Few rows are found by an index on time, if there is one; many are read in the order of recording.
Status TrendReading::rows(const Spans &spans, Ids ids, const RowReader &add)
{
    const auto condition = [&](const char *plus) {
        QStringList times;
        for (const TimeSpan &span : spans)
            times << QStringLiteral("%1DATETIME>=%2 and %1DATETIME<=%3")
                         .arg(QLatin1String(plus), literal(span.begin), literal(span.end - 1));
        return QLatin1Char('(') + times.join(QLatin1String(" or ")) + QLatin1Char(')');
    };
    QString where = QLatin1String(" where ") + condition(ids.after >= 0 ? "+" : "");
    if (ids.after >= 0)
        where += QStringLiteral(" and ID>%1").arg(ids.after);
    if (ids.through >= 0)
        where += QStringLiteral(" and +ID<=%1").arg(ids.through);
    const auto found =
        m_connection.query(m_site, QStringLiteral("select count(*),min(ID),max(ID) from ") + m_site.table + where);
    if (!found)
        return found.error();
    const QStringList &cells = found->first();
    const qint64 count = cells.at(0).toLongLong();
    if (count == 0)
        return {};
    if (spans.size() > 1 && count > rowsOfSomeSpans) { // in the order of recording, they lie far apart
        const auto middle = spans.begin() + std::ptrdiff_t(spans.size() / 2);
        const Status done = rows(Spans(spans.begin(), middle), ids, add);
        return done ? rows(Spans(middle, spans.end()), ids, add) : done;
    }
    if (count <= rowsAtOnce)
        return rowsOf(where, add);
    const QString bySlice = condition("+");
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
        if (m_connection.isReader() && !m_rollups) // buckets and mark are those of one moment
            m_moment.renew();                      // so that the write-ahead log can be checkpointed
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

} // namespace

Result<Trend> readTrend(SqlChannel &connection, const Site &site, const TrendQuery &query)
{
    return TrendReading(connection, site).read(query);
}

Status readColumns(SqlChannel &connection, const Site &site, const RollupState &rollups, TimeSpan span,
                   TrendColumns &columns)
{
    return TrendReading(connection, site).read(rollups, span, columns);
}

} // namespace device
