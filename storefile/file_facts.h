// SPDX-License-Identifier: MIT
#ifndef STOREFILE_FILE_FACTS_H
#define STOREFILE_FILE_FACTS_H

#include "storefile/findings.h"
#include "storefile/live_file.h"
#include "storefile/open_processes.h"

#include <functional>

namespace device_db
{

struct TableFacts {
    Table table;
    qint64 rows = -1;  ///< Negative: not counted, the table is virtual.
    qint64 lastId = 0; ///< Ever given; the next row gets a higher one.
    qint64 bytes = -1; ///< With its indexes; negative: this SQLite cannot say.
    QByteArray first;  ///< The least and the greatest of its times, as texts.
    QByteArray last;
    bool indexed = false; ///< Has an index that begins with the time.
};

/// What a file is and what is in it.
struct FileFacts {
    qint64 bytes = 0;
    qint64 pages = 0;
    qint64 pageSize = 0;
    qint64 freePages = 0;
    QByteArray journal; ///< "wal", "delete", ...
    QByteArray encoding;
    qint64 walBytes = -1;     ///< Negative: there is none beside the file.
    qint64 journalBytes = -1; ///< A transaction that is under way, or that a dead process left.
    QList<OpenProcess> processes;
    QList<TableFacts> tables;
    QList<Registration> registrations;
    QList<Finding> findings; ///< All but those of integrityFindings().
};

/// Reads every row once, in the order of recording. `path`: the file itself, where `database` may be of a copy.
/// `seen` is told the number of rows from time to time; may be empty.
Result<FileFacts> factsOf(const Database &database, const QString &path, const std::function<void(qint64)> &seen);

} // namespace device_db

#endif
