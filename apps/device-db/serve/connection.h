// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_CONNECTION_H
#define DEVICE_DB_CONNECTION_H

#include "serve/http_request.h"

#include <QHostAddress>
#include <QTcpSocket>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>

namespace device_db
{

struct HttpAnswer {
    int status = 200;
    QByteArray type;
    QByteArray body;
    QList<QByteArray> headers; ///< "Name: value"
};

/// A client: one request after the other. The next one is read when the system has taken all of the answer, so a client
/// that sends and does not read costs one answer, whatever it sends.
class Connection
{
public:
    using Clock = std::chrono::steady_clock;
    using Handler = std::function<void(const HttpRequest &)>;

    explicit Connection(std::unique_ptr<QTcpSocket> socket);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    /// Who answers, at once or later; call it once.
    void onRequest(Handler handler);
    /// The whole answer; without its body if HEAD was asked.
    void answer(const HttpAnswer &answer);
    /// An answer in parts: begin(), any number of send(), end().
    void begin(const HttpAnswer &head);
    void send(const QByteArray &part);
    void end();

    bool isClosed() const { return m_isClosed; }
    /// An answer is under way.
    bool isBusy() const { return m_isBusy; }
    /// Bytes that the client has not taken yet.
    qint64 waiting() const;
    QHostAddress localAddress() const { return m_socket->localAddress(); }
    /// Since when the client has taken nothing and, where nothing waits for it, sent nothing.
    Clock::time_point quietSince() const { return m_quietSince; }
    /// Ends it if it has been slow for too long.
    void lookAtClock(Clock::time_point now);
    void close();

private:
    void read();
    void readLater();
    void write(const QByteArray &bytes);
    void pump();
    QByteArray headOf(const HttpAnswer &answer, const QByteArray &framing);

    std::unique_ptr<QTcpSocket> m_socket;
    Handler m_onRequest;
    HttpParser m_parser;
    std::deque<QByteArray> m_out;
    qint64 m_taken = 0; ///< Of the first of them.
    bool m_isBusy = false;
    bool m_isClosed = false;
    bool m_closesAfter = false; ///< What is under way.
    bool m_wantsBody = true;    ///< What is asked is not HEAD.
    Clock::time_point m_quietSince = Clock::now();
    Clock::time_point m_requestBegan; ///< The one that is not there in full.
};

} // namespace device_db

#endif
