// SPDX-License-Identifier: MIT
//
// Every command with a file of which every text, every name and the file's own name try to steer the terminal.
#include "terminal_test.h"

#include <QRegularExpression>

namespace
{

// A title, a colour, a control character of C1, a direction, and a line that is written over.
const QString attack = "\x1b]0;owned\x07\x1b[31m\u009b5m\u202e\rX"_q;

QString quotedName(const QString &name)
{
    return "\""_q + name + attack + "\""_q;
}

class Escape : public TerminalTest
{
protected:
    QString file() const { return "f"_q + attack + ".db"_q; }
    QString series() const { return "S"_q + attack; }
    QString alarms() const { return "A"_q + attack; }
    QString log() const { return "L"_q + attack; }

    void SetUp() override
    {
        PlainConnection made(path("made.db"_q));
        QString sql =
            "create table %S(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
            "create table %A(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,"
            "AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text);"
            "create table %L(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,"
            "message text);"
            "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text);"
            "create table %O(a);"
            "create table \"device-db import\"(source text,target text,marks text,offset integer,line integer,stored "
            "integer,refused integer,refused_bytes integer,form text,newest text,primary key(source,target));"
            "insert into tb_config values(1,'S%x','Name%x'),(2,'Gone%x','%x');"
            "insert into \"device-db import\" values('%x','%x','%x',1,1,1,0,0,'%x','%x');"
            "insert into %S(DATETIME,Value) values('2024-05-06 07:00:00','1'),('2024-05-06 07:00:01','2'),"
            "('2024-05-06 07:00:02','%x'),('%x','3'),('1970%x','4'),('9999%x','5'),('2024-05-06 09:00:00','6');"
            "insert into %A(LevelID,DATETIME,AlarmObject,AlarmType,CurrentValue,LimitValue,AlarmDescription,EndDate,"
            "EndTime) values(1,'2024-05-06 07:00:00','o%x','t%x','v%x','l%x','d%x','2024-05-06','07:00:10'),"
            "('%x','%x','%x','%x','%x','%x','%x','%x','%x'),(2,'2024-05-06 07:00:00','','','','','','x%x','');"
            "insert into %L(DATETIME,userName,logName,message) values('2024-05-06 07:00:00.000','%x','%x','%x'),"
            "('%x','%x','%x','%x');"
            "create trigger %T after insert on %S begin select 1; end;"
            "create unique index %I on %A(ID,DATETIME)"_q;
        for (const char *name : {"S", "A", "L", "O", "T", "I"})
            sql.replace("%"_q + QString::fromLatin1(name), quotedName(QString::fromLatin1(name)));
        made.run(sql.replace("%x"_q, attack));
        ASSERT_TRUE(QFile::copy(path("made.db"_q), path(file())));
        write("in"_q + attack + ".csv"_q,
              ("time,value\n" + attack + ",1\n2024-05-06 10:00:00," + attack + '\n').toUtf8());
        write("odd"_q + attack + ".csv"_q, ("col" + attack + ",b\n1,2\n").toUtf8());
        write("wide"_q + attack + ".csv"_q, ("time,W" + attack + "\n2024-05-06 07:08:09,1\n").toUtf8());
        write("lines"_q + attack + ".json"_q,
              ("{\"time\":\"2024-05-06 07:08:09\",\"value\":[1]}\n{\"x" +
               QString(attack).remove(QLatin1Char('\x1b')).remove(QLatin1Char('\x07')).remove(QLatin1Char('\r')) +
               "\":1}\nnot" + attack)
                  .toUtf8());
        write("broken"_q + attack + ".db"_q, "not a database" + attack.toUtf8());
    }

