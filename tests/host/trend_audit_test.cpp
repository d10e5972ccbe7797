// SPDX-License-Identifier: MIT
#include "trend_fixture.h"

#include "connection.h"
#include "trend_audit.h"

namespace
{

const char *const firstDay = "2024-05-06 00:00:00";
const char *const lastDay = "2024-05-08 23:59:59";
constexpr int rowsOfDay = 1080;
constexpr int allRows = 3 * rowsOfDay;

// Of three days the first six hours, a row each 20 seconds.
class TrendAudits : public Trends
{
protected:
    void SetUp() override
    {
        Trends::SetUp();
        options.auditPause = milliseconds(1);
    }
    static Sample sampleOf(int number)
    {
        const qint64 seconds = number / rowsOfDay * 86400 + number % rowsOfDay * 20;
        return {LocalTime(at(QString::fromLatin1(firstDay)).toDateTime().addSecs(seconds)),
                QString::number(number * 7 % 101)};
    }
    std::unique_ptr<HistoryRecorder> recorded()
    {
        options.whenFull = WhenFull::Wait;
        options.waitAtMost = milliseconds::max();
        auto recorder = trendRecorder();
        for (int i = 0; i < allRows; ++i)
            require(recorder->record(boiler, sampleOf(i)));
        require(recorder->stop(milliseconds(20000)));
        return trendRecorder();
    }
    // The trend on columns as wide as the buckets of each level, to the last of the days; none while a sum cannot be
    // read.
    Trend onLevel(TrendLevel level, const QString &to = QString::fromLatin1(lastDay)) const
    {
        const qint64 width = widthOf(level);
        const qint64 seconds = at(QString::fromLatin1(firstDay)).toDateTime().secsTo(at(to).toDateTime()) + 1;
        auto store = require(HistoryStore::open(library(), path()));
        return store
            .trend(boiler, TrendQuery::between(at(QString::fromLatin1(firstDay)), at(to))
                               .columns(int((seconds + width - 1) / width)))
            .valueOr(Trend());
    }
    std::string shown(TrendLevel level, const QString &to = QString::fromLatin1(lastDay)) const
    {
        std::string text;
        for (const TrendColumn &column : onLevel(level, to).columns)
            text += toString(column) + " " + std::to_string(column.mean) + '\n';
        return text;
    }
    std::string ofTheRows(TrendLevel level, const QString &to = QString::fromLatin1(lastDay)) const
    {
        std::string text;
        for (const TrendColumn &column : columnsOf(rowsOfFile(), QString::fromLatin1(firstDay), to, widthOf(level)))
            text += toString(column) + " " + std::to_string(column.mean) + '\n';
        return text;
    }
    bool areThoseOfTheRows(const QString &to = QString::fromLatin1(lastDay)) const
    {
        for (const TrendLevel level : {TrendLevel::Minute, TrendLevel::TenMinutes, TrendLevel::Hour, TrendLevel::Day}) {
            if (shown(level, to) != ofTheRows(level, to))
                return false;
        }
        return true;
    }
    void change(const QString &sql) const { OtherProgram(path()).run(sql); }
    QString value(const QString &sql) const { return valueOf(path(), sql); }
};

TEST_F(TrendAudits, MakeAnewWhatAnotherProgramChanged)
{
    auto recorder = recorded();
    ASSERT_TRUE(areThoseOfTheRows());
    const QString one = " where K=(select K from \"device trend\" where K>>36&15=%1 order by K limit 1 offset 1)"_q;
    const QString ofLevel1 = one.arg(1), ofLevel2 = one.arg(2), ofLevel3 = one.arg(3), ofLevel4 = one.arg(4);
    for (const QString &edit : {
             "update Boiler set Value='5000' where ID=500"_q,
             "update Boiler set Value='none' where ID between 3000 and 3100"_q,
             "update Boiler set DATETIME='2024-05-06 13:00:07' where ID=1500"_q,
             "update Boiler set DATETIME='2024-05-08 23:59:59' where ID=17"_q,       // later than all
             "update Boiler set DATETIME='2024-05-06 00:00:59' where ID>3230"_q,     // the latest are early now
             "update Boiler set Value='77' where ID=(select max(ID) from Boiler)"_q, // the row at the mark
             "update Boiler set DATETIME='2024-05-08 23:59:58' where ID=(select max(ID) from Boiler)"_q,
             "update Boiler set Value=Value+1"_q,
             "delete from \"device trend\""_q + ofLevel1,
             "delete from \"device trend\""_q + ofLevel2,
             "delete from \"device trend\""_q + ofLevel4,
             "update \"device trend\" set D='junk'"_q + ofLevel1,
             "update \"device trend\" set D='1;5;5;;-;-;-'"_q + ofLevel3,
             "update \"device trend\" set K=K+1"_q + ofLevel1 +
                 " and not exists(select 1 from \"device trend\" u where u.K=\"device trend\".K+1)"_q,
             "update \"device trend\" set D='99999;1;1;;-;-;-'"_q + ofLevel2,
         }) {
        change(edit);
        EXPECT_TRUE(eventually([&] { return areThoseOfTheRows(); })) << edit.toStdString();
    }
    EXPECT_GT(recorder->health().mended, 100);
    change("insert into \"device trend\" select max(K)+3,'3;9;1;;5;1;-;+' from \"device trend\" where K>>36&15=2"_q);
    const qint64 mended = recorder->health().mended;
    EXPECT_TRUE(eventually([&] { return recorder->health().mended > mended; })); // none looked at it yet
    // Rows go on to be summed up, whatever became of the latest sum.
    for (int i = 0; i < 1000; ++i)
        require(recorder->record(boiler, sampleOf(allRows + i)));
    require(recorder->stop(milliseconds(20000)));
    EXPECT_TRUE(areThoseOfTheRows("2024-05-09 23:59:59"_q));
    const auto sums = [this] {
        return rowsOf(
            path(),
            "select K&0xffffffffff,D from \"device trend\" where K>>40=(select N from \"device trend series\") order by K"_q);
    };
    const Rows kept = sums();
    TrendOptions days;
    days.levels = {TrendLevel::Day};
    trendRecorder(days);
    recorder = trendRecorder(); // makes all anew
    ASSERT_TRUE(catchesUp());
    require(recorder->stop(milliseconds(20000)));
    EXPECT_EQ(sums(), kept);
}

TEST_F(TrendAudits, LookThroughAFileThatWasChangedBefore)
{
    recorded().reset();
    change("update Boiler set Value=Value*2 where ID%7=0"_q);
    EXPECT_FALSE(areThoseOfTheRows());
    auto recorder = trendRecorder();
    EXPECT_TRUE(eventually([&] { return areThoseOfTheRows(); }));
    EXPECT_GT(recorder->health().mended, 0);
}

// What the recorder has summed up is not in the file for up to a minute.
TEST_F(TrendAudits, SeeEditsOfRowsWhoseSumsAreNotInTheFileYet)
{
    auto recorder = recorded();
    ASSERT_TRUE(eventually([&] {
        require(recorder->record(boiler, {at("2024-05-09 00:00:00"_q), "5"_q}));
        require(recorder->flush(milliseconds(20000)));
        return stateOfFile() == "0"_q;
    }));
    change("update Boiler set Value='9999' where ID=(select max(ID) from Boiler)"_q);
    // What is in memory would not be written so soon.
    EXPECT_TRUE(eventually([&] { return stateOfFile() == "1"_q && areThoseOfTheRows("2024-05-09 23:59:59"_q); }));
    require(recorder->stop(milliseconds(20000)));
    EXPECT_TRUE(areThoseOfTheRows("2024-05-09 23:59:59"_q));
}

// With few rows all are looked through; without an index on time, many would have to be for each slice.
TEST_F(TrendAudits, DoWithoutAnIndexWhereRowsAreFew)
{
    for (const int firstId : {1, 30001}) { // many may have been there before
        SCOPED_TRACE(firstId);
        removeFiles();
        auto recorder = recorderOf(Profile::AsIs);
        change("insert into sqlite_sequence values('Boiler',%1)"_q.arg(firstId - 1));
        recorder->keepTrend(boiler);
        for (int i = 0; i < 500; ++i)
            require(recorder->record(boiler, sampleOf(i)));
        require(recorder->stop(milliseconds(20000)));
        recorder = recorderOf(Profile::AsIs);
        // Else the sums would be made after the edit.
        ASSERT_TRUE(eventually([&] {
            return OtherProgram(path()).value("select MARK from \"device trend series\""_q) ==
                   QString::number(firstId + 499);
        }));
        change("update Boiler set Value='-1' where ID=%1"_q.arg(firstId + 99));
        EXPECT_TRUE(eventually([&] { return recorder->health().mended > 0; }));
        require(recorder->stop(milliseconds(20000)));
        EXPECT_TRUE(areThoseOfTheRows());
    }
}

// They are in no sum, and stand between the others by their texts.
TEST_F(TrendAudits, LookAtWiderSumsInSpiteOfManyTimesInAStrangeForm)
{
    auto recorder = recorded();
    change("with recursive n(i) as (select 1 union all select i+1 from n where i<20100) insert into Boiler select "
           "NULL,'2024-05-06T01:00:00','1' from n"_q);
    const auto hours = [this] { return valueOf(path(), "select count(*) from \"device trend\" where K>>36&15=3"_q); };
    const QString all = hours();
    change("delete from \"device trend\" where K>>36&15=3"_q);
    EXPECT_TRUE(eventually([&] { return hours() == all; })) << hours().toStdString();
}

// A sum that cannot be read is none to add to: the table is given up, and taken up again once that is mended.
TEST_F(TrendAudits, TakeUpATableThatWasGivenUp)
{
    auto recorder = recorded();
    change("update \"device trend\" set D='junk' where K in (select max(K) from \"device trend\" group by K>>36)"_q);
    for (int i = 0; i < 3000; ++i) // into the sum of the latest minute at first
        require(recorder->record(boiler, {sampleOf(allRows - 1).time.toDateTime().addSecs(i), "1"_q}));
    require(recorder->flush(milliseconds(20000)));
    // The audit may be done before the last of them come: these are in memory then, until later ones push them out.
    int later = 3000;
    EXPECT_TRUE(eventually([&] {
        require(recorder->record(boiler, {sampleOf(allRows - 1).time.toDateTime().addSecs(later += 100), "1"_q}));
        require(recorder->flush(milliseconds(20000)));
        const QString mark = OtherProgram(path()).value("select MARK from \"device trend series\""_q);
        return mark.toInt() > allRows + 3000 && areThoseOfTheRows();
    }));
    EXPECT_GT(recorder->health().mended, 0);
    require(recorder->stop(milliseconds(20000)));
    EXPECT_TRUE(catchesUp());
}

TEST_F(TrendAudits, LeaveSumsOfRowsThatWereRemoved)
{
    auto recorder = recorded();
    std::string before[5];
    for (int i = 1; i < 5; ++i)
        before[i] = shown(TrendLevel(i));
    // Two days and the half of a minute are gone, by whomever.
    change("delete from Boiler where ID<2162 or ID between 2501 and 2520"_q);
    change("update Boiler set Value='12345' where ID=3001"_q);
    change("update Boiler set Value='54321' where ID=2162"_q); // of a minute that is not whole
    EXPECT_TRUE(eventually([&] { return recorder->health().mended > 0; }));
    recorder.reset();
    recorder = trendRecorder();
    EXPECT_TRUE(eventually([&] {
        std::string now = shown(TrendLevel::Minute);
        return now.find("12345@2024-05-08 04:40:00") != std::string::npos;
    }));
    const auto withoutDay = [](std::string lines) { return lines.substr(0, lines.find("@2024-05-08 04:40:00")); };
    EXPECT_EQ(withoutDay(shown(TrendLevel::Minute)), withoutDay(before[1]));
    EXPECT_EQ(withoutDay(shown(TrendLevel::TenMinutes)), withoutDay(before[2]));
    EXPECT_EQ(shown(TrendLevel::Minute).find("54321"), std::string::npos);
    EXPECT_NE(shown(TrendLevel::Hour).find("12345@2024-05-08 04:40:00"), std::string::npos);
    EXPECT_NE(shown(TrendLevel::Day).find("12345@2024-05-08 04:40:00"), std::string::npos);
}

// An edit of the newest row is no reason to forget what nothing could tell again.
TEST_F(TrendAudits, KeepSumsOfRemovedRowsWhenTheNewestRowIsEdited)
{
    for (const char *remains : {"0", "1"}) {
        removeFiles();
        auto recorder = recorded();
        const std::string first = shown(TrendLevel::Hour, "2024-05-07 23:59:59"_q);
        recorder.reset();
        change("delete from Boiler where ID<=2160 and ID>"_q + QLatin1String(remains));
        change("update Boiler set Value='4321',DATETIME='2024-05-08 05:59:41' where ID=3240"_q);
        recorder = trendRecorder();
        EXPECT_TRUE(eventually([&] { return shown(TrendLevel::Minute).find("4321@") != std::string::npos; }));
        EXPECT_EQ(shown(TrendLevel::Hour, "2024-05-07 23:59:59"_q), first);
    }
}

TEST_F(TrendAudits, CountNoRowTwiceWhenTheLatestSumIsForgotten)
{
    auto recorder = recorded();
    recorder.reset();
    change("delete from Boiler where ID<=2160"_q);
    const std::string first = shown(TrendLevel::Hour, "2024-05-07 23:59:59"_q);
    options.auditPause = milliseconds(-1);
    for (const char *front : {"0", "NULL", "FRONT-40000"}) {
        change("update \"device trend series\" set FRONT="_q + QLatin1String(front));
        recorder = trendRecorder();
        for (int i = 0; i < 200; ++i)
            require(recorder->record(boiler, sampleOf(allRows + i)));
        require(recorder->stop(milliseconds(20000)));
        EXPECT_EQ(shown(TrendLevel::Hour, "2024-05-07 23:59:59"_q), first) << front;
        EXPECT_EQ(shown(TrendLevel::Day, "2024-05-07 23:59:59"_q).find("2160/"), std::string::npos) << front;
    }
}

// One slice after the other, without a recorder.
class Slices : public TrendAudits
{
protected:
    std::shared_ptr<Connection> m_connection;
    TrendAudit m_audit;

