// SPDX-License-Identifier: MIT
#include "trend_model_fixture.h"

#include <QTimer>

namespace
{

TEST_F(TrendModels, ShowsTheColumnsByRolesAndForViews)
{
    const auto recorder = recorderOf(Profile::Durable);
    const std::pair<int, QString> samples[] = {{0, "2.50"_q}, {1, "+3"_q}, {2, "ERR"_q}, {59, "2"_q}, {60, "ERR"_q}};
    for (const auto &[second, value] : samples)
        require(recorder->record(boiler, {after(noon, second), value}));
    require(recorder->flush(milliseconds(20000)));

    TrendModel model(recorder.get(), boiler);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    EXPECT_EQ(model.rowCount(), 0) << "before the first show()";
    show(model, minutes(2, 2));
    ASSERT_EQ(model.rowCount(), 2);
    expectShown(model, expected(minutes(2, 2)));

    const QHash<int, QByteArray> names = model.roleNames();
    const auto role = [&](int row, const char *name) { return model.index(row, 0).data(names.key(name)); };
    EXPECT_EQ(role(0, "time").toDateTime(), noon.toDateTime());
    EXPECT_EQ(role(0, "end").toDateTime(), after(noon, 60).toDateTime());
    EXPECT_EQ(role(0, "low"), QVariant(2.0));
    EXPECT_EQ(role(0, "high"), QVariant(3.0));
    EXPECT_EQ(role(0, "first"), QVariant(2.5));
    EXPECT_EQ(role(0, "last"), QVariant(2.0));
    EXPECT_EQ(role(0, "mean"), QVariant(2.5));
    EXPECT_EQ(role(0, "count"), QVariant(4));
    EXPECT_EQ(role(0, "exact"), QVariant(true));
    EXPECT_EQ(role(1, "count"), QVariant(1));
    for (const char *number : {"low", "high", "first", "last", "mean"})
        EXPECT_FALSE(role(1, number).isValid()) << number << " of a column without numbers";
    EXPECT_EQ(names.size(), model.columnCount());

    const auto shown = [&](int row, TrendModel::Column column) { return model.index(row, column).data().toString(); };
    EXPECT_EQ(shown(0, TrendModel::Time), "2024-05-06 12:00:00"_q);
    EXPECT_EQ(shown(0, TrendModel::End), "2024-05-06 12:01:00"_q);
    EXPECT_EQ(shown(0, TrendModel::High), "+3"_q) << "the text as it was recorded";
    EXPECT_EQ(shown(0, TrendModel::First), "2.50"_q);
    EXPECT_EQ(shown(0, TrendModel::Mean), "2.5"_q);
    EXPECT_EQ(shown(1, TrendModel::Low), QString());
    EXPECT_EQ(model.headerData(TrendModel::High, Qt::Horizontal).toString(), "Highest"_q);
    EXPECT_FALSE(model.headerData(TrendModel::ColumnCount, Qt::Horizontal).isValid());
    EXPECT_FALSE(model.index(0, 0).data(Qt::DecorationRole).isValid());
}

TEST_F(TrendModels, OfManyRequestsTheLastIsShownAndFewAreAsked)
{
    const auto recorder = recorderOfSeconds(600);
    TrendModel model(recorder.get(), boiler);
    const QSignalSpy answers(&model, &TrendModel::trendChanged), busy(&model, &TrendModel::busyChanged);
    for (int columns = 1; columns <= 500; ++columns)
        model.show(minutes(10, columns));
    EXPECT_TRUE(model.busy());
    ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    expectShown(model, expected(minutes(10, 500)));
    EXPECT_LE(answers.count(), 2) << "the first may be answered, the last must be";
    EXPECT_EQ(busy.count(), 2);
}

TEST_F(TrendModels, AQuestionThatTakesLongIsGivenUpForANewerOne)
{
    const auto recorder = recorderOfSeconds(600);
    TrendModel model(recorder.get(), boiler);
    const QSignalSpy answers(&model, &TrendModel::trendChanged);
    Gate gate(*recorder);
    model.show(minutes(10, 10));
    model.show(minutes(10, 20));
    bool longerThanItsPatience = false;
    QTimer::singleShot(600, [&] { longerThanItsPatience = true; });
    ASSERT_TRUE(eventually([&] { return longerThanItsPatience; }));
    gate.open();
    ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    expectShown(model, expected(minutes(10, 20)));
    EXPECT_EQ(answers.count(), 1) << "the first was answered all the same";
    EXPECT_EQ(model.errorText(), QString()) << "being cancelled is no failure";

    // A newer one that comes after that time cancels at once.
    Gate second(*recorder);
    model.show(minutes(10, 10));
    longerThanItsPatience = false;
    QTimer::singleShot(600, [&] { longerThanItsPatience = true; });
    ASSERT_TRUE(eventually([&] { return longerThanItsPatience; }));
    model.show(minutes(10, 60));
    second.open();
    ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    expectShown(model, expected(minutes(10, 60)));
    EXPECT_EQ(answers.count(), 2);
}

TEST_F(TrendModels, AnAnswerThatComesSoonIsShownWhileANewerOneIsAwaited)
{
    const auto recorder = recorderOfSeconds(600);
    TrendModel model(recorder.get(), boiler);
    QVector<int> shown;
    QObject::connect(&model, &TrendModel::trendChanged, [&] { shown << model.rowCount(); });
    Gate gate(*recorder);
    model.show(minutes(10, 10));
    model.show(minutes(10, 20));
    model.show(minutes(10, 60));
    gate.open();
    std::promise<void> done; // of the question after the first one's, so that the first is answered for certain
    recorder->ask(
        nullptr, [&](HistoryStore &) { return done.set_value(), true; }, [](const Result<bool> &) {});
    done.get_future().wait();
    ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    EXPECT_EQ(shown, (QVector<int>{10, 60}));
}

TEST_F(TrendModels, AsksForNothingByItself)
{
    const TableName other = table("Other"_q);
    const auto recorder = recorderOfSeconds(60);
    recorder->createTable(other);
    require(recorder->flush(milliseconds(20000)));
    TrendModel still(recorder.get(), boiler), follower(recorder.get(), boiler);
    follower.setFollowing(true);
    show(still, minutes(10));
    show(follower, minutes(10));
    const QSignalSpy first(&still, &TrendModel::trendChanged), second(&follower, &TrendModel::trendChanged);
    require(recorder->record(other, {noon, "1"_q}));
    require(recorder->flush(milliseconds(20000)));
    bool longerThanAFollowerWaits = false;
    QTimer::singleShot(600, [&] { longerThanAFollowerWaits = true; });
    ASSERT_TRUE(eventually([&] { return longerThanAFollowerWaits; }));
    EXPECT_EQ(second.count(), 0) << "rows of another table";
    require(recorder->record(boiler, {noon, "1"_q}));
    ASSERT_TRUE(
        eventually([&] { return follower.trend().columns.first().rows == still.trend().columns.first().rows + 1; }));
    EXPECT_EQ(first.count(), 0) << "it does not follow";
}

TEST_F(TrendModels, ARefreshDoesNotEndTheQuestionThatRuns)
{
    const auto recorder = recorderOfSeconds(60);
    TrendModel model(recorder.get(), boiler);
    const QSignalSpy answers(&model, &TrendModel::trendChanged);
    Gate gate(*recorder);
    model.show(minutes(2, 2));
    bool longerThanItsPatience = false;
    QTimer::singleShot(600, [&] { longerThanItsPatience = true; });
    ASSERT_TRUE(eventually([&] {
        model.refresh();
        return longerThanItsPatience;
    }));
    gate.open();
    ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    EXPECT_EQ(answers.count(), 1);
    EXPECT_EQ(model.rowCount(), 1);
    EXPECT_TRUE(eventually([&] { return answers.count() == 2; })) << "all those refreshes together are one question";
    EXPECT_FALSE(model.busy());
}

TEST_F(TrendModels, OldColumnsStayUntilTheAnswerAndAfterAnError)
{
    const auto recorder = recorderOfSeconds(600);
    TrendModel model(recorder.get(), boiler);
    show(model, minutes(10, 10));
    const Trend before = model.trend();
    Gate gate(*recorder);
    model.show(minutes(5, 5));
    EXPECT_TRUE(model.busy());
    expectShown(model, before);
    gate.open();
    ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    EXPECT_EQ(model.rowCount(), 5);

    const QSignalSpy errors(&model, &TrendModel::errorChanged);
    show(model, minutes(5, 0));
    EXPECT_TRUE(model.errorText().contains("columns is 0"_q)) << model.errorText().toStdString();
    EXPECT_EQ(model.rowCount(), 5);
    show(model, TrendQuery());
    EXPECT_TRUE(model.errorText().contains("a bound of the range"_q)) << model.errorText().toStdString();
    show(model, minutes(5, 5));
    EXPECT_EQ(model.errorText(), QString());
    EXPECT_EQ(errors.count(), 3);
}

TEST_F(TrendModels, AnErrorOfARequestThatIsReplacedIsNotShown)
{
    const auto recorder = recorderOfSeconds(60);
    TrendModel model(recorder.get(), boiler);
    const QSignalSpy errors(&model, &TrendModel::errorChanged);
    model.show(minutes(1, 0));
    show(model, minutes(1, 1));
    EXPECT_EQ(model.rowCount(), 1);
    EXPECT_EQ(errors.count(), 0);
}

TEST_F(TrendModels, ARangeWithoutRowsIsEmptyNotAnError)
{
    const auto recorder = recorderOfSeconds(600);
    TrendModel model(recorder.get(), boiler);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    show(model, minutes(10));
    EXPECT_EQ(model.rowCount(), 60);
    show(model, TrendQuery::between(after(noon, 86400), after(noon, 2 * 86400)));
    EXPECT_EQ(model.rowCount(), 0);
    show(model, minutes(10));
    EXPECT_EQ(model.rowCount(), 60);
    show(model, TrendQuery::between(after(noon, 600), noon));
    EXPECT_EQ(model.rowCount(), 0);
    EXPECT_EQ(model.errorText(), QString());
}

TEST_F(TrendModels, EveryRangeAndNumberOfColumnsIsAnswered)
{
    const auto recorder = recorderOfSeconds(600);
    TrendModel model(recorder.get(), boiler);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    const LocalTime first(QDate(1, 1, 1), QTime(0, 0)), last(QDate(9999, 12, 31), QTime(23, 59, 59));
    for (const int columns : {1, 2, 1000, 100000}) {
        show(model, TrendQuery::between(first, last).columns(columns));
        EXPECT_EQ(model.errorText(), QString());
        ASSERT_GE(model.rowCount(), 1) << columns;
        EXPECT_LE(model.rowCount(), columns);
        for (int i = 0; i < model.columnCount(); ++i)
            EXPECT_FALSE(model.index(0, i).data().toString().isEmpty()) << columns << ", " << i;
    }
    show(model, minutes(10, 100000));
    EXPECT_EQ(model.rowCount(), 600);
    show(model, TrendQuery::between(noon, noon).columns(100000));
    EXPECT_EQ(model.rowCount(), 1);
    show(model, TrendQuery::between(LocalTime(QDate(10000, 1, 1), QTime(0, 0)), last));
    EXPECT_FALSE(model.errorText().isEmpty()) << "a year that the tables cannot hold";
}

TEST_F(TrendModels, FollowsWhatIsRecordedAndRemoved)
{
    const auto recorder = recorderOfSeconds(90);
    TrendModel model(recorder.get(), boiler);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    const QSignalSpy resets(&model, &QAbstractItemModel::modelReset), followed(&model, &TrendModel::followingChanged);
    model.setFollowing(true);
    model.setFollowing(true);
    EXPECT_EQ(followed.count(), 1);
    show(model, minutes(10, 10));
    EXPECT_EQ(model.rowCount(), 2);
    const QPersistentModelIndex selected = model.index(1, TrendModel::Count);
    recordSeconds(*recorder, 90, 150);
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 3; }));
    EXPECT_TRUE(eventually([&] { return selected.data() == QVariant(60); })) << "the second minute is whole now";
    EXPECT_EQ(resets.count(), 0) << "columns are added at the end";
    recorder->clear(boiler);
    EXPECT_TRUE(eventually([&] { return model.rowCount() == 0; })) << "a table that is emptied while it is shown";
    recordSeconds(*recorder, 0, 60);
    EXPECT_TRUE(eventually([&] { return model.rowCount() == 1 && model.trend().columns.first().rows == 60; }));
}

