// SPDX-License-Identifier: MIT
#include "host_test.h"

#include "device/models.h"

#include <QAbstractItemModelTester>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSortFilterProxyModel>

using namespace device;
using std::chrono::milliseconds;

namespace
{

class Models : public HostTest
{
protected:
    Models() { options.batchTime = milliseconds(5); }

    template<typename Done>
    static bool eventually(const Done &done)
    {
        QElapsedTimer timer;
        timer.start();
        while (!done() && timer.elapsed() < 60000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        return done();
    }
    // The text of a cell once its page is there.
    static QString cell(const PagedModel &model, int row, int column)
    {
        QString text;
        eventually([&] { return !(text = model.index(row, column).data().toString()).isEmpty(); });
        return text;
    }

    RecorderOptions options;
};

TEST_F(Models, AMillionRowsAreFetchedAPageAtATime)
{
    const TableName boiler = table("Boiler"_q);
    {
        auto store = require(HistoryStore::open(library(), path()));
        require(store.createTable(boiler));
        PlainConnection(path()).run(
            "with recursive n(i) as (select 0 union all select i+1 from n where i<999999) insert into Boiler "
            "select NULL,datetime('2024-01-01','+'||i||' seconds'),'v'||i from n; create index i on Boiler(DATETIME)"_q);
    }
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    SampleModel model(&recorder, boiler, Query<Sample>().oldestFirst());
    EXPECT_EQ(model.rowCount(), 0);
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 1000000; }));
    EXPECT_EQ(model.cachedPages(), 0) << "pages nobody looked at";
    EXPECT_FALSE(model.index(500000, 1).data().isValid()) << "a cell whose page is not there yet";
    for (int row = 0; row < 1000000; row += 99999)
        EXPECT_EQ(cell(model, row, 1), "v%1"_q.arg(row));
    EXPECT_EQ(cell(model, 999999, 1), "v999999"_q);
    EXPECT_EQ(cell(model, 999999, 0), "2024-01-12 13:46:39"_q);
    EXPECT_LE(model.cachedPages(), PagedModel::pagesKept);
}

TEST_F(Models, NewestFirstFollowsWhatIsRecorded)
{
    LogRecorder recorder(library(), path(), options);
    require(recorder.start());
    const TableName log = table("OperatorLog"_q);
    recorder.createTable(log);
    LogModel model(&recorder, log);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    model.setFollowing(true);
    const LocalTime start = at("2024-05-06 07:08:09.123"_q);
    for (int i = 0; i < 250; ++i)
        require(recorder.record(log, {start.toDateTime().addSecs(i), "admin"_q, "Login"_q, "m%1"_q.arg(i)}));
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 250; }));
    EXPECT_EQ(cell(model, 0, 3), "m249"_q);
    EXPECT_EQ(cell(model, 249, 3), "m0"_q);
    EXPECT_EQ(cell(model, 249, 0), "2024-05-06 07:08:09.123"_q);
    EXPECT_EQ(model.headerData(1, Qt::Horizontal).toString(), "User"_q);
    EXPECT_EQ(model.roleNames().value(Qt::UserRole + 3), "message");
    EXPECT_EQ(model.index(249, 0).data(Qt::UserRole + 3).toString(), "m0"_q);
    EXPECT_EQ(model.index(249, 0).data(Qt::UserRole).toDateTime(), start.toDateTime());
    require(recorder.record(log, {start.toDateTime().addSecs(900), "admin"_q, "Login"_q, "last"_q}));
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 251; }));
    EXPECT_TRUE(eventually([&] { return cell(model, 0, 3) == "last"_q; }));
    EXPECT_EQ(model.errorText(), QString());
}

// Old rows go in a quiet moment, too, when no row comes that would be followed.
TEST_F(Models, RowsThatRetentionRemovesLeaveTheModel)
{
    const TableName boiler = table("Boiler"_q);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    SampleModel model(&recorder, boiler);
    model.setFollowing(true);
    for (int i = 0; i < 300; ++i)
        require(recorder.record(boiler, {at("2024-05-06 07:08:09"_q).toDateTime().addSecs(i), QString::number(i)}));
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 300; }));
    Keep keep;
    keep.rows = 100;
    recorder.keep(boiler, keep);
    EXPECT_TRUE(eventually([&] { return model.rowCount() == 100; }));
    EXPECT_EQ(cell(model, 99, 1), "200"_q);
}

