// SPDX-License-Identifier: MIT
//
// Files with trends, and what is done to them.
#pragma once

#include "plain_connection.h"
#include "text_literal.h"

#include "storefile/rollup_channel.h"
#include "storefile/trends.h"

#include "device/table_name.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

/// A table of samples with an index on time: some late, some at the same time, some that are no numbers or have no
/// time. About one a second from 2024-05-06 00:00:00, with IDs from 1.
inline QString samples(const QString &table, int rows, unsigned seed)
{
    std::mt19937 random(seed);
    const auto below = [&](int limit) { return int(random() % unsigned(limit)); };
    QStringList values;
    int second = 0;
    for (int i = 0; i < rows; ++i) {
        second += below(200) == 0 ? below(4000) : below(3);
        const int late = below(50) == 0 ? below(std::min(second + 1, 5000)) : 0;
        const int at = second - late;
        const QString time = below(300) == 0 ? "'2024'"_q
                                             : QStringLiteral("'2024-05-%1 %2:%3:%4'")
                                                   .arg(6 + at / 86400, 2, 10, QLatin1Char('0'))
                                                   .arg(at / 3600 % 24, 2, 10, QLatin1Char('0'))
                                                   .arg(at / 60 % 60, 2, 10, QLatin1Char('0'))
                                                   .arg(at % 60, 2, 10, QLatin1Char('0'));
        const QString value = below(40) == 0   ? "'ERR'"_q
                              : below(60) == 0 ? "NULL"_q
                              : below(7) == 0  ? "'50'"_q
                                               : QStringLiteral("'%1.%2'").arg(below(100) - 20).arg(below(1000));
        values << "(NULL,"_q + time + ","_q + value + ")"_q;
    }
    QString sql = "create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                  "create index \"device index %1\" on %1(DATETIME);begin;"_q.arg(table);
    for (int i = 0; i < values.size(); i += 500)
        sql += "insert into "_q + table + " values"_q + values.mid(i, 500).join(","_q) + ";"_q;
    return sql + "commit;"_q;
}

/// Sums up what there is.
inline void keepTrend(const device_db::Database &database, const QString &table,
                      const QVector<device::TrendLevel> &levels)
{
    device_db::RollupChannel channel(database);
    device::TrendOptions options;
    options.levels = levels;
    const device::Status begun = channel.transaction({}, [&]() -> device::Status {
        const auto made = device::beginRollups(channel, *device::TableName::from(table), options);
        return made ? device::Status() : made.error();
    });
    ASSERT_TRUE(begun) << qPrintable(begun.error().text());
    const device::Status done = device_db::catchUpTrend(database, table, [](qint64) { return true; });
    ASSERT_TRUE(done) << qPrintable(done.error().text());
}
