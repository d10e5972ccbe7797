// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_LIVE_FILE_H
#define DEVICE_DB_LIVE_FILE_H

#include "error.h"

namespace device_db
{

struct ReadOptions {
    bool lock = false; ///< Read the file itself with SQLite's locks, which may make the device's commits fail.
};

/// A database file to read from. Owns a temporary snapshot when one was needed.
class ReadableFile
{
public:
    /// What to open, read-only; stays there as long as this object.
    QString path() const { return m_path; }

private:
    friend Result<ReadableFile> openForReading(const QString &path, const ReadOptions &options);
    QString m_path;
};

/// Makes the file at `path` readable without taking a lock that could disturb who writes it.
Result<ReadableFile> openForReading(const QString &path, const ReadOptions &options);

} // namespace device_db

#endif
