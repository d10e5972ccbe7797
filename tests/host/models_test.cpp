// SPDX-License-Identifier: MIT
#include "host_test.h"

#include "device/models.h"

#include <QAbstractItemModelTester>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSignalSpy>

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

TEST_F(Models, AnEndedAlarmLeavesTheModelOfActiveOnes)
{
    AlarmRecorder recorder(library(), path(), options);
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
    SampleModel model(&recorder, table("Missing"_q));
    ASSERT_TRUE(eventually([&] { return !model.errorText().isEmpty(); }));
    EXPECT_TRUE(model.errorText().contains("no such table"_q));
    recorder.createTable(table("Missing"_q));
    model.refresh();
    EXPECT_TRUE(eventually([&] { return model.errorText().isEmpty(); }));
}

} // namespace
