// SPDX-License-Identifier: MIT
#include "serve/server.h"

#include "serve/page.h"

#include <QCryptographicHash>

#include <algorithm>

namespace device_db
{

namespace
{

using namespace std::chrono_literals;

constexpr auto slice = 4ms;
constexpr auto lookEvery = 250ms;
constexpr auto heartbeatEvery = 15s;    // a page that hears nothing for much longer connects anew
constexpr qint64 mostWaiting = 1 << 20; // bytes that a client has not taken: it gets nothing more that can be left out

const QByteArray plainText("text/plain; charset=utf-8");
const QByteArray htmlText("text/html; charset=utf-8");
const QByteArray jsonText("application/json");

// Nothing but the page has scripts; the page has a policy of its own, by which each of its scripts is known.
const QList<QByteArray> nothingAllowed{
    "Content-Security-Policy: default-src 'none'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'"};
const QList<QByteArray> pageAllowed{"Content-Security-Policy: connect-src 'self'; object-src 'none'; frame-ancestors "
                                    "'none'; base-uri 'none'; form-action 'none'"};

// Leads to the page, with the view that the address has after its '#'.
const QByteArray leadToPage("location.replace('/' + location.hash)");

HttpAnswer refusal(int status, const QByteArray &words)
{
    return {status, plainText, words + '\n', nothingAllowed};
}

HttpAnswer json(int status, const QByteArray &body)
{
    return {status, jsonText, body, nothingAllowed};
}

QByteArray errorLine(const Error &error)
{
    return Json().beginObject().key("error").text(oneLine(error)).endObject().written();
}

// Gives the cookie and leads to the page from one of ours. A redirect would not do: when a link of another site began
// it, a browser sends no strict cookie with it.
HttpAnswer welcome(const QByteArray &cookie)
{
    const QByteArray hash = QCryptographicHash::hash(leadToPage, QCryptographicHash::Sha256).toBase64();
    return {200,
            htmlText,
            "<!doctype html><title>Device records</title><script>" + leadToPage + "</script>\n",
            {nothingAllowed.first() + "; script-src 'sha256-" + hash + "'", "Set-Cookie: " + cookie}};
}

// The page in the file asks nobody; the one that is served asks its server.
QByteArray servedPage()
{
    QByteArray page = viewerPage();
    return page.replace("connect-src 'none'", "connect-src 'self'");
}

} // namespace

Result<std::unique_ptr<Server>> Server::listen(std::unique_ptr<ServedFiles> files, const QHostAddress &address,
                                               quint16 port)
{
    auto listener = std::make_unique<QTcpServer>();
    listener->setMaxPendingConnections(int(mostConnections));
    if (!listener->listen(address, port))
        return failure(QStringLiteral("%1, port %2").arg(address.toString()).arg(port),
                       listener->errorString() + QStringLiteral("; name another with --listen or --port"));
    return std::unique_ptr<Server>(new Server(std::move(files), std::move(listener)));
}

Server::Server(std::unique_ptr<ServedFiles> files, std::unique_ptr<QTcpServer> listener)
    : m_files(std::move(files)),
      m_listener(std::move(listener)),
      m_token(randomToken()),
      m_access(m_token),
      m_page(servedPage())
{
    QObject::connect(m_listener.get(), &QTcpServer::newConnection, m_listener.get(), [this] { accept(); });
    QObject::connect(&m_worker, &QTimer::timeout, &m_worker, [this] { work(); });
    QObject::connect(&m_watch, &QTimer::timeout, &m_watch, [this] { lookAtFiles(); });
    QObject::connect(&m_clock, &QTimer::timeout, &m_clock, [this] { lookAtClients(); });
    m_watch.start(lookEvery);
    m_clock.start(1s);
}

QByteArray Server::url() const
{
    const QHostAddress address = m_listener->serverAddress();
    const bool isAny =
        address == QHostAddress::AnyIPv4 || address == QHostAddress::AnyIPv6 || address == QHostAddress::Any;
    QByteArray host = isAny ? QByteArray("localhost") : address.toString().toLatin1();
    if (host.contains(':'))
        host = '[' + host + ']';
    return "http://" + host + ':' + QByteArray::number(m_listener->serverPort()) + "/?token=" + m_token;
}

void Server::accept()
{
    while (QTcpSocket *const next = m_listener->nextPendingConnection()) {
        std::unique_ptr<QTcpSocket> socket(next);
        socket->setParent(nullptr);
        if (m_clients.size() >= mostConnections)
            makeRoom();
        if (m_clients.size() >= mostConnections)
            continue; // all of them are being answered
        const auto place = m_clients.emplace(m_clients.end(), std::move(socket));
        place->connection.onRequest([this, place](const HttpRequest &request) { handle(*place, request); });
    }
}

// Somebody who only holds connections open does not keep others out: the one that has been quiet for longest goes.
void Server::makeRoom()
{
    lookAtClients();
    auto quietest = m_clients.end();
    for (auto client = m_clients.begin(); client != m_clients.end(); ++client) {
        if (!client->connection.isBusy() &&
            (quietest == m_clients.end() || client->connection.quietSince() < quietest->connection.quietSince()))
            quietest = client;
    }
    if (quietest != m_clients.end())
        m_clients.erase(quietest);
}

void Server::handle(Client &client, const HttpRequest &request)
{
    Connection &connection = client.connection;
    switch (m_access.judge(request, connection.localAddress())) {
    case Access::Verdict::Allowed:
        return route(client, request);
    case Access::Verdict::GiveCookie:
        return connection.answer(welcome(m_access.cookie(request)));
    case Access::Verdict::WrongMethod:
        return connection.answer(
            {405, plainText, "Only GET is answered here.\n", nothingAllowed + QList<QByteArray>{"Allow: GET"}});
    case Access::Verdict::WrongHost:
        return connection.answer(refusal(421, "This server is not known by that name. Open the address that "
                                              "device-db printed."));
    case Access::Verdict::WrongOrigin:
        return connection.answer(refusal(403, "A page of another site may not ask here."));
    case Access::Verdict::NoToken:
        return connection.answer(refusal(403, "Open the address that device-db printed when it was started: it has "
                                              "the token that is missing here."));
    }
}

void Server::route(Client &client, const HttpRequest &request)
{
    Connection &connection = client.connection;
    const bool isBare = request.query.isEmpty();
    if (request.path == "/" && isBare)
        return connection.answer(m_page.isEmpty() ? refusal(503, noPage)
                                                  : HttpAnswer{200, htmlText, m_page, pageAllowed});
    if (request.path == "/api/open" && isBare)
        return connection.answer(json(200, m_files->open()));
    if (request.path == "/api/tables" && isBare)
        return connection.answer(json(200, m_files->tables()));
    if (request.path == "/api/changes" && isBare)
        return watch(client);
    for (const char *question : {"overview", "trend", "rows"}) {
        if (request.path == QByteArray("/api/") + question)
            return ask(client, question, request);
    }
    connection.answer(refusal(404, "There is nothing here."));
}

void Server::ask(Client &client, const QByteArray &question, const HttpRequest &request)
{
    const auto parameters = pairsOf(request.query);
    auto work = parameters ? workFor(*m_files, question, *parameters)
                           : failure(QString::fromLatin1(question), QStringLiteral("this is not a query"));
    if (!work)
        return client.connection.answer(json(400, errorLine(work.error())));
    client.work = std::move(work).value();
    client.connection.begin({200, "application/x-ndjson", QByteArray(), nothingAllowed});
    m_turns.begin(&client);
    m_worker.start(0);
}

void Server::watch(Client &client)
{
    client.isWatching = true;
    client.connection.begin({200, "text/event-stream", QByteArray(), nothingAllowed});
    client.connection.send("retry: 2000\ndata: " + m_files->state() + "\n\n");
}

void Server::work()
{
    if (m_turns.isEmpty()) {
        m_worker.stop();
        return;
    }
    Client &client = *m_turns.take();
    Connection &connection = client.connection;
    if (connection.isClosed()) {
        client.work.reset();
        return;
    }
    const auto seen = [&](const QByteArray &part) {
        if (connection.waiting() < mostWaiting)
            connection.send("{\"part\":" + part + "}\n");
    };
    const SliceEnd end = std::chrono::steady_clock::now() + slice;
    Result<QByteArray> done = QByteArray();
    do
        done = client.work->run(end, seen);
    while (done && done->isEmpty() && std::chrono::steady_clock::now() < end);
    if (done && done->isEmpty()) {
        m_turns.goOn(&client);
        return;
    }
    connection.send(done ? "{\"done\":" + *done + "}\n" : errorLine(done.error()) + '\n');
    client.work.reset();
    connection.end();
}

void Server::lookAtFiles()
{
    const QByteArray change = m_files->look();
    const auto now = std::chrono::steady_clock::now();
    const bool isHeartbeat = now >= m_nextHeartbeat;
    if (isHeartbeat)
        m_nextHeartbeat = now + heartbeatEvery;
    if (change.isEmpty() && !isHeartbeat)
        return;
    // A page does not get to see a comment.
    const QByteArray event = "data: " + (change.isEmpty() ? QByteArray("{\"files\":[]}") : change) + "\n\n";
    for (Client &client : m_clients) {
        if (!client.isWatching || client.connection.isClosed())
            continue;
        if (client.connection.waiting() < mostWaiting)
            client.connection.send(event);
        else
            client.connection.close(); // it begins anew with all of it when it takes something again
    }
}

void Server::lookAtClients()
{
    const auto now = Connection::Clock::now();
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        client->connection.lookAtClock(now);
        if (client->connection.isClosed()) {
            m_turns.remove(&*client);
            client = m_clients.erase(client);
        } else {
            ++client;
        }
    }
}

} // namespace device_db
