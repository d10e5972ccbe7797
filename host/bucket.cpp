// SPDX-License-Identifier: MIT
#include "bucket.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace device
{

namespace
{

constexpr qint64 firstDay = 1721426; // the Julian day of 0001-01-01
constexpr qint64 secondsOfDay = 86400;
constexpr qint64 longestNumber = 64;
constexpr qint64 mostRows = 1LL << 40; // in a bucket: sums of them stay far from the end of the type
constexpr char sameAsLowest[] = "-";   // in place of a point
constexpr char sameAsHighest[] = "+";

// Whether the point comes before: of equal ones the earlier, of equally early ones the one that is there already.
bool isLower(double value, qint64 time, const Bucket::Point &than)
{
    return value < than.value || (value == than.value && time < than.time);
}

bool isHigher(double value, qint64 time, const Bucket::Point &than)
{
    return value > than.value || (value == than.value && time < than.time);
}

// Takes the fields of a bucket's text one by one.
class Fields
{
public:
    Fields(const char *begin, const char *end) : m_at(begin), m_end(end) {}

    std::string_view text()
    {
        m_isThere = m_at != nullptr;
        if (!m_isThere)
            return {};
        const char *const begin = m_at;
        const char *const stop = std::find(m_at, m_end, ';');
        m_at = stop == m_end ? nullptr : stop + 1;
        return {begin, size_t(stop - begin)};
    }
    bool number(double &value)
    {
        const std::string_view field = text();
        return m_isThere && isNumber(field, value);
    }
    /// 0 is empty.
    bool number(qint64 &value)
    {
        const std::string_view field = text();
        value = 0;
        return m_isThere && (field.empty() || isNumber(field, value));
    }
    /// Rows, nothing if there is one for each second, and after a slash how many of them are numbers if not all are.
    bool counts(qint64 &rows, qint64 &numbers, qint64 seconds)
    {
        const std::string_view field = text();
        const size_t slash = std::min(field.find('/'), field.size());
        rows = seconds;
        if (slash > 0 && !isNumber(field.substr(0, slash), rows))
            return false;
        numbers = rows;
        return (slash == field.size() || isNumber(field.substr(slash + 1), numbers)) && numbers >= 0 && rows >= 1 &&
               numbers <= rows && rows <= mostRows;
    }
    bool atEnd() const { return m_at == nullptr; }

private:
    template<typename Number>
    static bool isNumber(std::string_view field, Number &value)
    {
        const auto [stop, error] = std::from_chars(field.data(), field.data() + field.size(), value);
        return error == std::errc() && stop == field.data() + field.size();
    }

    const char *m_at;
    const char *m_end;
    bool m_isThere = true;
};

Sample sampleOf(const Bucket::Point &point)
{
    return {timeOfSeconds(point.time), QString::fromStdString(point.text)};
}

} // namespace

qint64 secondsOf(LocalTime time)
{
    return (time.date().toJulianDay() - firstDay) * secondsOfDay + time.time().msecsSinceStartOfDay() / 1000;
}

LocalTime timeOfSeconds(qint64 seconds)
{
    const qint64 day = seconds / secondsOfDay;
    return {QDate::fromJulianDay(firstDay + day), QTime::fromMSecsSinceStartOfDay(int(seconds % secondsOfDay) * 1000)};
}

// Sums are added up in another order than here, so they differ by rounding. What cancels out leaves the rounding of the
// parts.
bool isSameSum(const Bucket &a, const Bucket &b)
{
    if (a.sum() == b.sum() || (std::isnan(a.sum()) && std::isnan(b.sum())))
        return true;
    const double low = std::abs(a.lowest().value);
    const double high = std::abs(a.highest().value);
    const bool cancels = std::signbit(a.lowest().value) != std::signbit(a.highest().value);
    const double size = cancels ? double(a.numbers()) * std::max(low, high) : std::abs(a.sum());
    return std::isfinite(size) && std::abs(a.sum() - b.sum()) <= 1e-12 * size;
}

bool isSame(const Bucket::Point &a, const Bucket::Point &b)
{
    return a.time == b.time && a.text == b.text;
}

bool isSame(const Bucket &a, const Bucket &b)
{
    if (a.rows() != b.rows() || a.numbers() != b.numbers())
        return false;
    return a.numbers() == 0 || (isSameSum(a, b) && isSame(a.lowest(), b.lowest()) && isSame(a.highest(), b.highest()) &&
                                isSame(a.first(), b.first()) && isSame(a.last(), b.last()));
}

void Bucket::add(qint64 time, const QString &value)
{
    add(time, value.constData(), value.size());
}

void Bucket::add(qint64 time, const QChar *value, qint64 size)
{
    ++m_rows;
    char ascii[longestNumber];
    if (size > longestNumber)
        return;
    for (qint64 i = 0; i < size; ++i) {
        if (value[i].unicode() >= 0x80)
            return;
        ascii[i] = char(value[i].unicode());
    }
    const auto found = number(QByteArray::fromRawData(ascii, int(size)));
    if (!found)
        return;
    addToSum(*found);
    const Seen seen{time, *found, std::string_view(ascii, size_t(size))};
    addNumbers(1, seen, seen, seen, seen);
}

void Bucket::add(const Bucket &other)
{
    m_rows += other.m_rows;
    if (other.m_numbers == 0)
        return;
    addToSum(other.m_sum);
    addToSum(other.m_rest);
    const auto seen = [](const Point &point) { return Seen{point.time, point.value, point.text}; };
    addNumbers(other.m_numbers, seen(other.m_lowest), seen(other.m_highest), seen(other.m_first), seen(other.m_last));
}

bool Bucket::add(const char *begin, const char *end, TimeSpan span)
{
    Fields fields(begin, end);
    const qint64 seconds = span.end - span.begin;
    qint64 rows = 0;
    qint64 numbers = 0;
    if (!fields.counts(rows, numbers, seconds))
        return false;
    double sum = 0;
    Seen points[4] = {};
    if (numbers > 0) {
        if (!fields.number(sum))
            return false;
        for (Seen &point : points) {
            const std::string_view text = fields.text();
            const bool isLowest = text == sameAsLowest && &point > &points[0];
            if (isLowest || (text == sameAsHighest && &point > &points[1])) {
                point = points[isLowest ? 0 : 1];
                continue;
            }
            const auto value = number(QByteArray::fromRawData(text.data(), int(text.size())));
            if (!value)
                return false;
            point.value = *value;
            point.text = text;
            point.time = seconds - 1;
            if (!(&point == &points[3] && fields.atEnd()) && !fields.number(point.time))
                return false;
            if (point.time < 0 || point.time >= seconds)
                return false;
            point.time += span.begin;
        }
    }
    if (!fields.atEnd())
        return false;
    m_rows += rows;
    if (numbers == 0)
        return true;
    addToSum(sum);
    addNumbers(numbers, points[0], points[1], points[2], points[3]);
    return true;
}

// Texts are copied only where they win: a trend of years adds up some ten thousand buckets.
void Bucket::addNumbers(qint64 numbers, const Seen &lowest, const Seen &highest, const Seen &first, const Seen &last)
{
    const bool wasEmpty = m_numbers == 0;
    m_numbers += numbers;
    const auto take = [](Point &to, const Seen &from) {
        to.time = from.time;
        to.value = from.value;
        to.text.assign(from.text);
    };
    if (wasEmpty || isLower(lowest.value, lowest.time, m_lowest))
        take(m_lowest, lowest);
    if (wasEmpty || isHigher(highest.value, highest.time, m_highest))
        take(m_highest, highest);
    if (wasEmpty || first.time < m_first.time)
        take(m_first, first);
    if (wasEmpty || last.time >= m_last.time)
        take(m_last, last);
}

// Neumaier's summation: what a long sum loses to rounding is kept beside it.
void Bucket::addToSum(double value)
{
    const double sum = m_sum + value;
    if (std::isfinite(sum))
        m_rest += std::abs(m_sum) >= std::abs(value) ? (m_sum - sum) + value : (value - sum) + m_sum;
    else
        m_rest = 0; // the values are too large to be summed up
    m_sum = sum;
}

// What follows from the rest is left out: the buckets of ten seconds are what a trend takes most room for.
QByteArray Bucket::text(TimeSpan span) const
{
    QByteArray text;
    if (m_rows != span.end - span.begin)
        text += QByteArray::number(m_rows);
    if (m_numbers != m_rows)
        text += '/' + QByteArray::number(m_numbers);
    if (m_numbers == 0)
        return text;
    text += ';' + numberText(sum()).toLatin1();
    for (const Point *point : {&m_lowest, &m_highest, &m_first, &m_last}) {
        text += ';';
        if (point != &m_lowest && isSame(*point, m_lowest)) {
            text += sameAsLowest;
        } else if (point != &m_lowest && point != &m_highest && isSame(*point, m_highest)) {
            text += sameAsHighest;
        } else {
            text.append(point->text.data(), int(point->text.size()));
            if (point == &m_last && point->time == span.end - 1)
                continue;
            text += ';';
            if (point->time != span.begin)
                text += QByteArray::number(point->time - span.begin);
        }
    }
    return text;
}

qint64 columnWidth(qint64 first, qint64 last, int columns)
{
    constexpr qint64 minute = 60;
    constexpr qint64 hour = 60 * minute;
    constexpr qint64 widths[] = {1,          2,          5,           10,          20,          30,   minute,
                                 2 * minute, 5 * minute, 10 * minute, 20 * minute, 30 * minute, hour, 2 * hour,
                                 3 * hour,   4 * hour,   6 * hour,    12 * hour,   secondsOfDay};
    const auto fits = [=](qint64 width) { return last / width - first / width < columns; };
    const auto *const found = std::find_if(std::begin(widths), std::end(widths), fits);
    if (found != std::end(widths))
        return *found;
    qint64 days = 2;
    while (!fits(days * secondsOfDay))
        days *= 2;
    return days * secondsOfDay;
}

int pictureColumn(qint64 time, qint64 first, qint64 last, int columns)
{
    const double part = double(time - first) / double(last - first + 1);
    return int(std::clamp(std::floor(part * columns), 0.0, double(columns - 1)));
}

int TrendColumns::levelFor(const std::vector<qint64> &levels) const
{
    // Of a picture's columns none need begin where a bucket does: what lies across is read once more, from the next
    // level. So the buckets are much narrower than a column, and the narrowest are worth it only when they are not as
    // wide.
    const auto fits = [&](qint64 width, bool isFinest) {
        return m_width > 0 ? m_width % width == 0 : (m_last - m_first + 1) / m_count >= width * (isFinest ? 2 : 10);
    };
    int level = int(levels.size()) - 1;
    while (level >= 0 && !fits(levels[size_t(level)], level == 0))
        --level;
    return level;
}

Trend TrendColumns::take() const
{
    Trend trend;
    trend.width = std::chrono::seconds(m_width);
    trend.columns.reserve(int(m_columns.size()));
    for (const auto &[place, column] : m_columns) {
        const Bucket &bucket = column.bucket;
        if (bucket.rows() == 0)
            continue;
        TrendColumn shown;
        shown.from = timeOfSeconds(place * m_width);
        shown.to = timeOfSeconds((place + 1) * m_width);
        shown.rows = bucket.rows();
        shown.numbers = bucket.numbers();
        shown.mean = bucket.mean();
        shown.exact = column.exact;
        if (bucket.numbers() > 0) {
            shown.lowest = sampleOf(bucket.lowest());
            shown.highest = sampleOf(bucket.highest());
            shown.first = sampleOf(bucket.first());
            shown.last = sampleOf(bucket.last());
        }
        trend.columns.append(shown);
    }
    return trend;
}

} // namespace device