    void open()
    {
        options.auditPause = milliseconds(-1);
        auto recorder = recorded();
        EXPECT_EQ(recorder->health().mended, 0);
        recorder.reset();
        OpenOptions file;
        file.profile = Profile::Durable;
        m_connection = require(Connection::open(library(), path(), file));
        m_audit.begin(*m_connection, {"Boiler"_q});
    }
    // To the end of the pass; the sums made anew.
    qint64 finish()
    {
        qint64 mended = 0;
        for (int i = 0; i < 10000; ++i) {
            const TrendAudit::Step step = require(m_audit.step(*m_connection));
            mended += step.mended;
            if (!step.goesOn)
                return mended;
        }
        ADD_FAILURE() << "no end";
        return mended;
    }
};

TEST_F(Slices, EndAndBeginAgainWhenAnotherProgramHasWritten)
{
    open();
    EXPECT_EQ(finish(), 0);
    EXPECT_FALSE(require(m_audit.step(*m_connection)).goesOn);
    change("update Boiler set Value='9999' where ID=1"_q);
    EXPECT_EQ(finish(), 1);
    EXPECT_TRUE(areThoseOfTheRows());
    EXPECT_FALSE(require(m_audit.step(*m_connection)).goesOn); // its own writing is no reason
}

TEST_F(Slices, LeaveWiderSumsWhereTheFinestWereRemovedByAge)
{
    open();
    const QString wider = "select K,D from \"device trend\" where K>>36&15>1 order by K"_q;
    const Rows before = rowsOf(path(), wider);
    const QString finest = "\"device trend\" where K>>36&15=1"_q;
    {
        auto recorder = trendRecorder();
        Keep keep;
        keep.sums = {{TrendLevel::Minute, std::chrono::hours(100000)}};
        recorder->keep(boiler, keep);
        require(recorder->stop(milliseconds(20000)));
    }
    change("update \"device keep\" set FLOORS='60:'||(select ((max(K)&0xfffffffff)+1)*60 from "_q + finest +
           ") where COLLECTOR='Boiler'"_q);
    change("delete from Boiler; insert into \"device trend\" select max(K)+9,'1;5;5;;-;-;-' from "_q + finest);
    change("delete from \"device trend\" where K<(select max(K) from "_q + finest + ") and K>>36&15=1"_q);
    EXPECT_EQ(finish(), 0); // it may be of a row that was removed
    change("update \"device trend\" set D='junk' where K=(select max(K) from "_q + finest + ")"_q);
    EXPECT_EQ(finish(), 1);
    EXPECT_EQ(valueOf(path(), "select count(*) from "_q + finest), "0"_q);
    const Rows after = rowsOf(path(), wider);
    for (const QStringList &sum : before)
        EXPECT_TRUE(after.contains(sum)) << sum.join(QLatin1Char(' ')).toStdString();
}

TEST_F(Slices, PutRightWhereTheLatestSumIs)
{
    open();
    const QString series = "select FRONT from \"device trend series\""_q;
    const QString right = valueOf(path(), series);
    const Rows sums = rowsOf(path(), "select K,D from \"device trend\" order by K"_q);
    for (const char *front : {"0", "FRONT-86400", "FRONT+86400"}) {
        change("update \"device trend series\" set FRONT="_q + QLatin1String(front));
        (void)finish();
        EXPECT_EQ(valueOf(path(), series), right) << front;
        EXPECT_EQ(rowsOf(path(), "select K,D from \"device trend\" order by K"_q), sums) << front;
    }
}

// SQLite has them behind all texts.
TEST_F(Slices, TakeATimeThatIsABlobForNone)
{
    open();
    change("update Boiler set DATETIME=cast(DATETIME as blob) where ID in (100,3000)"_q);
    m_audit.begin(*m_connection, {"Boiler"_q});
    EXPECT_EQ(finish(), 2);
    EXPECT_TRUE(areThoseOfTheRows());
    TrendOptions days;
    days.levels = {TrendLevel::Day};
    trendRecorder(days);
    auto recorder = trendRecorder(); // makes all anew
    ASSERT_TRUE(catchesUp());
    EXPECT_TRUE(areThoseOfTheRows());
}

TEST_F(Slices, TakeNothingForASumThatIsNone)
{
    open();
    const QString one = " where K=(select K from \"device trend\" where K>>36&15=1 order by K limit 1 offset 50)"_q;
    for (const char *sum :
         {"D||char(0)", "NULL", "cast(D as blob)||x'00'", "replace(D,substr(D,3,instr(substr(D,3),';')-1),'inf')"}) {
        change("update \"device trend\" set D="_q + QLatin1String(sum) + one);
        auto store = require(HistoryStore::open(library(), path()));
        const auto range = TrendQuery::between(at(QString::fromLatin1(firstDay)), at(QString::fromLatin1(lastDay)));
        const auto read = store.trend(boiler, TrendQuery(range).columns(4320));
        EXPECT_TRUE(!read || QLatin1String(sum).startsWith(QLatin1String("replace"))) << sum;
        EXPECT_EQ(finish(), 1) << sum;
        EXPECT_TRUE(areThoseOfTheRows()) << sum;
    }
}

TEST_F(Slices, DoNotTakeRowsThatGoMeanwhileForAnEdit)
{
    for (const bool byOthers : {false, true}) {
        removeFiles();
        open();
        const std::string before = shown(TrendLevel::Hour);
        EXPECT_TRUE(require(m_audit.step(*m_connection)).goesOn); // no row is missing so far
        if (byOthers) {
            change("delete from Boiler where ID<=1000"_q);
        } else {
            require(m_connection->change({"remove"_q, "Boiler"_q}, {"delete from Boiler where ID<=1000"_q}));
            m_audit.rowsRemoved("boiler"_q);
        }
        EXPECT_EQ(finish(), 0) << byOthers;
        EXPECT_EQ(shown(TrendLevel::Hour), before) << byOthers;
    }
}

TEST_F(Slices, LeaveAloneWhatTheyCannotJudge)
{
    open();
    // More in one bucket than a slice reads, and times in forms that no bucket has.
    change("with recursive n(i) as (select 1 union all select i+1 from n where i<25000) insert into Boiler select "
           "NULL,'2024-05-09 10:00:00',i from n"_q);
    {
        auto recorder = trendRecorder();
        ASSERT_TRUE(catchesUp());
    }
    change("update Boiler set Value='-3' where ID in (2,20000,28240)"_q);
    m_audit.begin(*m_connection, {"Boiler"_q, "Missing"_q});
    EXPECT_EQ(finish(), 1);
    change("insert into Boiler select NULL,'2024-05-09T'||ID,1 from Boiler"_q);
    change("update Boiler set Value='-4' where ID=3"_q);
    EXPECT_EQ(finish(), 1);
    change("update \"device trend series\" set LEVELS='7'"_q);
    EXPECT_EQ(finish(), 0);
}

} // namespace
