// SPDX-License-Identifier: MIT
#include "faulty_disk.h"

#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>

namespace
{

sqlite3_vfs *real = nullptr;
sqlite3_vfs faulty;
std::atomic_int times[FaultyDisk::Faults];
std::atomic_int after[FaultyDisk::Faults];
std::atomic_int count{0};

/// A table of file methods with ours in it; SQLite has one for each way of locking.
struct Methods {
    sqlite3_io_methods methods; ///< First: a file's table is found back by its address.
    const sqlite3_io_methods *real;
};

std::mutex mutex;
std::map<const sqlite3_io_methods *, Methods> tables;

const sqlite3_io_methods *realOf(sqlite3_file *file)
{
    return reinterpret_cast<const Methods *>(file->pMethods)->real;
}

bool fails(FaultyDisk::Fault fault)
{
    if (times[fault] <= 0 || after[fault]-- > 0)
        return false;
    --times[fault];
    ++count;
    return true;
}

int write(sqlite3_file *file, const void *data, int size, sqlite3_int64 offset)
{
    if (fails(FaultyDisk::Full))
        return SQLITE_FULL;
    sqlite3_int64 end = 0;
    if (times[FaultyDisk::NoLonger] > 0 && realOf(file)->xFileSize(file, &end) == SQLITE_OK && offset + size > end &&
        fails(FaultyDisk::NoLonger))
        return SQLITE_FULL;
    if (fails(FaultyDisk::WriteFails))
        return SQLITE_IOERR_WRITE;
    return realOf(file)->xWrite(file, data, size, offset);
}

int sync(sqlite3_file *file, int flags)
{
    return fails(FaultyDisk::SyncFails) ? SQLITE_IOERR_FSYNC : realOf(file)->xSync(file, flags);
}

int open(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *given)
{
    const int code = real->xOpen(real, name, file, flags, given);
    if (code == SQLITE_OK && file->pMethods) {
        const std::lock_guard lock(mutex);
        const auto [at, isNew] = tables.try_emplace(file->pMethods, Methods{*file->pMethods, file->pMethods});
        if (isNew) {
            at->second.methods.xWrite = write;
            at->second.methods.xSync = sync;
        }
        file->pMethods = &at->second.methods;
    }
    return code;
}

int remove(sqlite3_vfs *, const char *name, int syncFolder)
{
    const bool isJournal = std::strstr(name, "-journal") != nullptr;
    if (isJournal && fails(FaultyDisk::DeleteFails))
        return SQLITE_IOERR_DELETE;
    const int code = real->xDelete(real, name, syncFolder);
    return isJournal && fails(FaultyDisk::DeleteDenies) ? SQLITE_IOERR_DELETE : code;
}

} // namespace

FaultyDisk::FaultyDisk()
{
    mend();
    count = 0;
    real = sqlite3_vfs_find(nullptr);
    faulty = *real;
    faulty.zName = "faulty";
    faulty.xOpen = open;
    faulty.xDelete = remove;
    sqlite3_vfs_register(&faulty, 1);
}

FaultyDisk::~FaultyDisk()
{
    sqlite3_vfs_register(real, 1);
    sqlite3_vfs_unregister(&faulty);
}

void FaultyDisk::fail(Fault fault, int thisOften, int afterwards)
{
    after[fault] = afterwards;
    times[fault] = thisOften;
}

void FaultyDisk::mend()
{
    for (int fault = 0; fault < Faults; ++fault)
        times[fault] = after[fault] = 0;
}

int FaultyDisk::failures() const
{
    return count;
}
