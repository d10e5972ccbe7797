// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_DAMAGED_FILE_H
#define DEVICE_DB_DAMAGED_FILE_H

#include "storefile/salvage/sqlite_pages.h"

#include <QHash>
#include <QIODevice>

namespace device_db
{

/// The pages of a database file of which nothing is taken for granted. It is only ever read.
class DamagedFile
{
public:
    /// Both devices are open and can be positioned. `wal`: the write-ahead log that stands beside the file; its
    /// committed pages, up to the first frame that does not fit, are taken in place of the file's.
    /// `pageSize` 0: from the file's header, the log's header, or found out by trying.
    DamagedFile(QIODevice &file, QIODevice *wal, quint32 pageSize);

    bool headerStands() const { return m_headerStands; }
    quint32 pageSize() const { return m_pageSize; }
    quint32 lastPage() const { return m_lastPage; }
    std::vector<quint32> pages() const; ///< The numbers of all that are there, ascending.
    quint32 logPages() const { return quint32(m_log.size()); }
    quint32 firstFreePage() const { return m_firstFreePage; } ///< 0: none, or nobody knows.
    Encoding encoding() const { return m_encoding; }
    void setEncoding(Encoding encoding) { m_encoding = encoding; }

    /// The usable bytes of page 1 and up; cut where the file is cut, empty where there is none. `torn` is set
    /// when the page is not there in full.
    QByteArray page(quint32 number, bool *torn = nullptr) const;

private:
    QByteArray readAt(QIODevice &device, qint64 offset, qint64 size) const;
    void readHeader();
    void readLog(QIODevice &wal);
    quint32 likelyPageSize() const;

    QIODevice &m_file;
    QIODevice *m_wal;
    bool m_headerStands = false;
    quint32 m_pageSize = 0;
    quint32 m_reserved = 0;
    quint32 m_filePages = 0;
    quint32 m_lastPage = 0;
    quint32 m_firstFreePage = 0;
    Encoding m_encoding = Encoding::Utf8;
    QHash<quint32, qint64> m_log; ///< The place of the newest committed copy of a page.
};

} // namespace device_db

#endif
