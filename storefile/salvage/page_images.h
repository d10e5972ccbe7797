// SPDX-License-Identifier: MIT
#ifndef STOREFILE_PAGE_IMAGES_H
#define STOREFILE_PAGE_IMAGES_H

#include <QHash>
#include <QIODevice>

namespace device_db
{

/// The page images in a log beside a database file. They take the place of the file's own pages.
struct PageImages {
    quint32 pageSize = 0;           ///< 0: there is no such log, or it is of no use.
    quint32 databasePages = 0;      ///< The size of the database that the images belong to; 0: unknown.
    bool damaged = false;           ///< Images are missing, or do not match their checksum.
    QHash<quint32, qint64> offsets; ///< Where the image of a page begins in the log.
};

/// The newest committed image of each page in a write-ahead log, up to the first frame that does not fit.
/// `pageSize`: what the log must have, 0 for any.
PageImages readWriteAheadLog(QIODevice &log, quint32 pageSize);

/// The original images of the pages that an unfinished transaction has changed. SQLite ends a rollback at the first
/// image that is damaged; here it costs only its own page. Nothing is found in the journal of a transaction that ended.
PageImages readRollbackJournal(QIODevice &journal, quint32 pageSize);

/// 512, 1024 ... 65536.
bool isPageSize(quint64 size);

} // namespace device_db

#endif
