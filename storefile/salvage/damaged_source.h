// SPDX-License-Identifier: MIT
#ifndef STOREFILE_DAMAGED_SOURCE_H
#define STOREFILE_DAMAGED_SOURCE_H

#include "storefile/live_file.h"
#include "storefile/salvage/damaged_file.h"
#include "storefile/temporary_file.h"

#include <QFile>

#include <memory>

namespace device_db
{

/// A damaged file that was opened for salvage(), with the logs beside it.
///
/// The bytes of a file that another process uses are read from a copy of one committed state, taken without disturbing
/// that process. Without such a copy pages of several transactions would be mixed.
class DamagedSource
{
public:
    /// An Error when there is no such file, or it or a log beside it cannot be read. A copy that cannot be taken is not
    /// one, because the damage may be the cause: whyNoSnapshot() says it.
    static Result<DamagedSource> open(const QString &path, const ReadOptions &options = {});

    /// Valid as long as this object.
    DamagedFiles files() const;
    bool isSnapshot() const { return m_snapshot != nullptr || (m_readable && m_readable->isSnapshot()); }
    /// Null unless another process uses the file and it had to be read itself all the same.
    QString whyNoSnapshot() const { return m_whyNoSnapshot; }

private:
    DamagedSource() = default;
    Result<QString> takeSnapshot(const QString &path, const ReadOptions &options);
    Status openFiles(const QString &path);

    std::unique_ptr<ReadableFile> m_readable;
    std::unique_ptr<TemporaryFile> m_snapshot;
    QString m_whyNoSnapshot;
    std::unique_ptr<QFile> m_file;
    std::unique_ptr<QFile> m_log;
    std::unique_ptr<QFile> m_journal;
};

} // namespace device_db

#endif
