// SPDX-License-Identifier: MIT
#include "storefile/salvage/damaged_source.h"

#include "storefile/open_processes.h"

#include <QFileInfo>

namespace device_db
{

namespace
{

Result<std::unique_ptr<QFile>> openBytes(const QString &path)
{
    auto file = std::make_unique<QFile>(path);
    if (!file->open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return failure(path, file->errorString() + QStringLiteral("; check its rights and the medium"));
    return file;
}

} // namespace

Result<DamagedSource> DamagedSource::open(const QString &path, const ReadOptions &options)
{
    const QFileInfo info(path);
    if (!info.exists())
        return failure(path, QStringLiteral("there is no such file; check the name"));
    if (!info.isFile())
        return failure(path, QStringLiteral("this is not a file; name a database file"));
    DamagedSource source;
    QString bytes = info.isSymLink() ? info.canonicalFilePath() : path; // a log is beside the file itself
    const auto users = processesThatHave(path);
    if (!users.isEmpty() || isLocked(path)) { // the processes of another user are seen by their locks alone
        const auto snapshot = source.takeSnapshot(path, options);
        if (snapshot)
            bytes = *snapshot;
        else
            source.m_whyNoSnapshot = QStringLiteral("%1 has it open, and no snapshot could be taken: %2")
                                         .arg(users.isEmpty() ? QStringLiteral("another process") : listed(users),
                                              oneLine(snapshot.error()));
    }
    if (const Status opened = source.openFiles(bytes); !opened)
        return opened.error();
    return source;
}

// In rollback-journal mode the file is a copy already; in write-ahead mode it is read through SQLite, which a salvage
// does not do, so here one is made.
Result<QString> DamagedSource::takeSnapshot(const QString &path, const ReadOptions &options)
{
    auto readable = openForReading(path, options);
    if (!readable)
        return readable.error();
    if (readable->isSnapshot()) {
        m_readable = std::make_unique<ReadableFile>(std::move(readable).value());
        return m_readable->path();
    }
    const auto file = Database::open(readable->path(), Database::ReadOnly, path);
    if (!file)
        return file.error();
    auto snapshot = makeTemporaryFile();
    QFile copy(snapshot ? QFile::decodeName(snapshot->path()) : QString());
    if (!copy.open(QIODevice::WriteOnly))
        return failure(temporaryPlace(), QStringLiteral("no file can be made there; name another place in $TMPDIR"));
    const auto target = Database::open(copy.fileName(), Database::ReadWrite, temporaryPlace());
    if (!target)
        return target.error();
    if (const auto copied = copyPages(*file, *target); !copied)
        return copied.error();
    m_snapshot = std::move(snapshot);
    return copy.fileName();
}

Status DamagedSource::openFiles(const QString &path)
{
    auto file = openBytes(path);
    if (!file)
        return file.error();
    m_file = std::move(file).value();
    // A log that exists is not left out silently.
    for (const auto &[ending, place] : {std::pair("-wal", &m_log), std::pair("-journal", &m_journal)}) {
        const QString name = path + QLatin1String(ending);
        if (QFileInfo(name).size() == 0)
            continue;
        auto log = openBytes(name);
        if (!log)
            return log.error();
        *place = std::move(log).value();
    }
    return {};
}

DamagedFiles DamagedSource::files() const
{
    return {*m_file, m_log.get(), m_journal.get()};
}

} // namespace device_db
