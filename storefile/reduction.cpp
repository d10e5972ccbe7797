// SPDX-License-Identifier: MIT
#include "storefile/reduction.h"

#include "host/bucket.h"

#include <algorithm>

namespace device_db
{

Reduction::Reduction(qint64 first, qint64 last, int columns)
    : m_first(first), m_last(std::max(first, last)), m_columns(size_t(std::max(1, columns)))
{
}

void Reduction::add(Point point)
{
    ++m_count;
    take(point);
}

void Reduction::add(const std::array<Point, 4> &points, qint64 count)
{
    m_count += count;
    for (const Point &point : points)
        take(point);
}

void Reduction::add(const Reduction &other)
{
    m_count += other.m_count;
    for (const Column &column : other.m_columns) {
        if (column.used) {
            for (const Point &point : {column.first, column.lowest, column.highest, column.last})
                take(point);
        }
    }
}

int Reduction::columnOf(qint64 time) const
{
    return device::pictureColumn(time, m_first, m_last, int(m_columns.size()));
}

// Of equal values the earliest: points that were summed up come in another order.
void Reduction::take(Point point)
{
    Column &column = m_columns[size_t(columnOf(point.time))];
    if (!column.used) {
        column = {point, point, point, point, true};
        return;
    }
    const auto isEarlier = [&](const Point &than) { return point.value == than.value && point.time < than.time; };
    if (point.time < column.first.time)
        column.first = point;
    if (point.time >= column.last.time)
        column.last = point;
    if (point.value < column.lowest.value || isEarlier(column.lowest))
        column.lowest = point;
    if (point.value > column.highest.value || isEarlier(column.highest))
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

std::vector<std::vector<Point>> Reduction::lines(qint64 count) const
{
    const auto all = points();
    std::vector<std::vector<Point>> lines;
    const double distance = double(m_last - m_first) / double(std::max<qint64>(1, count - 1));
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
