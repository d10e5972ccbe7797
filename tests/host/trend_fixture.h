// SPDX-License-Identifier: MIT
#pragma once

#include "recorder_fixture.h"
#include "trend_reference.h"

/// A recorder's file whose trends are compared with what its rows say.
class Trends : public Recorders
{
protected:
    Rows rowsOfFile() const
    {
        return rowsOf(path(), "select ID,DATETIME,Value from Boiler where typeof(DATETIME)<>'blob' order by ID"_q);
    }
    QString stateOfFile() const
    {
        return valueOf(path(), "select MARK=(select seq from sqlite_sequence where name='Boiler') from "
                               "\"device trend series\" where COLLECTOR='Boiler'"_q);
    }
    Trend trend(const QString &from, const QString &to, int columns) const
    {
        auto store = require(HistoryStore::open(library(), path()));
        return require(store.trend(boiler, TrendQuery::between(at(from), at(to)).columns(columns)));
    }
    // The trend of the file is that of these rows.
    void expectTrend(const QString &from, const QString &to, int columns, const Rows &rows) const
    {
        const Trend found = trend(from, to, columns);
        ASSERT_LE(found.columns.size(), columns);
        expectSameColumns(found.columns, columnsOf(rows, from, to, found.width.count()));
    }
    void expectTrend(const QString &from, const QString &to, int columns) const
    {
        expectTrend(from, to, columns, rowsOfFile());
    }
    std::unique_ptr<HistoryRecorder> trendRecorder(const TrendOptions &trend = {})
    {
        auto recorder = recorderOf(Profile::Durable);
        recorder->keepTrend(boiler, trend);
        require(recorder->flush(milliseconds(20000)));
        return recorder;
    }
    bool catchesUp() const
    {
        return eventually([this] { return stateOfFile() == "1"_q; });
    }
};
