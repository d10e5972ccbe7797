// SPDX-License-Identifier: MIT
#pragma once

/// Makes every sync of SQLite in this process take so much longer while it lives: a default VFS in front of the
/// real one. Files opened before keep the old one. One at a time.
class SlowDisk
{
public:
    explicit SlowDisk(int millisecondsPerSync);
    ~SlowDisk();

    /// No sync ends between these two.
    void hold();
    void release();

    int syncs() const;

    SlowDisk(const SlowDisk &) = delete;
    SlowDisk &operator=(const SlowDisk &) = delete;
};
