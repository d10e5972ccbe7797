// SPDX-License-Identifier: MIT
#include "storefile/live_file.h"

#include "storefile/system_error.h"
#include "storefile/temporary_file.h"
#include "storefile/texts.h"
#include "storefile/watched_file.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>
#include <QThread>

#include <array>
#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace device_db
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::array<const char *, 4> besides{"", "-journal", "-wal", "-shm"};

enum class Copied { Done, Disturbed, Failed };

// A file and the ways to copy it.
class Source : public WatchedFile
{
public:
    using WatchedFile::WatchedFile;

    Result<std::unique_ptr<TemporaryFile>> rollbackSnapshot(Clock::time_point deadline);
    Result<std::unique_ptr<TemporaryFile>> writeAheadSnapshot();

private:
    bool waitUntilQuiet(Clock::time_point deadline, bool &left) const;
    Copied copy(const QByteArray &from, const QByteArray &to, bool stopWhenWritten);
    Copied copyInQuiet(const QByteArray &to);
    Error copyError(const TemporaryFile &snapshot) const;
    Result<std::unique_ptr<TemporaryFile>> room() const;
};

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
        if (stopWhenWritten && wasWritten())
            return Copied::Disturbed;
    }
}

Copied Source::copyInQuiet(const QByteArray &to)
{
    if (!beginRead())
        return Copied::Disturbed;
    const Copied copied = copy(m_path, to, true);
    if (copied != Copied::Done)
        return copied;
    return isUntouched() ? Copied::Done : Copied::Disturbed;
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
        needed += FileMark::of(m_path + ending).size;
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
            wasWritten();
            const FileMark file = FileMark::of(m_path);
            const FileMark journalFile = FileMark::of(journalPath);
            if (copy(m_path, snapshot->path(), false) != Copied::Done ||
                copy(journalPath, snapshot->path("-journal"), false) != Copied::Done)
                return copyError(*snapshot);
            if (journal() == Journal::Left && FileMark::of(m_path) == file &&
                FileMark::of(journalPath) == journalFile && !wasWritten()) {
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
    wasWritten();
    const FileMark file = FileMark::of(m_path);
    const FileMark log = FileMark::of(logPath);
    if (copy(m_path, snapshot->path(), false) != Copied::Done ||
        (log.exists && copy(logPath, snapshot->path("-wal"), false) != Copied::Done))
        return copyError(*snapshot);
    if (isInUse() || wasWritten() || !(FileMark::of(m_path) == file) || !(FileMark::of(logPath) == log))
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