// Pages of the older half are counted from the oldest row, and that is another one now.
TEST_F(Models, AModelThatDoesNotFollowKeepsItsRowsInPlaceWhenOldOnesGo)
{
    const TableName boiler = table("Boiler"_q);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    for (int i = 0; i < 1000; ++i)
        require(recorder.record(boiler, {at("2024-05-06 07:08:09"_q).toDateTime().addSecs(i), QString::number(i)}));
    require(recorder.flush(milliseconds(20000)));
    SampleModel model(&recorder, boiler);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 1000; }));
    EXPECT_EQ(cell(model, 740, 1), "259"_q);
    QSignalSpy trimmed(&recorder, &Recorder::trimmed);
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    Keep keep;
    keep.rows = 750;
    recorder.keep(boiler, keep);
    ASSERT_TRUE(eventually([&] { return trimmed.count() > 0 && changed.count() > 0; }));
    EXPECT_TRUE(eventually([&] { return valueOf(path(), "select count(*) from Boiler"_q) == "750"_q; }));
    (void)model.index(640, 1).data(); // a page that nobody asked for before
    EXPECT_EQ(cell(model, 640, 1), "359"_q);
    EXPECT_TRUE(eventually([&] {
        // the page of row 740 has two parts: what is there, and what went
        return model.index(749, 1).data() == "250"_q && model.index(750, 1).data().toString().isEmpty();
    }));
    EXPECT_EQ(model.rowCount(), 1000);
    model.refresh();
    EXPECT_TRUE(eventually([&] { return model.rowCount() == 750; }));
}

TEST_F(Models, AnEndedAlarmLeavesTheModelOfActiveOnes)
{
    AlarmRecorder recorder(library(), path(), options);
    require(recorder.start());
    const TableName alarms = table("AlarmData"_q);
    recorder.createTable(alarms);
    AlarmModel active(&recorder, alarms, Query<Alarm>().active());
    AlarmModel all(&recorder, alarms);
    QAbstractItemModelTester tester(&active, QAbstractItemModelTester::FailureReportingMode::Fatal);
    active.setFollowing(true);
    all.setFollowing(true);
    Alarm alarm;
    alarm.start = at("2024-05-06 07:08:09"_q);
    alarm.type = "High"_q;
    for (const QString &object : {"Pump"_q, "Fan"_q}) {
        alarm.object = object;
        require(recorder.raise(alarms, alarm));
    }
    ASSERT_TRUE(eventually([&] { return active.rowCount() == 2; }));
    EXPECT_EQ(cell(active, 0, 2), "Fan"_q);
    EXPECT_EQ(cell(all, 1, 2), "Pump"_q);
    require(recorder.end(alarms, "Fan"_q, "High"_q, at("2024-05-06 08:00:00"_q)));
    ASSERT_TRUE(eventually([&] { return active.rowCount() == 1; }));
    EXPECT_EQ(cell(active, 0, 2), "Pump"_q);
    EXPECT_TRUE(eventually([&] { return cell(all, 0, 8) == "08:00:00"_q; })) << "an update of a row shows too";
    EXPECT_EQ(all.rowCount(), 2);
}

TEST_F(Models, AMissingTableShowsAsAnErrorNotAsNoRows)
{
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    SampleModel model(&recorder, table("Missing"_q));
    ASSERT_TRUE(eventually([&] { return !model.errorText().isEmpty(); }));
    EXPECT_TRUE(model.errorText().contains("no such table"_q));
    recorder.createTable(table("Missing"_q));
    model.refresh();
    EXPECT_TRUE(eventually([&] { return model.errorText().isEmpty(); }));
}

// A table of as many samples, made at once.
void fill(const Library &library, const QString &path, const TableName &boiler, int rows)
{
    require(require(HistoryStore::open(library, path)).createTable(boiler));
    PlainConnection(path).run(
        "with recursive n(i) as (select 0 union all select i+1 from n where i<%1) insert into Boiler "
        "select NULL,datetime('2024-01-01','+'||i||' seconds'),'v'||i from n; create index i on Boiler(DATETIME)"_q.arg(
            rows - 1));
}

TEST_F(Models, AProxyThatFiltersOrSortsShowsTheRightRows)
{
    const TableName boiler = table("Boiler"_q);
    fill(library(), path(), boiler, 5000);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    SampleModel model(&recorder, boiler);
    QSortFilterProxyModel filtered;
    filtered.setSourceModel(&model);
    filtered.setFilterKeyColumn(1);
    filtered.setFilterFixedString("77"_q);
    QSortFilterProxyModel sorted;
    sorted.setSourceModel(&model);
    sorted.setDynamicSortFilter(true);
    sorted.sort(1);
    ASSERT_TRUE(eventually([&] { return filtered.rowCount() == 95; })) << filtered.rowCount();
    EXPECT_TRUE(eventually([&] { return sorted.index(0, 1).data() == "v0"_q; }));
    EXPECT_TRUE(eventually([&] { return sorted.index(4999, 1).data() == "v999"_q; }));
    EXPECT_EQ(model.errorText(), QString());
}

TEST_F(Models, AProxyOnATableThatIsTooLongIsToldSo)
{
    const TableName boiler = table("Boiler"_q);
    fill(library(), path(), boiler, PagedModel::rowsKeptAtMost + 1);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    SampleModel model(&recorder, boiler);
    QSortFilterProxyModel filtered;
    filtered.setSourceModel(&model);
    filtered.setFilterKeyColumn(1);
    filtered.setFilterFixedString("77"_q);
    ASSERT_TRUE(eventually([&] { return !model.errorText().isEmpty(); }));
    EXPECT_TRUE(model.errorText().contains("it keeps 100000 at most"_q)) << model.errorText().toStdString();
    EXPECT_LE(model.cachedPages(), PagedModel::pagesKept);
}

