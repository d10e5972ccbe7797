// SPDX-License-Identifier: MIT
#include "waker.h"

#include <QFile>
#include <QFileInfo>

#include <utility>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace device_ship
{

Waker::Waker(const QStringList &paths) : m_paths(paths), m_inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    watch();
}

void Waker::watch()
{
    m_watches = m_inotify.isOpen();
    QMultiHash<QByteArray, QString> names;
    for (const QString &path : m_paths) {
        // SQLite keeps its files beside the one that a link leads to.
        const QFileInfo info(path);
        const QFileInfo file(info.exists() ? info.canonicalFilePath() : info.absoluteFilePath());
        for (const char *ending : {"", "-wal", "-journal"})
            names.insert(QFile::encodeName(file.fileName()) + ending, path);
        m_watches &=
            inotify_add_watch(m_inotify.number(), QFile::encodeName(file.absolutePath()).constData(),
                              IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVE_SELF | IN_ONLYDIR) >= 0;
    }
    m_names = names;
}

bool Waker::wasWritten()
{
    alignas(inotify_event) char events[4096];
    bool any = false;
    for (;;) {
        const ssize_t size = read(m_inotify.number(), events, sizeof events);
        if (size <= 0)
            return any;
        for (ssize_t at = 0; at < size;) {
            const auto *const event = reinterpret_cast<const inotify_event *>(events + at);
            at += ssize_t(sizeof(inotify_event) + event->len);
            if (event->mask & (IN_IGNORED | IN_MOVE_SELF)) // the folder is gone, and may be made again
                m_watches = false;
            // Without a name, events were lost, or a folder.
            const QStringList paths(event->len == 0 ? m_paths : QStringList(m_names.values(QByteArray(event->name))));
            for (const QString &path : paths)
                m_written.insert(path);
            any |= !paths.isEmpty();
        }
    }
}

QStringList Waker::written()
{
    wasWritten();
    const QSet<QString> written = std::exchange(m_written, {});
    return m_watches ? QStringList(written.values()) : m_paths;
}

bool Waker::wait(std::chrono::milliseconds longest)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + longest;
    if (!m_watches)
        watch();
    for (;;) {
        if (wasWritten())
            return true;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd poll{m_inotify.number(), POLLIN, 0};
        constexpr std::chrono::milliseconds blind(250);
        const auto wait = m_watches ? left : std::min(left, blind);
        if (::poll(&poll, 1, int(wait.count())) == 0 && !m_watches)
            return true;
    }
}

} // namespace device_ship
