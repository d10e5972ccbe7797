// SPDX-License-Identifier: MIT
//
// A process that records is killed at any moment: what it had announced is in the file, in order and once, and the
// trend of the file is that of its rows.
//
// DEVICE_HOST_KILLS: how many times (12). DEVICE_HOST_SEED: which moments.
#include "recorder_fixture.h"
#include "trend_reference.h"

#include <random>

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

namespace
{

class RecorderKill : public HostTest
{
protected:
    // In the child: records without end, and writes each number of stored rows into the pipe.
    [[noreturn]] void recordForEver(Profile profile, int pipe, int first) const
    {
        RecorderOptions options;
        options.file.profile = profile;
        options.batchRows = 40;
        options.batchTime = milliseconds(2);
        const TableName boiler = table("Boiler"_q);
        HistoryRecorder recorder(library(), path(), options);
        qint32 stored = first;
        QObject::connect(&recorder, &Recorder::stored, [&](const QString &, int rows) {
            stored += rows;
            if (write(pipe, &stored, sizeof stored) != sizeof stored)
                _exit(1);
        });
        recorder.createTable(boiler);
        recorder.keepTrend(boiler);
        if (!recorder.start())
            _exit(2);
        for (int number = first;;) {
            if (recorder.record(boiler, numbered(number)))
                ++number;
            if (number % 100 == 0)
                recorder.ask(
                    nullptr, [boiler](HistoryStore &store) { return store.count(boiler); },
                    [](const Result<qint64> &) {});
            QCoreApplication::processEvents();
        }
    }

    // The trend of the file, at most so many columns, is that of its rows.
    void expectTrend(int columns) const
    {
        const QString from = "2024-05-06 00:00:10"_q;
        const QString to = "2024-05-06 23:59:49"_q;
        auto store = require(HistoryStore::open(library(), path()));
        const auto trend =
            require(store.trend(table("Boiler"_q), TrendQuery::between(at(from), at(to)).columns(columns)));
        const Rows rows = rowsOf(path(), "select ID,DATETIME,Value from Boiler order by ID"_q);
        expectSameColumns(trend.columns, columnsOf(rows, from, to, trend.width.count()));
    }
};

TEST_F(RecorderKill, LosesNothingThatWasAnnounced)
{
    const int kills =
        qEnvironmentVariableIsSet("DEVICE_HOST_KILLS") ? qEnvironmentVariableIntValue("DEVICE_HOST_KILLS") : 12;
    std::mt19937 random(qEnvironmentVariableIsSet("DEVICE_HOST_SEED")
                            ? unsigned(qEnvironmentVariableIntValue("DEVICE_HOST_SEED"))
                            : std::random_device()());
    qint64 announcedInAll = 0;
    for (const Profile profile : {Profile::AsIs, Profile::Durable, Profile::Flash}) {
        for (const char *end : {"", "-wal", "-shm", "-journal"})
            QFile::remove(path() + QLatin1String(end));
        int inFile = 0;
        for (int kill = 0; kill < (kills + 2) / 3; ++kill) {
            int ends[2];
            ASSERT_EQ(pipe(ends), 0);
            const pid_t child = fork();
            if (child == 0)
                recordForEver(profile, ends[1], inFile);
            close(ends[1]);
            // From the first announcement on, so that slow machines are killed at work too.
            qint32 announced = inFile;
            ssize_t size = read(ends[0], &announced, sizeof announced);
            usleep(random() % 60000);
            ::kill(child, SIGKILL);
            while (size == sizeof announced)
                size = read(ends[0], &announced, sizeof announced);
            close(ends[0]);
            int status = 0;
            waitpid(child, &status, 0);
            ASSERT_TRUE(WIFSIGNALED(status)) << "it ended by itself: " << status;
            EXPECT_GT(announced, inFile);
            announcedInAll += announced - inFile;
            const Rows rows = rowsOf(path(), "select Value from Boiler order by ID"_q);
            ASSERT_GE(rows.size(), announced);
            for (int i = 0; i < rows.size(); ++i)
                ASSERT_EQ(rows.at(i).first(), QString::number(i));
            expectTrend(1 + kill % 7 * 50);
            inFile = int(rows.size());
        }
    }
    std::printf("%d kills, %lld rows announced before them\n", (kills + 2) / 3 * 3, announcedInAll);
}

} // namespace
