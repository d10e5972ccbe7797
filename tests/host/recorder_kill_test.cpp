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
    [[noreturn]] void recordForEver(Profile profile, int pipe, int first, const Keep &keep) const
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
        recorder.keep(boiler, keep);
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

    // The trend of the file, at most so many columns, is that of these rows.
    void expectTrend(const QString &from, const QString &to, int columns, const Rows &rows) const
    {
        auto store = require(HistoryStore::open(library(), path()));
        const auto trend =
            require(store.trend(table("Boiler"_q), TrendQuery::between(at(from), at(to)).columns(columns)));
        expectSameColumns(trend.columns, columnsOf(rows, from, to, trend.width.count()));
    }
    // The numbers that are in the file end where they should, and none is missing behind the first. How many there
    // were in all.
    int expectRows(qint32 announced, const Keep &keep, int columns) const
    {
        const Rows rows = rowsOf(path(), "select ID,DATETIME,Value from Boiler order by ID"_q);
        const int first = rows.isEmpty() ? 0 : rows.first().at(2).toInt();
        const int end = first + int(rows.size());
        EXPECT_GE(end, announced);
        for (int i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(rows.at(i).at(2), QString::number(first + i));
            EXPECT_EQ(rows.at(i).first(), QString::number(first + i + 1));
        }
        if (keep.rows < 0) {
            EXPECT_EQ(first, 0);
            expectTrend("2024-05-06 00:00:10"_q, "2024-05-06 23:59:49"_q, columns, rows);
            return end;
        }
        EXPECT_TRUE(first == 0 || rows.size() >= keep.rows) << first << ' ' << rows.size();
        EXPECT_EQ(valueOf(path(), "select ifnull(sum(TRIMMED),0) from \"device keep\" where COLLECTOR='Boiler'"_q),
                  QString::number(first));
        Rows all; // those that were removed are in the trend, too
        for (int i = 0; i < end; ++i) {
            const Sample sample = numbered(i);
            all << QStringList{QString::number(i + 1), sample.time.toDateTime().toString("yyyy-MM-dd hh:mm:ss"_q),
                               sample.value};
        }
        expectTrend("2024-05-06 00:00:00"_q, "2024-05-06 23:59:59"_q, columns, all);
        return end;
    }
    void killAgainAndAgain(const Keep &keep) const;
};

void RecorderKill::killAgainAndAgain(const Keep &keep) const
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
                recordForEver(profile, ends[1], inFile, keep);
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
            inFile = expectRows(announced, keep, 1 + kill % 7 * 50);
            ASSERT_FALSE(HasFailure());
        }
    }
    std::printf("%d kills, %lld rows announced before them\n", (kills + 2) / 3 * 3, announcedInAll);
}

TEST_F(RecorderKill, LosesNothingThatWasAnnounced)
{
    killAgainAndAgain({});
}

TEST_F(RecorderKill, LosesNothingOfATrendWhoseRowsAreRemovedAndNoMoreThanTheRuleSays)
{
    Keep keep;
    keep.rows = 700;
    killAgainAndAgain(keep);
}

} // namespace
