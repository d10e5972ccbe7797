// SPDX-License-Identifier: MIT
#include "storefile/reduction.h"

#include <algorithm>
#include <cmath>

namespace device_db
{

Reduction::Reduction(qint64 first, qint64 last, int columns)
    : m_first(first), m_last(std::max(first, last)), m_columns(size_t(std::max(1, columns)))
{
}

void Reduction::add(Point point)
{
    ++m_count;
    const double part = double(point.time - m_first) / double(m_last - m_first + 1);
    const double place = std::floor(part * double(m_columns.size()));
    Column &column = m_columns[size_t(std::clamp(place, 0.0, double(m_columns.size() - 1)))];
    if (!column.used) {
        column = {point, point, point, point, true};
        return;
    }
    if (point.time < column.first.time)
        column.first = point;
    if (point.time >= column.last.time)
        column.last = point;
    if (point.value < column.lowest.value)
        column.lowest = point;
    if (point.value > column.highest.value)
        column.highest = point;
}

std::vector<Point> Reduction::points() const
{
    std::vector<Point> points;
    for (const Column &column : m_columns) {
        if (!column.used)
            continue;
        const auto begin = points.size();
        for (const Point &point : {column.first, column.lowest, column.highest, column.last})
            points.push_back(point);
        std::stable_sort(points.begin() + std::ptrdiff_t(begin), points.end(),
                         [](const Point &a, const Point &b) { return a.time < b.time; });
        // The same point may be two of them.
        points.erase(std::unique(points.begin() + std::ptrdiff_t(begin), points.end(),
                                 [](const Point &a, const Point &b) { return a.time == b.time && a.value == b.value; }),
                     points.end());
    }
    return points;
}

std::vector<std::vector<Point>> Reduction::lines() const
{
    const auto all = points();
    std::vector<std::vector<Point>> lines;
    const double distance = double(m_last - m_first) / double(std::max<qint64>(1, m_count - 1));
    const double column = double(m_last - m_first) / double(m_columns.size());
    const double pause = std::max(10 * distance, 3 * column);
    for (const Point &point : all) {
        if (lines.empty() || double(point.time - lines.back().back().time) > pause)
            lines.emplace_back();
        lines.back().push_back(point);
    }
    return lines;
}

} // namespace device_db
