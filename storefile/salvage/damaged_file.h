// SPDX-License-Identifier: MIT
#ifndef STOREFILE_DAMAGED_FILE_H
#define STOREFILE_DAMAGED_FILE_H

#include "storefile/salvage/page_images.h"
#include "storefile/salvage/sqlite_pages.h"

namespace device_db
{

/// A database file and the logs beside it, which belong to its state. All are open for reading and can be positioned.
struct DamagedFiles {
    QIODevice &file;
    QIODevice *writeAheadLog = nullptr;   ///< Null when there is none.
    QIODevice *rollbackJournal = nullptr; ///< Null when there is none.
};

/// The pages of a database file of which nothing is taken for granted. It is only ever read.
class DamagedFile
{
public:
    /// In place of a page of the file comes its committed image in the write-ahead log, or the original image in the
    /// rollback journal of a transaction that was never committed; in this order, as SQLite recovers a file.
    /// `pageSize` 0: from a log's header, or found by trying. The devices outlive this object.
    DamagedFile(const DamagedFiles &files, quint32 pageSize);

    bool headerIntact() const { return m_headerIntact; }
    quint32 pageSize() const { return m_pageSize; }
    /// As far as the pages go that exist, or that the file says it had before it was cut.
    quint32 lastPage() const { return m_lastPage; }
    std::vector<quint32> pages() const; ///< The numbers of all that exist, ascending.
    quint32 logPages() const { return quint32(m_log.offsets.size()); }
    quint32 journalPages() const { return quint32(m_journal.offsets.size()); }
    bool journalDamaged() const { return m_journal.damaged; }
    quint32 firstFreePage() const { return m_firstFreePage; } ///< 0: none, or unknown.
    Encoding encoding() const { return m_encoding; }
    void setEncoding(Encoding encoding) { m_encoding = encoding; }

    /// The usable bytes of page 1 and up, zeros where the file is cut within it; empty for a page that does not exist.
    /// `torn` is set when it is not all there.
    QByteArray page(quint32 number, bool *torn = nullptr) const;

private:
    void readHeader();
    quint32 likelyPageSize() const;

    DamagedFiles m_files;
    bool m_headerIntact = false;
    quint32 m_pageSize = 0;
    quint32 m_reserved = 0;
    quint32 m_filePages = 0; ///< How many pages of the file belong to the database.
    quint32 m_lastPage = 0;
    quint32 m_firstFreePage = 0;
    Encoding m_encoding = Encoding::Utf8;
    PageImages m_log;
    PageImages m_journal;
};

} // namespace device_db

#endif
