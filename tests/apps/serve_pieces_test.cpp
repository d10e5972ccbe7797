// SPDX-License-Identifier: MIT
//
// What the server reads by, without a server.
#include "plain_connection.h"
#include "serve/answers.h"
#include "serve/connection.h"
#include "serve/curve_work.h"
#include "serve/turns.h"
#include "text_literal.h"
#include "trend_files.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <thread>

using namespace device_db;

namespace
{

class ServePieces : public ::testing::Test
{
protected:
    QString path(const QString &name = "a.db"_q) const { return m_folder.filePath(name); }

    static const Table &table()
    {
        static const Table made{"T1"_q, Kind::Samples, {"ID"_q, "DATETIME"_q, "Value"_q}, false};
        return made;
    }
    static QString rows(int count)
    {
        return "insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where "
               "i<%1) select datetime(1714978800+i,'unixepoch'),i*7919%1000 from n;"_q.arg(count - 1);
    }
    QString definition() const
    {
        return "pragma journal_mode=wal;create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value "
               "text);"_q;
    }

private:
    QTemporaryDir m_folder;
};

TEST_F(ServePieces, NothingThatIsReadInSlicesKeepsTheLog)
{
    PlainConnection device(path());
    device.run(definition() + rows(5000));
    const auto database = Database::open(path(), Database::ReadOnly);
    ASSERT_TRUE(database);
    const auto ends = endsOf(*database, "T1"_q);
    ASSERT_TRUE(ends);
    const auto pass = std::make_shared<TablePass>(table(), *ends);
    SelectionQuery query;
    query.column = "Value";
    Selection sorted(pass, query);
    query.column.clear();
    query.filter.containing = "99"_q;
    Selection found(pass, query);
    int slices = 0;
    for (; !pass->isDone() || sorted.needsMore() || found.needsMore(); ++slices) {
        const SliceEnd now = std::chrono::steady_clock::now();
        if (!pass->isDone()) {
            ASSERT_TRUE(pass->read(*database, now));
        }
        if (sorted.needsMore()) {
            ASSERT_TRUE(sorted.find(*database, now));
        }
        if (found.needsMore()) {
            ASSERT_TRUE(found.find(*database, now));
        }
        device.run("update T1 set Value=Value where ID=1"_q);
        EXPECT_EQ(device.value("pragma wal_checkpoint(truncate)"_q), "0"_q) << "slice " << slices;
    }
    EXPECT_GT(slices, 5);
    EXPECT_EQ(pass->rows(), 5000);
    EXPECT_EQ(sorted.total(), 5000);
    EXPECT_EQ(found.total(),
              device.value("select count(*) from T1 where Value like '%99%' or DATETIME like '%99%'"_q).toInt());
}

TEST_F(ServePieces, RowsAreSortedAsSqliteDoes)
{
    PlainConnection device(path());
    device.run(definition() + rows(3000) +
               "insert into T1(DATETIME,Value) values(NULL,NULL),('x',5),('x',x'00ff'),('',''),(7,1.5),(7,NULL)"_q);
    const auto database = Database::open(path(), Database::ReadOnly);
    ASSERT_TRUE(database);
    const auto pass = std::make_shared<TablePass>(table(), *endsOf(*database, "T1"_q));
    for (const QByteArray &column : {QByteArray("DATETIME"), QByteArray("Value")}) {
        for (const bool descending : {false, true}) {
            SelectionQuery query;
            query.column = column;
            query.descending = descending;
            Selection selection(pass, query);
            while (selection.needsMore())
                ASSERT_TRUE(selection.find(*database, std::chrono::steady_clock::now()));
            QStringList ids;
            for (const auto &row : *selection.page(*database, 0, 10000))
                ids << QString::fromUtf8(row.front());
            QStringList wanted;
            const QString direction = descending ? " desc"_q : QString();
            for (const QStringList &row :
                 device.run("select ID from T1 order by %1%2,ID%2"_q.arg(QString::fromLatin1(column), direction)))
                wanted << row.first();
            EXPECT_EQ(ids, wanted);
            EXPECT_EQ(*selection.placeOfId(*database, wanted.at(17).toInt()), 17);
        }
    }
}

TEST_F(ServePieces, APassGoesOnWhereRowsCome)
{
    PlainConnection device(path());
    device.run(definition() + rows(1000));
    const auto database = Database::open(path(), Database::ReadOnly);
    ASSERT_TRUE(database);
    TablePass grown(table(), *endsOf(*database, "T1"_q));
    for (int i = 0; i < 20; ++i) {
        grown.grow(*endsOf(*database, "T1"_q));
        while (!grown.isDone())
            ASSERT_TRUE(grown.read(*database, std::chrono::steady_clock::now()));
        device.run(rows(37)); // the clock goes back each time
    }
    device.run("delete from T1 where ID>1000+19*37"_q);
    TablePass once(table(), *endsOf(*database, "T1"_q));
    while (!once.isDone())
        ASSERT_TRUE(once.read(*database, std::chrono::steady_clock::now() + std::chrono::hours(1)));
    EXPECT_EQ(grown.rows(), once.rows());
    EXPECT_EQ(grown.statistics().mean(), once.statistics().mean());
    EXPECT_EQ(grown.steps().size(), once.steps().size());
    ASSERT_EQ(grown.blocks().all().size(), once.blocks().all().size());
    for (size_t i = 0; i < once.blocks().all().size(); ++i)
        EXPECT_EQ(grown.blocks().all().at(i).sum, once.blocks().all().at(i).sum);
    ASSERT_EQ(grown.findings().size(), once.findings().size());
    for (int i = 0; i < once.findings().size(); ++i)
        EXPECT_EQ(grown.findings().at(i).text(), once.findings().at(i).text());
}

TEST_F(ServePieces, APictureOfAllIsAsWideAtFirstAsItIsAtLast)
{
    PlainConnection device(path());
    device.run(definition() + rows(5000));
    const auto database = Database::open(path(), Database::ReadOnly);
    ASSERT_TRUE(database);
    ServedTable served;
    served.table = table();
    served.pass = std::make_shared<TablePass>(table(), *endsOf(*database, "T1"_q));
    ASSERT_TRUE(readDots(*database, served));
    const TimeExtent first = served.pass->extent();
    ASSERT_TRUE(served.pass->read(*database, std::chrono::steady_clock::now()));
    ASSERT_FALSE(served.pass->isDone());
    EXPECT_EQ(served.pass->extent().to, first.to);
    while (!served.pass->isDone())
        ASSERT_TRUE(served.pass->read(*database, std::chrono::steady_clock::now()));
    EXPECT_EQ(served.pass->extent().from, first.from);
    EXPECT_EQ(served.pass->extent().to, first.to);
}

// How many slices a question needs if each is as short as it can be; its answer goes to `answer`.
int slicesOf(ServedFiles &files, const QByteArray &question, const Parameters &parameters, QByteArray &answer)
{
    const auto work = workFor(files, question, parameters);
    EXPECT_TRUE(work);
    for (int slices = 1; work && slices < 10000; ++slices) {
        const auto done = (*work)->run(std::chrono::steady_clock::now(), [](const QByteArray &) {});
        EXPECT_TRUE(done);
        if (!done || !done->isEmpty()) {
            answer = done.valueOr(QByteArray());
            return slices;
        }
    }
    return 0;
}

TEST_F(ServePieces, AnAnswerWithManyRowsIsMadeInSlices)
{
    PlainConnection device(path());
    device.run(definition() + rows(60000) + "delete from T1 where ID%3=0"_q);
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    const Parameters all{{"table", "0/T1"}, {"order", "recorded"}, {"offset", "7"}, {"limit", "100000"}};
    QByteArray before;
    EXPECT_GT(slicesOf(**files, "rows", all, before), 40);
    QByteArray overview;
    EXPECT_GT(slicesOf(**files, "overview", {{"table", "0/T1"}}, overview), 40);
    QByteArray after;
    EXPECT_GT(slicesOf(**files, "rows", all, after), 40);
    EXPECT_EQ(after.count("[\""), 40000 - 7);
    EXPECT_EQ(before.count("[\""), 40000 - 5) << "by the IDs, as long as the rows are not counted";
    EXPECT_TRUE(after.contains("\"rows\":[[\"11\",")) << after.left(200).constData();
    EXPECT_TRUE(after.endsWith("[\"59999\",\"2024-05-06 23:39:58\",\"162\"]]}")) << after.right(200).constData();
}

TEST_F(ServePieces, IdsThatNoStoreGivesAreCountedAlike)
{
    PlainConnection device(path());
    device.run(definition() + "insert into T1(ID,DATETIME,Value) values(-9223372036854775807,'a','1'),(-5,'b','1'),"
                              "(2,'c','1'),(9223372036854775807,'d','1')"_q);
    const auto database = Database::open(path(), Database::ReadOnly);
    const auto pass = std::make_shared<TablePass>(table(), *endsOf(*database, "T1"_q));
    EXPECT_LT(pass->share(), 0.01);
    ASSERT_TRUE(pass->read(*database, std::chrono::steady_clock::now() + std::chrono::hours(1)));
    EXPECT_EQ(pass->rows(), 4);
    SelectionQuery query;
    query.filter.containing = "1"_q;
    Selection found(pass, query);
    while (found.needsMore())
        ASSERT_TRUE(found.find(*database, std::chrono::steady_clock::now()));
    EXPECT_EQ(found.total(), 4);
}

TEST_F(ServePieces, RowsAreFoundByTheirNumber)
{
    PlainConnection device(path());
    for (int i = 0; i < 30; ++i)
        device.run((i == 0 ? definition() : QString()) + rows(1 + i * 37 % 300)); // the clock goes back each time
    device.run("delete from T1 where ID%7=0"_q);
    const auto database = Database::open(path(), Database::ReadOnly);
    const auto pass = std::make_shared<TablePass>(table(), *endsOf(*database, "T1"_q));
    ASSERT_TRUE(pass->read(*database, std::chrono::steady_clock::now() + std::chrono::hours(1)));
    const Selection all(pass, {});
    const auto ids = device.run("select ID from T1 order by ID"_q);
    ASSERT_EQ(all.total(), ids.size());
    for (int place = 0; place < ids.size(); ++place) {
        const auto row = all.page(*database, place, 1);
        ASSERT_EQ(QString::fromUtf8(row->at(0).at(0)), ids.at(place).at(0));
        EXPECT_EQ(*all.placeOfId(*database, ids.at(place).at(0).toLongLong()), place);
    }
    EXPECT_TRUE(all.page(*database, ids.size(), 10)->empty());
}

TEST_F(ServePieces, APictureBySumsIsReadInSlices)
{
    PlainConnection device(path());
    device.run(samples("T1"_q, 50000, 11));
    const auto database = Database::open(path(), Database::ReadWrite);
    ASSERT_TRUE(database);
    QByteArray rows;
    QByteArray sums;
    const Parameters picture{
        {"table", "0/T1"}, {"from", "1714953600000"}, {"to", "1715213600000"}, {"columns", "2000"}};
    const auto files = ServedFiles::of({path()});
    slicesOf(**files, "overview", {{"table", "0/T1"}}, rows);
    slicesOf(**files, "trend", picture, rows);
    keepTrend(*database, "T1"_q, {device::TrendLevel::TenSeconds, device::TrendLevel::Hour});
    EXPECT_GT(slicesOf(**files, "trend", picture, sums), 10);
    const auto points = [](const QByteArray &answer) {
        return answer.mid(answer.indexOf("\"points\"")).split(']').first();
    };
    EXPECT_EQ(points(sums), points(rows));
}

QJsonArray arrayOf(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).array();
}

