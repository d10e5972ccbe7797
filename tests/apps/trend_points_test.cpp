// SPDX-License-Identifier: MIT
//
// Pictures by sums and by rows have the same points, and sums come out of a damaged file.
#include "salvage_files.h"
#include "tool_test.h"
#include "trend_files.h"

#include "host/trend_reading.h"
#include "storefile/reduction.h"
#include "storefile/rollup_channel.h"
#include "storefile/times.h"
#include "storefile/trend_points.h"
#include "storefile/trend_review.h"

#include <QBuffer>

#include "device/number.h"
#include "device/table_name.h"

namespace
{

using namespace device_db;

const QVector<QVector<device::TrendLevel>> someLevels{
    device::TrendOptions().levels,
    {device::TrendLevel::TenSeconds, device::TrendLevel::Minute, device::TrendLevel::Hour},
    {device::TrendLevel::TenSeconds},
    {device::TrendLevel::Hour, device::TrendLevel::Day}};

struct Drawn {
    std::vector<Point> points;
    qint64 count;
    qint64 left;
};

// As plot read every table before there were sums.
Drawn byRows(const Rows &all, qint64 first, qint64 last, int columns)
{
    Reduction reduction(first, last, columns);
    qint64 left = 0;
    for (const QStringList &row : all) {
        const qint64 time = millisecondsOf(row.at(0).toUtf8(), false);
        if (time < first || time > last)
            continue;
        const auto value = device::number(row.at(1));
        if (value)
            reduction.add({time, *value});
        else
            ++left;
    }
    return {reduction.points(), reduction.count(), left};
}

TEST(TrendPoints, AreThoseOfTheRows)
{
    std::mt19937 random(7);
    const auto below = [&](qint64 limit) { return qint64(random()) % limit; };
    const qint64 day = millisecondsOf("2024-05-06 00:00:00", false);
    for (int history = 0; history < number("DEVICE_TREND_HISTORIES", 12); ++history) {
        const QTemporaryDir folder;
        const QString path = folder.filePath("device.db"_q);
        PlainConnection file(path);
        file.run(samples("Boiler"_q, int(1000 + below(30000)), unsigned(history)));
        const auto database = Database::open(path, Database::ReadWrite);
        ASSERT_TRUE(database);
        keepTrend(*database, "Boiler"_q, someLevels.at(history % someLevels.size()));
        // Some that are not summed up yet, in the middle and at the end.
        file.run("insert into Boiler select NULL,DATETIME,Value||'1' from Boiler where ID%97=0"_q);
        const auto sums = TrendPoints::of(*database, "Boiler"_q);
        ASSERT_TRUE(sums);
        const Rows all = rowsOf(path, "select DATETIME,Value from Boiler order by ID"_q);
        const qint64 length = qint64(1000) * 50000;
        for (int zoom = 0; zoom < 25; ++zoom) {
            const qint64 first = day + (zoom == 0 ? 0 : below(length / 1000) * 1000);
            const qint64 last = zoom == 0 ? day + length : first + below(length >> below(16)) / 1000 * 1000;
            const int columns = int(1 + below(zoom % 2 == 0 ? 200 : 3000));
            const Drawn rows = byRows(all, first, last, columns);
            Reduction reduction(first, last, columns);
            const auto left = sums->add(first, last, columns, reduction);
            ASSERT_TRUE(left) << qPrintable(left.error().text());
            EXPECT_EQ(*left, rows.left);
            EXPECT_EQ(reduction.count(), rows.count);
            const std::vector<Point> points = reduction.points();
            ASSERT_EQ(points.size(), rows.points.size()) << history << " " << zoom;
            for (size_t i = 0; i < points.size(); ++i) {
                ASSERT_EQ(points[i].time, rows.points[i].time) << history << " " << zoom << " " << columns;
                ASSERT_EQ(points[i].value, rows.points[i].value) << history << " " << zoom << " " << columns;
            }
        }
    }
}

TEST(TrendPoints, GoOnShowingWhatIsRemoved)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("device.db"_q);
    PlainConnection file(path);
    file.run(samples("Boiler"_q, 20000, 3));
    const auto database = Database::open(path, Database::ReadWrite);
    ASSERT_TRUE(database);
    keepTrend(*database, "Boiler"_q, someLevels.first());
    const auto sums = TrendPoints::of(*database, "Boiler"_q);
    ASSERT_TRUE(sums);
    const qint64 day = millisecondsOf("2024-05-06 00:00:00", false);
    const auto highest = [&] {
        double most = -1e9;
        std::vector<qint64> counts;
        for (const int columns : {50, 777, 8000}) { // read at once, and in parts
            Reduction reduction(day, day + 86400000, columns);
            EXPECT_TRUE(sums->add(day, day + 86400000, columns, reduction));
            for (const Point &point : reduction.points())
                most = std::max(most, point.value);
            counts.push_back(reduction.count());
        }
        return std::pair(most, counts);
    };
    EXPECT_EQ(sums->removedRange()->first, "");
    const auto before = highest();
    file.run("delete from Boiler where ID<=15000"_q);
    EXPECT_EQ(highest(), before);
    EXPECT_TRUE(sums->removedRange()->first.startsWith("2024-05-06 00:0"));
    file.run("delete from Boiler"_q);
    EXPECT_EQ(highest(), before);
}

