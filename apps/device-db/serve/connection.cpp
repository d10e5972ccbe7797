// SPDX-License-Identifier: MIT
#include "serve/connection.h"

namespace device_db
{

namespace
{

using namespace std::chrono_literals;

constexpr auto longestRequest = 10s; // from its first byte to its last
constexpr auto longestPause = 60s;   // between two requests
constexpr auto slowestClient = 30s;  // that takes nothing of an answer
constexpr qint64 socketBuffer = 64 * 1024;

const char *reasonOf(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 408:
        return "Request Timeout";
    case 413:
        return "Content Too Large";
    case 414:
        return "URI Too Long";
    case 421:
        return "Misdirected Request";
    case 431:
        return "Request Header Fields Too Large";
    case 503:
        return "Service Unavailable";
    case 505:
        return "HTTP Version Not Supported";
    default:
        return "Error";
    }
}

} // namespace

Connection::Connection(std::unique_ptr<QTcpSocket> socket) : m_socket(std::move(socket))
{
    m_socket->setReadBufferSize(HttpParser::longestHead);
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    QObject::connect(m_socket.get(), &QTcpSocket::readyRead, m_socket.get(), [this] { read(); });
    QObject::connect(m_socket.get(), &QTcpSocket::bytesWritten, m_socket.get(), [this] {
        m_quietSince = Clock::now();
        m_requestBegan = m_quietSince; // of the next one, if its first bytes are here: it was not read until now
        pump();
        readLater();
    });
    QObject::connect(m_socket.get(), &QTcpSocket::disconnected, m_socket.get(), [this] { m_isClosed = true; });
}

void Connection::onRequest(Handler handler)
{
    m_onRequest = std::move(handler);
    read(); // what came before
}

Connection::~Connection()
{
    m_socket->disconnect();
    m_socket->abort();
}

void Connection::close()
{
    m_isClosed = true;
    m_out.clear();
    m_taken = 0;
    m_socket->disconnect();
    m_socket->abort();
}

qint64 Connection::waiting() const
{
    qint64 bytes = m_socket->bytesToWrite() - m_taken;
    for (const QByteArray &each : m_out)
        bytes += each.size();
    return bytes;
}

void Connection::read()
{
    // Otherwise the next request waits in the socket's buffer and then in the system, both of which are bounded. So is
    // the parser, which gets more bytes only when it has no whole request.
    while (!m_isBusy && !m_isClosed && !m_closesAfter && waiting() == 0) {
        const bool wasWithin = m_parser.isWithinRequest();
        const auto request = m_parser.next();
        m_wantsBody = !request || request->method != "HEAD";
        if (request) {
            m_isBusy = true;
            m_closesAfter = !request->keepAlive;
            m_onRequest(*request);
        } else if (const int status = m_parser.refusal(); status != 0) {
            m_isBusy = true;
            m_closesAfter = true;
            answer({status, "text/plain; charset=utf-8", QByteArray(reasonOf(status)) + '\n', {}});
        } else if (m_socket->bytesAvailable() > 0) {
            m_parser.add(m_socket->readAll());
            m_quietSince = Clock::now();
            if (!wasWithin)
                m_requestBegan = m_quietSince;
        } else {
            return;
        }
    }
}

// Not from within the handler of a request: that one reads on itself.
void Connection::readLater()
{
    QMetaObject::invokeMethod(
        m_socket.get(), [this] { read(); }, Qt::QueuedConnection);
}

QByteArray Connection::headOf(const HttpAnswer &answer, const QByteArray &framing)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(answer.status) + ' ' + reasonOf(answer.status) + "\r\n" +
                      "Content-Type: " + answer.type + "\r\n" + framing +
                      "\r\n"
                      "Cache-Control: no-store\r\n"
                      "X-Content-Type-Options: nosniff\r\n"
                      "Referrer-Policy: no-referrer\r\n"
                      "Cross-Origin-Resource-Policy: same-origin\r\n";
    for (const QByteArray &each : answer.headers)
        head += each + "\r\n";
    if (m_closesAfter)
        head += "Connection: close\r\n";
    return head + "\r\n";
}

void Connection::answer(const HttpAnswer &answer)
{
    write(headOf(answer, "Content-Length: " + QByteArray::number(answer.body.size())));
    if (m_wantsBody)
        write(answer.body);
    m_isBusy = false;
    pump();
}

void Connection::begin(const HttpAnswer &head)
{
    write(headOf(head, "Transfer-Encoding: chunked"));
    pump();
}

void Connection::send(const QByteArray &part)
{
    if (part.isEmpty())
        return; // would end it
    write(QByteArray::number(part.size(), 16) + "\r\n");
    write(part);
    write("\r\n");
    pump();
}

void Connection::end()
{
    write("0\r\n\r\n");
    m_isBusy = false;
    pump();
    readLater();
}

void Connection::write(const QByteArray &bytes)
{
    if (m_isClosed || bytes.isEmpty())
        return;
    if (m_out.empty() && m_socket->bytesToWrite() == 0)
        m_quietSince = Clock::now(); // from now on the client is waited for
    m_out.push_back(bytes);
}

// A part at a time: what is large, such as the page, is in memory once and not once per client. What the system takes
// is given to it at once: each part would wait for somebody else's slice otherwise.
void Connection::pump()
{
    do {
        while (!m_isClosed && !m_out.empty() && m_socket->bytesToWrite() < socketBuffer) {
            const QByteArray &first = m_out.front();
            const qint64 size = std::min<qint64>(first.size() - m_taken, socketBuffer);
            m_socket->write(first.constData() + m_taken, size);
            m_taken += size;
            if (m_taken == first.size()) {
                m_out.pop_front();
                m_taken = 0;
            }
        }
    } while (!m_isClosed && m_socket->flush() && !m_out.empty());
    if (m_out.empty() && !m_isBusy && m_closesAfter && !m_isClosed)
        m_socket->disconnectFromHost();
}

void Connection::lookAtClock(Clock::time_point now)
{
    if (m_isClosed)
        return;
    const bool isWaitedFor = waiting() > 0;
    if (isWaitedFor ? now - m_quietSince > slowestClient
                    : !m_isBusy && (m_parser.isWithinRequest() ? now - m_requestBegan > longestRequest
                                                               : now - m_quietSince > longestPause))
        close();
}

} // namespace device_db
