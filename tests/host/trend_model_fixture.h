// SPDX-License-Identifier: MIT
#pragma once

#include "recorder_fixture.h"
#include "trend_reference.h"

#include "device/models.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>

#include <future>

inline const LocalTime noon(QDate(2024, 5, 6), QTime(12, 0));

inline LocalTime after(LocalTime time, int seconds)
{
    return time.toDateTime().addSecs(seconds);
}

inline TrendQuery minutes(int count, int columns = 60)
{
    return TrendQuery::between(noon, after(noon, count * 60 - 1)).columns(columns);
}

class TrendModels : public Recorders
{
protected:
    TrendModels() { options.batchTime = milliseconds(5); }

    /// A table of `rows` samples, one per second from noon, and the recorder on it.
    std::unique_ptr<HistoryRecorder> recorderOfSeconds(int rows)
    {
        auto recorder = recorderOf(Profile::Durable);
        recordSeconds(*recorder, 0, rows);
        require(recorder->flush(milliseconds(20000)));
        return recorder;
    }
    void recordSeconds(HistoryRecorder &recorder, int first, int end) const
    {
        for (int i = first; i < end; ++i)
            require(recorder.record(boiler, {after(noon, i), QString::number(i)}));
    }
    Trend expected(const TrendQuery &query) const
    {
        auto store = require(HistoryStore::open(library(), path()));
        return require(store.trend(boiler, query));
    }
    static void expectShown(const TrendModel &model, const Trend &trend)
    {
        EXPECT_EQ(model.trend().width, trend.width);
        expectSameColumns(model.trend().columns, trend.columns);
        EXPECT_EQ(model.rowCount(), trend.columns.size());
    }
    /// Shows it and waits for the answer.
    static void show(TrendModel &model, const TrendQuery &query)
    {
        model.show(query);
        ASSERT_TRUE(eventually([&] { return !model.busy(); }));
    }
};

/// Keeps the thread that answers questions waiting, so that what is asked in the meantime is not answered.
class Gate
{
public:
    explicit Gate(HistoryRecorder &recorder)
    {
        recorder.ask(
            nullptr,
            [opened = m_opened.get_future().share()](HistoryStore &) {
                opened.wait();
                return true;
            },
            [](const Result<bool> &) {});
    }
    ~Gate() { open(); }
    void open()
    {
        if (!std::exchange(m_isOpen, true))
            m_opened.set_value();
    }

private:
    std::promise<void> m_opened;
    bool m_isOpen = false;
};
