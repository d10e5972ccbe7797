// SPDX-License-Identifier: MIT
#pragma once

#include "host_test.h"

#include <cmath>

/// A trend worked out from rows (ID, time, value) one by one, in the order of ID, as plainly as it can be said.
inline QVector<device::TrendColumn> columnsOf(const Rows &rows, const QString &from, const QString &to, qint64 width)
{
    const auto origin = QDate(1, 1, 1).toJulianDay();
    std::map<qint64, device::TrendColumn> columns;
    std::map<qint64, long double> sums;
    for (const QStringList &row : rows) {
        const QString &text = row.at(1);
        if (text < from || text > to)
            continue;
        const device::LocalTime time = at(text);
        const qint64 seconds = (time.date().toJulianDay() - origin) * 86400 + time.time().msecsSinceStartOfDay() / 1000;
        device::TrendColumn &column = columns[seconds / width];
        ++column.rows;
        bool isNumber = false;
        const double value = QLocale::c().toDouble(row.at(2), &isNumber);
        if (!isNumber)
            continue;
        const device::Sample sample(time, row.at(2));
        sums[seconds / width] += value;
        const bool isFirst = column.numbers++ == 0;
        const auto earlier = [](device::LocalTime a, device::LocalTime b) { return a < b; };
        const double lowest = column.lowest.value.toDouble(), highest = column.highest.value.toDouble();
        if (isFirst || value < lowest || (value == lowest && earlier(time, column.lowest.time)))
            column.lowest = sample;
        if (isFirst || value > highest || (value == highest && earlier(time, column.highest.time)))
            column.highest = sample;
        if (isFirst || earlier(time, column.first.time))
            column.first = sample;
        if (isFirst || !earlier(time, column.last.time))
            column.last = sample;
    }
    QVector<device::TrendColumn> list;
    for (auto &[place, column] : columns) {
        column.mean = column.numbers > 0 ? double(sums[place] / column.numbers) : 0;
        column.from = device::LocalTime(QDate::fromJulianDay(origin + place * width / 86400),
                                        QTime::fromMSecsSinceStartOfDay(int(place * width % 86400 * 1000)));
        list.append(column);
    }
    return list;
}

inline std::string toString(const device::TrendColumn &column)
{
    const auto shown = [](const device::Sample &sample) {
        return sample.value.toStdString() + "@" +
               sample.time.toDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")).toStdString() + " ";
    };
    return shown({column.from, QString()}) + std::to_string(column.rows) + "/" + std::to_string(column.numbers) + " " +
           shown(column.lowest) + shown(column.highest) + shown(column.first) + shown(column.last);
}

/// Everything but the mean is the same; the mean but for rounding.
inline void expectSameColumns(const QVector<device::TrendColumn> &found, const QVector<device::TrendColumn> &expected)
{
    ASSERT_EQ(found.size(), expected.size());
    for (int i = 0; i < found.size(); ++i) {
        ASSERT_EQ(toString(found.at(i)), toString(expected.at(i)));
        const double largest = std::max({std::abs(expected.at(i).lowest.value.toDouble()),
                                         std::abs(expected.at(i).highest.value.toDouble()), 1e-300});
        ASSERT_LE(std::abs(found.at(i).mean - expected.at(i).mean), 1e-12 * largest);
    }
}
