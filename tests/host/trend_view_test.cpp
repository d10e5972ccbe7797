// SPDX-License-Identifier: MIT
//
// The trend of examples/panel: what it asks its model for, and what it paints.
#include "recorder_fixture.h"

#include "trend_view.h"

#include <QApplication>
#include <QImage>
#include <QKeyEvent>
#include <QSignalSpy>
#include <QWheelEvent>

namespace
{

class TrendViews : public Recorders
{
protected:
    void SetUp() override
    {
        recorder = recorderOf(Profile::Durable);
        model = std::make_unique<TrendModel>(recorder.get(), boiler);
        view = std::make_unique<TrendView>(model.get(), "Boiler"_q);
        view->resize(800, 240);
        view->show();
        answered();
    }
    void record(LocalTime from, int rows, const QString &value)
    {
        for (int i = 0; i < rows; ++i)
            require(recorder->record(boiler, {from.toDateTime().addSecs(i), value}));
        require(recorder->flush(milliseconds(20000)));
    }
    void answered()
    {
        ASSERT_TRUE(eventually([&] { return !model->busy(); }));
    }
    /// The same range once more, whatever the clock says now.
    void refresh()
    {
        const QSignalSpy answers(model.get(), &TrendModel::trendChanged);
        model->refresh();
        ASSERT_TRUE(eventually([&] { return answers.count() > 0; }));
    }
    void press(Qt::Key key)
    {
        QKeyEvent event(QEvent::KeyPress, key, Qt::NoModifier);
        QApplication::sendEvent(view.get(), &event);
        answered();
    }
    void mouse(QEvent::Type type, int x)
    {
        QMouseEvent event(type, QPointF(x, 100), view->mapToGlobal(QPoint(x, 100)), Qt::LeftButton, Qt::LeftButton,
                          Qt::NoModifier);
        QApplication::sendEvent(view.get(), &event);
        answered();
    }
    void turnWheel(int delta, int x)
    {
        QWheelEvent event(QPointF(x, 100), view->mapToGlobal(QPoint(x, 100)), QPoint(), QPoint(0, delta), Qt::NoButton,
                          Qt::NoModifier, Qt::NoScrollPhase, false);
        QApplication::sendEvent(view.get(), &event);
        answered();
    }
    double span() const { return double(view->from().toDateTime().secsTo(view->to().toDateTime())); }
    LocalTime latest(int secondsAgo) const { return view->to().toDateTime().addSecs(-secondsAgo); }

    struct Run {
        int begin;
        int end;
        int strength;
    };
    /// The places along the time axis where the trend is painted; all else is black or grey.
    QVector<Run> runs()
    {
        const QImage picture = view->grab().toImage();
        QVector<Run> all;
        for (int x = 0; x < picture.width(); ++x) {
            int strength = 0;
            for (int y = 0; y < picture.height(); ++y)
                strength = std::max(strength, picture.pixelColor(x, y).saturation());
            if (strength == 0)
                continue;
            if (all.isEmpty() || all.last().end != x)
                all.append({x, x, 0});
            all.last().end = x + 1;
            all.last().strength = std::max(all.last().strength, strength);
        }
        return all;
    }

