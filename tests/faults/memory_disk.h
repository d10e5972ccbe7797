// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMap>

#include <sqlite3.h>

#include <functional>
#include <memory>
#include <vector>

/// The calls that SQLite makes of a disk, by what they do.
enum class DiskCall { Open, Delete, Access, Read, Write, Truncate, Sync, Size, Lock, MapShared, LockShared };

/// A way in which a disk fails: which call, and what it answers SQLite.
struct DiskFault {
    const char *name;
    DiskCall call;
    int code;
    /// The call is carried out all the same and only its answer is an error.
    bool carriedOut = false;
};

/// What happened to the files, in order: enough to say what a power cut may leave of it.
struct DiskEvent {
    enum Kind {
        Create,
        Remove,
        Write,
        Truncate,
        Sync,
        SyncFolder,
        Note,
        Start, ///< Of the record. In front of it stand the files that were there.
    };
    Kind kind;
    int file = 0;         ///< The file's number: a name may come to mean another file.
    QByteArray text = {}; ///< Create, Remove: the name. Write: the bytes.
    qint64 at = 0;        ///< Write: the offset. Truncate: the size. Note: the number noted.
};

/// A disk in memory, SQLite's default VFS while it lives. One at a time, for one thread.
///
/// It locks files between connections and maps shared memory for the write-ahead log as SQLite's own Unix VFS does,
/// and makes the same promises: bytes next to a write stay whole in a power cut, and nothing else.
class MemoryDisk
{
public:
    using Files = QMap<QByteArray, QByteArray>; ///< Content by name.

    MemoryDisk();
    ~MemoryDisk();

    /// The files under their names. A file that is open and has lost its name is not among them.
    Files files() const;
    /// No file may be open.
    void setFiles(const Files &files);
    /// The number of files that SQLite has not closed.
    int openFiles() const;
    /// 512 to 65536; for files that are opened later.
    void setSectorSize(int bytes);
    /// New files and writes are refused, as by a file system that is mounted read-only.
    void setReadOnly(bool readOnly);

    /// Counts calls from now on, each kind for itself. Call number `nth` (from 1) of the fault's kind fails, and all
    /// that follow it when `forEver`; none with 0.
    void failAt(const DiskFault &fault, int nth, bool forEver);
    /// Nothing fails and nothing is counted any more.
    void heal();
    /// The calls of a kind between failAt() and heal().
    int calls(DiskCall call) const;

    /// Calls the listener with the name of each file that is about to be removed.
    void beforeRemove(std::function<void(const QByteArray &name)> listener);

    /// Writes down what happens to the files from now on, behind what lies there already, as if it were synced.
    void record();
    /// Adds a note to the record.
    void note(int number);
    /// What was recorded; recording ends.
    std::vector<DiskEvent> takeRecord();

private:
    Q_DISABLE_COPY(MemoryDisk)
    struct Private;
    std::unique_ptr<Private> d;
};
