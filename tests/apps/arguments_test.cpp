// SPDX-License-Identifier: MIT
//
// What a person or a script types: names of files, empty values, times, unknown tables.
#include "storefile/texts.h"
#include "storefile/times.h"
#include "tool_test.h"

#include <unistd.h>

using namespace device_db;

namespace
{

class Arguments : public ToolTest
{
protected:
    void SetUp() override
    {
        PlainConnection(path("device.db"_q))
            .run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "insert into T1 values(1,'2024-05-06 07:08:09','1'),(2,'2024-05-06 08:00:00','2'),"
                 "(3,'2024-05-07 00:00:00','3')"_q);
        write("in.csv"_q, "time,value\n2024-05-08 07:08:09,4\n");
    }
    QStringList files() const { return QDir(path("."_q)).entryList(QDir::Files); }
};

// To SQLite the first is another file or one in memory, to Qt the second is a resource of the program.
TEST_F(Arguments, ANameThatSqliteOrQtKeepsIsThatOfAFile)
{
    for (const QString &name : {"file:x.db?mode=memory"_q, ":memory:"_q}) {
        EXPECT_EQ(run({"import"_q, name, "T1"_q, "in.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
        EXPECT_TRUE(QFile::exists(path("./"_q + name)));
        EXPECT_EQ(run({"show"_q, name, "--csv"_q}).output, "time,value\n2024-05-08 07:08:09,4\n");
        EXPECT_EQ(run({"clear"_q, name, "T1"_q, "--yes"_q}).exitCode, 0);
        for (const char *command : {"tune", "checkpoint"})
            EXPECT_EQ(run({QString::fromLatin1(command), name}).exitCode, 0) << command;
        EXPECT_EQ(run({"vacuum"_q, name, "--yes"_q}).exitCode, 0);
        for (const char *command : {"backup", "salvage"}) {
            EXPECT_TRUE(QFile::remove(path("./"_q + name)));
            const Outcome made = run({QString::fromLatin1(command), "device.db"_q, name});
            EXPECT_EQ(made.exitCode, 0) << command << made.errors.constData();
            EXPECT_FALSE(made.output.contains(" 0 B")) << made.output.constData();
            EXPECT_EQ(run({"count"_q, name, "--csv"_q}).output, "table,kind,rows\nT1,samples,3\n") << command;
        }
        EXPECT_TRUE(QFile::remove(path("./"_q + name)));
        EXPECT_EQ(files(), (QStringList{"device.db"_q, "in.csv"_q}));
    }
}

TEST_F(Arguments, ANameThatIsNotUtf8IsRefused)
{
    QProcess process;
    process.setWorkingDirectory(path("."_q));
    process.start("bash"_q, {"-c"_q, "cp device.db $'\\xff.db'; '%1' newest $'\\xff.db'"_q.arg(
                                         QString::fromLocal8Bit(DEVICE_DB))});
    const Outcome outcome = finish(process);
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(outcome.errors.contains("is not UTF-8. Rename")) << outcome.errors.constData();
}

// A script's empty variable must not mean that the option was left out.
TEST_F(Arguments, AnEmptyValueIsRefusedByTheNameOfItsOption)
{
    for (const char *command :
         {"show --from",        "show --to",          "show --value",     "show --user",       "show --object",
          "show --type",        "show --level",       "show -n",          "export -o",         "export --format",
          "export --separator", "tail --interval",    "plot --right",     "plot --size",       "purge --before",
          "import --zone",      "import --columns",   "import --default", "import --encoding", "import --time-format",
          "import --refused",   "salvage --page-size"}) {
        QStringList words = QString::fromLatin1(command).split(' ');
        const QByteArray option = words.takeLast().toLatin1();
        words << "device.db"_q;
        if (words.first() == "import"_q)
            words << "T1"_q
                  << "in.csv"_q;
        else if (words.first() == "salvage"_q)
            words << "new.db"_q;
        else
            words << "T1"_q;
        words << QString::fromLatin1(option) << QString();
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.exitCode, 2) << command;
        const QByteArray longName = option == "-n" ? QByteArray("--limit") : option == "-o" ? "--output" : option;
        EXPECT_TRUE(outcome.errors.startsWith("device-db: " + longName + ":")) << outcome.errors.constData();
    }
    EXPECT_EQ(files(), (QStringList{"device.db"_q, "in.csv"_q}));
}

TEST_F(Arguments, TimesOfOptionsAreWrittenAsThoseOfImport)
{
    for (const char *from :
         {"2024-05-06 08:00", "6.5.2024 8:00", "2024/5/6 8:00", "2024.05.06T08:00:00", "2024-05-06 08:00:00,000",
          "2024-05-06T08:00:00Z", "2024-05-06 08:00 UTC", "2024-05-06T10:00:00+02:00", "2024-05-06T06:00-0200"}) {
        const Outcome outcome = run({"count"_q, "device.db"_q, "--from"_q, QString::fromLatin1(from), "--csv"_q});
        EXPECT_EQ(outcome.output, "table,kind,rows\nT1,samples,2\n") << from << outcome.errors.constData();
    }
    EXPECT_EQ(run({"count"_q, "device.db"_q, "--to"_q, "6.5.2024"_q, "--csv"_q}).output,
              "table,kind,rows\nT1,samples,2\n")
        << "a day as the end is taken in whole";
    for (const char *none : {"31.2.2024", "2024-05-06T08:00:00+25:00", "5/6/2024", "2024-05-06 7:8", "6.5.24"})
        EXPECT_EQ(run({"count"_q, "device.db"_q, "--from"_q, QString::fromLatin1(none)}).exitCode, 1) << none;
}

TEST(WrittenTime, HasWhatIsWritten)
{
    const auto day = writtenTime("6.5.2024"_q);
    ASSERT_TRUE(day.has_value());
    EXPECT_EQ(day->date, QDate(2024, 5, 6));
    EXPECT_EQ(day->hour, -1);
    const auto exact = writtenTime(" 2024-5-6T7:08:09,1234 -03:30"_q);
    ASSERT_TRUE(exact.has_value());
    EXPECT_EQ(QTime(exact->hour, exact->minute, exact->second, exact->millisecond), QTime(7, 8, 9, 123));
    EXPECT_EQ(exact->offset, -210);
    EXPECT_EQ(writtenTime("2024-05-06 07:08+14:01"_q)->offset, WrittenTime::noOffset);
    EXPECT_EQ(writtenTime("2024-05-06 07:08+02:60"_q)->offset, WrittenTime::noOffset);
    EXPECT_FALSE(writtenTime("2024-05/06"_q).has_value());
}

TEST_F(Arguments, OfManyTablesThoseMostAlikeAreNamed)
{
    PlainConnection file(path("device.db"_q));
    for (int i = 1; i <= 40; ++i)
        file.run("create table Pump%1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q.arg(i));
    EXPECT_EQ(
        run({"show"_q, "device.db"_q, "t11"_q}).errors,
        "device-db: device.db: there is no table t11; it has T1, Pump1, Pump2, Pump3, Pump4, Pump5, Pump6, Pump7, "
        "Pump8, Pump9 and 31 more\n");
    EXPECT_EQ(run({"show"_q, "device.db"_q, "Pump3x"_q}).errors,
              "device-db: device.db: there is no table Pump3x; it has Pump3, Pump30, Pump31, Pump32, Pump33, Pump34, "
              "Pump35, Pump36, Pump37, Pump38 and 31 more\n");
}

TEST_F(Arguments, HelpIsACommandToo)
{
    EXPECT_EQ(run({"help"_q}).output, run({"--help"_q}).output);
    EXPECT_EQ(run({"help"_q, "import"_q}).output, run({"import"_q, "--help"_q}).output);
    EXPECT_EQ(run({"help"_q, "nothing"_q}).exitCode, 2);
}

// SQLite keeps a journal beside the file that a link leads to.
TEST_F(Arguments, ALinkHasTheJournalOfItsFile)
{
    {
        PlainConnection file(path("real.db"_q));
        file.run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "insert into T1(DATETIME,Value) with recursive n(i) as (select 1 union all select i+1 from n where "
                 "i<3000) select '2024-05-06 07:08:09',hex(zeroblob(50)) from n;"
                 "pragma cache_size=2; begin; delete from T1 where ID<2000"_q);
        ASSERT_TRUE(QFile::copy(path("real.db"_q), path("left.db"_q)));
        ASSERT_TRUE(QFile::copy(path("real.db-journal"_q), path("left.db-journal"_q)));
        file.run("rollback"_q);
    }
    QDir(path("."_q)).mkdir("links"_q);
    ASSERT_EQ(symlink("../left.db", QFile::encodeName(path("links/device.db"_q)).constData()), 0);
    EXPECT_EQ(run({"count"_q, "links/device.db"_q, "--csv"_q}).output, "table,kind,rows\nT1,samples,3000\n");
    EXPECT_EQ(run({"salvage"_q, "links/device.db"_q, "new.db"_q}).exitCode, 0);
    EXPECT_EQ(valueOf(path("new.db"_q), "select count(*) from T1"_q), "3000"_q);
}

TEST(Texts, NumbersAreThoseOfJson)
{
    for (const char *number : {"0", "-1", "3.14", "1e400", "0.1E-400", "12345678901234567890"})
        EXPECT_TRUE(isJsonNumber(number)) << number;
    for (const char *none : {"", "-", "03", "+1", "1.", ".5", "1e", "Inf", "1,5", "1 ", "1\n", "0x1"})
        EXPECT_FALSE(isJsonNumber(none)) << none;
}

} // namespace
