// SPDX-License-Identifier: MIT
#ifndef STOREFILE_STATISTICS_H
#define STOREFILE_STATISTICS_H

#include <QByteArray>
#include <QHash>

#include <optional>
#include <vector>

namespace device_db
{

/// The distances in time between neighbouring samples, in milliseconds.
class SampleDistances
{
public:
    /// Two neighbours in the order of recording, `end` not before `begin`. True when no distance was longer so far.
    bool add(qint64 begin, qint64 end);

    /// Half of the distances are not longer. -1 without any.
    qint64 usual() const;
    /// A gap is a distance of more than this times the usual one.
    static constexpr int gapFactor = 5;
    qint64 gaps() const;
    qint64 longest() const { return m_longest; }           ///< -1 without any.
    qint64 longestBegin() const { return m_longestBegin; } ///< The time of the sample before it.

private:
    QHash<qint64, qint64> m_counts; ///< How often each occurs; devices sample regularly, so there are few.
    qint64 m_longest = -1;
    qint64 m_longestBegin = -1;
};

/// The figures of a series, taken in one pass.
class SeriesStatistics
{
public:
    /// A sample in the order of recording; the time as milliseconds, negative when it is none.
    void add(qint64 time, const QByteArray &value);
    /// Its value alone; nothing: it is not a number.
    void addValue(std::optional<double> number);

    qint64 rows = 0;
    qint64 numbers = 0; ///< Values that are numbers; the figures are of these.
    double lowest = 0;
    double highest = 0;
    double mean() const { return numbers > 0 ? m_sum / double(numbers) : 0; }
    qint64 firstTime = -1;
    qint64 lastTime = -1;
    qint64 stepsBack = 0; ///< A time before that of the sample in front: the clock was set back.

    SampleDistances distances;

private:
    double m_sum = 0;
    qint64 m_previous = -1;
};

struct Flood {
    qint64 begin; ///< The first and the last alarm.
    qint64 end;
    int alarms;
    int most; ///< Within ten minutes.
};

/// Stretches of time in which more than ten alarms began within ten minutes, by the alarms' times in any order.
std::vector<Flood> floodsIn(std::vector<qint64> times);

} // namespace device_db

#endif
