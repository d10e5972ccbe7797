// SPDX-License-Identifier: MIT
#include "storefile/unlocked_read.h"

#include "storefile/live_file.h"
#include "storefile/system_error.h"
#include "storefile/watched_file.h"

#include <QFileInfo>

#include <sqlite3.h>

namespace device_db
{

namespace
{

// Beside each other many files stay within the memory of a small program.
constexpr const char *smallCache = "pragma cache_size=-256";

Status readTransaction(const Database &database, const std::function<Status(const Database &)> &read)
{
    if (const Status begun = database.run("begin"); !begun)
        return begun;
    return read(database);
}

Result<bool> readShared(const QString &path, const std::function<Status(const Database &)> &read)
{
    const auto database = Database::open(path, Database::ReadOnly);
    if (!database)
        return database.error();
    // The device may have closed the file in the meantime: whoever tidies up after it would hold the file locked.
    sqlite3_db_config(database->handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (const Status set = database->run(smallCache); !set)
        return set.error();
    if (const Status done = readTransaction(*database, read); !done)
        return done.error();
    return true;
}

Result<bool> readCopy(const QString &path, const std::function<Status(const Database &)> &read)
{
    const auto copy = openFile(path, {});
    if (!copy)
        return copy.error();
    if (const Status done = readTransaction(copy->database, read); !done)
        return done.error();
    return true;
}

} // namespace

Result<bool> readUnlocked(const QString &path, const std::function<Status(const Database &)> &read)
{
    const QFileInfo info(path);
    if (!info.exists())
        return failure(path, QStringLiteral("there is no such file; check the name"));
    if (!info.isFile()) // to open a pipe would wait for who writes into it
        return failure(path, QStringLiteral("this is not a file; name a database file"));
    bool shared = false;
    {
        WatchedFile file(path);
        if (!file.isOpen())
            return failure(path, QStringLiteral("it cannot be read: %1; check its rights").arg(systemError()));
        if (const Status status = file.look(); !status)
            return status.error();
        if (file.isWriteAhead() ? !file.isInUse() && file.hasLog() : file.journal() == WatchedFile::Journal::Left)
            return readCopy(path, read);
        shared = file.isWriteAhead() && file.isInUse();
        if (!shared) {
            if (!file.beginRead())
                return false;
            Status done;
            if (const auto database = Database::open(path, Database::Immutable); !database)
                done = database.error();
            else if (const Status set = database->run(smallCache); !set)
                done = set;
            else
                done = read(*database);
            // A state that is none can look damaged.
            if (!file.isUntouched())
                return false;
            return done ? Result<bool>(true) : done.error();
        }
    }
    return readShared(path, read);
}

} // namespace device_db
