// SPDX-License-Identifier: MIT
#include "trend_fixture.h"

#include "bucket.h"
#include "time_text.h"

namespace
{

// Buckets by themselves

Bucket bucketOf(const QVector<std::pair<qint64, const char *>> &samples)
{
    Bucket bucket;
    for (const auto &[time, value] : samples)
        bucket.add(time, QString::fromLatin1(value));
    return bucket;
}

TEST(Bucket, HasTheVeryTextsAndTheEarliestOfEquals)
{
    const Bucket bucket = bucketOf({{70, "2.50"}, {65, "ERR"}, {61, "+3"}, {65, "3.0"}, {66, "2.5"}, {70, " 3"}});
    EXPECT_EQ(bucket.rows(), 6);
    EXPECT_EQ(bucket.numbers(), 5);
    EXPECT_EQ(bucket.lowest().text, "2.5");
    EXPECT_EQ(bucket.highest().text, "+3");
    EXPECT_EQ(bucket.first().time, 61);
    EXPECT_EQ(bucket.last().text, " 3");
    EXPECT_EQ(bucket.mean(), 14.0 / 5);
    EXPECT_EQ(bucket.text({60, 120}), "6/5;14;2.5;6;+3;1;+; 3;10");
    EXPECT_EQ(bucketOf({{60, ""}}).text({60, 120}), "1/0");
    EXPECT_EQ(bucketOf({{60, ""}}).text({60, 61}), "/0");
    EXPECT_EQ(bucketOf({{60, "7"}}).text({60, 120}), "1;7;7;;-;-;-");
    EXPECT_EQ(bucketOf({{60, "7"}, {61, "7"}}).text({60, 62}), ";14;7;;-;-;7");
    EXPECT_EQ(bucketOf({{60, "7"}, {61, "8"}}).text({60, 120}), "2;15;7;;8;1;-;+");
    EXPECT_EQ(bucketOf({{119, "7"}, {118, "8"}}).text({60, 120}), "2;15;7;59;8;58;+;-");
}

TEST(Bucket, ComesBackFromItsTextAndRefusesAnyOther)
{
    const TimeSpan minute{60, 120};
    const auto add = [&](Bucket &to, const QByteArray &text) {
        return to.add(text.constData(), text.constData() + text.size(), minute);
    };
    const QByteArray written = bucketOf({{70, "2.50"}, {65, "ERR"}, {61, "-1e300"}, {69, "2"}}).text(minute);
    Bucket read;
    EXPECT_TRUE(add(read, written));
    EXPECT_EQ(read.text(minute), written);
    const QByteArray number = written.left(written.indexOf(';')); // of rows
    for (const QByteArray &damaged :
         {QByteArray(), QByteArray("x"), QByteArray("1"), QByteArray("1/2"), QByteArray("0/0"), QByteArray("1/0;"),
          QByteArray("/61"), written + ";", written.left(written.lastIndexOf(';')), number + ";0;-;1;;1;;1;",
          number + ";0;1;;+;1;;1;", number + ";0;1;;1;;1;;1;60", QByteArray(written).replace("2.50", "two")}) {
        EXPECT_FALSE(add(read, damaged)) << damaged.constData();
        EXPECT_EQ(read.text(minute), written);
    }
    // What goes without saying may be said.
    Bucket said;
    EXPECT_TRUE(add(said, "60;14;2;;4;;2;;4;59"));
    EXPECT_EQ(said.text(minute), ";14;2;;4;;-;4");
    for (int i = 0; i < 2000; ++i) {
        Bucket bucket;
        for (int row = 0; row < 1 + i % 70; ++row)
            bucket.add(60 + (i * 7919 + row * row) % (1 + i % 60), QString::number((i * 31 + row * 17) % 5));
        Bucket back;
        ASSERT_TRUE(add(back, bucket.text(minute)));
        ASSERT_EQ(back.text(minute), bucket.text(minute));
        for (const auto point : {&Bucket::lowest, &Bucket::highest, &Bucket::first, &Bucket::last}) {
            ASSERT_EQ((back.*point)().time, (bucket.*point)().time);
            ASSERT_EQ((back.*point)().text, (bucket.*point)().text);
        }
        ASSERT_EQ(back.rows(), bucket.rows());
        ASSERT_EQ(back.sum(), bucket.sum());
    }
}

TEST(Bucket, SumsUpWithoutLosingWhatIsSmall)
{
    Bucket bucket;
    bucket.add(0, "1e16"_q);
    for (int i = 0; i < 1000; ++i)
        bucket.add(1, "1"_q);
    bucket.add(2, "-1e16"_q);
    EXPECT_EQ(bucket.mean(), 1000.0 / 1002);
    Bucket huge = bucketOf({{0, "1e308"}, {0, "1e308"}});
    EXPECT_TRUE(std::isinf(huge.mean()));
    EXPECT_EQ(huge.lowest().text, "1e308");
}

TEST(TimeReader, TakesYearsThatTheTablesCanHold)
{
    TimeReader times(false);
    const auto isTime = [&](const char *text) { return times.read(text, qint64(qstrlen(text))).isValid(); };
    EXPECT_TRUE(isTime("0001-01-01 00:00:00"));
    EXPECT_TRUE(isTime("9999-12-31 23:59:59"));
    EXPECT_FALSE(isTime("0000-01-01 00:00:00"));
    EXPECT_FALSE(isTime("-024-05-06 07:08:09"));
}

TEST(TrendColumns, AreAsNarrowAsTheirNumberAllows)
{
    EXPECT_EQ(columnWidth(0, 999, 1000), 1);
    EXPECT_EQ(columnWidth(0, 1000, 1000), 2);
    EXPECT_EQ(columnWidth(3599, 3600, 1), 7200); // one column has both
    EXPECT_EQ(columnWidth(0, 86400LL * 365 * 10, 2000), 86400LL * 2);
    EXPECT_GE(columnWidth(0, 86400LL * 3652058, 1), 86400LL * 3652058);
}

// Trends of a file

TEST_F(Trends, AreReadFromTheRowsWithoutAnythingPrepared)
{
    auto recorder = recorderOf(Profile::AsIs);
    record(*recorder, 0, 5000);
    require(recorder->stop(milliseconds(20000)));
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 100);
    expectTrend("2024-05-06 00:10:01"_q, "2024-05-06 00:10:01"_q, 1);
    expectTrend("2024-05-07 00:00:00"_q, "2024-05-07 23:59:59"_q, 100);
    for (const TrendColumn &column : trend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 100).columns)
        EXPECT_TRUE(column.exact);
}