TEST_F(TrendModels, FollowsFiveThousandRowsASecondWithoutFallingBehind)
{
    const auto recorder = recorderOf(Profile::Durable);
    recorder->keepTrend(boiler);
    TrendModel model(recorder.get(), boiler);
    model.setFollowing(true);
    const QSignalSpy answers(&model, &TrendModel::trendChanged), stored(recorder.get(), &Recorder::stored);
    model.show(minutes(10, 10));
    for (int i = 0; i < 10000; ++i) {
        require(recorder->record(boiler, {after(noon, i / 5000), QString::number(i)}));
        if (i % 50 == 0) {
            require(recorder->flush(milliseconds(20000)));
            QCoreApplication::processEvents();
        }
    }
    ASSERT_TRUE(
        eventually([&] { return !model.trend().columns.isEmpty() && model.trend().columns.first().rows == 10000; }));
    EXPECT_EQ(model.trend().columns.first().highest.value, "9999"_q);
    EXPECT_LT(answers.count(), stored.count()) << "a question for each group of rows";
}

TEST_F(TrendModels, AClockThatStepsIsATrendLikeAnyOther)
{
    const auto recorder = recorderOfSeconds(120);
    TrendModel model(recorder.get(), boiler);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    model.setFollowing(true);
    const LocalTime back = after(noon, -3600), forth = after(noon, 3600);
    model.show(TrendQuery::between(back, forth).columns(121));
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 2; }));
    require(recorder->record(boiler, {back, "1"_q}));
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 3; }));
    EXPECT_EQ(model.trend().columns.first().from, back);
    require(recorder->record(boiler, {forth, "2"_q}));
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 4; }));
    EXPECT_EQ(model.trend().columns.last().from, forth);
}

