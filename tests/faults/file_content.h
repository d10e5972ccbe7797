// SPDX-License-Identifier: MIT
#pragma once

#include "memory_disk.h"

#include <QStringList>

#include <map>

/// What integrity_check says of the file, and everything that its tables hold.
QString contentOf(const QString &path);

/// What a file holds after statements that all succeeded. Uses the disk's files.
class Replay
{
public:
    Replay(MemoryDisk &disk, MemoryDisk::Files start, QString path);

    QString contentAfter(const QStringList &statements);

private:
    MemoryDisk &m_disk;
    MemoryDisk::Files m_start;
    QString m_path;
    std::map<QStringList, QString> m_contents;
};