TEST_F(Trends, OfARangeThatIsNoneOrTooFineSaySo)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    const LocalTime when = at("2024-05-06 00:00:00"_q);
    EXPECT_EQ(codeOf(store.trend(boiler, TrendQuery::between(LocalTime(), when))), Error::TimeRefused);
    EXPECT_EQ(codeOf(store.trend(boiler, TrendQuery::between(when, when).columns(0))), Error::OptionRefused);
    EXPECT_EQ(codeOf(store.trend(boiler, TrendQuery::between(when, when).columns(100001))), Error::OptionRefused);
    EXPECT_EQ(codeOf(store.trend(table("Missing"_q), TrendQuery::between(when, when))), Error::TableMissing);
    EXPECT_TRUE(require(store.trend(boiler, TrendQuery::between(at("2024-05-07 00:00:00"_q), when))).columns.isEmpty());
}

TEST_F(Trends, AreKeptUpByTheRecorder)
{
    auto recorder = trendRecorder();
    record(*recorder, 0, 5000);
    require(recorder->flush(milliseconds(20000)));
    EXPECT_NE(valueOf(path(), "select count(*) from \"device trend\""_q), "0"_q);
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
    expectTrend("2024-05-06 00:10:01"_q, "2024-05-06 01:10:59"_q, 70);
    require(recorder->stop(milliseconds(20000)));
    EXPECT_EQ(stateOfFile(), "1"_q);
    // A wider bucket is there once a later one began.
    EXPECT_EQ(rowsOf(path(), "select K>>36&15,count(*),max(substr(D,1,instr(D,';')-1)) from \"device trend\" "
                             "group by 1"_q),
              (Rows{{"1"_q, "84"_q, "20"_q}, {"2"_q, "8"_q, ""_q}, {"3"_q, "1"_q, ""_q}})); // "": one a second
}