    /// What a terminal obeys, apart from the tool's own line of progress.
    static QByteArray commandsIn(QByteArray shown)
    {
        shown.replace("\r\x1b[K", "");
        static const QRegularExpression control("[\\x00-\\x08\\x0b-\\x1f\\x7f\\x80-\\x9f\\x{202a}-\\x{202e}]"_q);
        QByteArray found;
        auto each = control.globalMatch(QString::fromUtf8(shown));
        while (each.hasNext())
            found += each.next().captured().toUtf8().toHex() + ' ';
        return found;
    }
};

TEST_F(Escape, NoTextOfAFileSteersTheTerminal)
{
    const QString input = "in"_q + attack + ".csv"_q;
    const QString odd = "odd"_q + attack + ".csv"_q;
    const QString none = "none"_q + attack;
    const QString wide = "wide"_q + attack + ".csv"_q;
    const QString lines = "lines"_q + attack + ".json"_q;
    QList<QStringList> commands{
        {"info"_q, file()},
        {"info"_q, file(), "--json"_q},
        {"count"_q, file()},
        {"stats"_q, file()},
        {"plot"_q, file()},
        {"plot"_q, file(), series(), "-o"_q, "p"_q + attack + ".svg"_q},
        {"plot"_q, file(), series(), "-o"_q, "p"_q + attack},
        {"plot"_q, file(), "--right"_q, series(), "--title"_q, attack},
        {"plot"_q, file(), "--only-alarms"_q, "--title"_q, attack},
        {"count"_q, file(), "--per"_q, "day"_q},
        {"show"_q, file(), "--object"_q, attack, "--type"_q, attack},
        {"show"_q, file(), "--value"_q, attack},
        {"sql"_q, file(), "select * from "_q + quotedName("A"_q)},
        {"sql"_q, file(), "select Value as "_q + quotedName("v"_q) + " from "_q + quotedName("S"_q), "--json"_q},
        {"sql"_q, file(), "select Value as "_q + quotedName("v"_q) + " from "_q + quotedName("S"_q), "--csv"_q},
        {"sql"_q, file(), attack},
        {"backup"_q, file(), "copy"_q + attack},
        {"backup"_q, file(), "copy"_q + attack},
        {"backup"_q, file(), file()},
        {"salvage"_q, file(), "rows"_q + attack},
        {"salvage"_q, file(), "rows"_q + attack},
        {"newest"_q, "broken"_q + attack + ".db"_q},
        {"check"_q, "broken"_q + attack + ".db"_q},
        {"newest"_q, none},
        {"newest"_q, file()},
        {"newest"_q, file(), none},
        {"range"_q, file(), attack, "today"_q, series()},
        {"stats"_q, file(), "--by"_q, attack},
        {attack},
        {"export"_q, file(), series(), "-o"_q, "out"_q + attack},
        {"export"_q, file(), series(), "-o"_q, "out"_q + attack},
        {"export"_q, file(), series(), "-o"_q, none + "/x"_q},
        {"import"_q, file(), series(), input},
        {"import"_q, file(), series(), input, "--dry-run"_q},
        {"import"_q, file(), series(), input, "--run-triggers"_q},
        {"import"_q, file(), series(), odd, "--run-triggers"_q},
        {"import"_q, file(), wide, "--wide"_q, "--run-triggers"_q},
        {"import"_q, file(), wide, "--wide"_q, "--run-triggers"_q, "--create"_q},
        {"import"_q, file(), series(), input, "--zone"_q, attack},
        {"import"_q, file(), series(), input, "--time-format"_q, attack},
        {"import"_q, file(), series(), input, "--encoding"_q, attack},
        {"import"_q, file(), series(), input, "--default"_q, attack},
        {"import"_q, file(), series(), lines, "--run-triggers"_q, "--dry-run"_q},
        {"import"_q, file(), none, input, "--run-triggers"_q},
        {"import"_q, file(), "O"_q + attack, input, "--run-triggers"_q},
        {"import"_q, file(), none, input, "--run-triggers"_q, "--create"_q, "--kind"_q, "samples"_q, "--name"_q,
         attack},
        {"import"_q, file(), series(), input, "--run-triggers"_q, "--refused"_q, file()},
        {"tune"_q, file(), "--dry-run"_q},
        {"tune"_q, file()},
        {"trim"_q, file(), series(), "--keep"_q, "1"_q, "--run-triggers"_q},
        {"purge"_q, file(), series(), "--before"_q, attack, "--run-triggers"_q},
        {"purge"_q, file(), series(), "--before"_q, "2024-05-06 07:00:01"_q, "--run-triggers"_q},
        {"clear"_q, file(), series(), "--run-triggers"_q},
        {"trim"_q, file(), series(), "--keep"_q, "1"_q, "--run-triggers"_q, "--yes"_q},
        {"purge"_q, file(), alarms(), "--before"_q, "now"_q, "--run-triggers"_q, "--yes"_q},
        {"clear"_q, file(), log(), "--run-triggers"_q, "--yes"_q},
        {"vacuum"_q, file(), "--run-triggers"_q, "--yes"_q},
        {"checkpoint"_q, file(), "--run-triggers"_q},
        {"tune"_q, file(), "--undo"_q, "--run-triggers"_q}};
    for (const QString &by : "series time gap level object type longest flood user"_q.split(' ')) {
        for (const char *form : {"--csv", "--json"})
            commands.insert(0, {"stats"_q, file(), "--by"_q, by, QString::fromLatin1(form)});
    }
    for (const char *form : {"--width=40", "--full", "--csv", "--json"}) {
        const QString look = QString::fromLatin1(form);
        commands.insert(0, {"check"_q, file(), look});
        for (const QString &table : {series(), alarms(), log()}) {
            commands.insert(0, {"show"_q, file(), table, look});
            commands.insert(0, {"newest"_q, file(), table, look});
            commands.insert(0, {"find"_q, file(), "X"_q, table, look});
            commands.insert(0, {"tail"_q, file(), table, look});
            commands.insert(0, {"range"_q, file(), "2024-05-06"_q, "2024-05-06"_q, table, look});
        }
    }
    for (const QString &table : {series(), alarms(), log()}) {
        for (const char *format : {"csv", "json", "sql"})
            commands.insert(0, {"export"_q, file(), table, "--format"_q, QString::fromLatin1(format)});
    }
    for (QStringList command : commands) {
        if (QStringList{"info"_q, "count"_q, "stats"_q, "check"_q, "show"_q, "newest"_q, "find"_q, "tail"_q, "range"_q,
                        "salvage"_q, "sql"_q}
                .contains(command.first()))
            command << "--no-pager"_q
                    << "--color"_q
                    << "never"_q;
        const Outcome outcome = runOnTerminal(command, {"xterm", QByteArray(), "no\n"});
        EXPECT_EQ(commandsIn(outcome.output), "") << qPrintable(command.join(' ').replace(attack, "*"_q)) << '\n'
                                                  << outcome.output.toPercentEncoding(" \n").constData();
        if (!command.contains("flood"_q)) { // there is none
            EXPECT_NE(outcome.output, "no\n") << "it says nothing: " << qPrintable(command.join(' '));
        }
    }
}

// And what is for people is as harmless when it is kept in a file and looked at later.
TEST_F(Escape, NeitherDoMessagesInAPipe)
{
    for (const QStringList &command : QList<QStringList>{{"info"_q, file()},
                                                         {"check"_q, file()},
                                                         {"stats"_q, file()},
                                                         {"count"_q, file()},
                                                         {"newest"_q, file()},
                                                         {"show"_q, file(), alarms(), "--full"_q},
                                                         {"plot"_q, file(), series()},
                                                         {"tune"_q, file(), "--dry-run"_q},
                                                         {"trim"_q, file(), series(), "--keep"_q, "1"_q},
                                                         {"import"_q, file(), series(), "in"_q + attack + ".csv"_q}}) {
        const Outcome outcome = run(command);
        EXPECT_EQ(commandsIn(outcome.output), "") << qPrintable(command.first());
        EXPECT_EQ(commandsIn(outcome.errors), "") << qPrintable(command.first());
    }
}

TEST_F(Escape, DataInAPipeIsNotChanged)
{
    const QByteArray exported = run({"export"_q, file(), series()}).output;
    EXPECT_TRUE(exported.contains(attack.toUtf8()));
    EXPECT_EQ(run({"show"_q, file(), series(), "--csv"_q}).output.count(attack.toUtf8()),
              exported.count(attack.toUtf8()));
}

} // namespace