// A recorder that goes on while rows are read in slices.
class Interfering : public RollupChannel
{
public:
    Interfering(const Database &database, std::function<void()> between)
        : RollupChannel(database), m_between(std::move(between))
    {
    }

    Status run(const device::Site &site, const QString &sql) override
    {
        const Status done = RollupChannel::run(site, sql);
        if (sql == "rollback"_q)
            m_between();
        return done;
    }

private:
    std::function<void()> m_between;
};

TEST(ATrendThatIsRead, CountsNoRowTwiceWhenTheMarkMovesOn)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("device.db"_q);
    PlainConnection file(path);
    file.run(
        "pragma journal_mode=wal; create table Boiler(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value "
        "text); create index i on Boiler(DATETIME); with recursive n(i) as (select 0 union all select i+1 from n "
        "where i<69999) insert into Boiler select NULL,datetime(1714953600+i,'unixepoch'),i from n"_q);
    const auto writer = Database::open(path, Database::ReadWrite);
    ASSERT_TRUE(writer);
    keepTrend(*writer, "Boiler"_q, {device::TrendLevel::Minute});
    const auto reader = Database::open(path, Database::ReadOnly);
    ASSERT_TRUE(reader);
    // Late rows of minutes that are still to be read.
    Interfering channel(*reader, [&] {
        file.run("insert into Boiler select NULL,DATETIME,Value from Boiler where ID%60=30 and ID<=70000"_q);
        EXPECT_TRUE(catchUpTrend(*writer, "Boiler"_q, [](qint64) { return true; }));
    });
    const auto trend = device::readTrend(channel, {"read"_q, "Boiler"_q},
                                         device::TrendQuery::between(QDateTime(QDate(2024, 5, 6), QTime(0, 0)),
                                                                     QDateTime(QDate(2024, 5, 6), QTime(19, 26, 39)))
                                             .columns(100000));
    ASSERT_TRUE(trend) << qPrintable(trend.error().text());
    qint64 rows = 0;
    for (const device::TrendColumn &column : trend->columns)
        rows += column.rows;
    EXPECT_EQ(rows, 70000);
}

// Whatever pages are lost: what comes out says nothing that the rows contradict, and nothing twice.
TEST(TrendsOfADamagedFile, AreSalvagedAsFarAsTheyGo)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("device.db"_q);
    {
        PlainConnection file(path);
        file.run("pragma page_size=1024;"_q + samples("Boiler"_q, 6000, 5));
        const auto database = Database::open(path, Database::ReadWrite);
        ASSERT_TRUE(database);
        keepTrend(*database, "Boiler"_q, someLevels.first());
        file.run("delete from Boiler where ID<=500; insert into Boiler values(NULL,'2024-05-09 00:00:00','5')"_q);
    }
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray whole = file.readAll();
    const qint64 sums = valueOf(path, "select count(*) from \"device trend\""_q).toLongLong();
    std::mt19937 random(11);
    for (int round = 0; round < number("DEVICE_SALVAGE_ROUNDS", 40); ++round) {
        QByteArray bytes = whole;
        for (int i = 0; i < round; ++i) { // the first round is of a file without damage
            const int begin = int(random() % unsigned(bytes.size()));
            const int size = int(random() % 3000);
            for (int at = begin; at < std::min(begin + size, int(bytes.size())); ++at)
                bytes[at] = char(round % 2 == 0 ? 0 : random());
        }
        const QString target = folder.filePath(QStringLiteral("salvaged%1.db").arg(round));
        {
            const Database to = makeTarget(target);
            QBuffer damaged(&bytes);
            ASSERT_TRUE(damaged.open(QIODevice::ReadOnly));
            const auto report = device_db::salvage(DamagedFiles{damaged}, to);
            ASSERT_TRUE(report) << qPrintable(report.error().text());
            if (round == 0) {
                EXPECT_EQ(report->trendSums, sums);
                EXPECT_EQ(report->trendSumsMade, 0);
            }
        }
        const auto database = Database::open(target, Database::ReadWrite);
        ASSERT_TRUE(database);
        const auto state = trendOf(*database, "Boiler"_q);
        if (!state || !*state || !(*state)->isOfThisTable)
            continue;
        EXPECT_TRUE(round > 0 || (*state)->mark == 6000);
        const auto differs = [&](const TrendDifference &difference) -> Status {
            ADD_FAILURE() << round << " " << qPrintable(difference.text());
            return {};
        };
        const auto review = reviewTrend(*database, "Boiler"_q, **state, differs, {});
        ASSERT_TRUE(review) << qPrintable(review.error().text());
        EXPECT_EQ(review->wrong + review->strange, 0) << round;
        // What the rows above the mark add is no part of the sums.
        EXPECT_TRUE(catchUpTrend(*database, "Boiler"_q, [](qint64) { return true; })) << round;
        const auto after = trendOf(*database, "Boiler"_q);
        const auto again = reviewTrend(*database, "Boiler"_q, **after, differs, {});
        ASSERT_TRUE(again);
        EXPECT_EQ(again->wrong, 0) << round;
    }
}

} // namespace
