// SPDX-License-Identifier: MIT
#include "serve/access.h"

#include <QRandomGenerator>

#include <array>

namespace device_db
{

namespace
{

// Takes the same time wherever the difference is.
bool isSame(const QByteArray &given, const QByteArray &token)
{
    if (given.size() != token.size())
        return false;
    unsigned difference = 0;
    for (int i = 0; i < token.size(); ++i)
        difference |= unsigned(static_cast<unsigned char>(given.at(i)) ^ static_cast<unsigned char>(token.at(i)));
    return difference == 0;
}

struct Host {
    QByteArray name;
    quint16 port;
};

// What the browser has for an address: at the near end of "ssh -L" the port is not the server's. Without a name if it
// makes no sense.
Host hostIn(const QByteArray &text)
{
    constexpr quint16 usualPort = 80;
    const auto end = text.startsWith('[') ? text.indexOf(']') + 1 : std::max<int>(0, int(text.indexOf(':')));
    const QByteArray port = end > 0 ? text.mid(end) : QByteArray();
    if (port.isEmpty())
        return {end > 0 ? text.left(end) : text, usualPort};
    bool isNumber = false;
    const quint16 number = port.mid(1).toUShort(&isNumber);
    const bool isPort = port.startsWith(':') && isNumber && number > 0;
    return {isPort ? text.left(end) : QByteArray(), number};
}

QByteArray cookieNameFor(const HttpRequest &request)
{
    return "device_db_" + QByteArray::number(hostIn(request.host).port);
}

// A name of the domain system could be anybody's.
bool isOurs(const QByteArray &host, const QHostAddress &local)
{
    const QByteArray name = hostIn(host).name.toLower();
    if (name == "localhost" || name == "127.0.0.1" || name == "[::1]")
        return true;
    const QString given = QString::fromLatin1(name.startsWith('[') ? name.mid(1, name.size() - 2) : name);
    QHostAddress address;
    return address.setAddress(given) && address.isEqual(local, QHostAddress::TolerantConversion);
}

} // namespace

Access::Verdict Access::judge(const HttpRequest &request, const QHostAddress &local) const
{
    if (!isOurs(request.host, local))
        return Verdict::WrongHost;
    if (!request.origin.isNull() && request.origin != "http://" + request.host)
        return Verdict::WrongOrigin;
    if (request.method != "GET")
        return Verdict::WrongMethod;
    if (request.path == "/" && request.query.startsWith("token=") && isSame(request.query.mid(6), m_token))
        return Verdict::GiveCookie;
    return isSame(request.cookieNamed(cookieNameFor(request)), m_token) ? Verdict::Allowed : Verdict::NoToken;
}

QByteArray Access::cookie(const HttpRequest &request) const
{
    return cookieNameFor(request) + '=' + m_token + "; Path=/; HttpOnly; SameSite=Strict";
}

QByteArray randomToken()
{
    std::array<quint32, 4> bits{};
    QRandomGenerator::system()->fillRange(bits.data(), qsizetype(bits.size()));
    return QByteArray(reinterpret_cast<const char *>(bits.data()), int(sizeof bits)).toHex();
}

} // namespace device_db
