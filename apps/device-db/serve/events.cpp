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
    auto &[alarms, isSorted] = m_levels[level];
    isSorted = isSorted && (alarms.empty() || *begin >= alarms.back().first);
    alarms.emplace_back(*begin, end >= 0 ? end : std::numeric_limits<qint64>::max());
}

std::vector<Lane> Lanes::between(const PictureRange &range)
{
    const double column = double(range.to - range.from) / range.columns;
    std::vector<Lane> lanes;
    for (auto &[number, level] : m_levels) {
        if (!level.isSorted)
            std::stable_sort(level.alarms.begin(), level.alarms.end(),
                             [](const auto &a, const auto &b) { return a.first < b.first; });
        level.isSorted = true;
        Lane lane{number, 0, {}};
        for (const auto &[begin, end] : level.alarms) {
            if (begin > range.to)
                break;
            if (end < range.from)
                continue;
            ++lane.alarms;
            const qint64 left = std::max(begin, range.from);
            const qint64 right = std::min(end, range.to);
            if (!lane.spans.empty() && double(left) <= double(lane.spans.back().second) + column)
                lane.spans.back().second = std::max(lane.spans.back().second, right);
            else
                lane.spans.emplace_back(left, right);
        }
        if (lane.alarms > 0)
            lanes.push_back(std::move(lane));
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
