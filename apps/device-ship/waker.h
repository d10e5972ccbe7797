// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_WAKER_H
#define DEVICE_SHIP_WAKER_H

#include "storefile/watched_file.h"

#include <QMultiHash>
#include <QSet>
#include <QStringList>

#include <chrono>

namespace device_ship
{

/// Notices that somebody writes into files, or into the journals and logs beside them.
class Waker
{
public:
    /// Files that do not exist yet count as soon as their folder does.
    explicit Waker(const QStringList &paths);

    /// Waits until one of them was written, or for this long. True if one was; where the system cannot say, it may
    /// have been after a quarter of a second.
    bool wait(std::chrono::milliseconds longest);
    /// Those that were written since the last call; all where the system cannot say.
    QStringList written();

private:
    bool wasWritten();
    void watch();

    const QStringList m_paths;
    const device_db::Descriptor m_inotify;
    QMultiHash<QByteArray, QString> m_names; ///< Of the files, and of what is beside them; the paths they belong to.
    QSet<QString> m_written;
    bool m_watches = false; ///< All of their folders.
};

} // namespace device_ship

#endif
