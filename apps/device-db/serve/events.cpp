// SPDX-License-Identifier: MIT
#include "serve/events.h"

#include <algorithm>
#include <cmath>

namespace device_db
{

void Lanes::add(qint64 level, std::optional<qint64> begin, qint64 end)
{
    if (!begin || *begin < 0)
        return;
    m_last = std::max({m_last.value_or(*begin), *begin, end});
    m_alarms.push_back({level, *begin, end >= 0 ? end : std::numeric_limits<qint64>::max()});
    m_isSorted = false;
}

std::vector<Lane> Lanes::between(const PictureRange &range)
{
    if (!m_isSorted)
        std::stable_sort(m_alarms.begin(), m_alarms.end(), [](const Alarm &a, const Alarm &b) {
            return a.level != b.level ? a.level > b.level : a.begin < b.begin;
        });
    m_isSorted = true;
    const double column = double(range.to - range.from) / range.columns;
    std::vector<Lane> lanes;
    for (const Alarm &alarm : m_alarms) {
        if (alarm.begin > range.to || alarm.end < range.from)
            continue;
        if (lanes.empty() || lanes.back().level != alarm.level)
            lanes.push_back({alarm.level, 0, {}});
        ++lanes.back().alarms;
        auto &spans = lanes.back().spans;
        const qint64 left = std::max(alarm.begin, range.from);
        const qint64 right = std::min(alarm.end, range.to);
        if (!spans.empty() && double(left) <= double(spans.back().second) + column)
            spans.back().second = std::max(spans.back().second, right);
        else
            spans.emplace_back(left, right);
    }
    return lanes;
}

void Marks::add(qint64 id, std::optional<qint64> time)
{
    if (!time || *time < 0)
        return;
    m_isSorted = m_isSorted && (m_entries.empty() || *time >= m_entries.back().first);
    m_entries.emplace_back(*time, id);
}

std::vector<Mark> Marks::between(const PictureRange &range)
{
    const auto isEarlier = [](const auto &a, const auto &b) { return a.first < b.first; };
    if (!m_isSorted)
        std::stable_sort(m_entries.begin(), m_entries.end(), isEarlier);
    m_isSorted = true;
    const double width = std::max(1.0, double(range.to - range.from) / range.columns);
    std::vector<Mark> marks;
    double place = -1;
    auto entry = std::lower_bound(m_entries.begin(), m_entries.end(), std::pair(range.from, qint64(0)), isEarlier);
    for (; entry != m_entries.end() && entry->first <= range.to; ++entry) {
        const double column = std::floor(double(entry->first - range.from) / width);
        if (column == place)
            ++marks.back().entries;
        else
            marks.push_back({entry->first, 1, entry->second});
        place = column;
    }
    return marks;
}

} // namespace device_db
