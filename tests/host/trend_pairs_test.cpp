// SPDX-License-Identifier: MIT
//
// Trends against their rows while much goes wrong. DEVICE_TREND_PAIRS: how many random pairs of a history and a range
// (120). DEVICE_TREND_SEED: which.
#include "faulty_disk.h"
#include "trend_fixture.h"

#include <random>
#include <set>

namespace
{

int numberOf(const char *variable, int otherwise)
{
    return qEnvironmentVariableIsSet(variable) ? qEnvironmentVariableIntValue(variable) : otherwise;
}

QString text(LocalTime time)
{
    return time.toDateTime().toString("yyyy-MM-dd hh:mm:ss"_q);
}

class TrendPairs : public Trends
{
protected:
    bool isTrend(const QString &from, const QString &to, int columns, const Rows &rows) const
    {
        auto store = HistoryStore::open(library(), path());
        if (!store)
            return false;
        const auto found = store->trend(boiler, TrendQuery::between(at(from), at(to)).columns(columns));
        if (!found) // a sum may be unreadable so far
            return false;
        const auto expected = columnsOf(rows, from, to, found->width.count());
        return std::equal(
            found->columns.begin(), found->columns.end(), expected.begin(), expected.end(),
            [](const TrendColumn &a, const TrendColumn &b) { return toString(a) == toString(b) && isMean(a, b); });
    }
    static bool isMean(const TrendColumn &a, const TrendColumn &b)
    {
        const double largest = std::max(std::abs(b.lowest.value.toDouble()), std::abs(b.highest.value.toDouble()));
        return std::abs(a.mean - b.mean) <= 1e-12 * std::max(largest, 1e-300);
    }

    // With `newest`, so many rows are kept.
    void expectTrendsDespiteFaults(int newest)
    {
        FaultyDisk disk;
        options.batchRows = 40;
        int failures = 0;
        qint64 removed = 0;
        Rows all;
        for (int i = 0; i < 500; ++i)
            all << QStringList{QString::number(i + 1), text(numbered(i).time), numbered(i).value};
        for (int fault = 0; fault < FaultyDisk::Faults; ++fault) {
            bool failed = true;
            for (int after = 0; failed; after += 1 + after / 4) {
                removeFiles();
                auto recorder = recorderOf(fault % 2 ? Profile::AsIs : Profile::Durable);
                recorder->keepTrend(boiler);
                if (newest > 0) {
                    Keep keep;
                    keep.rows = newest;
                    recorder->keep(boiler, keep);
                }
                require(recorder->flush(milliseconds(20000)));
                disk.fail(FaultyDisk::Fault(fault), 1, after);
                record(*recorder, 0, 400);
                (void)recorder->flush(milliseconds(20000));
                record(*recorder, 400, 500);
                require(recorder->stop(milliseconds(20000)));
                failed = disk.failures() > failures;
                failures = disk.failures();
                disk.mend();
                const Rows kept = rowsOfFile();
                ASSERT_GE(kept.size(), newest > 0 ? newest : 500);
                ASSERT_EQ(kept, all.mid(500 - int(kept.size())));
                removed += 500 - int(kept.size());
                expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10, all);
                expectTrend("2024-05-06 00:01:00"_q, "2024-05-06 00:07:59"_q, 7, all);
                if (newest == 0)
                    expectTrend("2024-05-06 00:00:30"_q, "2024-05-06 00:07:29"_q, 7, all);
            }
        }
        EXPECT_GT(failures, 20);
        EXPECT_EQ(removed > 0, newest > 0);
    }

    static Rows withTimes(const std::map<qint64, QStringList> &known)
    {
        Rows rows;
        for (const auto &[id, row] : known) {
            if (at(row.at(1)).isValid())
                rows << row;
        }
        return rows;
    }

    // Another program edits a row or a sum. Where only the `newest` rows are kept, one of these, of a span that has all
    // of its rows: of others the sum is all that is left.
    void edit(std::mt19937 &random, std::map<qint64, QStringList> &known, int newest, int width) const
    {
        const Rows rows = rowsOfFile();
        const bool someAreRemoved = newest > 0;
        const int choice = someAreRemoved ? std::min(newest, int(rows.size())) : int(rows.size());
        if (choice == 0)
            return;
        const QStringList row = rows.at(int(rows.size()) - 1 - int(random() % unsigned(choice)));
        const auto spanOf = [width](const QStringList &of) {
            return at(of.at(1)).toDateTime().toSecsSinceEpoch() / width;
        };
        if (!at(row.at(1)).isValid())
            return;
        std::set<qint64> there;
        for (const QStringList &each : rows)
            there.insert(each.first().toLongLong());
        for (const auto &[id, each] : known) {
            if (there.count(id) == 0 && at(each.at(1)).isValid() && spanOf(each) == spanOf(row))
                return;
        }
        const QString where = " where ID="_q + row.first();
        switch (random() % (someAreRemoved ? 1 : 6)) {
        default:
            OtherProgram(path()).run("update Boiler set Value='%1'"_q.arg(random() % 2000) + where);
            break;
        case 1:
            OtherProgram(path()).run(
                "update Boiler set DATETIME=datetime(DATETIME,'%1 seconds')"_q.arg(int(random() % 20000) - 10000) +
                where);
            break;
        case 2:
            OtherProgram(path()).run("update Boiler set Value='ERR',DATETIME='%1' where ID>%2"_q.arg(
                row.at(1), rows.at(rows.size() * 9 / 10).first()));
            break;
        case 3:
            OtherProgram(path()).run("delete from \"device trend\" where K%17="_q + QString::number(random() % 17));
            break;
        case 4:
            OtherProgram(path()).run("update \"device trend\" set D=replace(D,';',';1') where K%17="_q +
                                     QString::number(random() % 17));
            break;
        }
        for (const QStringList &each : rowsOfFile())
            known[each.first().toLongLong()] = each;
        if (someAreRemoved) { // before the row goes, or nobody can tell
            const QDateTime from = at(row.at(1)).toDateTime().addSecs(-at(row.at(1)).time().second() % width);
            EXPECT_TRUE(
                eventually([&] { return isTrend(text(from), text(from.addSecs(width - 1)), 1, withTimes(known)); }));
        }
    }
};

