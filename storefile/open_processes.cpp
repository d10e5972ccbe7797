// SPDX-License-Identifier: MIT
#include "storefile/open_processes.h"

#include <QDir>
#include <QFile>
#include <QStringList>

#include <sys/stat.h>
#include <unistd.h>

namespace device_db
{

QList<OpenProcess> processesThatHave(const QString &path)
{
    QList<OpenProcess> found;
    struct stat wanted {
    };
    if (stat(path.toUtf8().constData(), &wanted) != 0)
        return found;
    const QStringList processes = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs);
    for (const QString &process : processes) {
        const qint64 id = process.toLongLong();
        if (id == getpid())
            continue;
        const QString folder = QStringLiteral("/proc/%1/").arg(process);
        const QStringList descriptors =
            QDir(folder + QLatin1String("fd")).entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot);
        for (const QString &descriptor : descriptors) {
            struct stat open {
            };
            if (stat((folder + QLatin1String("fd/") + descriptor).toUtf8().constData(), &open) != 0 ||
                open.st_ino != wanted.st_ino || open.st_dev != wanted.st_dev)
                continue;
            QFile name(folder + QLatin1String("comm"));
            found.append(
                {id, name.open(QIODevice::ReadOnly) ? QString::fromUtf8(name.readAll()).trimmed() : QString()});
            break;
        }
    }
    return found;
}

QString listed(const QList<OpenProcess> &processes)
{
    QStringList texts;
    for (const OpenProcess &process : processes)
        texts << QStringLiteral("process %1 (%2)").arg(process.id).arg(process.name);
    return texts.join(QLatin1String(", "));
}

} // namespace device_db
