// SPDX-License-Identifier: MIT
#ifndef DEVICE_ONE_MOMENT_H
#define DEVICE_ONE_MOMENT_H

#include "sql_channel.h"

namespace device
{

/// What is read while it lives is of one moment; within another one it does nothing. Locks nothing until something is
/// read.
class OneMoment
{
public:
    OneMoment(SqlChannel &connection, const Site &site) : m_connection(connection), m_site(site) { begin(); }
    ~OneMoment() { end(); }

    void renew()
    {
        end();
        begin();
    }

private:
    Q_DISABLE_COPY(OneMoment)

    void begin() { m_begun = m_connection.run(m_site, QStringLiteral("begin")).ok(); }
    void end()
    {
        if (m_begun)
            (void)m_connection.run(m_site, QStringLiteral("rollback"));
    }

    SqlChannel &m_connection;
    const Site m_site;
    bool m_begun = false;
};

} // namespace device

#endif