// Each write, sync and deletion in turn fails once, while rows are stored and while the rest is written at the end.
TEST_F(TrendPairs, AreThoseOfTheRowsAfterEveryFaultOfTheDisk)
{
    expectTrendsDespiteFaults(0);
}

// The same while rows are removed: never more of them than the rule says, and what is removed is in the sums.
TEST_F(TrendPairs, HaveTheRemovedRowsAfterEveryFaultOfTheDisk)
{
    expectTrendsDespiteFaults(150);
}

// Random histories: rows in batches, late, with steps of the clock, without a number, by other programs, by a recorder
// that begins again; emptied tables; old rows that are removed. After each step a random zoom is compared with the
// rows, those that were removed included, and other programs that edit rows and sums.
TEST_F(TrendPairs, AreThoseOfTheRowsWhateverHappens)
{
    const int pairs = numberOf("DEVICE_TREND_PAIRS", 120);
    std::mt19937 random(unsigned(numberOf("DEVICE_TREND_SEED", 1)));
    const auto upTo = [&random](int bound) { return int(random() % unsigned(bound)); };
    const auto valueText = [&]() -> QString {
        switch (upTo(20)) {
        case 0:
            return "ERR"_q;
        case 1:
            return "1,5"_q;
        case 2:
            return ""_q;
        case 3:
            return "it's \"%1\""_q;
        case 4:
            return QString::number(upTo(3)) + ".0"_q;
        default:
            return QString::number((double(random()) - 2e9) / (1 + upTo(1000000)), 'g', 17);
        }
    };
    options.batchRows = 50;
    options.auditPause = milliseconds(1);
    for (int pair = 0; pair < pairs;) {
        removeFiles();
        bool isEdited = false; // so the audit may have to come by first
        TrendOptions trend;
        if (upTo(2))
            trend.levels.prepend(TrendLevel::TenSeconds);
        if (upTo(3) == 0)
            trend.levels.removeAt(1 + upTo(int(trend.levels.size()) - 1));
        auto recorder = trendRecorder(trend);
        const bool trims = upTo(2) == 0;
        Keep keep;
        if (trims) {
            keep.rows = 500 + upTo(1500);
            recorder->keep(boiler, keep);
        }
        std::map<qint64, QStringList> known; // by ID
        LocalTime now = at("2024-02-28 12:00:00"_q);
        const auto later = [&now](int seconds) { now = LocalTime(now.toDateTime().addSecs(seconds)); };
        for (int step = 0; step < 30 && pair < pairs; ++step, ++pair) {
            switch (upTo(12)) {
            case 0:
                recorder = trendRecorder(trend);
                break;
            case 1:
                OtherProgram(path()).run(
                    "insert into Boiler values(NULL,'%1','%2')"_q.arg(text(now), QString::number(upTo(1000))));
                break;
            case 2:
                later(upTo(2) ? -upTo(7200) : upTo(7 * 86400)); // the clock was set
                break;
            case 3:
                if (upTo(4) == 0) {
                    OtherProgram(path()).run("delete from Boiler; update sqlite_sequence set seq=0"_q);
                    known.clear();
                }
                break;
            case 4:
                OtherProgram(path()).run("insert into Boiler values(NULL,'yesterday','1'),(NULL,NULL,NULL)"_q);
                break;
            default:
                break;
            }
            const int rows = upTo(400);
            const int pause = 1 + upTo(step % 5 == 0 ? 600 : 3);
            for (int i = 0; i < rows; ++i) {
                later(upTo(2 * pause));
                const LocalTime when = upTo(50) ? now : LocalTime(now.toDateTime().addSecs(-upTo(90000)));
                require(recorder->record(boiler, {when, valueText()}));
            }
            require(recorder->flush(milliseconds(20000)));
            for (const QStringList &row : rowsOfFile())
                known[row.first().toLongLong()] = row;
            QDateTime from = now.toDateTime().addSecs(-qint64(upTo(2) ? upTo(3000) : upTo(20 * 86400)));
            QDateTime to = from.addSecs(upTo(2) ? upTo(5000) : upTo(30 * 86400));
            int columns = 1 + upTo(200);
            if (trims) { // whole buckets are what is left of removed rows
                const int width = trend.levels.first() == TrendLevel::TenSeconds ? 10 : 60;
                from = from.addSecs(-from.time().second() % width);
                to = from.addSecs((from.secsTo(to) / width + 1) * width - 1);
                columns = int(std::min<qint64>(columns, (from.secsTo(to) + 1) / width));
            }
            if (upTo(3) == 0) {
                isEdited = true;
                edit(random, known, trims ? int(keep.rows) : 0,
                     trend.levels.first() == TrendLevel::TenSeconds ? 10 : 60);
            }
            const Rows timed = withTimes(known);
            // While edits are being mended, a wider sum may be made from narrower ones that are not all mended yet.
            if (!isEdited || !eventually([&] { return isTrend(text(from), text(to), columns, timed); }))
                expectTrend(text(from), text(to), columns, timed);
            if (HasFatalFailure())
                FAIL() << "pair " << pair << ", " << text(from).toStdString() << " to " << text(to).toStdString();
        }
    }
}

} // namespace
