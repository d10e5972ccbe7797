// SPDX-License-Identifier: MIT
#include "serve/http_request.h"

#include <algorithm>
#include <cstring>

namespace device_db
{

namespace
{

constexpr int mostHeaders = 64;

bool isToken(const QByteArray &text)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c));
    });
}

bool isVisible(char c)
{
    return c > 0x20 && c < 0x7f;
}

bool isTarget(const QByteArray &text)
{
    return text.startsWith('/') && !text.contains('#') && std::all_of(text.begin(), text.end(), isVisible);
}

bool isFieldValue(const QByteArray &text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return isVisible(c) || c == ' ' || c == '\t'; });
}

// Null for what is not in the form that a browser sends.
QByteArray decoded(const QByteArray &text)
{
    const auto isHex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) == '%' && (i + 2 >= text.size() || !isHex(text.at(i + 1)) || !isHex(text.at(i + 2))))
            return QByteArray();
    }
    const QByteArray bytes = QByteArray::fromPercentEncoding(text);
    const bool isText = !bytes.contains('\0') && QString::fromUtf8(bytes).toUtf8() == bytes;
    return !isText ? QByteArray() : bytes.isNull() ? QByteArray("") : bytes;
}

} // namespace

QByteArray HttpRequest::cookieNamed(const QByteArray &name) const
{
    for (const QByteArray &each : cookie.split(';')) {
        const QByteArray pair = each.trimmed();
        if (pair.startsWith(name + '='))
            return pair.mid(name.size() + 1);
    }
    return QByteArray();
}

std::optional<QList<QPair<QByteArray, QByteArray>>> pairsOf(const QByteArray &query)
{
    QList<QPair<QByteArray, QByteArray>> pairs;
    if (query.isEmpty())
        return pairs;
    for (const QByteArray &each : query.split('&')) {
        const auto equals = each.indexOf('=');
        const QByteArray name = decoded(each.left(equals));
        const QByteArray value = decoded(each.mid(equals + 1));
        if (equals < 0 || name.isEmpty() || value.isNull())
            return std::nullopt;
        pairs.append({name, value});
    }
    return pairs;
}

std::optional<HttpRequest> HttpParser::refused(int status)
{
    m_refusal = status;
    m_bytes.clear();
    return std::nullopt;
}

std::optional<HttpRequest> HttpParser::next()
{
    if (m_refusal != 0) {
        m_bytes.clear();
        return std::nullopt;
    }
    // What begins with another protocol's bytes never gets an end.
    if (!m_bytes.isEmpty() && !(m_bytes.at(0) >= 'A' && m_bytes.at(0) <= 'Z'))
        return refused(400);
    const auto end = m_bytes.indexOf("\r\n\r\n", std::max(0, m_searched - 3));
    m_searched = int(m_bytes.size());
    if (end > longestHead - 4 || (end < 0 && m_bytes.size() >= longestHead))
        return refused(m_bytes.left(longestHead).contains('\n') ? 431 : 414);
    if (end < 0)
        return std::nullopt;
    const QByteArray head = m_bytes.left(end);
    m_bytes.remove(0, end + 4);
    m_searched = 0;
    return parsed(head);
}

std::optional<HttpRequest> HttpParser::parsed(const QByteArray &head)
{
    QList<QByteArray> lines = head.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        if (i + 1 < lines.size() && !lines.at(i).endsWith('\r'))
            return refused(400);
        if (i + 1 < lines.size())
            lines[i].chop(1);
        if (!isFieldValue(lines.at(i)))
            return refused(400);
    }
    if (lines.size() - 1 > mostHeaders)
        return refused(431);

    const QList<QByteArray> words = lines.takeFirst().split(' ');
    if (words.size() != 3 || !isToken(words.at(0)) || !isTarget(words.at(1)))
        return refused(400);
    if (words.at(2) != "HTTP/1.1")
        return refused(words.at(2).startsWith("HTTP/") ? 505 : 400);
    HttpRequest request;
    request.method = words.at(0);
    const auto mark = words.at(1).indexOf('?');
    request.path = mark < 0 ? words.at(1) : words.at(1).left(mark);
    request.query = mark < 0 ? QByteArray() : words.at(1).mid(mark + 1);

    for (const QByteArray &line : lines) {
        const auto colon = line.indexOf(':');
        if (colon < 0 || !isToken(line.left(colon)))
            return refused(400);
        const QByteArray name = line.left(colon).toLower();
        const QByteArray value = line.mid(colon + 1).trimmed();
        QByteArray *const kept = name == "host"     ? &request.host
                                 : name == "origin" ? &request.origin
                                 : name == "cookie" ? &request.cookie
                                                    : nullptr;
        if (kept && !kept->isNull())
            return refused(400); // which one is meant?
        if (kept)
            *kept = value.isNull() ? QByteArray("") : value;
        if (name == "content-length" || name == "transfer-encoding")
            return refused(413);
        if (name == "connection" && value.toLower() == "close")
            request.keepAlive = false;
    }
    if (request.host.isEmpty())
        return refused(400);
    return request;
}

} // namespace device_db
