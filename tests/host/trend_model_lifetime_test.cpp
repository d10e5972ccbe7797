// SPDX-License-Identifier: MIT
//
// What ends before its trend model, what a slot of it may do, and errors that come and go.
#include "trend_model_fixture.h"

namespace
{

TEST_F(TrendModels, AMissingTableShowsAsAnErrorUntilItIsMade)
{
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    TrendModel model(&recorder, boiler);
    show(model, minutes(1));
    EXPECT_TRUE(model.errorText().contains("no such table"_q)) << model.errorText().toStdString();
    recorder.createTable(boiler);
    EXPECT_TRUE(eventually([&] { return model.errorText().isEmpty(); }));
}

TEST_F(TrendModels, AFileThatCannotBeOpenedAndARecorderThatEndsAreErrors)
{
    auto recorder = std::make_unique<HistoryRecorder>(library(), path("later") + "/store.db"_q, options);
    TrendModel model(recorder.get(), boiler);
    model.show(minutes(1));
    QCoreApplication::processEvents();
    EXPECT_TRUE(model.busy()) << "until the recorder is started";
    require(recorder->start());
    ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    EXPECT_TRUE(model.errorText().contains("no folder"_q)) << model.errorText().toStdString();
    ASSERT_TRUE(QDir().mkdir(path("later")));
    recorder->createTable(boiler);
    require(recorder->record(boiler, {noon, "1"_q}));
    ASSERT_TRUE(eventually([&] { return model.errorText().isEmpty(); }));
    model.refresh();
    ASSERT_TRUE(eventually([&] { return model.rowCount() == 1; }));
    require(recorder->stop(milliseconds(20000)));
    show(model, minutes(1));
    EXPECT_TRUE(model.errorText().contains("stopped"_q)) << model.errorText().toStdString();
    EXPECT_EQ(model.rowCount(), 1);
    recorder.reset();
    EXPECT_TRUE(model.errorText().contains("gone"_q));
    model.show(minutes(2));
    model.refresh();
    EXPECT_FALSE(model.busy());
    EXPECT_EQ(model.rowCount(), 1) << "what was shown stays";
}

TEST_F(TrendModels, ARecorderIsDeletedWhileAQuestionRuns)
{
    recorderOfSeconds(600);
    for (int i = 0; i < 30; ++i) {
        auto recorder = std::make_unique<HistoryRecorder>(library(), path(), options);
        require(recorder->start());
        TrendModel model(recorder.get(), boiler);
        const QSignalSpy busy(&model, &TrendModel::busyChanged);
        model.show(minutes(10, 600));
        if (i % 2 == 0)
            model.show(minutes(10, 10));
        if (i % 3 == 0)
            QCoreApplication::processEvents();
        recorder.reset();
        EXPECT_TRUE(model.errorText().contains("gone"_q));
        EXPECT_FALSE(model.busy());
        EXPECT_EQ(busy.count() % 2, 0);
    }
    auto neverStarted = std::make_unique<HistoryRecorder>(library(), path(), options);
    TrendModel model(neverStarted.get(), boiler);
    model.show(minutes(10, 600));
    neverStarted.reset();
    EXPECT_FALSE(model.busy());
}

TEST_F(TrendModels, AModelIsDeletedWhileAQuestionRuns)
{
    const auto recorder = recorderOfSeconds(600);
    for (int i = 0; i < 30; ++i) {
        auto model = std::make_unique<TrendModel>(recorder.get(), boiler);
        model->setFollowing(true);
        model->show(minutes(10, 600));
        model->show(minutes(10, 10));
        if (i % 3 == 0)
            QCoreApplication::processEvents();
        recordSeconds(*recorder, 600 + i, 601 + i);
    }
    Gate gate(*recorder);
    {
        TrendModel model(recorder.get(), boiler);
        model.show(minutes(10));
    }
    gate.open();
    bool answered = false;
    recorder->ask(
        nullptr, [](HistoryStore &) { return true; }, [&](const Result<bool> &) { answered = true; });
    EXPECT_TRUE(eventually([&] { return answered; }));
}

TEST_F(TrendModels, AModelMayBeDeletedInASlotOfItsOwn)
{
    const auto recorder = recorderOfSeconds(600);
    const auto deletedBy = [&](const TableName &table, const auto signal) {
        auto *model = new TrendModel(recorder.get(), table);
        const QPointer<TrendModel> alive(model);
        QObject::connect(model, signal, [=] { delete model; });
        // The same range twice, for the signal of changed cells, and another one, for those of a reset.
        int shown = 0;
        EXPECT_TRUE(eventually([&] {
            if (alive && !alive->busy())
                alive->show(minutes(10, ++shown % 3 == 0 ? 60 : 10));
            return alive.isNull();
        }));
    };
    deletedBy(boiler, &TrendModel::trendChanged);
    deletedBy(boiler, &TrendModel::countChanged);
    deletedBy(boiler, &TrendModel::busyChanged);
    deletedBy(boiler, &TrendModel::dataChanged);
    deletedBy(boiler, &TrendModel::rowsInserted);
    deletedBy(boiler, &TrendModel::modelAboutToBeReset);
    deletedBy(boiler, &TrendModel::modelReset);
    deletedBy(table("Missing"_q), &TrendModel::errorChanged);
}

TEST_F(TrendModels, ARecorderMayBeDeletedInASlot)
{
    recorderOfSeconds(600);
    const auto deletedBy = [&](const auto signal) {
        auto recorder = std::make_unique<HistoryRecorder>(library(), path(), options);
        require(recorder->start());
        TrendModel model(recorder.get(), boiler);
        show(model, minutes(10, 60));
        QObject::connect(&model, signal, [&] {
            model.show(minutes(10, 20));
            recorder.reset();
        });
        model.show(minutes(5, 5));
        ASSERT_TRUE(eventually([&] { return !recorder; }));
        QCoreApplication::processEvents();
        EXPECT_TRUE(model.errorText().contains("gone"_q)) << model.errorText().toStdString();
        EXPECT_FALSE(model.busy());
    };
    deletedBy(&TrendModel::modelAboutToBeReset);
    deletedBy(&TrendModel::modelReset);
    deletedBy(&TrendModel::trendChanged);
    deletedBy(&TrendModel::countChanged);
}

TEST_F(TrendModels, ASlotThatRunsAnEventLoopGetsTheNextAnswer)
{
    const auto recorder = recorderOfSeconds(600);
    const auto slotOf = [&](const auto signal) {
        TrendModel model(recorder.get(), boiler);
        QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
        show(model, minutes(10, 60));
        bool isIn = false, answered = false;
        QObject::connect(&model, signal, [&] {
            if (std::exchange(isIn, true))
                return;
            model.show(minutes(10, 20));
            answered = eventually([&] { return model.rowCount() == 20 && !model.busy(); });
        });
        model.show(minutes(5, 5));
        ASSERT_TRUE(eventually([&] { return answered; }));
        expectShown(model, expected(minutes(10, 20)));
        EXPECT_FALSE(model.busy());
        EXPECT_EQ(model.errorText(), QString());
    };
    slotOf(&TrendModel::trendChanged);
    slotOf(&TrendModel::countChanged);
    slotOf(&TrendModel::modelReset);
}

TEST_F(TrendModels, AnErrorThatCameInASlotIsNotOverwrittenByTheAnswerBefore)
{
    const auto recorder = recorderOfSeconds(600);
    TrendModel model(recorder.get(), boiler);
    show(model, minutes(10, 60));
    bool isIn = false;
    QObject::connect(&model, &TrendModel::modelReset, [&] {
        if (std::exchange(isIn, true))
            return;
        model.show(minutes(10, 0));
        eventually([&] { return !model.busy(); });
    });
    model.show(minutes(5, 5));
    ASSERT_TRUE(eventually([&] { return isIn && !model.busy(); }));
    EXPECT_TRUE(model.errorText().contains("columns is 0"_q));
}

TEST_F(TrendModels, AModelWithoutARecorderSaysSo)
{
    TrendModel model(nullptr, boiler);
    model.show(minutes(1));
    model.refresh();
    EXPECT_EQ(model.rowCount(), 0);
    EXPECT_FALSE(model.busy());
    EXPECT_TRUE(model.errorText().contains("without a recorder"_q));
}

} // namespace
