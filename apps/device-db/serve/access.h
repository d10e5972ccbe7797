// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_ACCESS_H
#define DEVICE_DB_ACCESS_H

#include "serve/http_request.h"

#include <QHostAddress>

namespace device_db
{

/// Who may ask. The address that the program prints has a token; who opens it gets the token as a cookie, which
/// everything else needs. No page of another site can use it: neither by the cookie (strict), nor by a name of its own
/// that leads here (Host), nor from its own place (Origin).
class Access
{
public:
    explicit Access(QByteArray token) : m_token(std::move(token)) {}

    enum class Verdict {
        Allowed,
        GiveCookie, ///< The token was in the address: answer with cookie() and a page that leads to "/".
        WrongMethod,
        WrongHost,
        WrongOrigin,
        NoToken
    };
    /// `local`: where the client has connected to.
    Verdict judge(const HttpRequest &request, const QHostAddress &local) const;

    /// The value of Set-Cookie. Its name has the port of the address that the browser shows: a browser keeps one set of
    /// cookies for all ports of a name, and two devices behind "ssh -L" may serve at the same port.
    QByteArray cookie(const HttpRequest &request) const;

private:
    QByteArray m_token;
};

/// 128 random bits in hexadecimal digits.
QByteArray randomToken();

} // namespace device_db

#endif