QStringList keysOf(const ServedFiles &files)
{
    QStringList keys;
    for (const auto &table : arrayOf(files.tables()))
        keys << table.toObject()["key"_q].toString();
    return keys;
}

QString titleOf(const ServedFiles &files, const QString &key)
{
    for (const auto &table : arrayOf(files.tables())) {
        if (table.toObject()["key"_q] == key)
            return table.toObject()["title"_q].toString();
    }
    return QString();
}

QStringList findingsOf(const ServedFiles &files, int file)
{
    QStringList texts;
    for (const auto &finding : arrayOf(files.open()).at(file).toObject()["findings"_q].toArray())
        texts << "%1 %2: %3"_q.arg(finding.toObject()["cause"_q].toString(), finding.toObject()["table"_q].toString(),
                                   finding.toObject()["what"_q].toString());
    return texts;
}

// The next change of the only file; none if there is nothing for so long. A file that this process has open as well is
// read from copies, which take a moment.
QJsonObject changeIn(ServedFiles &files, int milliseconds = 10000)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (std::chrono::steady_clock::now() < end) {
        const QJsonArray changed = QJsonDocument::fromJson(files.look()).object()["files"_q].toArray();
        if (!changed.isEmpty())
            return changed.at(0).toObject();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return QJsonObject();
}

