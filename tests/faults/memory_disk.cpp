// SPDX-License-Identifier: MIT
#include "memory_disk.h"

#include <algorithm>
#include <cstring>
#include <map>

struct MemoryDisk::Private {
    struct Handle;

    /// What lies on the disk. It outlives its name while a connection has it open.
    struct Content {
        int number;
        QByteArray bytes;
        std::vector<Handle *> handles;
        std::vector<std::unique_ptr<char[]>> shared; ///< The index of the write-ahead log.
    };

    struct Handle {
        Private &disk;
        std::shared_ptr<Content> content;
        bool temporary;   ///< Has no name: a power cut leaves nothing of it.
        bool syncsFolder; ///< The first sync of a new journal takes the folder with it.
        int level = SQLITE_LOCK_NONE;
        unsigned sharedLocks = 0; ///< Locks on the shared memory, one bit each.
        unsigned exclusiveLocks = 0;
    };

    /// SQLite gives the memory of an open file and runs no constructor.
    struct File {
        sqlite3_file base;
        Handle *handle;
    };

    Private();

    static Private &of(sqlite3_vfs *vfs) { return *static_cast<Private *>(vfs->pAppData); }
    static Handle &of(sqlite3_file *file) { return *reinterpret_cast<File *>(file)->handle; }

    bool fails(DiskCall call)
    {
        if (!counting)
            return false;
        const int number = ++counts[int(call)];
        return failing > 0 && call == fault.call && (forEver ? number >= failing : number == failing);
    }

    /// Runs `action` as one call of the kind, unless it is one that fails.
    template<typename Action>
    int run(DiskCall call, Action action)
    {
        if (!fails(call))
            return action();
        if (fault.carriedOut)
            action();
        return fault.code;
    }

    void add(DiskEvent event)
    {
        if (recording)
            events.push_back(std::move(event));
    }

    static int open(sqlite3_vfs *vfs, const char *name, sqlite3_file *file, int flags, int *given);
    static int remove(sqlite3_vfs *vfs, const char *name, int syncFolder);
    static int access(sqlite3_vfs *vfs, const char *name, int flags, int *result);
    static int fullPath(sqlite3_vfs *vfs, const char *name, int size, char *path);

    static int close(sqlite3_file *file);
    static int read(sqlite3_file *file, void *bytes, int size, sqlite3_int64 at);
    static int write(sqlite3_file *file, const void *bytes, int size, sqlite3_int64 at);
    static int truncate(sqlite3_file *file, sqlite3_int64 size);
    static int sync(sqlite3_file *file, int flags);
    static int size(sqlite3_file *file, sqlite3_int64 *bytes);
    static int lock(sqlite3_file *file, int level);
    static int unlock(sqlite3_file *file, int level);
    static int isReserved(sqlite3_file *file, int *result);
    static int map(sqlite3_file *file, int region, int size, int extend, void volatile **memory);
    static int lockShared(sqlite3_file *file, int first, int count, int flags);
    static int unmap(sqlite3_file *file, int remove);

    sqlite3_vfs *real;
    sqlite3_vfs vfs;
    std::map<QByteArray, std::shared_ptr<Content>> folder;
    int contents = 0;
    int handles = 0;
    int sectorSize = 4096;
    bool readOnly = false;
    std::function<void(const QByteArray &name)> removeListener;

    bool counting = false;
    int counts[int(DiskCall::LockShared) + 1] = {};
    DiskFault fault = {};
    int failing = 0; ///< Number of the call; 0 for none.
    bool forEver = false;

    bool recording = false;
    std::vector<DiskEvent> events;
};

