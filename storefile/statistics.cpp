// SPDX-License-Identifier: MIT
#include "storefile/statistics.h"

#include "device/number.h"

#include <algorithm>

namespace device_db
{

void SeriesStatistics::add(qint64 time, const QByteArray &value)
{
    addValue(device::number(value));
    if (time < 0)
        return;
    firstTime = firstTime < 0 ? time : std::min(firstTime, time);
    lastTime = std::max(lastTime, time);
    if (m_previous >= 0) {
        if (time < m_previous)
            ++stepsBack;
        else
            distances.add(m_previous, time);
    }
    m_previous = time;
}

void SeriesStatistics::addValue(std::optional<double> number)
{
    ++rows;
    if (!number)
        return;
    lowest = numbers == 0 ? *number : std::min(lowest, *number);
    highest = numbers == 0 ? *number : std::max(highest, *number);
    m_sum += *number;
    ++numbers;
}

bool SampleDistances::add(qint64 begin, qint64 end)
{
    const qint64 distance = end - begin;
    ++m_counts[distance];
    if (distance <= m_longest)
        return false;
    m_longest = distance;
    m_longestBegin = begin;
    return true;
}

qint64 SampleDistances::usual() const
{
    std::vector<qint64> distances;
    qint64 all = 0;
    for (auto it = m_counts.cbegin(); it != m_counts.cend(); ++it) {
        distances.push_back(it.key());
        all += it.value();
    }
    std::sort(distances.begin(), distances.end());
    qint64 seen = 0;
    for (const qint64 distance : distances) {
        seen += m_counts.value(distance);
        if (2 * seen >= all)
            return distance;
    }
    return -1;
}

qint64 SampleDistances::gaps() const
{
    const qint64 longestUsual = gapFactor * std::max<qint64>(usual(), 1);
    qint64 gaps = 0;
    for (auto it = m_counts.cbegin(); it != m_counts.cend(); ++it)
        gaps += it.key() > longestUsual ? it.value() : 0;
    return gaps;
}

std::vector<Flood> floodsIn(std::vector<qint64> times)
{
    constexpr qint64 window = 10 * 60 * 1000;
    constexpr size_t tooMany = 11;
    std::sort(times.begin(), times.end());
    std::vector<Flood> floods;
    size_t counted = 0; // the alarms up to here belong to the last flood
    for (size_t first = 0, end = 0; first < times.size(); ++first) {
        while (end < times.size() && times[end] < times[first] + window)
            ++end;
        if (end - first < tooMany)
            continue;
        if (floods.empty() || first >= counted) {
            floods.push_back({times[first], times[end - 1], int(end - first), int(end - first)});
        } else {
            floods.back().end = times[end - 1];
            floods.back().alarms += int(end - std::max(counted, first));
            floods.back().most = std::max(floods.back().most, int(end - first));
        }
        counted = end;
    }
    return floods;
}

} // namespace device_db
