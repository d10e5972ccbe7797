// SPDX-License-Identifier: MIT
//
// A process that writes is killed at any moment. What a store acknowledged is in the file, the operation that was under
// way is there as a whole or not at all, and the next process finds a sound file. DEVICE_KILL_KILLS is the number of
// kills for each kind of store and journal mode, DEVICE_KILL_SEED chooses the writes and the moments; it is printed.
#include "long_test.h"

#include <QElapsedTimer>

#include <iostream>
#include <string>

#include <csignal>
#include <cstdint>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

const QString Table = "AlarmData"_q; // the one name that suits all stores

/// What the writer tells: before an operation and after it.
struct Report {
    enum Phase : std::int32_t { Begins, IsDone };
    enum Act : std::int32_t { Insert, Trim, Purge, Config, Vacuum, Checkpoint };
    Phase phase;
    Act act;
    std::int32_t number; ///< Insert: the batch.
    std::int32_t count;  ///< Insert, Trim: rows.
};

QStringList makeRow(Kind kind, int batch, int row)
{
    const QString mark = "%1/%2"_q.arg(batch).arg(row);
    // Long enough that a batch takes many pages.
    const QString filler = "a text of some length "_q.repeated(1 + (batch + row) % 8);
    switch (kind) {
    case History:
        return {"2024/05/06 07:08:09"_q, mark + " "_q + filler};
    case Alarm:
        return {"2"_q,    "2024/05/06"_q, "07:08:09"_q,          "Pump 1"_q, "High"_q,
                "87.5"_q, "80"_q,         mark + " "_q + filler, ""_q,       ""_q};
    default:
        return {"2024-05-06 07:08:09.123"_q, "admin"_q, "Login"_q, mark + " "_q + filler};
    }
}

int markColumn(Kind kind)
{
    return kind == History ? 2 : kind == Alarm ? 7 : 4;
}

/// What the file must hold: the marks of its rows in their order, and the number of pairs in tb_config.
struct Content {
    QStringList marks;
    int pairs = 0;

    bool operator==(const Content &other) const { return marks == other.marks && pairs == other.pairs; }

    void apply(const Report &report)
    {
        switch (report.act) {
        case Report::Insert:
            for (int row = 0; row < report.count; ++row)
                marks.append("%1/%2"_q.arg(report.number).arg(row));
            break;
        case Report::Trim:
            marks = marks.mid(report.count);
            break;
        case Report::Purge:
            marks.clear();
            break;
        case Report::Config:
            ++pairs;
            break;
        case Report::Vacuum:
        case Report::Checkpoint:
            break;
        }
    }
};

void endOnMessage(QtMsgType, const QMessageLogContext &, const QString &)
{
    _exit(3); // nothing fails here: nobody else has the file
}

struct Case {
    Kind kind;
    const char *mode;
};

void PrintTo(const Case &each, std::ostream *out)
{
    *out << keyOf(each.kind) << ' ' << each.mode;
}

std::string nameOf(const ::testing::TestParamInfo<Case> &info)
{
    return std::string(keyOf(info.param.kind)) + "_" + info.param.mode;
}

class KillTest : public LongTest<Case>
{
protected:
    Kind kind() const { return GetParam().kind; }

    /// The store on the file, in the journal mode that its host chose.
    library::StorePtr open(bool isSmallCache)
    {
        library::StorePtr store = library::store(keyOf(kind()));
        EXPECT_EQ(store->openDB(path()), 0);
        if (kind() != OperatorLog) {
            QList<QStringList> rows;
            EXPECT_TRUE(store->execSQL({"PRAGMA journal_mode = %1"_q.arg(QLatin1String(GetParam().mode))}, rows, 1));
            // Pages then reach the file in the middle of a transaction.
            EXPECT_TRUE(store->execSQL({"PRAGMA cache_size = %1"_q.arg(isSmallCache ? 2 : -2000)}, rows, 1));
        }
        return store;
    }

    void makeFile()
    {
        for (const char *suffix : {"", "-journal", "-wal", "-shm"})
            QFile::remove(path() + QLatin1String(suffix));
        if (kind() == OperatorLog) // has no statements of the host: the file remembers write-ahead logging
            PlainConnection(path()).run("PRAGMA journal_mode = %1"_q.arg(QLatin1String(GetParam().mode)));
        const library::StorePtr store = open(false);
        ASSERT_TRUE(store->createTable(Table, "Boiler 1"_q));
    }

