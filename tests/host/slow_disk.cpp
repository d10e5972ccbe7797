// SPDX-License-Identifier: MIT
#include "slow_disk.h"

#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

namespace
{

sqlite3_vfs *real = nullptr;
sqlite3_vfs slow;
std::atomic_int delay{0};
std::atomic_int count{0};
std::mutex stuck;

/// A table of file methods with the slow sync in it; SQLite has one for each manner of locking.
struct Slowed {
    sqlite3_io_methods methods; ///< First: a file's table is found back by its address.
    const sqlite3_io_methods *real;
};

std::mutex mutex;
std::map<const sqlite3_io_methods *, Slowed> slowed;

int sync(sqlite3_file *file, int flags)
{
    ++count;
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    const std::lock_guard lock(stuck);
    return reinterpret_cast<const Slowed *>(file->pMethods)->real->xSync(file, flags);
}

int open(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *given)
{
    const int code = real->xOpen(real, name, file, flags, given);
    if (code == SQLITE_OK && file->pMethods) {
        const std::lock_guard lock(mutex);
        const auto [at, isNew] = slowed.try_emplace(file->pMethods, Slowed{*file->pMethods, file->pMethods});
        if (isNew)
            at->second.methods.xSync = sync;
        file->pMethods = &at->second.methods;
    }
    return code;
}

} // namespace

SlowDisk::SlowDisk(int millisecondsPerSync)
{
    delay = millisecondsPerSync;
    count = 0;
    real = sqlite3_vfs_find(nullptr);
    slow = *real;
    slow.zName = "slow";
    slow.xOpen = open;
    sqlite3_vfs_register(&slow, 1);
}

SlowDisk::~SlowDisk()
{
    sqlite3_vfs_register(real, 1);
    sqlite3_vfs_unregister(&slow);
}

void SlowDisk::hold()
{
    stuck.lock();
}

void SlowDisk::release()
{
    stuck.unlock();
}

int SlowDisk::syncs() const
{
    return count;
}