TEST_F(Models, AViewThatScrollsFastKeepsFewPages)
{
    const TableName boiler = table("Boiler"_q);
    fill(library(), path(), boiler, 20000);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    SampleModel model(&recorder, boiler);
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 20000; }));
    for (int row = 0; row < 20000; row += 50) {
        (void)model.index(row, 1).data();
        QCoreApplication::processEvents();
    }
    EXPECT_LE(model.cachedPages(), PagedModel::pagesKept);
    EXPECT_EQ(cell(model, 19999, 1), "v0"_q);
}

TEST_F(Models, ARowGivesItsRecord)
{
    const TableName boiler = table("Boiler"_q);
    fill(library(), path(), boiler, 500);
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    SampleModel model(&recorder, boiler, Query<Sample>().oldestFirst());
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 500; }));
    EXPECT_FALSE(model.recordAt(499)) << "its page is not there yet";
    ASSERT_TRUE(eventually([&] { return model.recordAt(499).has_value(); }));
    EXPECT_EQ(model.recordAt(499)->value, "v499"_q);
    EXPECT_FALSE(model.recordAt(500));
    EXPECT_FALSE(model.recordAt(-1));
}

TEST_F(Models, AFileThatCannotBeOpenedAndARecorderThatEndsAreErrors)
{
    const TableName boiler = table("Boiler"_q);
    auto recorder = std::make_unique<HistoryRecorder>(library(), path("later") + "/store.db"_q, options);
    require(recorder->start());
    SampleModel model(recorder.get(), boiler);
    EXPECT_TRUE(eventually([&] { return model.errorText().contains("no folder"_q); }));
    ASSERT_TRUE(QDir().mkdir(path("later")));
    recorder->createTable(boiler);
    EXPECT_TRUE(eventually([&] { return model.errorText().isEmpty(); }));
    require(recorder->stop(milliseconds(20000)));
    model.refresh();
    EXPECT_TRUE(eventually([&] { return model.errorText().contains("stopped"_q); }));
    recorder.reset();
    EXPECT_TRUE(model.errorText().contains("gone"_q));
    model.refresh();
    EXPECT_FALSE(model.index(0, 0).data().isValid());
}

TEST_F(Models, ModelsAreFoundByTheirOwnClass)
{
    LogRecorder recorder(library(), path(), options);
    QObject parent;
    auto *model = new LogModel(&recorder, table("OperatorLog"_q), {}, &parent);
    EXPECT_EQ(parent.findChild<LogModel *>(), model);
    EXPECT_EQ(parent.findChild<AlarmModel *>(), nullptr);
}

TEST_F(Models, AModelMayBeDeletedInASlotOfItsOwn)
{
    const TableName boiler = table("Boiler"_q);
    HistoryRecorder recorder(library(), path());
    require(recorder.start());
    recorder.createTable(boiler);
    require(recorder.record(boiler, {at("2024-05-06 07:00:00"_q), "1"_q}));
    require(recorder.flush(milliseconds(20000)));
    const auto deletedBy = [&](const TableName &table, const auto signal) {
        auto *model = new SampleModel(&recorder, table);
        const QPointer<SampleModel> alive(model);
        QObject::connect(model, signal, [=] { delete model; });
        EXPECT_TRUE(eventually([&] {
            if (alive)
                (void)alive->data(alive->index(0, 0));
            return alive.isNull();
        }));
    };
    deletedBy(boiler, &PagedModel::countChanged);
    deletedBy(boiler, &PagedModel::dataChanged);
    deletedBy(boiler, &PagedModel::rowsInserted);
    deletedBy(table("Missing"_q), &PagedModel::errorChanged);
}

TEST_F(Models, ATimeInTheHourThatSummerTimeLeavesOutIsShown)
{
    const TableName boiler = table("Boiler"_q);
    qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    tzset();
    const LocalTime gap(QDate(2024, 3, 31), QTime(2, 30));
    HistoryRecorder recorder(library(), path());
    require(recorder.start());
    recorder.createTable(boiler);
    require(recorder.record(boiler, {gap, "1"_q}));
    require(recorder.flush(milliseconds(20000)));
    SampleModel model(&recorder, boiler);
    EXPECT_TRUE(eventually([&] { return model.data(model.index(0, 0)).toString() == "2024-03-31 02:30:00"_q; }));
    EXPECT_EQ(model.recordAt(0)->time, gap);
    qputenv("TZ", "UTC");
    tzset();
}

TEST_F(Models, AModelWithoutARecorderSaysSo)
{
    const SampleModel model(nullptr, table("Boiler"_q));
    EXPECT_EQ(model.rowCount(), 0);
    EXPECT_TRUE(model.errorText().contains("without a recorder"_q));
}

} // namespace