    std::unique_ptr<HistoryRecorder> recorder;
    std::unique_ptr<TrendModel> model;
    std::unique_ptr<TrendView> view;
};

TEST_F(TrendViews, AGapIsAGap)
{
    EXPECT_TRUE(runs().isEmpty()) << "no rows";
    record(latest(50), 10, "20"_q);
    record(latest(20), 10, "21"_q);
    refresh();
    const QVector<Run> painted = runs();
    ASSERT_EQ(painted.size(), 2);
    EXPECT_NEAR(painted.at(0).end - painted.at(0).begin, painted.at(1).end - painted.at(1).begin, 2);
    EXPECT_NEAR(painted.at(1).begin - painted.at(0).end, 2 * (painted.at(0).end - painted.at(0).begin), 20);
}

TEST_F(TrendViews, WhatOutlivesItsRowsIsPaler)
{
    recorder->keepTrend(boiler, {{TrendLevel::TenSeconds}});
    const LocalTime tens(view->to().date(), QTime(view->to().time().hour(), view->to().time().minute()));
    record(tens.toDateTime().addSecs(-600), 100, "20"_q);
    record(tens.toDateTime().addSecs(-300), 100, "21"_q);
    bool removed = false;
    recorder->removeBefore(boiler, tens.toDateTime().addSecs(-400), nullptr,
                           [&](const Result<qint64> &rows) { removed = rows && *rows == 100; });
    ASSERT_TRUE(eventually([&] { return removed; }));
    for (int i = 0; i < 5; ++i)
        press(Qt::Key_Minus);
    ASSERT_EQ(model->errorText(), QString());
    const QVector<Run> painted = runs();
    ASSERT_EQ(painted.size(), 2);
    EXPECT_LT(painted.at(0).strength, painted.at(1).strength);
    EXPECT_FALSE(model->trend().columns.first().exact);
}

TEST_F(TrendViews, TheWheelZoomsAroundThePointer)
{
    const LocalTime from = view->from(), to = view->to();
    const int left = 5 * view->fontMetrics().height(); // where the time axis begins
    EXPECT_EQ(span(), 60);
    turnWheel(-480, left);
    EXPECT_NEAR(span(), 240, 1);
    EXPECT_LT(from.toDateTime().secsTo(view->from().toDateTime()), 5);
    EXPECT_GT(view->to().toDateTime().toSecsSinceEpoch(), to.toDateTime().toSecsSinceEpoch() + 150);
    turnWheel(480, left);
    EXPECT_NEAR(span(), 60, 1);
    EXPECT_NEAR(double(from.toDateTime().secsTo(view->from().toDateTime())), 0, 1) << "back where it was";
    turnWheel(-480, (left + view->width() - 2 * view->fontMetrics().height()) / 2);
    EXPECT_NEAR(double(view->from().toDateTime().secsTo(from.toDateTime())), 90, 3);
    EXPECT_NEAR(double(to.toDateTime().secsTo(view->to().toDateTime())), 90, 3);
}

TEST_F(TrendViews, ZoomsFromSecondsToAllYearsThatTablesHold)
{
    for (int i = 0; i < 60; ++i)
        press(Qt::Key_Plus);
    EXPECT_NEAR(span(), 10, 1);
    for (int i = 0; i < 60; ++i)
        press(Qt::Key_Minus);
    EXPECT_EQ(view->from().date(), QDate(1, 1, 1));
    EXPECT_EQ(view->to().date(), QDate(9999, 12, 31));
    press(Qt::Key_Left);
    press(Qt::Key_Right);
    EXPECT_EQ(view->to().date(), QDate(9999, 12, 31));
    EXPECT_EQ(model->errorText(), QString());
    for (int width : {1, 30, 100, 3000}) { // as layouts and small displays do
        view->resize(width, width / 3);
        answered();
        (void)view->grab();
        EXPECT_EQ(model->errorText(), QString()) << width;
    }
    press(Qt::Key_Home);
    EXPECT_EQ(span(), 60);
}

TEST_F(TrendViews, DraggingMovesAndADoubleClickGoesBack)
{
    const LocalTime from = view->from(), to = view->to();
    mouse(QEvent::MouseButtonPress, 300);
    mouse(QEvent::MouseMove, 500);
    const qint64 moved = view->from().toDateTime().secsTo(from.toDateTime());
    EXPECT_GT(moved, 10);
    EXPECT_LT(moved, 30);
    EXPECT_NEAR(span(), 60, 1);
    const LocalTime past = view->from();
    record(LocalTime::now(), 1, "1"_q);
    view->follow();
    EXPECT_EQ(view->from(), past) << "the operator looks at the past";
    mouse(QEvent::MouseButtonDblClick, 500);
    const LocalTime now = view->to();
    EXPECT_FALSE(now < to);
    mouse(QEvent::MouseMove, 500);
    EXPECT_EQ(view->to(), now) << "the second press of a double click drags from where it was";
}

TEST_F(TrendViews, PaintsValuesOfAnySize)
{
    for (const char *pair :
         {"0 0", "-1.7e308 1.7e308", "1e-320 2e-320", "1e-323 1e-323", "123456789.125 123456789.126", "5 5"}) {
        const QStringList values = QString::fromLatin1(pair).split(QLatin1Char(' '));
        bool cleared = false;
        recorder->clear(boiler, nullptr, [&](const Result<qint64> &) { cleared = true; });
        ASSERT_TRUE(eventually([&] { return cleared; }));
        record(latest(20), 1, values.at(0));
        record(latest(10), 1, values.at(1));
        refresh();
        EXPECT_EQ(runs().size(), 2) << pair;
    }
}

TEST_F(TrendViews, OutlivesItsRecorder)
{
    recorder.reset();
    press(Qt::Key_Minus);
    EXPECT_TRUE(model->errorText().contains("gone"_q));
    (void)view->grab();
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("TZ", "UTC");
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
