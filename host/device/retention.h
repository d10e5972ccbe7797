// SPDX-License-Identifier: MIT
#ifndef DEVICE_RETENTION_H
#define DEVICE_RETENTION_H

#include "trend.h"

#include <QMap>

#include <optional>

namespace device
{

/// How long the rows of one table are kept; as it stands, for ever. Stands in the file: every recorder that opens it
/// removes what is beyond, in the transactions in which it stores rows. Of alarms only those that ended are removed.
///
///     Keep keep;
///     keep.age = std::chrono::hours(24 * 90);
///     recorder.keep(boiler, keep);
struct Keep {
    /// Rows older than this are removed, as counted back from the newest row whose time is plausible: a clock that
    /// jumps removes nothing.
    std::optional<std::chrono::hours> age;
    /// The newest so many IDs are kept. Where rows were deleted singly, those are fewer rows. Negative: all.
    qint64 rows = -1;
    /// Rows younger than this are never removed, whatever `rows` and the ceiling say. Without a value: 365 days for
    /// tables of the log, nothing for others.
    std::optional<std::chrono::hours> atLeast;
    /// How long the sums of a level are kept where the table keeps a trend; for ever where the level is not named.
    QMap<TrendLevel, std::chrono::hours> sums;

    friend bool operator==(const Keep &a, const Keep &b)
    {
        return a.age == b.age && a.rows == b.rows && a.atLeast == b.atLeast && a.sums == b.sums;
    }
};

/// How long the rows of a table are kept, and what that removed so far.
struct Kept {
    Keep keep;
    qint64 trimmed = 0;   ///< Rows removed since the table was first kept so.
    qint64 unshipped = 0; ///< Of those: removed for the ceiling although a shipper held them.
    qint64 throughId = 0; ///< The highest ID among them,
    LocalTime through;    ///< and the time of its row.
};

/// What a recorder does about the size of its file.
struct RetentionOptions {
    /// Bytes that the file, its log or journal and its shared memory may take together, at every moment; 0 for no
    /// limit. The oldest rows of all tables of samples, alarms and the log make room for new ones. Some is set aside
    /// for the log, see docs/retention.md: start() names the least ceiling that works with the other options. Holds
    /// for what this recorder writes.
    qint64 ceiling = 0;
    /// The file is made as large as it may become when it is opened, so that recording goes on while another program
    /// fills the disk. Needs a ceiling, a profile with a write-ahead log, and a file system that overwrites in place
    /// (ext2 to ext4, XFS, FAT, exFAT, tmpfs).
    bool reserve = false;
    /// A shipper that has not moved on for this long is reported by retentionHeld().
    std::chrono::hours reportHold{24 * 7};
};

} // namespace device

#endif