    /// The writer's life, which only a signal ends.
    [[noreturn]] void write(int pipe, quint64 seed, int batch, int rowsBefore)
    {
        qInstallMessageHandler(endOnMessage);
        std::mt19937 random{unsigned(seed)};
        const auto below = [&](int limit) { return int(random() % unsigned(limit)); };
        const library::StorePtr store = open(below(2));
        int rowCount = rowsBefore;
        for (;;) {
            Report report{Report::Begins, Report::Insert, batch, 1 + below(below(4) ? 8 : 120)};
            const int choice = below(30);
            if (rowCount > 300 || choice < 2) {
                report.act = Report::Trim;
                report.count = std::min(rowCount, 1 + below(300));
            } else if (choice < 6) {
                const Report::Act acts[] = {Report::Config, Report::Vacuum, Report::Checkpoint, Report::Purge};
                report.act = acts[choice - 2];
                if (report.act == Report::Config && kind() != History)
                    report.act = Report::Checkpoint;
            }
            tell(pipe, report);
            switch (report.act) {
            case Report::Insert: {
                QList<QStringList> rows;
                for (int row = 0; row < report.count; ++row)
                    rows.append(makeRow(kind(), batch, row));
                store->insertManyDatas(rows, Table);
                rowCount += report.count;
                ++batch;
                break;
            }
            case Report::Trim:
                store->deleteDataForMax(report.count, Table);
                rowCount -= report.count;
                break;
            case Report::Purge:
                store->deleteTable(Table, "9999-12-31 23:59:59"_q);
                rowCount = 0;
                break;
            case Report::Config:
                store->insertConfig(Table, "Boiler 1"_q);
                break;
            case Report::Vacuum:
                store->vacuumSqliteDB();
                break;
            case Report::Checkpoint:
                store->dbWalCheckPoint();
                break;
            }
            report.phase = Report::IsDone;
            tell(pipe, report);
        }
    }

    static void tell(int pipe, const Report &report)
    {
        if (::write(pipe, &report, sizeof report) != sizeof report)
            _exit(4);
    }

    Content read()
    {
        Content content;
        const library::StorePtr store = open(false);
        QList<QStringList> rows;
        store->selectDataOfRows(Table, 0, -1, rows, false); // all of one time, so by ID
        for (const QStringList &row : std::as_const(rows))
            content.marks.append(row.at(markColumn(kind())).section(QLatin1Char(' '), 0, 0));
        if (kind() == History)
            content.pairs = int(store->selectConfigInfo().size());
        EXPECT_EQ(store->getDataCountOfTable(Table), rows.size());
        return content;
    }
};
INSTANTIATE_TEST_SUITE_P(KindsAndModes, KillTest,
                         ::testing::Values(Case{History, "delete"}, Case{History, "truncate"}, Case{History, "wal"},
                                           Case{Alarm, "delete"}, Case{Alarm, "truncate"}, Case{Alarm, "wal"},
                                           Case{OperatorLog, "delete"}, Case{OperatorLog, "wal"}),
                         nameOf);

TEST_P(KillTest, KeepsWhatWasAcknowledgedAndHalvesNothing)
{
    const qint64 kills = numberFrom("DEVICE_KILL_KILLS", 10);
    const quint64 seed = seedFrom("DEVICE_KILL_SEED");
    std::cout << "DEVICE_KILL_SEED=" << seed << std::endl;
    std::mt19937_64 random(seed);
    QElapsedTimer timer;
    timer.start();
    Content expected;
    int batch = 0;
    qint64 inTheMiddle = 0, kept = 0, journals = 0;
    for (qint64 kill = 0; kill < kills; ++kill) {
        if (kill % 100 == 0) {
            makeFile();
            expected = read();
        }
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const quint64 writerSeed = random();
        const pid_t writer = fork();
        ASSERT_NE(writer, -1);
        if (writer == 0) {
            close(ends[0]);
            write(ends[1], writerSeed, batch, int(expected.marks.size()));
        }
        close(ends[1]);

        // Counted in the writer's reports and not in time alone, so that slow machines see the same moments.
        Report pending{Report::IsDone, Report::Checkpoint, 0, 0};
        const auto hear = [&](int most) {
            Report report;
            for (int i = 0; i < most && ::read(ends[0], &report, sizeof report) == sizeof report; ++i) {
                if (report.phase == Report::IsDone)
                    expected.apply(report);
                if (report.act == Report::Insert)
                    batch = report.number + 1;
                pending = report;
            }
        };
        hear(int(random() % 24));
        if (random() % 4 != 0)
            usleep(useconds_t(random() % 700));
        ASSERT_EQ(::kill(writer, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << WEXITSTATUS(status)
                                         << " (3: an operation logged a failure), kill " << kill;
        hear(INT_MAX);
        close(ends[0]);

        QFile journal(path() + QLatin1String(qstrcmp(GetParam().mode, "wal") == 0 ? "-wal" : "-journal"));
        journals += journal.size() > 0;
        const Content found = read();
        Content withPending = expected;
        if (pending.phase == Report::Begins) {
            ++inTheMiddle;
            withPending.apply(pending);
        }
        ASSERT_TRUE(found == expected || found == withPending)
            << "kill " << kill << ", operation under way: " << pending.act << ", rows found: " << found.marks.size()
            << ", acknowledged: " << expected.marks.size() << ", with the operation: " << withPending.marks.size();
        kept += pending.phase == Report::Begins && found == withPending;
        expected = found;
        ASSERT_EQ(valueOf(path(), "PRAGMA integrity_check"_q), "ok"_q) << "kill " << kill;
    }
    std::cout << kills << " kills in " << timer.elapsed() << " ms, " << inTheMiddle << " within an operation (" << kept
              << " of these complete), " << journals << " with a journal left behind" << std::endl;
}

} // namespace
