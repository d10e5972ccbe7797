// SPDX-License-Identifier: MIT
#include "host_test.h"
#include "sqlite_calls.h"

#include "device/recorder.h"

#include <QRegularExpression>

#include <algorithm>

using namespace device;

namespace
{

QStringList inserts(const QStringList &statements)
{
    return statements.filter(QRegularExpression("^insert into"_q));
}

/// Samples whose texts need care as SQL or as JSON, in an order that shows in the values.
QList<Sample> awkwardSamples(int count)
{
    const QStringList texts{
        "73.5"_q, "it's"_q, "é 日本 👩‍🚒"_q, "\"\\\b"_q, ""_q, "%1"_q, "}')"_q, "\x7f\n"_q, "/*"_q, "'"_q};
    QList<Sample> samples;
    for (int i = 0; i < count; ++i)
        samples.append({at("2024-05-06 12:00:00"_q), texts.at(i / 20 % int(texts.size())) + QString::number(i)});
    return samples;
}

class Writing : public HostTest
{
protected:
    /// What reading gives after appending, and the INSERTs that it took.
    QStringList append(const char *file, const QList<Sample> &samples)
    {
        auto store = require(HistoryStore::open(library(), path(file)));
        require(store.createTable(boiler));
        SqliteCalls calls;
        EXPECT_EQ(require(store.append(boiler, samples)).stored, samples.size());
        const QStringList statements = inserts(calls.take());
        EXPECT_EQ(require(store.read(boiler, Query<Sample>().oldestFirst())), samples);
        return statements;
    }

    const TableName boiler = table("Boiler"_q);
};

bool usesJson(const QString &statement)
{
    return statement.contains("json_each"_q);
}

TEST_F(Writing, SamplesAreTheSameWithTheJsonFunctionsAndWithout)
{
    const QList<Sample> samples = awkwardSamples(2000);
    const QStringList withJson = append("with.db", samples);
    EXPECT_TRUE(std::any_of(withJson.begin(), withJson.end(), usesJson));
    // As on a device whose SQLite has none.
    PlainConnection(path("without.db")).run("create table json_each(x)"_q);
    const QStringList without = append("without.db", samples);
    EXPECT_TRUE(std::none_of(without.begin(), without.end(), usesJson));
    EXPECT_LE(without.size(), 3);
    EXPECT_EQ(rowsOf(path("with.db"), "select *,typeof(DATETIME),typeof(Value) from Boiler order by ID"_q),
              rowsOf(path("without.db"), "select *,typeof(DATETIME),typeof(Value) from Boiler order by ID"_q));
}

TEST_F(Writing, FewSamplesAreNotWorthTheJsonFunctions)
{
    const QStringList statements = append("store.db", awkwardSamples(3));
    EXPECT_EQ(statements, QStringList{"insert into Boiler values(NULL,'2024-05-06 12:00:00','73.50'),"
                                      "(NULL,'2024-05-06 12:00:00','73.51'),(NULL,'2024-05-06 12:00:00','73.52')"_q});
}

TEST_F(Writing, ManySamplesGoInStatementsOfALengthThatSqliteTakes)
{
    QList<Sample> samples;
    for (int i = 0; i < 2000; ++i)
        samples.append({at("2024-05-06 12:00:00"_q), QString(800, QLatin1Char('x'))});
    const QStringList statements = append("store.db", samples);
    EXPECT_GT(statements.size(), 20);
    for (const QString &statement : statements)
        EXPECT_LT(statement.size(), 70000);
}

TEST_F(Writing, ASampleThatTheTableRefusesIsFoundAmongMany)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    PlainConnection(path()).run("create unique index one on Boiler(Value)"_q);
    QList<Sample> samples;
    QList<Sample> kept;
    for (int i = 0; i < 100; ++i) {
        samples.append({at("2024-05-06 12:00:00"_q), QString::number(i == 50 ? 49 : i)});
        if (i != 50)
            kept.append(samples.last());
    }
    const Appended appended = require(store.append(boiler, samples));
    EXPECT_EQ(appended.stored, 99);
    ASSERT_EQ(appended.refused.size(), 1);
    EXPECT_EQ(appended.refused.first().row, 50);
    EXPECT_EQ(require(store.read(boiler, Query<Sample>().oldestFirst())), kept);
}

// It was there when the file was opened.
TEST_F(Writing, SamplesAreStoredWhenTheJsonFunctionsAreHiddenLater)
{
    auto store = require(HistoryStore::open(library(), path()));
    require(store.createTable(boiler));
    PlainConnection(path()).run("create table json_each(x)"_q);
    const QList<Sample> samples = awkwardSamples(100);
    EXPECT_EQ(require(store.append(boiler, samples)).stored, 100);
    EXPECT_EQ(require(store.read(boiler, Query<Sample>().oldestFirst())), samples);
}

TEST_F(Writing, ABatchOfManyTablesTakesOneInsertPerTable)
{
    constexpr int tables = 50;
    constexpr int rounds = 10;
    RecorderOptions options;
    options.batchRows = tables * rounds;
    options.batchTime = std::chrono::hours(1);
    SqliteCalls calls;
    {
        HistoryRecorder recorder(library(), path(), options);
        require(recorder.start());
        for (int i = 0; i < tables; ++i)
            recorder.createTable(table("Series%1"_q.arg(i)));
        require(recorder.flush(std::chrono::seconds(20)));
        for (int round = 0; round < rounds; ++round) {
            for (int i = 0; i < tables; ++i) {
                // However a table's name is written, its rows stay in order.
                const QString name = round % 2 ? "SERIES%1"_q : "Series%1"_q;
                require(recorder.record(table(name.arg(i)), {at("2024-05-06 12:00:00"_q), QString::number(round)}));
            }
        }
        require(recorder.stop(std::chrono::seconds(20)));
    }
    EXPECT_EQ(calls.take()
                  .filter(QRegularExpression("^insert into series"_q, QRegularExpression::CaseInsensitiveOption))
                  .size(),
              tables);
    for (int i = 0; i < tables; ++i) {
        const Rows rows = rowsOf(path(), "select Value from Series%1 order by ID"_q.arg(i));
        ASSERT_EQ(rows.size(), rounds);
        for (int round = 0; round < rounds; ++round)
            ASSERT_EQ(rows.at(round).first(), QString::number(round));
    }
}

} // namespace
