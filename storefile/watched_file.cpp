// SPDX-License-Identifier: MIT
#include "storefile/watched_file.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>

#include <algorithm>
#include <cstring>
#include <utility>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace device_db
{

namespace
{

// SQLite's locks are locks of single bytes, which can be looked at without taking one.
constexpr off_t reservedByte = 0x40000001;
constexpr off_t sharedBytes = 0x40000002;
constexpr off_t sharedSize = 510;

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

// One for the process: to close one takes some ten milliseconds, and their number is limited.
struct Watches {
    struct Watched {
        quint64 writes = 0;
        int users = 0;
    };
    QMutex mutex;
    const Descriptor inotify{inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
    QHash<int, Watched> watched;

    static Watches &instance()
    {
        static Watches all;
        return all;
    }
    void readEvents();
};

void Watches::readEvents()
{
    alignas(inotify_event) char events[4096];
    for (;;) {
        const ssize_t size = read(inotify.number(), events, sizeof events);
        if (size <= 0)
            return;
        for (ssize_t at = 0; at < size;) {
            const auto *const event = reinterpret_cast<const inotify_event *>(events + at);
            at += ssize_t(sizeof(inotify_event) + event->len);
            for (auto each = watched.begin(); each != watched.end(); ++each) {
                if (each.key() == event->wd || (event->mask & IN_Q_OVERFLOW))
                    ++each->writes;
            }
        }
    }
}

} // namespace

WriteWatch::WriteWatch(const QByteArray &path)
{
    Watches &all = Watches::instance();
    const QMutexLocker lock(&all.mutex);
    m_number = inotify_add_watch(all.inotify.number(), path.constData(), IN_MODIFY | IN_MOVE_SELF | IN_DELETE_SELF);
    if (works())
        ++all.watched[m_number].users;
}

WriteWatch::~WriteWatch()
{
    Watches &all = Watches::instance();
    const QMutexLocker lock(&all.mutex);
    if (!works() || --all.watched[m_number].users > 0)
        return;
    inotify_rm_watch(all.inotify.number(), m_number);
    all.watched.remove(m_number);
}

quint64 WriteWatch::writes() const
{
    Watches &all = Watches::instance();
    const QMutexLocker lock(&all.mutex);
    all.readEvents();
    return all.watched.value(m_number).writes;
}

Descriptor::Descriptor(const QByteArray &path, int flags) : m_number(open(path.constData(), flags | O_CLOEXEC, 0600)) {}

Descriptor::~Descriptor()
{
    if (m_number >= 0)
        close(m_number);
}

FileMark FileMark::of(const QByteArray &path)
{
    struct stat status {
    };
    if (stat(path.constData(), &status) != 0)
        return {};
    return {true, status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

WatchedFile::WatchedFile(const QString &path)
    : m_name(path),
      m_path(QFile::encodeName(QFileInfo(path).canonicalFilePath())),
      m_file(m_path, O_RDONLY),
      m_watch(m_path)
{
}

QByteArray WatchedFile::header() const
{
    QByteArray bytes(100, '\0');
    const ssize_t size = pread(m_file.number(), bytes.data(), size_t(bytes.size()), 0);
    bytes.resize(int(std::max<ssize_t>(0, size)));
    return bytes;
}

Status WatchedFile::look()
{
    const QByteArray bytes = header();
    if (!bytes.isEmpty() && !bytes.startsWith(QByteArray("SQLite format 3\0", 16)))
        return failure(m_name,
                       QStringLiteral("this is not a database, or its beginning is damaged; \"device-db salvage\" "
                                      "gets rows out of a damaged file"));
    m_writeAhead = bytes.size() == 100 && bytes.at(18) == 2 && bytes.at(19) == 2;
    return {};
}

bool WatchedFile::isInUse() const
{
    return isLocked(m_file.number(), F_WRLCK, sharedBytes, sharedSize);
}

// SQLite changes the file only while a journal with a valid header is beside it. The header is zero until the
// journal is safe on the disk, and again, or the journal gone or empty, when the transaction is over.
WatchedFile::Journal WatchedFile::journal() const
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

bool WatchedFile::isQuiet() const
{
    // A journal kept in memory shows nowhere but in the lock.
    return journal() == Journal::Quiet && !isLocked(m_file.number(), F_RDLCK, sharedBytes, sharedSize);
}

bool WatchedFile::wasWritten()
{
    const quint64 writes = m_watch.writes();
    return std::exchange(m_writes, writes) != writes;
}

bool WatchedFile::beginRead()
{
    wasWritten();
    m_before = FileMark::of(m_path);
    m_headerBefore = header();
    struct stat opened {
    };
    const bool same = fstat(m_file.number(), &opened) == 0 && opened.st_ino == m_before.inode &&
                      opened.st_dev == m_before.device; // else another file has its name by now
    if (!same || !isQuiet())
        return false;
    if (m_watch.works())
        return true;
    // The clock of time stamps is coarse: a change right after the last one would not show.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec - m_before.changed.tv_sec >= 2;
}

bool WatchedFile::isUntouched()
{
    // The header holds a counter of the transactions.
    return isQuiet() && header() == m_headerBefore && FileMark::of(m_path) == m_before && !wasWritten();
}

} // namespace device_db
