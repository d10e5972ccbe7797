// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_HTTP_REQUEST_H
#define DEVICE_DB_HTTP_REQUEST_H

#include <QByteArray>
#include <QList>

#include <optional>

namespace device_db
{

/// A request without a body, as far as this server looks at it.
struct HttpRequest {
    QByteArray method;
    QByteArray path;  ///< Still encoded; begins with a slash.
    QByteArray query; ///< After the question mark, still encoded.
    QByteArray host;
    QByteArray origin; ///< Null: none was sent.
    QByteArray cookie;
    bool keepAlive = true;

    /// A cookie's value; null without it.
    QByteArray cookieNamed(const QByteArray &name) const;
};

/// The pairs of a query in their order, decoded. Nothing if it is not a list of NAME=VALUE in UTF-8.
std::optional<QList<QPair<QByteArray, QByteArray>>> pairsOf(const QByteArray &query);

/// Makes requests of what a client sends. Strict: what RFC 9112 lets a server accept out of kindness is refused, and so
/// is a body.
class HttpParser
{
public:
    /// Bytes of the request line and the headers. A browser sends the cookies of all servers of one name, whatever
    /// their ports, so those of others on "localhost" are among them.
    static constexpr int longestHead = 32768;

    void add(const QByteArray &bytes) { m_bytes += bytes; }
    /// The next request; nothing as long as more bytes are needed, and from a refusal on.
    std::optional<HttpRequest> next();
    /// The status that the client gets before its connection is closed; 0: nothing was wrong.
    int refusal() const { return m_refusal; }
    /// Whether a request has begun and is not there in full.
    bool isWithinRequest() const { return !m_bytes.isEmpty(); }

private:
    std::optional<HttpRequest> refused(int status);
    std::optional<HttpRequest> parsed(const QByteArray &head);

    QByteArray m_bytes;
    int m_searched = 0; ///< So far there is no end of a head.
    int m_refusal = 0;
};

} // namespace device_db

#endif