constexpr int aWhile = 500; // milliseconds in which a change would be seen

const QString malformed = "it cannot be read: database disk image is malformed; \"device-db check\" says more, "
                          "\"device-db salvage\" gets rows out"_q;

// Writes nonsense over the first page of a table.
void damage(const QString &path, const QString &table)
{
    qint64 page = 0;
    qint64 size = 0;
    {
        PlainConnection connection(path);
        connection.run("pragma wal_checkpoint(truncate)"_q);
        page = connection.value("select rootpage from sqlite_master where name='%1'"_q.arg(table)).toLongLong();
        size = connection.value("pragma page_size"_q).toLongLong();
    }
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_TRUE(file.seek((page - 1) * size));
    file.write(QByteArray(int(size), '\xff'));
}

TEST_F(ServePieces, ADamagedTableLeavesTheOthers)
{
    const QString log = "create table T2(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                        "insert into T2 select * from T1;"_q;
    PlainConnection(path()).run(definition() + rows(10) + log);
    PlainConnection(path("b.db"_q)).run(definition() + rows(10) + log);
    damage(path("b.db"_q), "T2"_q);
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    EXPECT_EQ(keysOf(**files), (QStringList{"0/T1"_q, "0/T2"_q}));
    const auto before = (*files)->table("0/T2");
    ASSERT_EQ(std::rename(qPrintable(path("b.db"_q)), qPrintable(path())), 0);
    QJsonObject change;
    do
        change = changeIn(**files);
    while (!change.isEmpty() && !change["error"_q].toString().isEmpty());
    EXPECT_EQ(keysOf(**files), QStringList{"0/T1"_q});
    EXPECT_EQ(change["error"_q].toString(), QString());
    EXPECT_TRUE(findingsOf(**files, 0).contains("damaged T2: "_q + malformed))
        << qPrintable(findingsOf(**files, 0).join("\n"_q));
    EXPECT_FALSE(workFor(**files, "overview", {{"table", "0/T2"}}));
    QByteArray overview;
    EXPECT_GT(slicesOf(**files, "overview", {{"table", "0/T1"}}, overview), 0);
    EXPECT_TRUE(overview.contains("\"rows\":10,")) << overview.constData();
    EXPECT_EQ(changeIn(**files, aWhile), QJsonObject()) << "nothing has changed";
    // And at the beginning; a row of another table does not make it a change either.
    const auto anew = ServedFiles::of({path()});
    ASSERT_TRUE(anew);
    EXPECT_EQ(keysOf(**anew), QStringList{"0/T1"_q});
    const QJsonValue version = arrayOf((*anew)->open()).at(0).toObject()["version"_q];
    PlainConnection(path()).run(rows(1));
    change = changeIn(**anew);
    EXPECT_EQ(change["version"_q], version);
    EXPECT_EQ(change["tables"_q].toArray().size(), 1);
}