TEST_F(TrendModels, AColumnInTheHourThatSummerTimeLeavesOutIsShown)
{
    qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    tzset();
    const QDate day(2024, 3, 31);
    const auto recorder = recorderOf(Profile::Durable);
    require(recorder->record(boiler, {LocalTime(day, QTime(2, 30)), "1"_q}));
    require(recorder->flush(milliseconds(20000)));
    TrendModel model(recorder.get(), boiler);
    show(model, TrendQuery::between(LocalTime(day, QTime(2, 0)), LocalTime(day, QTime(2, 59))).columns(60));
    EXPECT_EQ(model.index(0, TrendModel::Time).data().toString(), "2024-03-31 02:30:00"_q);
    EXPECT_EQ(model.index(0, TrendModel::End).data().toString(), "2024-03-31 02:31:00"_q);
    qputenv("TZ", "UTC");
    tzset();
}

TEST_F(TrendModels, QmlAsksByItsOwnTypes)
{
    const auto recorder = recorderOfSeconds(60);
    TrendModel model(recorder.get(), boiler);
    EXPECT_TRUE(QMetaObject::invokeMethod(&model, "show", Q_ARG(QDateTime, noon.toDateTime()),
                                          Q_ARG(QDateTime, after(noon, 59).toDateTime()), Q_ARG(int, 6)));
    ASSERT_TRUE(eventually([&] { return !model.property("busy").toBool(); }));
    EXPECT_EQ(model.property("count"), QVariant(6));
    EXPECT_EQ(model.property("error"), QVariant(QString()));
}

} // namespace
