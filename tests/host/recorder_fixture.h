// SPDX-License-Identifier: MIT
#pragma once

#include "host_test.h"

#include "device/recorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>

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
