// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_SERVER_H
#define DEVICE_DB_SERVER_H

#include "serve/access.h"
#include "serve/answers.h"
#include "serve/connection.h"
#include "serve/turns.h"

#include <QTcpServer>
#include <QTimer>

#include <list>

namespace device_db
{

/// Serves the viewer and its questions about some files over HTTP, in one thread: what takes long is done in slices,
/// one for each question in turn. Needs an event loop.
class Server
{
public:
    static constexpr size_t mostConnections = 1000;

    /// Listens from here on; port 0: a free one. An Error if it cannot.
    static Result<std::unique_ptr<Server>> listen(std::unique_ptr<ServedFiles> files, const QHostAddress &address,
                                                  quint16 port);

    /// What to open in a browser, with the token.
    QByteArray url() const;

private:
    struct Client {
        explicit Client(std::unique_ptr<QTcpSocket> socket) : connection(std::move(socket)) {}

        Connection connection;
        std::unique_ptr<Work> work;
        bool isWatching = false;
    };
    using Clients = std::list<Client>;

    Server(std::unique_ptr<ServedFiles> files, std::unique_ptr<QTcpServer> listener);

    void accept();
    void makeRoom();
    void handle(Client &client, const HttpRequest &request);
    void route(Client &client, const HttpRequest &request);
    void ask(Client &client, const QByteArray &question, const HttpRequest &request);
    void watch(Client &client);
    void work();
    void lookAtFiles();
    void lookAtClients();

    std::unique_ptr<ServedFiles> m_files;
    std::unique_ptr<QTcpServer> m_listener;
    QByteArray m_token;
    Access m_access;
    QByteArray m_page;
    Clients m_clients;
    Turns<Client> m_turns; ///< Of those whose questions are worked on.
    QTimer m_worker;
    QTimer m_watch;
    QTimer m_clock;
    std::chrono::steady_clock::time_point m_nextHeartbeat;
};

} // namespace device_db

#endif