TEST_F(Trends, CanBeginWithAnOldTableAndEnd)
{
    auto recorder = recorderOf(Profile::Durable);
    record(*recorder, 0, 20000);
    require(recorder->flush(milliseconds(20000)));
    QVector<bool> answers;
    const auto note = [&answers](const Result<bool> &answer) { answers.append(require(answer)); };
    recorder->keepTrend(boiler, {}, note);
    recorder->keepTrend(boiler, {}, note);
    ASSERT_TRUE(eventually([&] { return answers.size() == 2; }));
    ASSERT_TRUE(catchesUp());
    expectTrend("2024-05-06 00:00:30"_q, "2024-05-06 23:59:59"_q, 50);
    recorder->keepTrend(boiler, {{TrendLevel::Hour}}, note);
    ASSERT_TRUE(eventually([&] { return answers.size() == 3; }));
    ASSERT_TRUE(catchesUp());
    ASSERT_TRUE(eventually([&] { return valueOf(path(), "select count(*) from \"device trend\""_q) == "6"_q; }));
    expectTrend("2024-05-06 00:00:30"_q, "2024-05-06 23:59:59"_q, 10);
    recorder->dropTrend(boiler, note);
    recorder->dropTrend(boiler, note);
    ASSERT_TRUE(eventually([&] { return answers.size() == 5; }));
    ASSERT_TRUE(eventually([&] { return valueOf(path(), "select count(*) from \"device trend\""_q) == "0"_q; }));
    expectTrend("2024-05-06 00:00:30"_q, "2024-05-06 23:59:59"_q, 10);
    EXPECT_EQ(answers, (QVector<bool>{true, false, true, true, false}));
}

TEST_F(Trends, AreRefusedByName)
{
    auto store = require(HistoryStore::open(library(), path()));
    EXPECT_EQ(codeOf(store.keepTrend(boiler)), Error::TableMissing);
    require(store.createTable(boiler));
    EXPECT_EQ(codeOf(store.keepTrend(boiler, {{}})), Error::OptionRefused);
    PlainConnection(path()).run("create table Counted(ID INTEGER PRIMARY KEY,DATETIME dateTime,Value text)"_q);
    EXPECT_EQ(codeOf(store.keepTrend(table("Counted"_q))), Error::TableLayout);
    EXPECT_FALSE(require(store.dropTrend(boiler)));
    PlainConnection(path()).run("create table \"device trend\"(K,D)"_q);
    EXPECT_EQ(codeOf(store.keepTrend(boiler)), Error::TableLayout);
}

TEST_F(Trends, SeeRowsOfOtherPrograms)
{
    auto recorder = trendRecorder();
    OtherProgram other(path());
    for (int round = 0; round < 5; ++round) {
        record(*recorder, round * 500, round * 500 + 500);
        require(recorder->flush(milliseconds(20000)));
        other.run("insert into Boiler values(NULL,'2024-05-06 00:0%1:30','-%1')"_q.arg(round));
        expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
    }
    recorder.reset();
    recorder = trendRecorder();
    ASSERT_TRUE(catchesUp());
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
}

TEST_F(Trends, BeginAnewWithATableThatWasEmptied)
{
    auto recorder = trendRecorder();
    record(*recorder, 0, 1000);
    require(recorder->flush(milliseconds(20000)));
    OtherProgram(path()).run("delete from Boiler; update sqlite_sequence set seq=0"_q);
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
    record(*recorder, 2000, 4000);
    require(recorder->flush(milliseconds(20000)));
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
    record(*recorder, 4000, 5000);
    recorder.reset();
    recorder = trendRecorder();
    ASSERT_TRUE(catchesUp());
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
}

TEST_F(Trends, ComeBackWhenATableOfTheirsWasDropped)
{
    for (const char *dropped : {"device trend", "device trend series"}) {
        removeFiles();
        auto recorder = trendRecorder();
        record(*recorder, 0, 3000);
        require(recorder->stop(milliseconds(20000)));
        OtherProgram(path()).run("drop table \"%1\""_q.arg(QLatin1String(dropped)));
        expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
        recorder = trendRecorder();
        ASSERT_TRUE(catchesUp()) << dropped;
        require(recorder->stop(milliseconds(20000)));
        EXPECT_NE(valueOf(path(), "select count(*) from \"device trend\""_q), "0"_q) << dropped;
        expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
    }
}

TEST_F(Trends, AreToldWhenATableOfTheirsIsDroppedMeanwhile)
{
    for (const char *dropped : {"device trend", "device trend series"}) {
        SCOPED_TRACE(dropped);
        removeFiles();
        auto recorder = trendRecorder();
        QStringList failures;
        QObject::connect(recorder.get(), &Recorder::trendFailed, [&](const Error &why) { failures << why.text(); });
        record(*recorder, 0, 3000);
        require(recorder->flush(milliseconds(20000)));
        OtherProgram(path()).run("drop table \"%1\""_q.arg(QLatin1String(dropped)));
        record(*recorder, 3000, 6000);
        ASSERT_TRUE(eventually([&] { return !failures.isEmpty(); }));
        EXPECT_TRUE(failures.first().contains("its trend is no longer in the file"_q))
            << failures.first().toStdString();
        record(*recorder, 6000, 7000);
        require(recorder->stop(milliseconds(20000)));
        EXPECT_EQ(failures.size(), 1);
        expectNumbers(7000);
    }
}

