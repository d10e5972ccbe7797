// SPDX-License-Identifier: MIT
//
// What a command writes: no file that it should leave alone, no escape sequence to a terminal, nothing lost silently.
#include "terminal_test.h"

namespace
{

class Outputs : public TerminalTest
{
protected:
    void makeSamples() const
    {
        write("in.csv"_q, "time,value\n2024-05-06 07:08:09,1\nnever,2\n");
        PlainConnection(path("e.db"_q))
            .run("create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "insert into T values(1,'2024-05-06 07:08:09','1'),(2,'2024-05-06 07:08:10','2')"_q);
    }
};

TEST_F(Outputs, RefusedRowsReplaceNoFile)
{
    makeSamples();
    const QByteArray database = read("e.db"_q);
    const QByteArray input = read("in.csv"_q);
    write("notes.txt"_q, "mine");
    ASSERT_TRUE(QFile::link("e.db"_q, path("link"_q)));
    for (const char *name : {"e.db", "in.csv", "notes.txt", "./e.db", "link"}) {
        const Outcome refused =
            run({"import"_q, "e.db"_q, "T"_q, "in.csv"_q, "--refused"_q, QString::fromLatin1(name)});
        EXPECT_EQ(refused.exitCode, 1) << name;
        EXPECT_TRUE(refused.errors.contains("--refused")) << refused.errors.constData();
        EXPECT_TRUE(read("e.db"_q) == database) << name;
        EXPECT_EQ(read("in.csv"_q), input);
        EXPECT_EQ(read("notes.txt"_q), "mine");
    }
    // Nor does a new database come into being.
    EXPECT_EQ(run({"import"_q, "new.db"_q, "T"_q, "in.csv"_q, "--create"_q, "--kind"_q, "samples"_q, "--refused"_q,
                   "notes.txt"_q})
                  .exitCode,
              1);
    EXPECT_FALSE(QFile::exists(path("new.db"_q)));
}

TEST_F(Outputs, YesterdaysRefusedRowsStay)
{
    makeSamples();
    write("in.csv.refused.csv"_q, "yesterday");
    const Outcome today = run({"import"_q, "e.db"_q, "T"_q, "in.csv"_q});
    EXPECT_EQ(today.exitCode, 3) << today.errors.constData();
    EXPECT_EQ(read("in.csv.refused.csv"_q), "yesterday");
    EXPECT_TRUE(read("in.csv.refused.2.csv"_q).endsWith("never,2\n"));
    EXPECT_TRUE(today.errors.contains("in.csv.refused.2.csv")) << today.errors.constData();
}

TEST_F(Outputs, NoCommandReplacesTheFileThatItReads)
{
    makeSamples();
    const QByteArray database = read("e.db"_q);
    write("e.db-wal"_q, "");
    ASSERT_TRUE(QFile::link("e.db"_q, path("symbolic.csv"_q)));
    ASSERT_EQ(::link(path("e.db"_q).toUtf8().constData(), path("hard.csv"_q).toUtf8().constData()), 0);
    ASSERT_TRUE(QFile::link("e.db"_q, path("symbolic.png"_q)));
    for (const char *name : {"e.db", "symbolic.csv", "hard.csv", "e.db-wal", "e.db-journal"}) {
        for (const char *command : {"export", "backup"}) {
            QStringList arguments{QString::fromLatin1(command), "e.db"_q};
            if (*command == 'e')
                arguments << "T"_q
                          << "-o"_q;
            const Outcome refused = run(arguments + QStringList{QString::fromLatin1(name), "--force"_q});
            EXPECT_EQ(refused.exitCode, 1) << command << ' ' << name;
            EXPECT_TRUE(read("e.db"_q) == database) << command << ' ' << name;
        }
    }
    EXPECT_EQ(run({"plot"_q, "e.db"_q, "-o"_q, "symbolic.png"_q, "--force"_q}).exitCode, 1);
    EXPECT_TRUE(read("e.db"_q) == database);
    EXPECT_EQ(run({"export"_q, "e.db"_q, "T"_q, "-o"_q, "/dev/null"_q, "--force"_q}).exitCode, 1) << "it is no file";
}

TEST_F(Outputs, RowsComeWithoutAPager)
{
    makeSamples();
    for (const char *type : {"xterm", "dumb", ""}) {
        const Outcome without =
            runOnTerminal({"newest"_q, "e.db"_q, "--color"_q, "never"_q}, {type, "/nowhere", "\nq"});
        EXPECT_EQ(without.exitCode, 0);
        EXPECT_TRUE(without.output.contains("2024-05-06 07:08:10")) << without.output.constData();
        EXPECT_FALSE(without.output.contains("not found")) << without.output.constData();
    }
    const Outcome dumb = runOnTerminal({"newest"_q, "e.db"_q}, {"dumb", QByteArray(), "\nq"}); // for a pager that waits
    EXPECT_FALSE(dumb.output.contains("WARNING")) << dumb.output.constData();
    EXPECT_FALSE(dumb.output.contains('\x1b')) << dumb.output.constData();
}

TEST_F(Outputs, LostOutputIsAFailure)
{
    makeSamples();
    for (const char *command :
         {"show", "newest", "info", "info --json", "stats", "check", "count", "tail", "plot", "show --csv",
          "show --json", "export", "tune --dry-run", "serve", "--help", "--version", "--man"}) {
        QStringList words = QString::fromLatin1(command).split(' ');
        if (!words.first().startsWith('-'))
            words.insert(1, "e.db"_q);
        QProcess process;
        process.setStandardOutputFile("/dev/full"_q);
        start(process, words);
        const Outcome outcome = finish(process);
        EXPECT_EQ(outcome.exitCode, 1) << command;
        EXPECT_TRUE(outcome.errors.contains("No space left on device"))
            << command << ": " << outcome.errors.constData();
    }
}

TEST_F(Outputs, SqlGivesProgramsTheNumbersAsNumbers)
{
    makeSamples();
    const Outcome numbers =
        run({"sql"_q, "e.db"_q,
             "select 1.5 a, 2 b, '3' c, null d, 9e999 e union all select 'x', 4.25, 5, 6, 7 order by 1; -- two rows"_q,
             "--json"_q});
    EXPECT_EQ(numbers.output, "{\"a\":1.5,\"b\":2,\"c\":\"3\",\"d\":null,\"e\":\"Inf\"}\n"
                              "{\"a\":\"x\",\"b\":4.25,\"c\":5,\"d\":6,\"e\":7}\n");
    EXPECT_EQ(numbers.exitCode, 0) << numbers.errors.constData();
    const Outcome bytes = run({"sql"_q, "e.db"_q, "select x'ff' a"_q, "--json"_q});
    EXPECT_EQ(bytes.exitCode, 3);
    EXPECT_EQ(bytes.errors, "device-db: e.db: cells that are not UTF-8 and were changed: 1; --csv keeps the bytes, "
                            "hex(COLUMN) makes a text of them\n");
    EXPECT_EQ(run({"sql"_q, "e.db"_q, "select x'ff00' a"_q, "--csv"_q}).output, QByteArray("a\n\xff\0\n", 5));
}

// A limit of the size of files stands in for a full disk; --lock saves the copy, which it would meet first.
TEST_F(Outputs, AFileThatCannotGrowSaysWhy)
{
    PlainConnection(path("large.db"_q))
        .run("create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
             "insert into T(DATETIME,Value) with recursive n(i) as (select 1 union all select i+1 from n where i<3000)"
             "select '2024-05-06 07:08:09',hex(zeroblob(50)) from n"_q);
    QProcess process;
    process.setWorkingDirectory(path(""_q));
    process.start("bash"_q, {"-c"_q, "trap '' XFSZ; ulimit -f 64; '%1' export large.db --lock -o out.csv"_q.arg(
                                         QString::fromLocal8Bit(DEVICE_DB))});
    const Outcome outcome = finish(process);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.errors, "device-db: out.csv: File too large; check the free space\n");
    EXPECT_EQ(QDir(path(""_q)).entryList(QDir::Files), QStringList{"large.db"_q});
}

// Rows are deleted because the disk is full: "check rights, free space and the medium" does not help then.
TEST_F(Outputs, AFullDiskSaysHowMuchRoomADeletionNeeds)
{
    PlainConnection(path("large.db"_q))
        .run("create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
             "insert into T(DATETIME,Value) with recursive n(i) as (select 1 union all select i+1 from n where i<20000)"
             "select '2024-05-06 07:08:09',hex(zeroblob(50)) from n"_q);
    QDir(path(""_q)).mkdir("disk"_q);
    const auto onFullDisk = [&](const char *command) {
        QProcess process;
        process.setWorkingDirectory(path(""_q));
        process.start(
            "unshare"_q,
            {"-rm"_q, "bash"_q, "-c"_q,
             "mount -t tmpfs -o size=4m disk disk && cp large.db disk/d.db || exit 99;"
             "cat /dev/zero >disk/fill 2>/dev/null; cd disk;"
             "TMPDIR=$PWD '%1' %2; code=$?; rm fill; '%1' check d.db >/dev/null; [ $? -lt 4 ] && exit $code"_q.arg(
                 QString::fromLocal8Bit(DEVICE_DB), QString::fromLatin1(command))});
        return finish(process);
    };
    const Outcome trimmed = onFullDisk("trim d.db T --keep 10 --yes");
    if (trimmed.exitCode == 99 || trimmed.errors.startsWith("unshare"))
        GTEST_SKIP() << "no disk of its own may be mounted here: " << trimmed.errors.constData();
    EXPECT_EQ(trimmed.exitCode, 1);
    EXPECT_TRUE(trimmed.errors.startsWith("device-db: d.db: the disk is full; deleting needs about 1."))
        << trimmed.errors.constData();
    EXPECT_TRUE(trimmed.errors.endsWith(". Deleted until then: 0 rows of T\n")) << trimmed.errors.constData();
    const Outcome vacuumed = onFullDisk("vacuum d.db --yes");
    EXPECT_EQ(vacuumed.exitCode, 1);
    EXPECT_TRUE(vacuumed.errors.startsWith("device-db: d.db: a disk is full; this needs up to 2."))
        << vacuumed.errors.constData();
}

TEST_F(Outputs, AReaderThatHasSeenEnoughIsNoFailure)
{
    PlainConnection(path("many.db"_q))
        .run("create table T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
             "insert into T(DATETIME,Value) with recursive n(i) as (select 1 union all select i+1 from n where i<50000)"
             "select '2024-05-06 07:08:09',i from n"_q);
    for (const char *command : {"show many.db", "export many.db", "export many.db --format json"}) {
        QProcess process;
        process.setWorkingDirectory(path(""_q));
        process.start("bash"_q, {"-c"_q, "'%1' %2 | head -1; exit ${PIPESTATUS[0]}"_q.arg(
                                             QString::fromLocal8Bit(DEVICE_DB), QString::fromLatin1(command))});
        const Outcome outcome = finish(process);
        EXPECT_EQ(outcome.exitCode, 0) << command;
        EXPECT_EQ(outcome.errors, "") << command;
    }
}

TEST_F(Outputs, TailEndsWithItsReader)
{
    makeSamples();
    QProcess process;
    process.setWorkingDirectory(path(""_q));
    process.start("bash"_q,
                  {"-c"_q, "'%1' tail e.db --follow | head -2; echo ended"_q.arg(QString::fromLocal8Bit(DEVICE_DB))});
    EXPECT_TRUE(process.waitForFinished(60000)) << "it waits for a row that nobody will read";
    process.kill();
    process.waitForFinished();
}

TEST_F(Outputs, HalfAnEndIsShownAsItIs)
{
    write("in.csv"_q, "level,start\n1,2024-05-06 07:00:00\n2,2024-05-06 07:00:00\n3,2024-05-06 07:00:00\n");
    ASSERT_EQ(run({"import"_q, "a.db"_q, "A"_q, "in.csv"_q, "--create"_q, "--kind"_q, "alarms"_q}).exitCode, 0);
    PlainConnection(path("a.db"_q))
        .run("update A set EndDate='2024-05-06' where ID=1; update A set EndTime='07:08:09' where ID=2;"
             "update A set EndDate='2024-05-06',EndTime=NULL where ID=3"_q);
    const QList<QByteArray> lines = run({"show"_q, "a.db"_q}).output.split('\n');
    EXPECT_TRUE(lines.value(2).endsWith("  2024-05-06")) << lines.value(2).constData();
    EXPECT_TRUE(lines.value(3).endsWith("  07:08:09")) << lines.value(3).constData();
    EXPECT_TRUE(lines.value(4).endsWith("  2024-05-06 NULL")) << lines.value(4).constData();
}

TEST_F(Outputs, ATimeThatIsNotOneLeavesOutItsRowAndNotTheSeries)
{
    makeSamples();
    PlainConnection(path("e.db"_q))
        .run("insert into T(DATETIME,Value) values('0000-00-00 00:00:00','3'),('2024-05-06 24:00:00','4'),"
             "('2024-05-06 07:08:09 ','5')"_q);
    const Outcome plotted = run({"plot"_q, "e.db"_q});
    EXPECT_EQ(plotted.exitCode, 3) << plotted.errors.constData();
    EXPECT_TRUE(plotted.errors.contains("3 values")) << plotted.errors.constData();
    EXPECT_TRUE(plotted.output.contains('*')) << plotted.output.constData();
}

TEST_F(Outputs, APagerThatFailsIsNamed)
{
    makeSamples();
    const Outcome outcome = runOnTerminal({"newest"_q, "e.db"_q}, {"xterm", QByteArray(), QByteArray(), "false"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_TRUE(outcome.output.contains("the pager false failed; --no-pager")) << outcome.output.constData();
}

TEST_F(Outputs, NamesThatSqliteTakesForSomethingElseAreFiles)
{
    makeSamples();
    for (const char *name : {"file:copy.db", "file:copy?mode=memory", ":memory:"}) {
        const Outcome made = run({"backup"_q, "e.db"_q, QString::fromLatin1(name)});
        EXPECT_EQ(made.exitCode, 0) << name << made.errors.constData();
        EXPECT_EQ(valueOf(path("./"_q) + QString::fromLatin1(name), "select count(*) from T"_q), "2"_q) << name;
    }
}

TEST_F(Outputs, AnEmptyTextIsNotAnOptionThatWasLeftOut)
{
    makeSamples();
    for (const char *option : {"--from", "--to", "-o"}) {
        const Outcome outcome = run({"export"_q, "e.db"_q, "T"_q, QString::fromLatin1(option), ""_q});
        EXPECT_EQ(outcome.exitCode, 2) << option;
        EXPECT_EQ(outcome.output, "") << option;
    }
}

TEST_F(Outputs, AnImportThatStoredNothingLeavesNoListOfRefusedRows)
{
    PlainConnection(path("r.db"_q))
        .run("create table R(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
             "create trigger t before insert on R begin select raise(rollback,'go away'); end"_q);
    write("in.csv"_q, "time,value\nnever,2\n2024-05-06 07:08:09,1\n");
    const QStringList before = QDir(path(""_q)).entryList(QDir::Files);
    EXPECT_EQ(run({"import"_q, "r.db"_q, "R"_q, "in.csv"_q, "--run-triggers"_q}).exitCode, 1);
    EXPECT_EQ(QDir(path(""_q)).entryList(QDir::Files), before);
}

TEST_F(Outputs, TheReasonOfTheFirstRefusedRowIsShown)
{
    makeSamples();
    const Outcome outcome = run({"import"_q, "e.db"_q, "T"_q, "in.csv"_q});
    EXPECT_TRUE(outcome.errors.contains("1 row refused; line 3: the time \"never\" is not in a known form"))
        << outcome.errors.constData();
}

TEST_F(Outputs, ACommentAfterAStatementIsNoStatement)
{
    makeSamples();
    EXPECT_EQ(run({"sql"_q, "e.db"_q, "select 1; -- one"_q, "--csv"_q}).output, "1\n1\n");
    EXPECT_EQ(run({"sql"_q, "e.db"_q, "select 1; ; /* two */ select 2"_q}).exitCode, 1);
}

TEST_F(Outputs, TheSeparatorMayComeAfterSkippedLines)
{
    makeSamples();
    write("s.csv"_q, "# a logger\nsep=;\ntime;value\n2024-05-06 07:08:09;7,5\n");
    const Outcome outcome = run({"import"_q, "e.db"_q, "T"_q, "s.csv"_q, "--skip"_q, "1"_q});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors.constData();
    EXPECT_EQ(valueOf(path("e.db"_q), "select Value from T order by ID desc"_q), "7,5"_q);
}

} // namespace
