// SPDX-License-Identifier: MIT
//
// A file comes from anybody. What its schema defines must not run when it is read, and only with a person's word when
// it is written.
#include "storefile/sqlite.h"
#include "tool_test.h"

using device_db::Database;

namespace
{

class Hostile : public ToolTest
{
protected:
    /// A file with a series that computes a column, a list of names that is a view, and a table of a module that this
    /// SQLite does not have.
    void makeFile() const
    {
        PlainConnection file(path("h.db"_q));
        file.run("create table S(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,"
                 "computed text generated always as (abs(Value)),Value text);"
                 "insert into S(DATETIME,Value) values('2024-05-06 07:08:09','-9223372036854775808'),"
                 "('2024-05-06 07:08:10','2');"
                 "create view tb_config as select 1 as ID,'S' as COLLECTOR,'from a view' as NAME;"
                 "pragma writable_schema=on;"
                 "insert into sqlite_master values('table','V','V',0,'CREATE VIRTUAL TABLE V using missing(x)');"_q);
    }
};

// Computing the column fails with an integer overflow; asking for the columns of V fails for want of its module.
TEST_F(Hostile, NothingThatTheFileDefinesRunsWhenItIsRead)
{
    makeFile();
    for (const QStringList &command : QList<QStringList>{{"info"_q},
                                                         {"info"_q, "--json"_q},
                                                         {"check"_q},
                                                         {"newest"_q, "S"_q},
                                                         {"show"_q, "S"_q},
                                                         {"find"_q, "2"_q, "S"_q},
                                                         {"count"_q},
                                                         {"tail"_q, "S"_q},
                                                         {"export"_q, "S"_q},
                                                         {"stats"_q},
                                                         {"plot"_q, "S"_q},
                                                         {"backup"_q, "copy.db"_q}}) {
        QStringList arguments = command;
        arguments.insert(1, "h.db"_q);
        const Outcome outcome = run(arguments);
        EXPECT_TRUE(outcome.exitCode == 0 || outcome.exitCode == 3)
            << qPrintable(arguments.join(' ')) << outcome.errors.constData();
        EXPECT_FALSE(outcome.output.contains("from a view")) << qPrintable(arguments.join(' '));
    }
}

TEST_F(Hostile, AComputedColumnIsNotTakenForTheValue)
{
    makeFile();
    EXPECT_EQ(run({"export"_q, "h.db"_q, "S"_q}).output,
              "time,value\n2024-05-06 07:08:09,-9223372036854775808\n2024-05-06 07:08:10,2\n");
}

TEST_F(Hostile, AFileWithTriggersIsWrittenOnlyWhenSomebodySaysSo)
{
    write("one.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    ASSERT_EQ(run({"import"_q, "t.db"_q, "S"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    PlainConnection(path("t.db"_q))
        .run("create table Other(a); insert into Other values(1);"
             "create trigger sweep after insert on S begin delete from Other; end;"
             "create trigger trap before delete on S begin delete from Other; end"_q);
    const QByteArray before = read("t.db"_q);
    const QList<QStringList> commands{{"import"_q, "t.db"_q, "S"_q, "one.csv"_q},
                                      {"trim"_q, "t.db"_q, "S"_q, "--keep"_q, "0"_q, "--yes"_q},
                                      {"purge"_q, "t.db"_q, "S"_q, "--before"_q, "now"_q, "--yes"_q},
                                      {"clear"_q, "t.db"_q, "S"_q, "--yes"_q},
                                      {"checkpoint"_q, "t.db"_q},
                                      {"tune"_q, "t.db"_q}};
    for (const QStringList &command : commands) {
        const Outcome refused = run(command);
        EXPECT_EQ(refused.exitCode, 1) << qPrintable(command.first());
        EXPECT_TRUE(refused.errors.contains("sweep on S, trap on S")) << refused.errors.constData();
        EXPECT_TRUE(refused.errors.contains("--run-triggers")) << refused.errors.constData();
        EXPECT_TRUE(read("t.db"_q) == before) << qPrintable(command.first());
    }
    EXPECT_EQ(run({"vacuum"_q, "t.db"_q, "--yes"_q}).exitCode, 0) << "it runs none";
    EXPECT_EQ(valueOf(path("t.db"_q), "select count(*) from Other"_q), "1"_q);
    for (const QStringList &command : commands) {
        const Outcome done = run(command + QStringList{"--run-triggers"_q});
        EXPECT_EQ(done.exitCode, 0) << qPrintable(command.first()) << done.errors.constData();
    }
    EXPECT_EQ(valueOf(path("t.db"_q), "select count(*) from Other"_q), "0"_q) << "they did run";
}

TEST_F(Hostile, AFileWithTriggersIsLookedAtFreely)
{
    write("one.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    ASSERT_EQ(run({"import"_q, "t.db"_q, "S"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    PlainConnection(path("t.db"_q)).run("create trigger sweep after insert on S begin delete from S; end"_q);
    EXPECT_EQ(run({"import"_q, "t.db"_q, "S"_q, "one.csv"_q, "--dry-run"_q}).exitCode, 0);
    EXPECT_EQ(run({"tune"_q, "t.db"_q, "--dry-run"_q}).exitCode, 0);
    EXPECT_EQ(run({"newest"_q, "t.db"_q}).exitCode, 0);
    EXPECT_TRUE(run({"info"_q, "t.db"_q}).output.contains("the trigger sweep acts on it"));
}

TEST_F(Hostile, ConnectionsTrustNoSchemaAndAreDefensive)
{
    PlainConnection(path("d.db"_q)).run("create table T(a); create view W as select 1"_q);
    for (const Database::Mode mode : {Database::ReadOnly, Database::ReadWrite}) {
        const auto database = Database::open(path("d.db"_q), mode);
        ASSERT_TRUE(database.ok());
        EXPECT_EQ(*database->number("pragma trusted_schema"), 0);
        EXPECT_FALSE(database->run("pragma writable_schema=on; update sqlite_master set sql=''").ok());
    }
    EXPECT_FALSE(Database::open(path("d.db"_q), Database::ReadOnly)->number("select * from W").ok());
}

} // namespace
