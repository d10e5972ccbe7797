// SPDX-License-Identifier: MIT
#include "storefile/live_file.h"

#include "storefile/system_error.h"
#include "storefile/temporary_file.h"
#include "storefile/texts.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>
#include <QThread>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace device_db
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::array<const char *, 4> besides{"", "-journal", "-wal", "-shm"};

// SQLite's locks are locks of single bytes, which can be looked at without taking one.
constexpr off_t reservedByte = 0x40000001;
constexpr off_t sharedBytes = 0x40000002;
constexpr off_t sharedSize = 510;

class Descriptor
{
public:
    Descriptor(const QByteArray &path, int flags) : m_number(open(path.constData(), flags | O_CLOEXEC, 0600)) {}
    ~Descriptor()
    {
        if (m_number >= 0)
            close(m_number);
    }
    Q_DISABLE_COPY(Descriptor)

    bool isOpen() const { return m_number >= 0; }
    int number() const { return m_number; }

private:
    int m_number;
};

bool isLocked(int file, short against, off_t begin, off_t size)
{
    struct flock lock {
    };
    lock.l_type = against;
    lock.l_whence = SEEK_SET;
    lock.l_start = begin;
    lock.l_len = size;
    return fcntl(file, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

struct Mark {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};

    friend bool operator==(const Mark &a, const Mark &b)
    {
        return a.exists == b.exists && a.device == b.device && a.inode == b.inode && a.size == b.size &&
               a.changed.tv_sec == b.changed.tv_sec && a.changed.tv_nsec == b.changed.tv_nsec;
    }
};

Mark markOf(const QByteArray &path)
{
    struct stat status {
    };
    if (stat(path.constData(), &status) != 0)
        return {};
    return {true, status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

// Tells whether a file was written, without the coarse clock of its time stamp.
class Watch
{
public:
    explicit Watch(const QByteArray &path) : m_inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        if (m_inotify >= 0 &&
            inotify_add_watch(m_inotify, path.constData(), IN_MODIFY | IN_MOVE_SELF | IN_DELETE_SELF) < 0) {
            close(m_inotify);
            m_inotify = -1;
        }
    }
    ~Watch()
    {
        if (m_inotify >= 0)
            close(m_inotify);
    }
    Q_DISABLE_COPY(Watch)

    bool works() const { return m_inotify >= 0; }
    /// Since the last call.
    bool wasWritten()
    {
        alignas(inotify_event) char events[4096];
        bool any = false;
        while (m_inotify >= 0 && read(m_inotify, events, sizeof events) > 0)
            any = true;
        return any;
    }

private:
    int m_inotify;
};

enum class Copied { Done, Disturbed, Failed };

// What a reader has to know of one database file, all of it learnt by plain reads.
class Source
{
public:
    /// SQLite keeps its files beside the one that a link leads to.
    explicit Source(const QString &path)
        : m_name(path),
          m_path(QFile::encodeName(QFileInfo(path).canonicalFilePath())),
          m_file(m_path, O_RDONLY),
          m_watch(m_path)
    {
    }

    bool isOpen() const { return m_file.isOpen(); }
    Status look();
    bool isWriteAhead() const { return m_writeAhead; }
    bool isInUse() const { return isLocked(m_file.number(), F_WRLCK, sharedBytes, sharedSize); }
    bool hasLog() const { return markOf(m_path + "-wal").size > 0; }
    bool hasEmptyLog() const { return markOf(m_path + "-wal").exists && !hasLog(); }

    Result<std::unique_ptr<TemporaryFile>> rollbackSnapshot(Clock::time_point deadline);
    Result<std::unique_ptr<TemporaryFile>> writeAheadSnapshot();

private:
    enum class Journal {
        Quiet,   ///< No transaction has begun to change the file.
        Writing, ///< One is about to.
        Left     ///< One was, and its process is gone.
    };
    Journal journal() const;
    bool isQuiet() const
    {
        // A journal kept in memory shows nowhere but in the lock.
        return journal() == Journal::Quiet && !isLocked(m_file.number(), F_RDLCK, sharedBytes, sharedSize);
    }
    bool waitUntilQuiet(Clock::time_point deadline, bool &left) const;
    QByteArray header() const;
    Copied copy(const QByteArray &from, const QByteArray &to, bool stopWhenWritten);
    Copied copyInQuiet(const QByteArray &to);
    Error copyError(const TemporaryFile &snapshot) const;
    Result<std::unique_ptr<TemporaryFile>> room() const;

    QString m_name;
    QByteArray m_path;
    Descriptor m_file;
    Watch m_watch;
    bool m_writeAhead = false;
};

QByteArray Source::header() const
{
    QByteArray bytes(100, '\0');
    const ssize_t size = pread(m_file.number(), bytes.data(), size_t(bytes.size()), 0);
    bytes.resize(int(std::max<ssize_t>(0, size)));
    return bytes;
}

Status Source::look()
{
    const QByteArray bytes = header();
    if (!bytes.isEmpty() && !bytes.startsWith(QByteArray("SQLite format 3\0", 16)))
        return failure(m_name,
                       QStringLiteral("this is not a database, or its beginning is damaged; \"device-db salvage\" "
                                      "gets rows out of a damaged file"));
    m_writeAhead = bytes.size() == 100 && bytes.at(18) == 2 && bytes.at(19) == 2;
    return {};
}

// SQLite changes the file only while a journal with a valid header is beside it. The header is zero until the
// journal is safe on the disk, and again, or the journal gone or empty, when the transaction is over.
Source::Journal Source::journal() const
{
    static constexpr uchar magic[] = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
    const Descriptor journal(m_path + "-journal", O_RDONLY);
    uchar head[sizeof magic];
    if (!journal.isOpen() || pread(journal.number(), head, sizeof head, 0) != ssize_t(sizeof head) ||
        std::memcmp(head, magic, sizeof magic) != 0)
        return Journal::Quiet;
    // Who writes holds the lock until its journal is gone.
    return isLocked(m_file.number(), F_WRLCK, reservedByte, 1) ? Journal::Writing : Journal::Left;
}

bool Source::waitUntilQuiet(Clock::time_point deadline, bool &left) const
{
    left = false;
    while (!isQuiet()) {
        if (journal() == Journal::Left) {
            // Or gone between two looks.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (journal() == Journal::Left) {
                left = true;
                return true;
            }
        }
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

Copied Source::copy(const QByteArray &from, const QByteArray &to, bool stopWhenWritten)
{
    const Descriptor source(from, O_RDONLY);
    const Descriptor target(to, O_WRONLY | O_CREAT);
    if (!source.isOpen() || !target.isOpen())
        return Copied::Failed;
    if (ioctl(target.number(), FICLONE, source.number()) == 0) // no byte is copied, where the file system can do that
        return Copied::Done;
    std::vector<char> block(512 * 1024);
    off_t offset = 0;
    for (;;) {
        const ssize_t size = pread(source.number(), block.data(), block.size(), offset);
        if (size == 0)
            return ftruncate(target.number(), offset) == 0 ? Copied::Done : Copied::Failed;
        if (size < 0 || pwrite(target.number(), block.data(), size_t(size), offset) != size)
            return Copied::Failed;
        offset += size;
        if (stopWhenWritten && m_watch.wasWritten())
            return Copied::Disturbed;
    }
}

// The copy is a committed state when no transaction has touched the file from the first byte read to the last.
Copied Source::copyInQuiet(const QByteArray &to)
{
    m_watch.wasWritten();
    const Mark before = markOf(m_path);
    const QByteArray headerBefore = header();
    if (!isQuiet())
        return Copied::Disturbed;
    if (!m_watch.works()) {
        // The clock of time stamps is coarse: a change right after the last one would not show.
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec - before.changed.tv_sec < 2)
            return Copied::Disturbed;
    }
    const Copied copied = copy(m_path, to, true);
    if (copied != Copied::Done)
        return copied;
    // The header holds a counter of the transactions.
    const bool same = isQuiet() && header() == headerBefore && markOf(m_path) == before && !m_watch.wasWritten();
    return same ? Copied::Done : Copied::Disturbed;
}

Result<std::unique_ptr<TemporaryFile>> Source::room() const
{
    auto snapshot = makeTemporaryFile();
    if (!snapshot)
        return failure(temporaryPlace(), QStringLiteral("no folder for a snapshot can be made: %1; name another place "
                                                        "in $TMPDIR")
                                             .arg(systemError()));
    qint64 needed = 1 << 20;
    for (const char *ending : besides)
        needed += markOf(m_path + ending).size;
    const QStorageInfo storage(temporaryPlace());
    if (storage.isValid() && storage.bytesAvailable() < needed)
        return failure(m_name, QStringLiteral("a snapshot of %1 does not fit into %2, which has %3 free; name another "
                                              "place in $TMPDIR")
                                   .arg(bytesText(needed), temporaryPlace(), bytesText(storage.bytesAvailable())));
    return snapshot;
}

Error Source::copyError(const TemporaryFile &snapshot) const
{
    return failure(m_name, QStringLiteral("it cannot be copied to %1: %2; check free space, rights and the medium")
                               .arg(QFile::decodeName(snapshot.path()), systemError()));
}

Result<std::unique_ptr<TemporaryFile>> Source::rollbackSnapshot(Clock::time_point deadline)
{
    auto made = room();
    if (!made)
        return made;
    std::unique_ptr<TemporaryFile> snapshot = std::move(made).value();
    for (;;) {
        bool left = false;
        if (!waitUntilQuiet(deadline, left))
            break;
        if (!left) {
            const Copied copied = copyInQuiet(snapshot->path());
            if (copied == Copied::Done)
                return snapshot;
            if (copied == Copied::Failed)
                return copyError(*snapshot);
        } else {
            // A dead device's last transaction: SQLite rolls it back, in the copy.
            const QByteArray journalPath = m_path + "-journal";
            m_watch.wasWritten();
            const Mark file = markOf(m_path);
            const Mark journalFile = markOf(journalPath);
            if (copy(m_path, snapshot->path(), false) != Copied::Done ||
                copy(journalPath, snapshot->path("-journal"), false) != Copied::Done)
                return copyError(*snapshot);
            if (journal() == Journal::Left && markOf(m_path) == file && markOf(journalPath) == journalFile &&
                !m_watch.wasWritten()) {
                const auto recovered = Database::open(QFile::decodeName(snapshot->path()), Database::ReadWrite, m_name);
                if (!recovered)
                    return recovered.error();
                return snapshot;
            }
            unlink(snapshot->path("-journal").constData());
        }
        if (Clock::now() >= deadline)
            break;
    }
    return failure(m_name,
                   QStringLiteral("it is written without a pause long enough for a snapshot; try again, or read "
                                  "it with --lock, which makes the writer's commits fail in the meantime"));
}

Result<std::unique_ptr<TemporaryFile>> Source::writeAheadSnapshot()
{
    auto made = room();
    if (!made)
        return made;
    std::unique_ptr<TemporaryFile> snapshot = std::move(made).value();
    const QByteArray logPath = m_path + "-wal";
    m_watch.wasWritten();
    const Mark file = markOf(m_path);
    const Mark log = markOf(logPath);
    if (copy(m_path, snapshot->path(), false) != Copied::Done ||
        (log.exists && copy(logPath, snapshot->path("-wal"), false) != Copied::Done))
        return copyError(*snapshot);
    if (isInUse() || m_watch.wasWritten() || !(markOf(m_path) == file) || !(markOf(logPath) == log))
        return std::unique_ptr<TemporaryFile>(); // somebody has just begun to use it
    return snapshot;
}

} // namespace

ReadableFile::ReadableFile(QString path, std::unique_ptr<TemporaryFile> snapshot, bool tidy)
    : m_path(std::move(path)), m_snapshot(std::move(snapshot)), m_tidy(tidy)
{
}

ReadableFile::ReadableFile(ReadableFile &&other) noexcept
    : m_path(std::move(other.m_path)),
      m_snapshot(std::move(other.m_snapshot)),
      m_tidy(std::exchange(other.m_tidy, false))
{
}

ReadableFile &ReadableFile::operator=(ReadableFile &&other) noexcept
{
    std::swap(m_path, other.m_path);
    std::swap(m_snapshot, other.m_snapshot);
    std::swap(m_tidy, other.m_tidy);
    return *this;
}

ReadableFile::~ReadableFile()
{
    // A connection that may only read leaves the log behind that it needed; one that may write removes it, unless
    // somebody uses the file by now.
    if (m_tidy && Source(m_path).hasEmptyLog())
        (void)Database::open(m_path, Database::ReadWrite);
}

Result<ReadableFile> openForReading(const QString &path, const ReadOptions &options)
{
    const QFileInfo info(path);
    if (!info.exists())
        return failure(path, QStringLiteral("there is no such file; check the name"));
    if (!info.isFile())
        return failure(path, QStringLiteral("this is not a file; name a database file"));
    Source source(path);
    if (!source.isOpen())
        return failure(path, QStringLiteral("it cannot be read: %1; check its rights").arg(systemError()));
    if (const Status status = source.look(); !status)
        return status.error();
    if (options.lock)
        return ReadableFile(path, nullptr);

    if (!source.isWriteAhead()) {
        auto snapshot = source.rollbackSnapshot(Clock::now() + options.deadline);
        if (!snapshot)
            return snapshot.error();
        const QString copy = QFile::decodeName((*snapshot)->path());
        return ReadableFile(copy, std::move(snapshot).value());
    }
    if (source.isInUse())
        return ReadableFile(path, nullptr);
    // SQLite makes two files beside it, which go again.
    const bool mayMakeFiles = info.isWritable() && QFileInfo(info.absolutePath()).isWritable();
    if (source.hasLog() || !mayMakeFiles) {
        auto snapshot = source.writeAheadSnapshot();
        if (!snapshot)
            return snapshot.error();
        if (*snapshot) {
            const QString copy = QFile::decodeName((*snapshot)->path());
            return ReadableFile(copy, std::move(snapshot).value());
        }
    }
    return ReadableFile(path, nullptr, true);
}

bool isLocked(const QString &path)
{
    const Source source(path);
    return source.isOpen() && source.isInUse();
}

Result<OpenFile> openFile(const QString &path, const ReadOptions &options)
{
    auto file = openForReading(path, options);
    if (!file)
        return file.error();
    auto database = Database::open(file->path(), Database::ReadOnly, path);
    if (!database)
        return database.error();
    return OpenFile{std::move(file).value(), std::move(database).value()};
}

Result<OpenTable> openTable(const QString &path, const ReadOptions &options, const QString &wanted,
                            const QVector<Kind> &kinds)
{
    auto file = openFile(path, options);
    if (!file)
        return file.error();
    const auto table = chooseTable(file->database, wanted, kinds);
    if (!table)
        return table.error();
    return OpenTable{std::move(file).value(), *table};
}

} // namespace device_db
