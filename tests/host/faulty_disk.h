// SPDX-License-Identifier: MIT
#pragma once

/// A default VFS in front of the real one whose calls can be made to fail while it lives. Files opened before keep the
/// old one. One at a time; faults may be set from any thread.
class FaultyDisk
{
public:
    enum Fault {
        Full,         ///< Writing: no room.
        NoLonger,     ///< Writing behind the end of a file: no room, as when another program has filled the disk.
        WriteFails,   ///< Writing: an I/O error.
        SyncFails,    ///< Syncing: an I/O error.
        DeleteFails,  ///< Deleting a journal: an I/O error, and it stays.
        DeleteDenies, ///< Deleting a journal: an I/O error, although it is gone.
        Faults
    };

    FaultyDisk();
    ~FaultyDisk();

    /// Calls of this kind fail, this number of times, after `after` that succeed.
    void fail(Fault fault, int times, int after = 0);
    void mend();
    /// How many calls failed so far.
    int failures() const;

    FaultyDisk(const FaultyDisk &) = delete;
    FaultyDisk &operator=(const FaultyDisk &) = delete;
};