TEST_F(ServePieces, AnAnswerUnderWayEndsWhenItsTableIsDamaged)
{
    PlainConnection(path()).run(definition() + rows(10));
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    auto work = workFor(**files, "overview", {{"table", "0/T1"}});
    ASSERT_TRUE(work);
    (*files)->table("0/T1")->pass.reset();
    EXPECT_FALSE((*work)->run(std::chrono::steady_clock::now(), [](const QByteArray &) {}));
}

TEST_F(ServePieces, ADamagedConfigurationLeavesTheTables)
{
    PlainConnection(path()).run(definition() + rows(10) +
                                "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR TEXT,NAME TEXT);"
                                "create table \"device series\"(COLLECTOR text,UNIT text,DESCRIPTION text);"_q);
    damage(path(), "tb_config"_q);
    damage(path(), "device series"_q);
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    EXPECT_EQ(keysOf(**files), QStringList{"0/T1"_q});
    EXPECT_TRUE(findingsOf(**files, 0).contains("damaged device series: "_q + malformed));
    EXPECT_TRUE(findingsOf(**files, 0).contains("damaged tb_config: "_q + malformed))
        << qPrintable(findingsOf(**files, 0).join("\n"_q));
}

TEST_F(ServePieces, AFileThatCannotBeReadLeavesTheOthers)
{
    PlainConnection(path()).run(definition() + rows(10));
    QFile file(path("bad.db"_q));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("this is something else, and long enough to have a header of a hundred bytes, whatever it says: "
               "nothing of a database is in it");
    file.close();
    const auto files = ServedFiles::of({path("bad.db"_q), path()});
    ASSERT_TRUE(files) << qPrintable(files.error().cause());
    EXPECT_EQ(keysOf(**files), QStringList{"1/T1"_q});
    const QJsonArray open = arrayOf((*files)->open());
    EXPECT_FALSE(open.at(0).toObject()["error"_q].toString().isEmpty());
    EXPECT_EQ(open.at(1).toObject()["error"_q].toString(), QString());
    // TROUBLES
    const auto none = ServedFiles::of({path("bad.db"_q), path("missing.db"_q)});
    ASSERT_FALSE(none);
    EXPECT_TRUE(oneLine(none.error()).contains("bad.db"_q)) << qPrintable(oneLine(none.error()));
}