int MemoryDisk::Private::open(sqlite3_vfs *vfs, const char *name, sqlite3_file *file, int flags, int *given)
{
    static const sqlite3_io_methods methods = {
        2,
        close,
        read,
        write,
        truncate,
        sync,
        size,
        lock,
        unlock,
        isReserved,
        [](sqlite3_file *, int, void *) { return SQLITE_NOTFOUND; }, // no file control
        [](sqlite3_file *opened) { return of(opened).disk.sectorSize; },
        // What SQLite's Unix VFS says of a plain file system: a write leaves its neighbours whole.
        [](sqlite3_file *) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; },
        map,
        lockShared,
        [](sqlite3_file *) {}, // no barrier: one thread
        unmap,
        nullptr,
        nullptr,
    };
    Private &disk = of(vfs);
    file->pMethods = nullptr;
    return disk.run(DiskCall::Open, [&] {
        const auto found = name ? disk.folder.find(name) : disk.folder.end();
        const bool isNew = found == disk.folder.end();
        if (name && isNew && (!(flags & SQLITE_OPEN_CREATE) || disk.readOnly))
            return SQLITE_CANTOPEN;
        std::shared_ptr<Content> content;
        if (isNew) {
            content = std::make_shared<Content>();
            content->number = ++disk.contents;
            if (name) {
                disk.folder[name] = content;
                disk.add({DiskEvent::Create, content->number, name});
            }
        } else {
            content = found->second;
        }
        const bool isJournal = flags & (SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL | SQLITE_OPEN_WAL);
        auto *const handle = new Handle{disk, content, !name, isNew && isJournal};
        content->handles.push_back(handle);
        ++disk.handles;
        reinterpret_cast<File *>(file)->handle = handle;
        file->pMethods = &methods;
        if (given)
            *given = disk.readOnly && name ? (flags & ~SQLITE_OPEN_READWRITE) | SQLITE_OPEN_READONLY : flags;
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::remove(sqlite3_vfs *vfs, const char *name, int syncFolder)
{
    Private &disk = of(vfs);
    return disk.run(DiskCall::Delete, [&] {
        if (disk.removeListener)
            disk.removeListener(name);
        const auto found = disk.folder.find(name);
        if (found == disk.folder.end())
            return SQLITE_IOERR_DELETE_NOENT;
        if (disk.readOnly)
            return SQLITE_IOERR_DELETE;
        disk.add({DiskEvent::Remove, found->second->number, name});
        disk.folder.erase(found);
        if (syncFolder)
            disk.add({DiskEvent::SyncFolder});
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::access(sqlite3_vfs *vfs, const char *name, int flags, int *result)
{
    Private &disk = of(vfs);
    return disk.run(DiskCall::Access, [&] {
        const auto found = disk.folder.find(name);
        // As the Unix VFS: an empty file is as good as none where only its existence is asked for.
        *result = found != disk.folder.end() &&
                  (flags == SQLITE_ACCESS_EXISTS ? !found->second->bytes.isEmpty() : !disk.readOnly);
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::fullPath(sqlite3_vfs *, const char *name, int size, char *path)
{
    sqlite3_snprintf(size, path, "%s", name);
    return SQLITE_OK;
}

int MemoryDisk::Private::close(sqlite3_file *file)
{
    Handle *const handle = &of(file);
    auto &handles = handle->content->handles;
    handles.erase(std::find(handles.begin(), handles.end(), handle));
    --handle->disk.handles;
    delete handle;
    return SQLITE_OK;
}

int MemoryDisk::Private::read(sqlite3_file *file, void *bytes, int size, sqlite3_int64 at)
{
    const Handle &handle = of(file);
    return handle.disk.run(DiskCall::Read, [&] {
        const QByteArray &content = handle.content->bytes;
        const auto there = std::clamp<sqlite3_int64>(content.size() - at, 0, size);
        std::memcpy(bytes, content.constData() + std::min<sqlite3_int64>(at, content.size()), size_t(there));
        std::memset(static_cast<char *>(bytes) + there, 0, size_t(size - there));
        return there == size ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
    });
}

int MemoryDisk::Private::write(sqlite3_file *file, const void *bytes, int size, sqlite3_int64 at)
{
    const Handle &handle = of(file);
    return handle.disk.run(DiskCall::Write, [&] {
        QByteArray &content = handle.content->bytes;
        if (content.size() < at + size)
            content.append(int(at + size - content.size()), '\0');
        std::memcpy(content.data() + at, bytes, size_t(size));
        if (!handle.temporary && handle.disk.recording)
            handle.disk.add({DiskEvent::Write, handle.content->number, {static_cast<const char *>(bytes), size}, at});
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::truncate(sqlite3_file *file, sqlite3_int64 size)
{
    const Handle &handle = of(file);
    return handle.disk.run(DiskCall::Truncate, [&] {
        QByteArray &content = handle.content->bytes;
        if (content.size() > size)
            content.truncate(int(size));
        if (!handle.temporary)
            handle.disk.add({DiskEvent::Truncate, handle.content->number, {}, size});
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::sync(sqlite3_file *file, int)
{
    Handle &handle = of(file);
    return handle.disk.run(DiskCall::Sync, [&] {
        if (!handle.temporary)
            handle.disk.add({DiskEvent::Sync, handle.content->number});
        if (handle.syncsFolder)
            handle.disk.add({DiskEvent::SyncFolder});
        handle.syncsFolder = false;
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::size(sqlite3_file *file, sqlite3_int64 *bytes)
{
    const Handle &handle = of(file);
    return handle.disk.run(DiskCall::Size, [&] {
        *bytes = handle.content->bytes.size();
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::lock(sqlite3_file *file, int level)
{
    Handle &handle = of(file);
    return handle.disk.run(DiskCall::Lock, [&] {
        int others = SQLITE_LOCK_NONE;
        for (const Handle *other : handle.content->handles)
            if (other != &handle)
                others = std::max(others, other->level);
        if (handle.level >= level)
            return SQLITE_OK;
        if (level == SQLITE_LOCK_SHARED ? others >= SQLITE_LOCK_PENDING : others >= SQLITE_LOCK_RESERVED)
            return SQLITE_BUSY;
        if (level == SQLITE_LOCK_EXCLUSIVE && others >= SQLITE_LOCK_SHARED) {
            handle.level = SQLITE_LOCK_PENDING; // keeps new readers out
            return SQLITE_BUSY;
        }
        handle.level = level;
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::unlock(sqlite3_file *file, int level)
{
    of(file).level = std::min(of(file).level, level);
    return SQLITE_OK;
}

int MemoryDisk::Private::isReserved(sqlite3_file *file, int *result)
{
    const auto &handles = of(file).content->handles;
    *result = std::any_of(handles.begin(), handles.end(),
                          [](const Handle *handle) { return handle->level >= SQLITE_LOCK_RESERVED; });
    return SQLITE_OK;
}

int MemoryDisk::Private::map(sqlite3_file *file, int region, int size, int extend, void volatile **memory)
{
    const Handle &handle = of(file);
    *memory = nullptr;
    return handle.disk.run(DiskCall::MapShared, [&] {
        auto &shared = handle.content->shared;
        if (handle.disk.readOnly && shared.empty())
            return SQLITE_READONLY_CANTINIT;
        while (extend && int(shared.size()) <= region)
            shared.push_back(std::make_unique<char[]>(size_t(size)));
        if (int(shared.size()) > region)
            *memory = shared[size_t(region)].get();
        return SQLITE_OK;
    });
}

int MemoryDisk::Private::lockShared(sqlite3_file *file, int first, int count, int flags)
{
    Handle &handle = of(file);
    const unsigned mask = ((1u << count) - 1) << first;
    if (flags & SQLITE_SHM_UNLOCK) {
        (flags & SQLITE_SHM_SHARED ? handle.sharedLocks : handle.exclusiveLocks) &= ~mask;
        return SQLITE_OK;
    }
    return handle.disk.run(DiskCall::LockShared, [&] {
        for (const Handle *other : handle.content->handles)
            if (other != &handle &&
                (mask & (other->exclusiveLocks | (flags & SQLITE_SHM_SHARED ? 0u : other->sharedLocks))))
                return SQLITE_BUSY;
        (flags & SQLITE_SHM_SHARED ? handle.sharedLocks : handle.exclusiveLocks) |= mask;
        return SQLITE_OK;
    });
}

// The memory stays until the last connection has gone, as the Unix VFS keeps it.
int MemoryDisk::Private::unmap(sqlite3_file *file, int)
{
    Handle &handle = of(file);
    handle.sharedLocks = handle.exclusiveLocks = 0;
    if (handle.content->handles.size() == 1)
        handle.content->shared.clear();
    return SQLITE_OK;
}

MemoryDisk::Private::Private() : real(sqlite3_vfs_find(nullptr)), vfs(*real)
{
    // The time stays the real one. SQLite sleeps when locks of the write-ahead log stay taken, which nobody but the
    // waiting thread could change.
    vfs.iVersion = 2;
    vfs.zName = "memory disk";
    vfs.szOsFile = sizeof(File);
    vfs.pAppData = this;
    vfs.xOpen = open;
    vfs.xDelete = remove;
    vfs.xAccess = access;
    vfs.xFullPathname = fullPath;
    vfs.xRandomness = [](sqlite3_vfs *, int size, char *bytes) {
        std::memset(bytes, 0x55, size_t(size)); // a seed, so that runs repeat
        return size;
    };
    vfs.xSleep = [](sqlite3_vfs *, int microseconds) { return microseconds; };
}

MemoryDisk::MemoryDisk() : d(new Private)
{
    sqlite3_vfs_register(&d->vfs, 1);
    sqlite3_randomness(0, nullptr); // seeded anew at its next use
}

MemoryDisk::~MemoryDisk()
{
    sqlite3_vfs_register(d->real, 1);
    sqlite3_vfs_unregister(&d->vfs);
}

void MemoryDisk::beforeRemove(std::function<void(const QByteArray &name)> listener)
{
    d->removeListener = std::move(listener);
}

MemoryDisk::Files MemoryDisk::files() const
{
    Files files;
    for (const auto &[name, content] : d->folder)
        files[name] = content->bytes;
    return files;
}

void MemoryDisk::setFiles(const Files &files)
{
    d->folder.clear();
    for (auto file = files.begin(); file != files.end(); ++file) {
        const auto content = std::make_shared<Private::Content>();
        content->number = ++d->contents;
        content->bytes = file.value();
        d->folder[file.key()] = content;
    }
}

int MemoryDisk::openFiles() const
{
    return d->handles;
}

void MemoryDisk::setSectorSize(int bytes)
{
    d->sectorSize = bytes;
}

void MemoryDisk::setReadOnly(bool readOnly)
{
    d->readOnly = readOnly;
}

int MemoryDisk::calls(DiskCall call) const
{
    return d->counts[int(call)];
}

void MemoryDisk::failAt(const DiskFault &fault, int nth, bool forEver)
{
    std::fill(std::begin(d->counts), std::end(d->counts), 0);
    d->counting = true;
    d->fault = fault;
    d->failing = nth;
    d->forEver = forEver;
}

void MemoryDisk::heal()
{
    d->counting = false;
}

void MemoryDisk::record()
{
    d->recording = true;
    d->events.clear();
    for (const auto &[name, content] : d->folder) { // the record needs nothing but itself
        d->add({DiskEvent::Create, content->number, name});
        d->add({DiskEvent::Write, content->number, content->bytes, 0});
        d->add({DiskEvent::Sync, content->number});
    }
    d->add({DiskEvent::SyncFolder});
    d->add({DiskEvent::Start});
}

void MemoryDisk::note(int number)
{
    d->add({DiskEvent::Note, 0, {}, number});
}

std::vector<DiskEvent> MemoryDisk::takeRecord()
{
    d->recording = false;
    return std::move(d->events);
}
