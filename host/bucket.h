// SPDX-License-Identifier: MIT
//
// Summing up samples, without a database: what a span of time has in common, and the columns of a trend.
#ifndef DEVICE_BUCKET_H
#define DEVICE_BUCKET_H

#include "device/trend.h"

#include <QByteArray>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace device
{

constexpr qint64 lastSecond = 3652059LL * 86400 - 1; ///< Of the year 9999.

/// Local time in seconds since the year 1 began: spans of all lengths up to a day begin at multiples of their length.
qint64 secondsOf(LocalTime time);
LocalTime timeOfSeconds(qint64 seconds);

/// From `begin` until before `end`, in seconds.
struct TimeSpan {
    qint64 begin;
    qint64 end;
};

/// The samples of one span. Whatever the order in which parts are added up, the result is the same, but for rounding in
/// the sum; of samples with equal times the one recorded first is to be added first.
class Bucket
{
public:
    struct Point {
        qint64 time = 0; ///< Seconds.
        double value = 0;
        std::string text; ///< As it stands in the table. Numbers are short: mostly nothing is allocated.
    };

    void add(qint64 time, const QString &value);
    void add(qint64 time, const QChar *value, qint64 size);
    /// Samples that were recorded after those that are here, or in another span.
    void add(const Bucket &other);
    /// The same for a bucket of this span that text() wrote; false, and nothing added, if it is none.
    bool add(const char *begin, const char *end, TimeSpan span);

    qint64 rows() const { return m_rows; }
    qint64 numbers() const { return m_numbers; }
    double sum() const { return m_sum + m_rest; }
    double mean() const { return m_numbers > 0 ? sum() / double(m_numbers) : 0; }
    const Point &lowest() const { return m_lowest; }
    const Point &highest() const { return m_highest; }
    const Point &first() const { return m_first; }
    const Point &last() const { return m_last; }

    /// All of it in one line of ASCII, for the span that the samples are of. Never empty.
    QByteArray text(TimeSpan span) const;

private:
    struct Seen {
        qint64 time;
        double value;
        std::string_view text;
    };

    void addNumbers(qint64 numbers, const Seen &lowest, const Seen &highest, const Seen &first, const Seen &last);
    void addToSum(double value);

    qint64 m_rows = 0;
    qint64 m_numbers = 0;
    double m_sum = 0;
    double m_rest = 0; ///< What rounding took from the sum.
    Point m_lowest;
    Point m_highest;
    Point m_first;
    Point m_last;
};

bool isSame(const Bucket::Point &a, const Bucket::Point &b);
/// But for the rounding of parts that were added up in another order.
bool isSameSum(const Bucket &a, const Bucket &b);
/// Of the same samples, as far as they tell.
bool isSame(const Bucket &a, const Bucket &b);

/// The narrowest width in seconds with which the range from `first` to `last` has at most so many columns.
qint64 columnWidth(qint64 first, qint64 last, int columns);

/// The column, of so many of equal width from the time `first` to `last`, that a time belongs to; times before and
/// after belong to the outermost.
int pictureColumn(qint64 time, qint64 first, qint64 last, int columns);

/// The columns of a trend while it is read.
class TrendColumns
{
public:
    struct Column {
        Bucket bucket;
        bool exact = true;
    };

    /// Columns that begin at multiples of the width.
    explicit TrendColumns(qint64 width) : m_width(width) {}
    /// Those of a picture, as pictureColumn() has them.
    TrendColumns(qint64 first, qint64 last, int columns) : m_first(first), m_last(last), m_count(columns) {}

    /// The widest of the levels whose buckets are to be read first; -1: of none, single rows.
    int levelFor(const std::vector<qint64> &levels) const;
    /// Whether all times from `begin` until before `end` belong to one column.
    bool isWithinOne(qint64 begin, qint64 end) const { return place(begin) == place(end - 1); }
    Bucket &at(qint64 time) { return m_columns[place(time)].bucket; }
    void setInexact(qint64 time) { m_columns[place(time)].exact = false; }
    const std::map<qint64, Column> &all() const { return m_columns; }
    /// Of columns with a width.
    Trend take() const;

private:
    qint64 place(qint64 time) const
    {
        return m_width > 0 ? time / m_width : pictureColumn(time * 1000, m_first * 1000, m_last * 1000, m_count);
    }

    qint64 m_width = 0;
    qint64 m_first = 0;
    qint64 m_last = 0;
    int m_count = 0;
    std::map<qint64, Column> m_columns;
};

} // namespace device

#endif
