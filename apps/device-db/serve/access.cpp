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

// The Host without its port, which is another one at the near end of "ssh -L".
QByteArray nameIn(const QByteArray &host)
{
    const auto end = host.startsWith('[') ? host.indexOf(']') + 1 : std::max<int>(0, int(host.indexOf(':')));
    const QByteArray port = end > 0 ? host.mid(end) : QByteArray();
    bool isNumber = false;
    if (!port.isEmpty() && (!port.startsWith(':') || port.mid(1).toUShort(&isNumber) == 0 || !isNumber))
        return QByteArray();
    return end > 0 ? host.left(end) : host;
}

// A name of the domain system could be anybody's.
bool isOurs(const QByteArray &host, const QHostAddress &local)
{
    const QByteArray name = nameIn(host).toLower();
    if (name == "localhost" || name == "127.0.0.1" || name == "[::1]")
        return true;
    const QString given = QString::fromLatin1(name.startsWith('[') ? name.mid(1, name.size() - 2) : name);
    QHostAddress address;
    return address.setAddress(given) && address.isEqual(local, QHostAddress::TolerantConversion);
}

} // namespace

Access::Access(QByteArray token, quint16 port)
    : m_token(std::move(token)), m_cookieName("device_db_" + QByteArray::number(port))
{
}

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
    return isSame(request.cookieNamed(m_cookieName), m_token) ? Verdict::Allowed : Verdict::NoToken;
}

QByteArray Access::cookie() const
{
    return m_cookieName + '=' + m_token + "; Path=/; HttpOnly; SameSite=Strict";
}

QByteArray randomToken()
{
    std::array<quint32, 4> bits{};
    QRandomGenerator::system()->fillRange(bits.data(), qsizetype(bits.size()));
    return QByteArray(reinterpret_cast<const char *>(bits.data()), int(sizeof bits)).toHex();
}

} // namespace device_db
