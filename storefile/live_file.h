// SPDX-License-Identifier: MIT
#ifndef STOREFILE_LIVE_FILE_H
#define STOREFILE_LIVE_FILE_H

#include "storefile/sqlite.h"
#include "storefile/tables.h"

#include <chrono>
#include <memory>

namespace device_db
{

struct ReadOptions {
    bool lock = false; ///< Read the file itself with SQLite's locks, which may make the device's commits fail.
    std::chrono::milliseconds deadline{5000}; ///< How long to wait for a moment in which nobody writes.
};

class TemporaryFile;

/// A database file to read from. Owns a temporary snapshot when one was needed.
class ReadableFile
{
public:
    ReadableFile(ReadableFile &&) noexcept;
    ReadableFile &operator=(ReadableFile &&) noexcept;
    ~ReadableFile(); ///< Removes the snapshot. Connections are closed before.

    /// What to open, read-only; stays there as long as this object.
    QString path() const { return m_path; }
    bool isSnapshot() const { return bool(m_snapshot); }

private:
    friend Result<ReadableFile> openForReading(const QString &path, const ReadOptions &options);
    ReadableFile(QString path, std::unique_ptr<TemporaryFile> snapshot, bool tidy = false);

    QString m_path;
    std::unique_ptr<TemporaryFile> m_snapshot;
    bool m_tidy; ///< Reading makes an empty log, which is to go again.
};

/// Makes the file at `path` readable without taking a lock that could disturb who writes it.
///
/// In rollback-journal mode a reader's lock makes the device's commit fail, so a snapshot is copied with plain reads,
/// in a moment in which no transaction changes the file; an Error if there is none before the deadline. In write-ahead
/// mode readers disturb nobody, so the file itself is read. Exception: a file that no process has open but that still
/// has a -wal beside it is read from a copy, because closing our connection would checkpoint that log. A transaction
/// that a dead device left half done is rolled back in the copy. The file and what is beside it are left as they are.
///
/// Opens and closes the file: not for a process that holds locks on it, which POSIX would drop then.
Result<ReadableFile> openForReading(const QString &path, const ReadOptions &options);

/// Whether another process holds one of SQLite's locks on the file: in write-ahead mode each one that has it open, in
/// rollback-journal mode one that reads or writes at this moment.
bool isLocked(const QString &path);

/// A file to read from and the connection to it.
struct OpenFile {
    ReadableFile file; ///< Outlives the connection.
    Database database;
};
/// openForReading(), and then a connection.
Result<OpenFile> openFile(const QString &path, const ReadOptions &options);

/// And the table that chooseTable() finds there.
struct OpenTable : OpenFile {
    Table table;
};
Result<OpenTable> openTable(const QString &path, const ReadOptions &options, const QString &wanted,
                            const QVector<Kind> &kinds = {});

} // namespace device_db

#endif