TEST_F(ServePieces, WhatIsRegisteredLaterIsSeen)
{
    PlainConnection device(path());
    device.run(definition() + rows(10) +
               "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR TEXT,NAME TEXT);"
               "create table \"device series\"(COLLECTOR text,UNIT text,DESCRIPTION text);"_q);
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    EXPECT_EQ(titleOf(**files, "0/T1"_q), "T1"_q);
    EXPECT_TRUE(findingsOf(**files, 0).contains("notListed T1: tb_config does not list it"_q));
    const QJsonValue version = arrayOf((*files)->open()).at(0).toObject()["version"_q];
    device.run("insert into tb_config(COLLECTOR,NAME) values('T1','Boiler')"_q);
    EXPECT_GT(changeIn(**files)["version"_q].toInt(), version.toInt());
    EXPECT_EQ(titleOf(**files, "0/T1"_q), "Boiler"_q);
    EXPECT_FALSE(findingsOf(**files, 0).contains("notListed T1: tb_config does not list it"_q));
    device.run("update tb_config set NAME='Kettle'"_q);
    EXPECT_NE(changeIn(**files), QJsonObject());
    EXPECT_EQ(titleOf(**files, "0/T1"_q), "Kettle"_q);
    device.run("insert into \"device series\" values('T1','V','voltage')"_q);
    EXPECT_NE(changeIn(**files), QJsonObject());
    EXPECT_EQ(arrayOf((*files)->tables()).at(0).toObject()["unit"_q].toString(), "V"_q);
    const int last = arrayOf((*files)->open()).at(0).toObject()["version"_q].toInt();
    device.run(rows(1));
    EXPECT_EQ(changeIn(**files)["version"_q].toInt(), last) << "new rows and nothing else";
}

TEST_F(ServePieces, TheLastNameThatIsNotEmptyCounts)
{
    PlainConnection(path()).run(
        definition() +
        QString::fromUtf8("create table \"\xc3\x84"
                          "1\"(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME "
                          "dateTime,Value text);create table tb_config(ID INTEGER PRIMARY KEY "
                          "AUTOINCREMENT,COLLECTOR TEXT,NAME TEXT);insert into tb_config(COLLECTOR,NAME) "
                          "values('T1','First'),('t1','Second'),('T1',''),('\xc3\xa4"
                          "1','Umlaut')"));
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    EXPECT_EQ(titleOf(**files, "0/T1"_q), "Second"_q);
    EXPECT_EQ(titleOf(**files, QString::fromUtf8("0/\xc3\x84"
                                                 "1")),
              QString::fromUtf8("\xc3\x84"
                                "1"))
        << "only the letters of ASCII have two cases, as in SQLite";
}

TEST_F(ServePieces, RowsRemovedAtTheBeginningDoNotStopAPass)
{
    PlainConnection device(path());
    device.run(definition() + rows(20000));
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    const auto table = (*files)->table("0/T1");
    ASSERT_TRUE(table);
    const auto work = workFor(**files, "overview", {{"table", "0/T1"}});
    ASSERT_TRUE(work);
    QByteArray answer;
    for (int slice = 0; slice < 1000 && answer.isEmpty(); ++slice) {
        answer = *(*work)->run(std::chrono::steady_clock::now(), [](const QByteArray &) {});
        if (slice % 10 == 5) {
            device.run(rows(1) + "delete from T1 where ID=(select min(ID) from T1)"_q);
            EXPECT_NE(changeIn(**files), QJsonObject());
        }
    }
    EXPECT_TRUE(answer.contains("\"exact\":true")) << "each removal began the pass anew";
    // Once it was read, what has gone is known.
    EXPECT_GT(changeIn(**files)["version"_q].toInt(), 1);
    QByteArray exact;
    slicesOf(**files, "overview", {{"table", "0/T1"}}, exact);
    EXPECT_TRUE(exact.contains("\"rows\":20000,")) << exact.constData();
    EXPECT_TRUE(exact.contains("\"first\":\"" + device.value("select min(DATETIME) from T1"_q).toUtf8()))
        << exact.constData();
    EXPECT_EQ(changeIn(**files, aWhile), QJsonObject());
    // Before it begins there is nothing to read anew.
    const auto anew = ServedFiles::of({path()});
    ASSERT_TRUE(anew);
    device.run("delete from T1 where ID=(select min(ID) from T1)"_q);
    EXPECT_EQ(changeIn(**anew, aWhile), QJsonObject());
    slicesOf(**anew, "overview", {{"table", "0/T1"}}, exact);
    EXPECT_TRUE(exact.contains("\"rows\":19999,")) << exact.constData();
    EXPECT_EQ(changeIn(**anew, aWhile), QJsonObject());
}