TEST_F(Trends, OutliveTheirRows)
{
    auto recorder = trendRecorder();
    record(*recorder, 0, 10000);
    require(recorder->stop(milliseconds(20000)));
    recorder = trendRecorder(); // the former one may have stopped before it had summed up all
    ASSERT_TRUE(catchesUp());
    require(recorder->stop(milliseconds(20000)));
    const Rows all = rowsOfFile();
    auto store = require(HistoryStore::open(library(), path()));
    EXPECT_EQ(require(store.removeBefore(boiler, at("2024-05-06 01:00:30"_q))), 3630);
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 02:59:59"_q, 20, all);
    const Trend shown = trend("2024-05-06 00:00:00"_q, "2024-05-06 02:59:59"_q, 20);
    for (const TrendColumn &column : shown.columns)
        EXPECT_EQ(column.exact, at("2024-05-06 01:00:00"_q) < column.from) << toString(column);
    // Finer than the finest level only where the rows are.
    EXPECT_EQ(trend("2024-05-06 00:10:00"_q, "2024-05-06 00:19:59"_q, 600).columns.size(), 10);
    EXPECT_EQ(trend("2024-05-06 01:10:00"_q, "2024-05-06 01:19:59"_q, 600).columns.size(), 600);
}

TEST_F(Trends, ThatSomebodyChangedAreReportedAndTheRowsAreStored)
{
    auto recorder = trendRecorder();
    QStringList failures;
    QObject::connect(recorder.get(), &Recorder::trendFailed, [&](const Error &why) { failures << why.text(); });
    record(*recorder, 0, 200);
    require(recorder->flush(milliseconds(20000)));
    record(*recorder, 200, 300);
    require(recorder->flush(milliseconds(20000)));
    OtherProgram(path()).run("update \"device trend\" set D='two'"_q);
    record(*recorder, 300, 1000);
    require(recorder->flush(milliseconds(20000)));
    record(*recorder, 1000, 2000);
    require(recorder->flush(milliseconds(20000)));
    ASSERT_TRUE(eventually([&] { return !failures.isEmpty(); }));
    EXPECT_EQ(failures.size(), 1);
    EXPECT_TRUE(failures.first().contains("of its trend cannot be read"_q)) << failures.first().toStdString();
    OtherProgram(path()).run("drop table \"device trend\""_q);
    record(*recorder, 2000, 3000);
    require(recorder->stop(milliseconds(20000)));
    expectNumbers(3000);
}

TEST_F(Trends, OfAHostileFileAreRefused)
{
    auto recorder = trendRecorder();
    record(*recorder, 0, 1000);
    require(recorder->stop(milliseconds(20000)));
    recorder = trendRecorder();
    ASSERT_TRUE(catchesUp());
    require(recorder->stop(milliseconds(20000)));
    for (const char *damage :
         {"LEVELS=''", "LEVELS='0'", "LEVELS='x,60'", "LEVELS='600,60'", "LEVELS='60,60'", "LEVELS=NULL",
          "LEVELS='60,-60'", "N=8388608", "N=9223372036854775807", "N=-5", "MARK=-1", "FRONT=9223372036854775807",
          "FRONT=-1", "VERSION=2", "COLLECTOR='Boiler;drop table Boiler'"}) {
        SCOPED_TRACE(damage);
        const QString copy = path("hostile.db");
        QFile::remove(copy);
        QFile::copy(path(), copy);
        PlainConnection(copy).run("update \"device trend series\" set "_q + QString::fromLatin1(damage));
        {
            auto store = require(HistoryStore::open(library(), copy));
            const auto trend =
                store.trend(boiler, TrendQuery::between(at("2024-05-06 00:00:00"_q), at("2024-05-06 23:59:59"_q)));
            EXPECT_EQ(trend.ok(), QByteArray(damage).startsWith("COLLECTOR"));
        }
        HistoryRecorder other(library(), copy);
        require(other.start());
        for (int i = 1000; i < 2000; ++i)
            require(other.record(boiler, numbered(i)));
        require(other.stop(milliseconds(20000)));
        expectNumbers(copy, 0, 2000);
    }
    for (const char *bucket : {"9223372036854775807;1;1;;1;;1;;1;", "2/1;1;1;9223372036854775807;1;;1;;1;",
                               "1;1;1;-1;1;;1;;1;", "1;1;1;86400;1;;1;;1;", "", "|", ";", "1|1;1", "1/0|1;1/0"}) {
        SCOPED_TRACE(bucket);
        PlainConnection(path()).run("update \"device trend\" set D='%1'"_q.arg(QString::fromLatin1(bucket)));
        auto store = require(HistoryStore::open(library(), path()));
        EXPECT_EQ(
            codeOf(store.trend(boiler, TrendQuery::between(at("2024-05-06 00:00:00"_q), at("2024-05-06 23:59:59"_q)))),
            Error::Failed);
    }
}

