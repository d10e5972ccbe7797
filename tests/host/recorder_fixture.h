// SPDX-License-Identifier: MIT
#pragma once

#include "host_test.h"

#include "device/recorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <memory>

using namespace device;
using std::chrono::milliseconds;

/// A second program beside a recorder; it waits for the moments in which that one reads.
class OtherProgram : public PlainConnection
{
public:
    explicit OtherProgram(const QString &path) : PlainConnection(path) { run("pragma busy_timeout=20000"_q); }
};

/// The sample whose value is this number.
inline Sample numbered(int number)
{
    return {LocalTime(QDate(2024, 5, 6), QTime(0, 0).addSecs(number % 86400)), QString::number(number)};
}

class Recorders : public HostTest
{
protected:
    RecorderOptions options;
    const TableName boiler = table("Boiler"_q);

    /// A recorder on this file with its table, once it is there.
    std::unique_ptr<HistoryRecorder> recorderOf(Profile profile)
    {
        options.file.profile = profile;
        auto recorder = std::make_unique<HistoryRecorder>(library(), path(), options);
        require(recorder->start());
        recorder->createTable(boiler);
        require(recorder->flush(milliseconds(20000)));
        return recorder;
    }
    void record(HistoryRecorder &recorder, int first, int end) const
    {
        for (int i = first; i < end; ++i)
            require(recorder.record(boiler, numbered(i)));
    }
    void removeFiles() const
    {
        for (const char *end : {"", "-wal", "-shm", "-journal"})
            QFile::remove(path() + QLatin1String(end));
    }

    /// Runs the event loop until `done` or far too long.
    template<typename Done>
    static bool eventually(const Done &done)
    {
        QElapsedTimer timer;
        timer.start();
        while (!done() && timer.elapsed() < 20000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        return done();
    }

    /// The table holds the samples 0 to count - 1, in order.
    void expectNumbers(int count) const { expectNumbers(path(), 0, count); }
    static void expectNumbers(const QString &file, int first, int end)
    {
        const Rows rows = rowsOf(file, "select Value from Boiler order by ID"_q);
        ASSERT_EQ(rows.size(), end - first);
        for (int i = first; i < end; ++i)
            ASSERT_EQ(rows.at(i - first).first(), QString::number(i));
    }

    static void expectBalance(const Health &health)
    {
        EXPECT_EQ(health.accepted, health.stored + health.dropped + health.depth);
    }
};