TEST_F(ServePieces, OtherRowsWithTheSameIdsAreSeen)
{
    PlainConnection device(path());
    device.run(definition() + rows(30));
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    QByteArray overview;
    slicesOf(**files, "overview", {{"table", "0/T1"}}, overview);
    int version = arrayOf((*files)->open()).at(0).toObject()["version"_q].toInt();
    const auto refilled = [](int count, int more) {
        return "begin;delete from T1;update sqlite_sequence set seq=0 where name='T1';"_q + rows(count) +
               "update T1 set DATETIME=datetime(DATETIME,'+1 day'),Value=Value+%1;commit;"_q.arg(more);
    };
    for (const auto &[how, sql] :
         {std::pair{"as many", refilled(30, 1000)}, std::pair{"more", refilled(40, 2000)},
          std::pair{"the same times", refilled(40, 3000)},
          std::pair{"another last one", "begin;delete from T1 where ID=40;"_q + rows(2) + "commit;"_q}}) {
        device.run(sql);
        const int seen = changeIn(**files)["version"_q].toInt();
        EXPECT_GT(seen, version) << how;
        version = seen;
        slicesOf(**files, "overview", {{"table", "0/T1"}}, overview);
        EXPECT_TRUE(overview.contains("\"first\":\"" + device.value("select min(DATETIME) from T1"_q).toUtf8()))
            << how << overview.constData();
        EXPECT_TRUE(overview.contains("\"highest\":" + device.value("select max(Value+0) from T1"_q).toUtf8() + ','))
            << how << overview.constData();
    }
    device.run(rows(1));
    EXPECT_EQ(changeIn(**files)["version"_q].toInt(), version) << "new rows and nothing else";
}

QString alarms()
{
    return "create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,"
           "AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,"
           "EndTime text);insert into AlarmData values(1,1,'2024-05-06 07:08:09','','','','','','',''),"
           "(2,4294967297,'2024-05-06 07:08:10','','','','','','','');"_q;
}

TEST_F(ServePieces, ANewAlarmIsANewRowAndNothingElse)
{
    PlainConnection device(path());
    device.run("pragma journal_mode=wal;"_q + alarms());
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    QByteArray overview;
    slicesOf(**files, "overview", {{"table", "0/AlarmData"}}, overview);
    const QJsonValue version = arrayOf((*files)->open()).at(0).toObject()["version"_q];
    EXPECT_TRUE(version.isDouble());
    device.run("insert into AlarmData select NULL,LevelID,DATETIME,'','','','','',EndDate,EndTime from AlarmData"_q);
    QJsonObject change = changeIn(**files);
    EXPECT_EQ(change["version"_q], version);
    EXPECT_EQ(change["tables"_q].toArray().at(0).toObject()["lastId"_q].toInt(), 4);
    slicesOf(**files, "overview", {{"table", "0/AlarmData"}}, overview);
    EXPECT_TRUE(overview.contains("\"rows\":4,")) << overview.constData();
    device.run("update AlarmData set EndDate='2024-05-06',EndTime='08:00:00' where ID=3;"
               "insert into AlarmData select NULL,LevelID,DATETIME,'','','','','','','' from AlarmData"_q);
    change = changeIn(**files);
    EXPECT_GT(change["version"_q].toInt(), version.toInt()) << "an alarm that ended, among new ones";
    const int ended = change["version"_q].toInt();
    device.run("update AlarmData set EndTime='08:00:01' where ID=3"_q);
    EXPECT_GT(changeIn(**files)["version"_q].toInt(), ended) << "an end that was corrected";
}

TEST_F(ServePieces, LevelsAreComparedInFull)
{
    PlainConnection(path()).run(alarms());
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    const auto found = [&](const QByteArray &level) {
        QByteArray answer;
        slicesOf(**files, "rows",
                 {{"table", "0/AlarmData"}, {"order", "recorded"}, {"offset", "0"}, {"limit", "9"}, {"level", level}},
                 answer);
        return answer.mid(answer.indexOf("\"total\":") + 8, 1) + answer.mid(answer.indexOf("\"rows\":") + 8, 3);
    };
    EXPECT_EQ(found("1"), "1[\"1");
    EXPECT_EQ(found("4294967297"), "1[\"2");
    EXPECT_EQ(found("8589934593"), "0]}");
    for (const char *level : {"1.5", "high", "", "99999999999999999999"}) {
        const auto work = workFor(
            **files, "rows",
            {{"table", "0/AlarmData"}, {"order", "recorded"}, {"offset", "0"}, {"limit", "9"}, {"level", level}});
        ASSERT_FALSE(work) << level;
        EXPECT_TRUE(work.error().cause().contains("whole number"_q)) << qPrintable(work.error().cause());
    }
}

