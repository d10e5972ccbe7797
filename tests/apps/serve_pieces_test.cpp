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
    QString path() const { return m_folder.filePath("a.db"_q); }

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
