// SPDX-License-Identifier: MIT
#ifndef STOREFILE_WATCHED_FILE_H
#define STOREFILE_WATCHED_FILE_H

#include "storefile/error.h"

#include <QByteArray>
#include <QString>

#include <ctime>

#include <fcntl.h>
#include <sys/types.h>

namespace device_db
{

/// Owns a file descriptor.
class Descriptor
{
public:
    Descriptor(const QByteArray &path, int flags);
    explicit Descriptor(int number) : m_number(number) {} ///< Negative: none.
    ~Descriptor();
    Q_DISABLE_COPY(Descriptor)

    bool isOpen() const { return m_number >= 0; }
    int number() const { return m_number; }

private:
    int m_number;
};

/// What the file system says of a file; all zero for one that does not exist.
struct FileMark {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};

    static FileMark of(const QByteArray &path);
    friend bool operator==(const FileMark &a, const FileMark &b)
    {
        return a.exists == b.exists && a.device == b.device && a.inode == b.inode && a.size == b.size &&
               a.changed.tv_sec == b.changed.tv_sec && a.changed.tv_nsec == b.changed.tv_nsec;
    }
};

/// Counts the writes into a file, without the coarse clock of its time stamps. Any thread.
class WriteWatch
{
public:
    explicit WriteWatch(const QByteArray &path);
    ~WriteWatch();
    Q_DISABLE_COPY(WriteWatch)

    bool works() const { return m_number >= 0; }
    quint64 writes() const; ///< Moves and the removal of the file count, too.

private:
    int m_number;
};

/// What a reader has to know of one database file, all of it learnt by plain reads.
///
/// Opens and closes the file: not for a process that holds locks on it, which POSIX would drop then.
class WatchedFile
{
public:
    enum class Journal {
        Quiet,   ///< No transaction has begun to change the file.
        Writing, ///< One is about to.
        Left     ///< One was, and its process is gone.
    };

    /// SQLite keeps its files beside the one that a link leads to.
    explicit WatchedFile(const QString &path);

    bool isOpen() const { return m_file.isOpen(); }
    /// Reads the header; an Error if this is not a database.
    Status look();
    bool isWriteAhead() const { return m_writeAhead; }
    /// Another process holds one of SQLite's locks.
    bool isInUse() const;
    bool hasLog() const { return FileMark::of(m_path + "-wal").size > 0; }
    bool hasEmptyLog() const { return FileMark::of(m_path + "-wal").exists && !hasLog(); }
    Journal journal() const;
    bool isQuiet() const;

    /// From here to isUntouched() is a time in which nobody must change the file. False if somebody does so already.
    bool beginRead();
    /// Whether what was read since beginRead() is one committed state.
    bool isUntouched();
    /// Since the last call, or beginRead().
    bool wasWritten();

protected:
    const QString m_name;
    const QByteArray m_path;

private:
    QByteArray header() const;

    const Descriptor m_file;
    const WriteWatch m_watch;
    quint64 m_writes = 0;
    bool m_writeAhead = false;
    FileMark m_before;
    QByteArray m_headerBefore;
};

} // namespace device_db

#endif
