// SPDX-License-Identifier: MIT
#pragma once

#include "memory_disk.h"

#include <map>
#include <random>

/// What power cuts may leave of the files, by a record of what happened to them. Time only goes forward.
///
/// The model keeps what SQLite's Unix VFS promises and nothing more:
/// - What was written to a file before its last sync is there. Of all that came later, each write and each change of
///   size may be there or not, in any combination: disks and caches reorder.
/// - A write may be torn at the disk's sectors. A sector that was being written may hold anything; what lies beside a
///   write stays as it was (SQLITE_IOCAP_POWERSAFE_OVERWRITE, the default of the Unix VFS).
/// - Where a file has grown and the bytes have not arrived, it holds zeros or anything.
/// - A name that was made or removed since the folder's last sync may be there or not. The folder is synced with the
///   first sync of a journal that was new, and behind a removal for which SQLite asks it (it does so for synchronous
///   EXTRA alone).
class PowerCuts
{
public:
    explicit PowerCuts(std::vector<DiskEvent> events);

    /// The number of moments at which the power may go: when the record began, and after each event.
    int moments() const { return int(m_events.size() - m_start) + 1; }
    /// Lets time pass, up to a moment counted from 0. Never backwards.
    void goTo(int moment);
    /// The number noted last up to now; -1 for none.
    int noted() const { return m_noted; }
    /// The number noted next; the last one when none follows.
    int notedNext() const;

    /// What is left when all that was not synced is gone.
    MemoryDisk::Files onlySynced() const;
    /// What chance leaves.
    MemoryDisk::Files cut(std::mt19937 &random, int sectorSize) const;

private:
    Q_DISABLE_COPY(PowerCuts)
    void play(size_t until);

    std::vector<DiskEvent> m_events;
    size_t m_start = 0; ///< Where the record begins; the files that were there are in front.
    size_t m_now = 0;
    int m_noted = -1;
    std::map<int, QByteArray> m_synced;
    QMap<QByteArray, int> m_folder;            ///< As synced: name and file.
    std::vector<const DiskEvent *> m_unsynced; ///< Of all files and the folder, in order.
};
