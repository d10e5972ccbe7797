// SPDX-License-Identifier: MIT
#include "storefile/new_file.h"

#include "storefile/system_error.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace device_db
{

namespace
{

Error systemFailure(const QString &path)
{
    return failure(path, systemError() + QStringLiteral("; check the folder, its rights and free space"));
}

Error thereAlready(const QString &path)
{
    return failure(path, QStringLiteral("there is a file of this name; take another name, or --force to replace it"));
}

bool sync(const QString &path, int flags)
{
    const int file = open(QFile::encodeName(path).constData(), flags | O_CLOEXEC);
    const bool done = file >= 0 && fsync(file) == 0;
    if (file >= 0)
        close(file);
    return done;
}

} // namespace

bool isSameFile(const QString &a, const QString &b)
{
    struct stat first {
    };
    struct stat second {
    };
    return stat(QFile::encodeName(a).constData(), &first) == 0 &&
           stat(QFile::encodeName(b).constData(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

Status isNoPartOf(const QString &wanted, const QStringList &inputs)
{
    const QString absolute = QFileInfo(wanted).absoluteFilePath();
    for (const QString &input : inputs) {
        // SQLite names its files after the one that a link leads to.
        for (const QString &file : {input, QFileInfo(input).canonicalFilePath()}) {
            if (file.isEmpty())
                continue;
            for (const char *ending : {"", "-journal", "-wal", "-shm"}) {
                const QString name = file + QLatin1String(ending);
                if (isSameFile(name, wanted) || QFileInfo(name).absoluteFilePath() == absolute)
                    return failure(wanted, ending[0]
                                               ? QStringLiteral("this is a part of %1; take another name").arg(input)
                                               : QStringLiteral("this is the file itself; take another name"));
            }
        }
    }
    return {};
}

NewFile::NewFile(QString path, std::unique_ptr<TemporaryFile> part, bool force)
    : m_path(std::move(path)), m_part(std::move(part)), m_force(force)
{
}

QString NewFile::part() const
{
    return QFile::decodeName(m_part->path());
}

Result<NewFile> NewFile::make(const QString &wanted, bool force, const QStringList &inputs)
{
    const QFileInfo present(wanted);
    const QString path = present.exists() ? present.canonicalFilePath() : wanted;
    if (present.isDir())
        return failure(wanted, QStringLiteral("this is a folder; name a file in it"));
    if (const Status may = isNoPartOf(wanted, inputs); !may)
        return may.error();
    if (present.exists() && !present.isFile())
        return failure(wanted, QStringLiteral("this is not a file; name one"));
    if (present.exists() && !force)
        return thereAlready(wanted);
    for (const char *ending : {"-journal", "-wal"}) {
        if (QFileInfo::exists(path + QLatin1String(ending)))
            return failure(path + QLatin1String(ending),
                           QStringLiteral("it would be taken for the new file's own; move "
                                          "it away first, or take another name"));
    }
    QByteArray part = QFile::encodeName(path) + ".part-XXXXXX";
    const int file = mkstemp(part.data());
    if (file < 0)
        return systemFailure(path);
    auto temporary = std::make_unique<TemporaryFile>(part);
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(file, 0666 & ~mask);
    close(file);
    return NewFile(path, std::move(temporary), force);
}

Status NewFile::putInPlace()
{
    if (!sync(part(), O_RDONLY))
        return systemFailure(m_path);
    const QByteArray from = m_part->path();
    const QByteArray to = QFile::encodeName(m_path);
    // Without a file system that can do both at once there is a moment between looking and renaming.
    const bool isThere = QFileInfo::exists(m_path) && !m_force;
    if (isThere ||
        (renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), m_force ? 0 : RENAME_NOREPLACE) != 0 &&
         (errno != EINVAL || std::rename(from.constData(), to.constData()) != 0)))
        return isThere || errno == EEXIST ? thereAlready(m_path) : systemFailure(m_path);
    m_part->keep();
    sync(QFileInfo(m_path).absolutePath(), O_RDONLY | O_DIRECTORY); // a folder that cannot be synced is not a failure
    return {};
}

} // namespace device_db
