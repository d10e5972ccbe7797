// SPDX-License-Identifier: MIT
//
// What plot and stats make of a series, beside the plain way of finding it.
#include "storefile/reduction.h"
#include "storefile/statistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>

namespace
{

using device_db::floodsIn;
using device_db::Point;
using device_db::Reduction;
using device_db::SeriesStatistics;

bool operator==(const Point &a, const Point &b)
{
    return a.time == b.time && a.value == b.value;
}

std::vector<Point> randomSeries(unsigned seed)
{
    std::mt19937 random(seed);
    std::vector<Point> points;
    const int count = 1 + int(random() % 5000);
    const qint64 begin = qint64(random() % 1000000) * 1000;
    qint64 time = begin;
    double value = 0;
    for (int i = 0; i < count; ++i) {
        time += random() % 20 == 0 ? qint64(random() % 500000) : 1000;
        value = random() % 50 == 0 ? double(random() % 100000) : value + double(random() % 100) - 50;
        points.push_back({time, value});
    }
    if (random() % 4 == 0)
        std::shuffle(points.begin(), points.end(), random); // a clock that was set back
    return points;
}

TEST(Reduction, KeepsTheExtremesAndTheEndsOfEachColumn)
{
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        const std::vector<Point> all = randomSeries(seed);
        const auto byTime = [](const Point &a, const Point &b) { return a.time < b.time; };
        const qint64 first = std::min_element(all.begin(), all.end(), byTime)->time;
        const qint64 last = std::max_element(all.begin(), all.end(), byTime)->time;
        const int columns = 1 + int(seed * 37 % 400);
        Reduction reduction(first, last, columns);
        std::map<qint64, std::pair<double, double>> extremes;
        const auto columnOf = [&](qint64 time) {
            return qint64(std::floor(double(time - first) / double(last - first + 1) * columns));
        };
        for (const Point &point : all) {
            reduction.add(point);
            const auto [place, added] = extremes.try_emplace(columnOf(point.time), point.value, point.value);
            place->second.first = std::min(place->second.first, point.value);
            place->second.second = std::max(place->second.second, point.value);
        }
        const std::vector<Point> reduced = reduction.points();
        EXPECT_EQ(reduction.count(), qint64(all.size()));
        EXPECT_LE(reduced.size(), 4 * size_t(columns));
        EXPECT_TRUE(std::is_sorted(reduced.begin(), reduced.end(), byTime));
        EXPECT_EQ(reduced.front().time, first);
        EXPECT_EQ(reduced.back().time, last);
        std::map<qint64, std::pair<double, double>> kept;
        for (const Point &point : reduced) {
            EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const Point &each) { return each == point; }));
            const auto [place, added] = kept.try_emplace(columnOf(point.time), point.value, point.value);
            place->second.first = std::min(place->second.first, point.value);
            place->second.second = std::max(place->second.second, point.value);
        }
        EXPECT_EQ(kept, extremes);
        size_t inLines = 0;
        for (const auto &line : reduction.lines())
            inLines += line.size();
        EXPECT_EQ(inLines, reduced.size());
    }
}

TEST(Reduction, APauseBreaksTheLine)
{
    Reduction reduction(0, 1000000, 100);
    for (qint64 time = 0; time <= 1000000; time += 1000) {
        if (time < 400000 || time > 600000)
            reduction.add({time, 1});
    }
    const auto lines = reduction.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].back().time, 399000);
    EXPECT_EQ(lines[1].front().time, 601000);
}

TEST(SeriesStatistics, FindGapsAndStepsOfTheClock)
{
    SeriesStatistics figures;
    EXPECT_EQ(figures.distances.usual(), -1);
    EXPECT_EQ(figures.distances.gaps(), 0);
    for (const qint64 second : {0, 10, 20, 30, 40, 100, 110, 90, 101, 111, 161})
        figures.add(second * 1000, QByteArray::number(second));
    figures.add(-1, "fault");
    figures.add(262000, "1");
    EXPECT_EQ(figures.rows, 13);
    EXPECT_EQ(figures.numbers, 12);
    EXPECT_EQ(figures.lowest, 0);
    EXPECT_EQ(figures.highest, 161);
    EXPECT_DOUBLE_EQ(figures.mean(), (0 + 10 + 20 + 30 + 40 + 100 + 110 + 90 + 101 + 111 + 161 + 1) / 12.0);
    EXPECT_EQ(figures.distances.usual(), 10000);
    EXPECT_EQ(figures.stepsBack, 1);
    EXPECT_EQ(figures.distances.gaps(), 2) << "60 s and 101 s; 50 s are five times the usual distance and no more";
    EXPECT_EQ(figures.distances.longest(), 101000);
    EXPECT_EQ(figures.distances.longestBegin(), 161000);
}

TEST(Floods, AreMoreThanTenAlarmsWithinTenMinutes)
{
    constexpr qint64 minute = 60000;
    std::vector<qint64> times;
    for (int i = 0; i < 10; ++i)
        times.push_back(i * minute);
    EXPECT_TRUE(floodsIn(times).empty()) << "ten are no flood";
    times.push_back(10 * minute);
    EXPECT_TRUE(floodsIn(times).empty()) << "the eleventh is just too late";
    times.push_back(9 * minute);
    const auto floods = floodsIn(times);
    ASSERT_EQ(floods.size(), 1u);
    EXPECT_EQ(floods[0].begin, 0);
    EXPECT_EQ(floods[0].most, 11);

    times.clear();
    for (int i = 0; i < 30; ++i)
        times.push_back(1000 * minute + i * minute / 2); // a quarter of an hour
    for (int i = 0; i < 12; ++i)
        times.push_back(5000 * minute + i);
    std::reverse(times.begin(), times.end());
    const auto two = floodsIn(times);
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[0].alarms, 30);
    EXPECT_EQ(two[0].most, 20);
    EXPECT_EQ(two[0].begin, 1000 * minute);
    EXPECT_EQ(two[0].end, 1000 * minute + 29 * minute / 2);
    EXPECT_EQ(two[1].alarms, 12);
}

} // namespace
