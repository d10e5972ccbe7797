// SPDX-License-Identifier: MIT
//
// "device-db serve" as a browser, somebody with bad intentions and a device meet it. DEVICE_SERVE_SECONDS=300 lets the
// device write for so long.
#include "served_tool.h"
#include "writing_device.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <iostream>

#include <sys/resource.h>
#include <sys/stat.h>

namespace
{

const QString samples = "create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"_q;

QString rowsOf(int count)
{
    return "insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<%1) "
           "select datetime(1714978800+i,'unixepoch'),i from n;"_q.arg(count - 1);
}

class Serve : public ServedTool
{
protected:
    void make(const QString &name, const QString &sql) const { PlainConnection(path(name)).run(sql); }
    int statusOf(const QByteArray &requestLine, const QByteArray &headers) const
    {
        return exchange(requestLine + "\r\n" + headers + "\r\n").status;
    }
};

TEST_F(Serve, GivesThePageToWhoHasTheAddress)
{
    make("a.db"_q, samples);
    serve({"a.db"_q});
    const HttpReply first = exchange("GET /?token=" + token() + " HTTP/1.1\r\n" + host() + "\r\n");
    // Not a redirect: a browser sends no strict cookie with one that a link of another site began.
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(first.header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(first.header("Referrer-Policy"), "no-referrer");
    EXPECT_EQ(first.header("Cache-Control"), "no-store");
    EXPECT_FALSE(first.body.contains(token()));
    const auto script = QRegularExpression("<script>(.*)</script>"_q).match(QString::fromUtf8(first.body)).captured(1);
    const QByteArray hash = QCryptographicHash::hash(script.toUtf8(), QCryptographicHash::Sha256).toBase64();
    EXPECT_TRUE(script.contains("location.replace('/' + location.hash)"_q)) << first.body.constData();
    EXPECT_TRUE(first.header("Content-Security-Policy").contains("default-src 'none'"));
    EXPECT_TRUE(first.header("Content-Security-Policy").contains("script-src 'sha256-" + hash + "'"));
    EXPECT_EQ(first.header("Set-Cookie") + "\r\n",
              cookie().mid(8).chopped(2) + "; Path=/; HttpOnly; SameSite=Strict\r\n");
    const HttpReply page = get("/");
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(page.header("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(page.header("Referrer-Policy"), "no-referrer");
    EXPECT_EQ(page.header("Cache-Control"), "no-store");
    EXPECT_TRUE(page.header("Content-Security-Policy").contains("frame-ancestors 'none'"));
    const Outcome file = run({"viewer"_q, "-o"_q, "-"_q});
    EXPECT_EQ(page.body, QByteArray(file.output).replace("connect-src 'none'", "connect-src 'self'"));
    EXPECT_EQ(stop(), 0);
}

TEST_F(Serve, RefusesEverybodyElse)
{
    make("a.db"_q, samples);
    serve({"a.db"_q});
    const QByteArray known = host() + cookie();
    for (const char *target :
         {"/", "/api/open", "/api/tables", "/api/changes", "/api/overview?table=0/T1", "/nothing"}) {
        const QByteArray line = QByteArray("GET ") + target + " HTTP/1.1";
        EXPECT_EQ(statusOf(line, host()), 403) << target;
        EXPECT_EQ(statusOf(line, host() + "Cookie: device_db_" + QByteArray::number(port()) + "=0\r\n"), 403) << target;
        EXPECT_EQ(statusOf(line, "Host: evil.example\r\n" + cookie()), 421) << target;
        EXPECT_EQ(statusOf(line, known + "Origin: http://evil.example\r\n"), 403) << target;
    }
    EXPECT_EQ(statusOf("GET /?token=0 HTTP/1.1", host()), 403);
    EXPECT_EQ(statusOf("POST /api/open HTTP/1.1", known), 405);
    EXPECT_EQ(statusOf("POST /api/open HTTP/1.1", known + "Content-Length: 5\r\n"), 413);
    EXPECT_EQ(statusOf("GET /api/open HTTP/1.0", known), 505);
    EXPECT_EQ(statusOf("GET /" + QByteArray(33000, 'a') + " HTTP/1.1", known), 414);
    EXPECT_EQ(statusOf("GET / HTTP/1.1", known + "A: " + QByteArray(33000, 'a') + "\r\n"), 431);
    for (const char *target : {"/..", "/a.db", "/etc/passwd", "//", "/api", "/api/", "/api/open/", "/API/open",
                               "/api/open?a=b", "/?a=b", "/%2e%2e/a.db", "/index.html"})
        EXPECT_EQ(get(target).status, 404) << target;
    EXPECT_EQ(get("/api/open").status, 200) << "it goes on serving";
}

TEST_F(Serve, AnswersHeadWithoutABody)
{
    make("a.db"_q, samples);
    serve({"a.db"_q});
    for (const auto &[headers, status] : {std::pair{host() + cookie(), 405}, std::pair{host(), 405},
                                          std::pair{QByteArray("Host: evil.example\r\n"), 421}}) {
        HttpClient client(port());
        client.send("HEAD / HTTP/1.1\r\n" + headers + "\r\n");
        EXPECT_EQ(client.head().status, status);
        client.send(request("/api/tables"));
        EXPECT_EQ(client.reply().status, 200) << "the next answer begins where the head ends";
    }
}

TEST_F(Serve, RefusesQuestionsThatMakeNoSense)
{
    make("a.db"_q, samples + rowsOf(10));
    serve({"a.db"_q});
    for (const char *target : {"overview",
                               "overview?table=0/T2",
                               "overview?table=1/T1",
                               "overview?table=T1",
                               "overview?table=0/T1&a=b",
                               "overview?table=0/T1&table=0/T1",
                               "overview?table=%ff",
                               "overview?table",
                               "trend?table=0/T1",
                               "trend?table=0/T1&from=0&to=1&columns=0",
                               "trend?table=0/T1&from=2&to=1&columns=10",
                               "trend?table=0/T1&from=0&to=1&columns=9999999",
                               "trend?table=0/T1&from=x&to=1&columns=10",
                               "trend?table=0/T1&from=0&to=99999999999999999999&columns=10",
                               "rows?table=0/T1",
                               "rows?table=0/T1&order=recorded",
                               "rows?table=0/T1&order=recorded&offset=-1&limit=10",
                               "rows?table=0/T1&order=recorded&offset=0&limit=1000000",
                               "rows?table=0/T1&order=Value&offset=0&limit=10",
                               "rows?table=0/T1&order=by-user&offset=0&limit=10",
                               "rows?table=0/T1&order=by-value;drop&offset=0&limit=10",
                               "rows?table=0/T1&order=recorded&offset=0&limit=10&level=1",
                               "rows?table=0/T1&order=recorded&offset=0&limit=10&state=active",
                               "rows?table=0/T1&order=recorded&offset=0&limit=10&user=a"}) {
        const HttpReply reply = get("/api/" + QByteArray(target));
        EXPECT_EQ(reply.status, 400) << target;
        EXPECT_FALSE(QJsonDocument::fromJson(reply.body).object()["error"_q].toString().isEmpty()) << target;
    }
    EXPECT_EQ(get("/api/overview?table=0/T1").status, 200);
}

TEST_F(Serve, AnswersOneRequestAfterTheOtherOnAConnection)
{
    make("a.db"_q, samples + rowsOf(1000));
    serve({"a.db"_q});
    HttpClient client(port());
    const QByteArray overview = request("/api/overview?table=0/T1");
    client.send(request("/api/tables") + overview + overview + request("/api/open").left(30));
    const QByteArray tables = client.reply().body;
    EXPECT_TRUE(tables.contains("\"lastId\":1000")) << tables.constData();
    EXPECT_TRUE(client.reply().body.contains("\"rows\":1000"));
    EXPECT_TRUE(client.reply().body.contains("\"rows\":1000"));
    client.send(request("/api/open").mid(30));
    EXPECT_EQ(client.reply().status, 200);
    client.send("nonsense\r\n\r\n");
    const HttpReply last = client.reply();
    EXPECT_EQ(last.status, 400);
    EXPECT_EQ(last.header("Connection"), "close");
    EXPECT_TRUE(client.isClosedByServer());
    HttpClient other(port());
    other.send(request("/api/open").chopped(2) + "Connection: close\r\n\r\n");
    EXPECT_EQ(other.reply().status, 200);
    EXPECT_TRUE(other.isClosedByServer());
}

TEST_F(Serve, GoesOnWhenClientsAreSlowOrGo)
{
    make("a.db"_q, samples + rowsOf(200000));
    serve({"a.db"_q});
    HttpClient half(port());
    half.send(request("/").left(20));
    for (int i = 0; i < 20; ++i) {
        HttpClient gone(port());
        gone.send(request(i % 2 ? "/api/overview?table=0/T1" : "/"));
    }
    EXPECT_EQ(get("/api/open").status, 200);
    EXPECT_TRUE(get("/api/overview?table=0/T1").body.contains("\"exact\":true"));
    EXPECT_TRUE(half.isClosedByServer()) << "half a request is not waited for";
}

TEST_F(Serve, GoesOnWithAThousandConnections)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    make("a.db"_q, samples);
    serve({"a.db"_q});
    std::vector<std::unique_ptr<HttpClient>> idle;
    for (int i = 0; i < 1100; ++i)
        idle.push_back(std::make_unique<HttpClient>(port()));
    EXPECT_EQ(get("/api/open").status, 200);
    idle.back()->send(request("/api/open"));
    EXPECT_EQ(idle.back()->reply().status, 200);
    EXPECT_TRUE(idle.front()->isClosedByServer()) << "the quietest had to go";
}

TEST_F(Serve, SaysWhatIsWrongAtOnce)
{
    make("a.db"_q, samples);
    for (const QStringList &arguments : {QStringList{"missing.db"_q},
                                         {"a.db"_q, "a.db"_q},
                                         {"a.db"_q, "--listen"_q, "nowhere"_q},
                                         {"a.db"_q, "--listen"_q, "203.0.113.1"_q}}) {
        const Outcome outcome = run(QStringList{"serve"_q} + arguments);
        EXPECT_EQ(outcome.exitCode, 1) << outcome.errors.constData();
        EXPECT_TRUE(outcome.errors.startsWith("device-db: ")) << outcome.errors.constData();
    }
    EXPECT_EQ(run({"serve"_q}).exitCode, 2);
    EXPECT_EQ(run({"serve"_q, "a.db"_q, "--port"_q, "70000"_q}).exitCode, 2);
}

TEST_F(Serve, IsNotHeldUpByAPipe)
{
    ASSERT_EQ(mkfifo(qPrintable(path("pipe"_q)), 0600), 0);
    const Outcome refused = run({"serve"_q, "pipe"_q});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(refused.errors.contains("this is not a file")) << refused.errors.constData();
}

TEST_F(Serve, WritesThePageOut)
{
    EXPECT_EQ(run({"viewer"_q, "-o"_q, "v.html"_q}).exitCode, 0);
    EXPECT_EQ(read("v.html"_q).count("connect-src 'none'"), 1);
    EXPECT_EQ(read("v.html"_q), run({"viewer"_q, "-o"_q, "-"_q}).output);
    EXPECT_EQ(run({"viewer"_q, "-o"_q, "v.html"_q}).exitCode, 1);
    EXPECT_EQ(run({"viewer"_q, "-o"_q, "v.html"_q, "--force"_q}).exitCode, 0);
    EXPECT_EQ(run({"viewer"_q}).exitCode, 2);
}

// Somebody who watches.
class Watcher
{
public:
    Watcher(quint16 port, const QByteArray &request) : m_client(port)
    {
        m_client.send(request);
        EXPECT_EQ(m_client.head().header("Content-Type"), "text/event-stream");
    }

    /// The changes of the next event, by the number of the file; heartbeats are left out.
    QJsonArray next()
    {
        for (;;) {
            const QByteArray event = m_client.part();
            if (event.isNull())
                return QJsonArray();
            const QJsonArray files = filesIn(event);
            if (!files.isEmpty())
                return files;
        }
    }
    /// The next event, heartbeat or not.
    QByteArray nextEvent() { return m_client.part(); }

    static QJsonArray filesIn(const QByteArray &event)
    {
        return QJsonDocument::fromJson(event.mid(event.indexOf("data: ") + 6).trimmed()).object()["files"_q].toArray();
    }

private:
    HttpClient m_client;
};

qint64 lastIdIn(const QJsonObject &file, const QString &key = "0/T1"_q)
{
    for (const auto &table : file["tables"_q].toArray()) {
        if (table.toObject()["key"_q] == key)
            return qint64(table.toObject()["lastId"_q].toDouble());
    }
    return -1;
}

class ServeLive : public Serve, public ::testing::WithParamInterface<const char *>
{
};

TEST_F(Serve, SaysWhenAFileCannotBeReadAnyMore)
{
    make("a.db"_q, samples + rowsOf(10));
    serve({"a.db"_q});
    Watcher watcher(port(), request("/api/changes"));
    EXPECT_EQ(lastIdIn(watcher.next().at(0).toObject()), 10);
    QFile file(path("a.db"_q));
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.write("what a bad card makes of it");
    file.close();
    EXPECT_FALSE(watcher.next().at(0).toObject()["error"_q].toString().isEmpty());
    EXPECT_TRUE(get("/api/overview?table=0/T1").body.contains("\"error\""));
}

TEST_F(Serve, AWatcherHearsThatTheServerIsThere)
{
    make("a.db"_q, samples + rowsOf(10));
    serve({"a.db"_q});
    Watcher watcher(port(), request("/api/changes"));
    EXPECT_EQ(lastIdIn(Watcher::filesIn(watcher.nextEvent()).at(0).toObject()), 10);
    EXPECT_EQ(watcher.nextEvent(), "data: {\"files\":[]}\n\n") << "a comment is nothing that a page sees";
}

TEST_F(Serve, AFileThatCannotBeReadLeavesTheOthers)
{
    make("a.db"_q, samples + rowsOf(10));
    QFile bad(path("bad.db"_q));
    ASSERT_TRUE(bad.open(QIODevice::WriteOnly));
    bad.write(QByteArray(5000, 'a'));
    bad.close();
    const QByteArray said = serve({"bad.db"_q, "a.db"_q});
    EXPECT_TRUE(said.contains("device-db: bad.db: ")) << said.constData();
    EXPECT_TRUE(get("/api/tables").body.contains("\"key\":\"1/T1\""));
    const QJsonObject open = QJsonDocument::fromJson(get("/api/open").body).array().at(0).toObject();
    EXPECT_FALSE(open["error"_q].toString().isEmpty());
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(run({"serve"_q, "bad.db"_q, "missing.db"_q}).exitCode, 1);
}

TEST_P(ServeLive, TellsWhatHappensToAFile)
{
    PlainConnection device(path("a.db"_q));
    device.run("pragma journal_mode=%1;"_q.arg(QString::fromLatin1(GetParam())) + samples + rowsOf(10) +
               "create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,"
               "AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,"
               "EndTime text);insert into AlarmData values(1,2,'2024-05-06 07:08:09','','','','','','','')"_q);
    serve({"a.db"_q});
    Watcher watcher(port(), request("/api/changes"));
    const QJsonObject first = watcher.next().at(0).toObject();
    EXPECT_EQ(lastIdIn(first), 10);
    EXPECT_TRUE(get("/api/overview?table=0/T1").body.contains("\"rows\":10,"));

    device.run(rowsOf(5));
    QJsonObject change = watcher.next().at(0).toObject();
    EXPECT_EQ(lastIdIn(change), 15);
    EXPECT_EQ(lastIdIn(change, "0/AlarmData"_q), -1);
    EXPECT_EQ(change["version"_q], first["version"_q]) << "new rows and nothing else";
    EXPECT_TRUE(get("/api/overview?table=0/T1").body.contains("\"rows\":15,"));
    EXPECT_TRUE(get("/api/rows?table=0/T1&order=newest&offset=0&limit=1").body.contains("\"total\":15,"));

    device.run("update AlarmData set EndDate='2024-05-06',EndTime='08:00:00'"_q);
    change = watcher.next().at(0).toObject();
    EXPECT_GT(change["version"_q].toInt(), first["version"_q].toInt());
    EXPECT_TRUE(get("/api/trend?table=0/AlarmData&from=1714978800000&to=1715078799000&columns=100")
                    .body.contains("1714982400000"));

    device.run("delete from T1 where ID<=12"_q);
    EXPECT_GT(watcher.next().at(0).toObject()["version"_q].toInt(), change["version"_q].toInt());
    EXPECT_TRUE(get("/api/overview?table=0/T1").body.contains("\"rows\":3,"));

    device.run("create table T2(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q);
    (void)watcher.next();
    EXPECT_TRUE(get("/api/tables").body.contains("\"key\":\"0/T2\""));
    EXPECT_EQ(device.value("pragma integrity_check"_q), "ok"_q);
}

TEST_P(ServeLive, HealsWhenAFileIsGoneOrReplaced)
{
    const QString mode = "pragma journal_mode=%1;"_q.arg(QString::fromLatin1(GetParam()));
    make("a.db"_q, mode + samples + rowsOf(10));
    make("b.db"_q, mode + samples + rowsOf(7));
    serve({"a.db"_q});
    Watcher watcher(port(), request("/api/changes"));
    EXPECT_EQ(lastIdIn(watcher.next().at(0).toObject()), 10);
    ASSERT_TRUE(QFile::rename(path("a.db"_q), path("old.db"_q)));
    EXPECT_FALSE(watcher.next().at(0).toObject()["error"_q].toString().isEmpty());
    EXPECT_FALSE(
        QJsonDocument::fromJson(get("/api/open").body).array().at(0).toObject()["error"_q].toString().isEmpty());
    EXPECT_TRUE(get("/api/overview?table=0/T1").body.contains("\"error\""));
    ASSERT_TRUE(QFile::rename(path("b.db"_q), path("a.db"_q)));
    QJsonObject change;
    do
        change = watcher.next().at(0).toObject();
    while (!change["error"_q].toString().isEmpty());
    EXPECT_EQ(lastIdIn(change), 7);
    EXPECT_TRUE(get("/api/overview?table=0/T1").body.contains("\"rows\":7,"));
}

TEST_P(ServeLive, AFileInThePlaceOfAnotherIsChecked)
{
    const QString mode = "pragma journal_mode=%1;"_q.arg(QString::fromLatin1(GetParam()));
    make("a.db"_q, mode + samples + rowsOf(10));
    make("b.db"_q, mode + samples + rowsOf(30000) + "delete from T1 where ID>7"_q);
    serve({"a.db"_q});
    EXPECT_FALSE(get("/api/open").body.contains("\"freePages\",\"table\""));
    Watcher watcher(port(), request("/api/changes"));
    ASSERT_EQ(lastIdIn(watcher.next().at(0).toObject()), 10);
    ASSERT_EQ(std::rename(qPrintable(path("b.db"_q)), qPrintable(path("a.db"_q))), 0);
    while (lastIdIn(watcher.next().at(0).toObject()) != 30000) {
    }
    EXPECT_TRUE(get("/api/open").body.contains("\"freePages\",\"table\""));
}

TEST_P(ServeLive, SeesAFileThatIsWrittenOverIt)
{
    const QString mode = "pragma journal_mode=%1;"_q.arg(QString::fromLatin1(GetParam()));
    QString others = samples + rowsOf(7);
    others.replace("T1"_q, "P1"_q);
    make("a.db"_q, mode + samples + rowsOf(10));
    make("b.db"_q, mode + others); // as many changes of its tables
    serve({"a.db"_q});
    Watcher watcher(port(), request("/api/changes"));
    EXPECT_EQ(lastIdIn(watcher.next().at(0).toObject()), 10);
    // As a copy of a backup does it: the device has ended, and its log is that of the former file.
    QFile from(path("b.db"_q));
    QFile to(path("a.db"_q));
    ASSERT_TRUE(from.open(QIODevice::ReadOnly) && to.open(QIODevice::WriteOnly));
    to.write(from.readAll());
    to.close();
    for (const char *beside : {"a.db-wal", "a.db-shm"})
        QFile::remove(path(QString::fromLatin1(beside)));
    QJsonObject change;
    do
        change = watcher.next().at(0).toObject();
    while (!change["error"_q].toString().isEmpty() || lastIdIn(change, "0/P1"_q) != 7);
    const QByteArray tables = get("/api/tables").body;
    EXPECT_TRUE(tables.contains("\"0/P1\"") && !tables.contains("\"0/T1\"")) << tables.constData();
    EXPECT_TRUE(get("/api/overview?table=0/P1").body.contains("\"rows\":7,"));
    EXPECT_FALSE(get("/api/open").body.contains("\"damaged\""));
    PlainConnection(path("a.db"_q)).run("insert into P1(DATETIME,Value) values('2024-05-07 00:00:00','1')"_q);
    EXPECT_EQ(lastIdIn(watcher.next().at(0).toObject(), "0/P1"_q), 8);
}

TEST_P(ServeLive, NoCommitOfADeviceFails)
{
    WritingDevice device(path("a.db"_q), QString::fromLatin1(GetParam()), 5);
    serve({"a.db"_q});
    Watcher watcher(port(), request("/api/changes"));
    QElapsedTimer clock;
    clock.start();
    const qint64 milliseconds = qEnvironmentVariableIntValue("DEVICE_SERVE_SECONDS") * 1000LL;
    int events = 0;
    qint64 lastId = 0;
    for (; events < 8 || clock.elapsed() < milliseconds; ++events) {
        const qint64 now = lastIdIn(watcher.next().at(0).toObject());
        ASSERT_GT(now, lastId);
        lastId = now;
        const QByteArray rows = get("/api/rows?table=0/T1&order=recorded&offset=0&limit=1").body;
        EXPECT_TRUE(rows.contains("\"done\"")) << rows.constData();
        const QByteArray trend = get("/api/trend?table=0/T1&from=1714978800000&to=1715978799000&columns=500").body;
        EXPECT_TRUE(trend.contains("\"done\"")) << trend.left(300).constData();
    }
    device.stop();
    EXPECT_EQ(device.failures(), 0);
    while (lastId < WritingDevice::batchRows * device.batches())
        lastId = lastIdIn(watcher.next().at(0).toObject());
    EXPECT_EQ(lastId, WritingDevice::batchRows * device.batches()) << "each row was seen";
    std::cout << GetParam() << ": " << device.batches() << " batches, " << events << " events, " << device.failures()
              << " failed commits\n";
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(valueOf(path("a.db"_q), "pragma integrity_check"_q), "ok"_q);
}

INSTANTIATE_TEST_SUITE_P(Serve, ServeLive, ::testing::Values("wal", "delete", "truncate"));

TEST_F(Serve, HostileFilesRunNothing)
{
    make("a.db"_q, samples + rowsOf(3) +
                       "create view \"device series\" as select 'T1' COLLECTOR,'x' UNIT,'y' DESCRIPTION;"
                       "create view tb_config as select 1 ID,'T1' COLLECTOR,'name' NAME;"
                       "create table \"T\"\"'<script>\"(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,"
                       "Value text);insert into \"T\"\"'<script>\" values(1,'2024-05-06 07:08:09','</script>');"
                       "create virtual table V using fts5(DATETIME)"_q);
    serve({"a.db"_q});
    EXPECT_TRUE(get("/api/tables").body.contains("\"title\":\"T1\",\"unit\":\"\""));
    const HttpReply rows = get("/api/rows?table=0/T%22%27%3Cscript%3E&order=recorded&offset=0&limit=10");
    EXPECT_TRUE(rows.body.contains("\"</script>\""));
    EXPECT_EQ(rows.header("Content-Type"), "application/x-ndjson");
    EXPECT_TRUE(rows.header("Content-Security-Policy").startsWith("default-src 'none'"));
}

} // namespace
