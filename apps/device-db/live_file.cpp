// SPDX-License-Identifier: MIT
#include "live_file.h"

#include <QFileInfo>

namespace device_db
{

Result<ReadableFile> openForReading(const QString &path, const ReadOptions &)
{
    const QFileInfo file(path);
    if (!file.exists())
        return failure(path, QStringLiteral("there is no such file; check the name"));
    if (!file.isFile())
        return failure(path, QStringLiteral("this is no file; name a database file"));
    ReadableFile readable;
    readable.m_path = path;
    return readable;
}

} // namespace device_db
