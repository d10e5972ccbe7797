// SPDX-License-Identifier: MIT
#pragma once

#include "serve/page.h"
#include "tool_test.h"

#include <QRegularExpression>
#include <QTcpSocket>

/// What came back; status 0: the connection was closed without an answer.
struct HttpReply {
    int status = 0;
    QByteArray head;
    QByteArray body; ///< Its parts put together.

    QByteArray header(const QByteArray &name) const
    {
        for (const QByteArray &line : head.split('\n')) {
            if (line.toLower().startsWith(name.toLower() + ':'))
                return line.mid(name.size() + 1).trimmed();
        }
        return QByteArray();
    }
};

/// A connection to the server, without an event loop.
class HttpClient
{
public:
    explicit HttpClient(quint16 port)
    {
        m_socket.connectToHost("127.0.0.1"_q, port);
        EXPECT_TRUE(m_socket.waitForConnected(30000)) << qPrintable(m_socket.errorString());
    }

    void send(const QByteArray &bytes)
    {
        m_socket.write(bytes);
        while (m_socket.bytesToWrite() > 0 && m_socket.waitForBytesWritten(30000)) {
        }
    }
    /// The next line without its end; null at the end of the connection.
    QByteArray line()
    {
        while (!m_socket.canReadLine()) {
            if (!m_socket.waitForReadyRead(60000))
                return QByteArray();
        }
        return m_socket.readLine().chopped(1);
    }
    HttpReply head()
    {
        HttpReply reply;
        for (QByteArray next = line(); !next.isNull() && next != "\r"; next = line())
            reply.head += next + '\n';
        reply.status = reply.head.mid(9, 3).toInt();
        return reply;
    }
    /// A part of an answer that comes in parts; null after the last.
    QByteArray part()
    {
        const auto size = line().trimmed().toLongLong(nullptr, 16);
        const QByteArray bytes = this->bytes(size);
        this->bytes(2);
        return size > 0 ? bytes : QByteArray();
    }
    HttpReply reply()
    {
        HttpReply reply = head();
        if (reply.header("Transfer-Encoding") == "chunked") {
            for (QByteArray next = part(); !next.isNull(); next = part())
                reply.body += next;
        } else {
            reply.body = bytes(reply.header("Content-Length").toLongLong());
        }
        return reply;
    }
    bool isClosedByServer()
    {
        return m_socket.state() == QAbstractSocket::UnconnectedState || m_socket.waitForDisconnected(60000);
    }

private:
    QByteArray bytes(qint64 size)
    {
        while (m_socket.bytesAvailable() < size && m_socket.waitForReadyRead(60000)) {
        }
        return m_socket.read(size);
    }

    QTcpSocket m_socket;
};

/// Runs "device-db serve" over files of its folder.
class ServedTool : public ToolTest
{
protected:
    void SetUp() override
    {
        if (device_db::viewerPage().isEmpty())
            GTEST_SKIP() << device_db::noPage;
    }
    ~ServedTool() override { stop(); }

    /// What it said until its address was there.
    QByteArray serve(const QStringList &files)
    {
        start(m_process, QStringList{"serve"_q} + files);
        QByteArray said;
        while (!said.contains("Ctrl-C") && m_process.waitForReadyRead(60000))
            said += m_process.readAllStandardError() + m_process.readAllStandardOutput();
        const auto url = QRegularExpression("http://127\\.0\\.0\\.1:(\\d+)/\\?token=([0-9a-f]{32})"_q)
                             .match(QString::fromUtf8(said));
        EXPECT_TRUE(url.hasMatch()) << said.constData();
        m_port = url.captured(1).toUShort();
        m_token = url.captured(2).toLatin1();
        return said;
    }
    /// As by Ctrl-C; the exit code.
    int stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return m_process.exitCode();
        m_process.terminate();
        EXPECT_TRUE(m_process.waitForFinished(60000));
        return m_process.exitCode();
    }

    quint16 port() const { return m_port; }
    QByteArray token() const { return m_token; }
    QByteArray cookie() const { return "Cookie: device_db_" + QByteArray::number(m_port) + '=' + m_token + "\r\n"; }
    QByteArray host() const { return "Host: localhost:" + QByteArray::number(m_port) + "\r\n"; }
    QByteArray request(const QByteArray &target) const
    {
        return "GET " + target + " HTTP/1.1\r\n" + host() + cookie() + "\r\n";
    }
    HttpReply exchange(const QByteArray &bytes) const
    {
        HttpClient client(m_port);
        client.send(bytes);
        return client.reply();
    }
    HttpReply get(const QByteArray &target) const { return exchange(request(target)); }

private:
    QProcess m_process;
    quint16 m_port = 0;
    QByteArray m_token;
};
