// SPDX-License-Identifier: MIT
#include "commands/interruption.h"

#include <sqlite3.h>

#include <atomic>
#include <csignal>

namespace device_db
{

namespace
{

std::atomic_bool interrupted{false}; // lock-free: set in a signal handler

} // namespace

Interruption::Interruption()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        if (std::signal(signal, [](int) { interrupted = true; }) == SIG_IGN)
            std::signal(signal, SIG_IGN); // nohup
    }
}

Interruption::Interruption(const Database &database) : Interruption()
{
    // Not sqlite3_interrupt() from the handler: it does nothing when it comes just before the statement begins.
    m_connection = database.handle();
    sqlite3_progress_handler(
        m_connection, 1000, [](void *) { return interrupted ? 1 : 0; }, nullptr);
}

Interruption::~Interruption()
{
    if (m_connection)
        sqlite3_progress_handler(m_connection, 0, nullptr, nullptr);
}

bool Interruption::came()
{
    return interrupted;
}

} // namespace device_db