TEST_F(Trends, ThatCannotBeWrittenHoldUpNoRow)
{
    auto recorder = trendRecorder();
    QStringList failures;
    QObject::connect(recorder.get(), &Recorder::trendFailed, [&](const Error &why) { failures << why.text(); });
    OtherProgram(path()).run("create trigger broken before insert on \"device trend\" begin select "
                             "raise(abort,'disk I/O error'); end"_q);
    record(*recorder, 0, 3000);
    require(recorder->flush(milliseconds(20000)));
    ASSERT_TRUE(eventually([&] { return !failures.isEmpty(); }));
    expectNumbers(3000);
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
    OtherProgram(path()).run("drop trigger broken"_q);
    EXPECT_TRUE(catchesUp()); // it was tried again
    EXPECT_EQ(failures.size(), 1);
}

TEST_F(Trends, KnowTheirRowsWhenTheNumbersOfTheTablesAreLost)
{
    auto recorder = trendRecorder();
    record(*recorder, 0, 6000);
    require(recorder->stop(milliseconds(20000)));
    OtherProgram(path()).run("delete from sqlite_sequence"_q);
    recorder = trendRecorder();
    const auto isWhole = [this] { return valueOf(path(), "select MARK from \"device trend series\""_q) == "6000"_q; };
    ASSERT_TRUE(eventually(isWhole));
    const QString number = valueOf(path(), "select N from \"device trend series\""_q);
    QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    EXPECT_EQ(valueOf(path(), "select N from \"device trend series\""_q), number);
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10);
}

TEST_F(Trends, SumRowsUpBeforeTheyAreRemoved)
{
    auto recorder = recorderOf(Profile::Flash);
    record(*recorder, 0, 20000);
    require(recorder->flush(milliseconds(20000)));
    const Rows all = rowsOfFile();
    std::optional<qint64> removed;
    recorder->keepTrend(boiler);
    recorder->removeBefore(boiler, at("2024-05-06 05:00:00"_q), nullptr,
                           [&](const Result<qint64> &rows) { removed = require(rows); });
    require(recorder->flush(milliseconds(20000)));
    ASSERT_TRUE(eventually([&] { return removed.has_value(); }));
    EXPECT_EQ(removed, 18000);
    expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, 10, all);
}

TEST_F(Trends, ShowRemovedRowsBesideALateOneThatIsOlder)
{
    auto recorder = trendRecorder();
    record(*recorder, 0, 2000);
    require(recorder->record(boiler, {at("2024-05-05 12:00:00"_q), 7}));
    record(*recorder, 2000, 3000);
    recorder.reset();
    recorder = trendRecorder();
    ASSERT_TRUE(catchesUp());
    require(recorder->stop(milliseconds(20000)));
    require(require(HistoryStore::open(library(), path())).keepNewest(boiler, 1001));
    const Trend shown = trend("2024-05-06 00:00:00"_q, "2024-05-06 00:15:59"_q, 1000);
    ASSERT_EQ(shown.columns.size(), 16);
    for (const TrendColumn &column : shown.columns) {
        EXPECT_EQ(column.rows, 60);
        EXPECT_FALSE(column.exact);
    }
}

TEST_F(Trends, OfManyTablesAreWrittenTogether)
{
    auto recorder = recorderOf(Profile::Flash);
    std::vector<TableName> tables;
    for (int i = 0; i < 30; ++i) {
        tables.push_back(table("Series%1"_q.arg(i)));
        recorder->createTable(tables.back());
        recorder->keepTrend(tables.back());
    }
    for (int number = 0; number < 9000; ++number)
        require(recorder->record(tables[size_t(number) % tables.size()], numbered(number)));
    require(recorder->stop(milliseconds(20000)));
    auto store = require(HistoryStore::open(library(), path()));
    const QString from = "2024-05-06 00:00:07"_q;
    const QString to = "2024-05-06 02:20:00"_q;
    for (const TableName &each : tables) {
        const Trend found = require(store.trend(each, TrendQuery::between(at(from), at(to)).columns(30)));
        const Rows rows = rowsOf(path(), "select ID,DATETIME,Value from %1 order by ID"_q.arg(each.text()));
        expectSameColumns(found.columns, columnsOf(rows, from, to, found.width.count()));
    }
}

} // namespace