TEST_F(ServePieces, TablesWithoutAKeyAreLeftOut)
{
    PlainConnection(path()).run(
        definition() + rows(10) +
        "create table Copied as select * from T1;"
        "create table Texts(ID text primary key,DATETIME dateTime,Value text);"
        "insert into Texts values('0 or 1','2024-05-06 07:08:09','1');"
        "create table Backwards(ID integer primary key desc,DATETIME dateTime,Value text);"
        "create table Without(ID integer primary key,DATETIME dateTime,Value text) without rowid;"
        "create table Plain(ID integer primary key,DATETIME dateTime,Value text)"_q);
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    EXPECT_EQ(keysOf(**files), (QStringList{"0/Plain"_q, "0/T1"_q}));
    const QStringList findings = findingsOf(**files, 0);
    for (const char *table : {"Backwards", "Copied", "Texts", "Without"})
        EXPECT_TRUE(
            findings.contains("definition %1: ID is no INTEGER PRIMARY KEY there: its rows cannot be told apart, "
                              "and are not shown"_q.arg(QString::fromLatin1(table))))
            << table << ": " << findings.join('\n').toStdString();
}

TEST_F(ServePieces, ASearchEndsAlthoughOtherRowsCome)
{
    PlainConnection device(path());
    device.run("pragma journal_mode=wal;"_q + alarms() +
               "insert into AlarmData with recursive n(i) as (select 3 union all select i+1 from n where i<20000) "
               "select i,1,datetime(1714978800+i,'unixepoch'),'','','','','','','' from n"_q);
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    QByteArray answer;
    slicesOf(**files, "overview", {{"table", "0/AlarmData"}}, answer);
    const auto work =
        workFor(**files, "rows", {{"table", "0/AlarmData"}, {"order", "newest"}, {"offset", "0"}, {"limit", "9"}});
    ASSERT_TRUE(work);
    answer.clear();
    for (int slice = 0; slice < 200 && answer.isEmpty(); ++slice) {
        answer = *(*work)->run(std::chrono::steady_clock::now(), [](const QByteArray &) {});
        if (slice % 10 == 5) {
            device.run("update AlarmData set EndDate='2024-05-06',EndTime='08:00:00' where ID=%1"_q.arg(slice));
            EXPECT_NE(changeIn(**files), QJsonObject());
        }
    }
    EXPECT_TRUE(answer.startsWith("{\"exact\":true,\"share\":1,\"total\":20000,")) << answer.left(200).constData();
    QByteArray ended;
    slicesOf(**files, "rows",
             {{"table", "0/AlarmData"}, {"order", "recorded"}, {"state", "ended"}, {"offset", "0"}, {"limit", "9"}},
             ended);
    EXPECT_TRUE(ended.contains("[\"5\",")) << "who asks again sees the ends: " << ended.constData();
}

TEST_F(ServePieces, ARingIsReadAnewAFifthOfTheTime)
{
    PlainConnection device(path());
    device.run(definition() + rows(300000));
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    QByteArray overview;
    const auto began = std::chrono::steady_clock::now();
    slicesOf(**files, "overview", {{"table", "0/T1"}}, overview);
    const auto read = std::chrono::steady_clock::now();
    const int version = arrayOf((*files)->open()).at(0).toObject()["version"_q].toInt();
    device.run(rows(1) + "delete from T1 where ID=1"_q);
    QJsonObject change = changeIn(**files);
    EXPECT_EQ(change["version"_q].toInt(), version) << "new rows";
    slicesOf(**files, "overview", {{"table", "0/T1"}}, overview);
    change = changeIn(**files, 60000);
    EXPECT_GT(change["version"_q].toInt(), version) << "and then that one has gone";
    // Four times as long as the slices took, which is somewhat less than all of it.
    EXPECT_GT(std::chrono::steady_clock::now() - read, 2 * (read - began));
}

TEST_F(ServePieces, ChoicesFindWhatTheyCount)
{
    PlainConnection(path()).run(
        "create table L(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,"
        "message text);insert into L(DATETIME,userName) values('2024-05-06 07:08:09.000',NULL),"
        "('2024-05-06 07:08:10.000',''),('2024-05-06 07:08:11.000','anna'),"
        "('2024-05-06 07:08:12.000',printf('%.*c',201,'x')),('2024-05-06 07:08:13.000',printf('%.*c',200,'y'))"_q);
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    QByteArray overview;
    slicesOf(**files, "overview", {{"table", "0/L"}}, overview);
    EXPECT_TRUE(overview.contains("\"choices\":[[\"\",2],[\"anna\",1],[\"" + QByteArray(200, 'y') + "\",1]]"))
        << overview.constData();
    QByteArray found;
    slicesOf(**files, "rows", {{"table", "0/L"}, {"order", "recorded"}, {"user", ""}, {"offset", "0"}, {"limit", "9"}},
             found);
    EXPECT_TRUE(found.contains("\"total\":2,")) << found.constData();
}

