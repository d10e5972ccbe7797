// SPDX-License-Identifier: MIT
#include "log_readers.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <sys/stat.h>

namespace device
{

namespace
{

// Where SQLite locks the shared memory of a log as long as somebody reads.
constexpr qint64 firstReader = 123;
constexpr qint64 lastReader = 127;

QString nameOf(qint64 process)
{
    if (process == QCoreApplication::applicationPid())
        return QStringLiteral("this program");
    QFile file(QStringLiteral("/proc/%1/comm").arg(process));
    const QString name =
        file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()).trimmed() : QStringLiteral("a program");
    return QStringLiteral("%1 (process %2)").arg(name).arg(process);
}

} // namespace

// "1: POSIX  ADVISORY  READ 1234 fe:00:5678 124 124"
QString readersOfLog(const QString &storePath)
{
    const QString memory = QFileInfo(storePath).canonicalFilePath() + QLatin1String("-shm");
    struct stat found;
    QFile locks(QStringLiteral("/proc/locks"));
    if (::stat(QFile::encodeName(memory).constData(), &found) != 0 || !locks.open(QIODevice::ReadOnly))
        return QString();
    const QString inode = QLatin1Char(':') + QString::number(found.st_ino);
    QStringList readers;
    for (const QByteArray &line : locks.readAll().split('\n')) {
        const QStringList words = QString::fromLatin1(line).simplified().split(QLatin1Char(' '));
        if (words.size() < 8 || words.at(1) == QLatin1String("->") || words.at(3) != QLatin1String("READ") ||
            !words.at(5).endsWith(inode))
            continue;
        if (words.at(6).toLongLong() > lastReader || words.at(7).toLongLong() < firstReader)
            continue;
        const QString name = nameOf(words.at(4).toLongLong());
        if (!readers.contains(name))
            readers << name;
    }
    return readers.join(QLatin1String(", "));
}

} // namespace device
