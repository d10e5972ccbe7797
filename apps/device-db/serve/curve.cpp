// SPDX-License-Identifier: MIT
#include "serve/curve.h"

#include <cmath>

namespace device_db
{

void SampleTotal::add(qint64 time, std::optional<double> value)
{
    if (!value) {
        ++rows;
        return;
    }
    const Point point{time, *value};
    add(1, 1, *value, {point, point, point, point});
}

void SampleTotal::add(qint64 moreRows, qint64 moreNumbers, double sum, const std::array<Point, 4> &points)
{
    rows += moreRows;
    if (moreNumbers == 0)
        return;
    const bool isFirst = numbers == 0;
    numbers += moreNumbers;
    addToSum(sum);
    const auto &[newFirst, newLowest, newHighest, newLast] = points;
    if (isFirst || newLowest.value < lowest.value || (newLowest.value == lowest.value && newLowest.time < lowest.time))
        lowest = newLowest;
    if (isFirst || newHighest.value > highest.value ||
        (newHighest.value == highest.value && newHighest.time < highest.time))
        highest = newHighest;
    if (isFirst || newFirst.time < first.time)
        first = newFirst;
    if (isFirst || newLast.time >= last.time)
        last = newLast;
}

// Neumaier's summation, as in the sums of trends.
void SampleTotal::addToSum(double value)
{
    const double sum = m_sum + value;
    if (std::isfinite(sum))
        m_rest += std::abs(m_sum) >= std::abs(value) ? m_sum - sum + value : value - sum + m_sum;
    else
        m_rest = 0; // the values are too large to be summed up
    m_sum = sum;
}

Reduction &Curve::reductionOf(int run)
{
    constexpr size_t runsDrawn = 64;
    const int key = m_runs.size() >= runsDrawn && m_runs.count(run) == 0 ? -1 : run;
    return m_runs.try_emplace(key, m_range.from, m_range.to, m_range.columns).first->second;
}

void Curve::add(int run, qint64 time, std::optional<double> value)
{
    if (time < m_range.from || time > m_range.to)
        return;
    m_total.add(time, value);
    if (value)
        reductionOf(run).add({time, *value});
    else
        m_others[size_t(m_columns.columnOf(time))] = true;
}

bool Curve::addWhole(const Block &block)
{
    const int column = m_columns.columnOf(block.earliest);
    if (block.earliest < m_range.from || block.latest > m_range.to || column != m_columns.columnOf(block.latest))
        return false;
    if (block.timed > block.numbers)
        m_others[size_t(column)] = true;
    if (block.numbers > 0)
        reductionOf(block.run).add(block.points, block.numbers);
    m_total.add(block.timed, block.numbers, block.sum, block.points);
    return true;
}

void Curve::addRoughly(const Block &block)
{
    for (size_t i = 0; block.numbers > 0 && i < block.points.size(); ++i)
        add(block.run, block.points[i].time, block.points[i].value);
}

void Curve::add(const SummedColumn &column)
{
    if (column.rows > column.numbers)
        m_others[size_t(column.place)] = true;
    if (column.numbers > 0)
        reductionOf(0).add(column.points, column.numbers);
    m_total.add(column.rows, column.numbers, column.sum, column.points);
}

std::vector<Point> Curve::points() const
{
    Reduction all(m_range.from, m_range.to, m_range.columns);
    for (const auto &[run, reduction] : m_runs)
        all.add(reduction);
    return all.points();
}

std::vector<std::vector<Point>> Curve::lines() const
{
    std::vector<std::vector<Point>> lines;
    for (const auto &[run, reduction] : m_runs) {
        for (auto &line : reduction.lines(m_total.numbers))
            lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<double> Curve::otherTimes() const
{
    std::vector<double> times;
    for (size_t column = 0; column < m_others.size(); ++column) {
        if (m_others[column])
            times.push_back(double(m_range.from) +
                            (double(column) + 0.5) * double(m_range.to - m_range.from + 1) / m_range.columns);
    }
    return times;
}

} // namespace device_db