TEST_F(ServePieces, APictureMayBeAsWideAsThatOfThePage)
{
    PlainConnection(path()).run(definition() + rows(10));
    const auto files = ServedFiles::of({path()});
    ASSERT_TRUE(files);
    for (const auto &[columns, isTaken] : {std::pair{"100000", true}, std::pair{"100001", false}})
        EXPECT_EQ(bool(workFor(
                      **files, "trend",
                      {{"table", "0/T1"}, {"from", "1714953600000"}, {"to", "1715213600000"}, {"columns", columns}})),
                  isTaken)
            << columns;
}

// A client whose answers are large, and its server in the same thread.
class Conversation
{
public:
    Conversation()
    {
        EXPECT_TRUE(m_listener.listen(QHostAddress::LocalHost));
        m_client.connectToHost(QHostAddress::LocalHost, m_listener.serverPort());
        EXPECT_TRUE(m_client.waitForConnected(30000));
        EXPECT_TRUE(m_listener.waitForNewConnection(30000));
        std::unique_ptr<QTcpSocket> socket(m_listener.nextPendingConnection());
        socket->setParent(nullptr);
        m_client.setReadBufferSize(1000); // the systems between hold the rest, as far as they do
        connection = std::make_unique<Connection>(std::move(socket));
        connection->onRequest([this](const HttpRequest &) {
            ++requests;
            connection->answer({200, "text/plain", QByteArray(10000000, 'a'), {}});
        });
    }

    void send(const QByteArray &bytes)
    {
        m_client.write(bytes);
        wait();
    }
    void wait()
    {
        for (int i = 0; i < 20; ++i)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    /// Takes what is there until nothing comes any more; how many bytes.
    qint64 take()
    {
        qint64 bytes = 0;
        m_client.setReadBufferSize(0);
        for (qint64 before = -1; bytes != before;) {
            before = bytes;
            for (int i = 0; i < 10; ++i) {
                wait();
                bytes += m_client.readAll().size();
            }
        }
        return bytes;
    }

    std::unique_ptr<Connection> connection;
    int requests = 0;

private:
    QTcpServer m_listener;
    QTcpSocket m_client;
};

const QByteArray anyRequest("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");

TEST(Connection, ReadsTheNextRequestWhenTheAnswerWasTaken)
{
    Conversation conversation;
    for (int i = 0; i < 10; ++i) {
        conversation.send(anyRequest);
        EXPECT_LE(conversation.requests, 2);
        EXPECT_LE(conversation.connection->waiting(), 11000000);
    }
    EXPECT_GT(conversation.take(), 100000000);
    EXPECT_EQ(conversation.requests, 10) << "each of them";
}

TEST(Connection, EndsWithAClientThatSendsAndTakesNothing)
{
    using namespace std::chrono_literals;
    Conversation conversation;
    for (int i = 0; i < 5; ++i)
        conversation.send(anyRequest);
    EXPECT_GT(conversation.connection->waiting(), 0);
    const auto began = Connection::Clock::now();
    std::this_thread::sleep_for(20ms);
    conversation.send(anyRequest.left(5));
    conversation.connection->lookAtClock(began + 29s);
    EXPECT_FALSE(conversation.connection->isClosed());
    conversation.connection->lookAtClock(began + 30s + 1ms);
    EXPECT_TRUE(conversation.connection->isClosed());
}

TEST(Connection, AnswersNothingAfterTheLastRequest)
{
    Conversation conversation;
    conversation.send("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n" + anyRequest);
    EXPECT_LT(conversation.take(), 11000000);
    EXPECT_EQ(conversation.requests, 1);
    EXPECT_TRUE(conversation.connection->isClosed());
}

TEST(Turns, WhoComesAnewIsNextButOneAndNobodyWaitsForEver)
{
    Turns<char> turns;
    char names[] = "abcdefgh";
    for (int i = 0; i < 3; ++i)
        turns.goOn(names + i);
    std::string order;
    for (int i = 3; i < 8; ++i)
        turns.begin(names + i);
    turns.remove(names + 4);
    while (char *const next = turns.take()) {
        order += *next;
        if (*next < 'd' && order.size() < 9)
            turns.goOn(next);
    }
    EXPECT_EQ(order, "dafbgchabca");
    EXPECT_TRUE(turns.isEmpty());
}

} // namespace
