// SPDX-License-Identifier: MIT
#include "storefile/salvage/damaged_file.h"

#include <algorithm>

namespace device_db
{

namespace
{

QByteArray readAt(QIODevice &device, qint64 offset, qint64 size)
{
    return device.seek(offset) ? device.read(size) : QByteArray();
}

// A header's word of two bytes, in which the largest size does not fit.
quint64 pageSizeOf(quint64 word)
{
    return word == 1 ? 65536 : word;
}

} // namespace

DamagedFile::DamagedFile(const DamagedFiles &files, quint32 pageSize) : m_files(files), m_pageSize(pageSize)
{
    if (m_files.rollbackJournal) {
        m_journal = readRollbackJournal(*m_files.rollbackJournal, m_pageSize);
        if (m_pageSize == 0 && !m_journal.offsets.isEmpty())
            m_pageSize = m_journal.pageSize;
    }
    if (m_files.writeAheadLog) {
        m_log = readWriteAheadLog(*m_files.writeAheadLog, m_pageSize);
        if (m_pageSize == 0)
            m_pageSize = m_log.pageSize;
    }
    if (m_pageSize == 0)
        m_pageSize = likelyPageSize();
    m_filePages = quint32(std::min<qint64>((m_files.file.size() + m_pageSize - 1) / m_pageSize, 0xfffffffe));
    // What a transaction added that was rolled back, and what one took away that is only in the log, is not part of it.
    for (const PageImages *images : {&m_journal, &m_log}) {
        if (!images->offsets.isEmpty() && images->databasePages != 0)
            m_filePages = std::min(m_filePages, images->databasePages);
    }
    const std::vector<quint32> all = pages();
    m_lastPage = all.empty() ? 0 : all.back();
    readHeader();
}

std::vector<quint32> DamagedFile::pages() const
{
    std::vector<quint32> numbers;
    for (quint32 number = 1; number <= m_filePages; ++number)
        numbers.push_back(number);
    for (const PageImages *images : {&m_journal, &m_log}) {
        for (auto it = images->offsets.keyBegin(); it != images->offsets.keyEnd(); ++it) {
            if (*it > m_filePages)
                numbers.push_back(*it);
        }
    }
    std::sort(numbers.begin() + m_filePages, numbers.end());
    numbers.erase(std::unique(numbers.begin() + m_filePages, numbers.end()), numbers.end());
    return numbers;
}

QByteArray DamagedFile::page(quint32 number, bool *torn) const
{
    const auto logged = m_log.offsets.constFind(number);
    const auto original = m_journal.offsets.constFind(number);
    QByteArray bytes;
    if (logged != m_log.offsets.constEnd())
        bytes = readAt(*m_files.writeAheadLog, *logged, m_pageSize);
    else if (original != m_journal.offsets.constEnd())
        bytes = readAt(*m_files.rollbackJournal, *original, m_pageSize);
    else if (number >= 1 && number <= m_filePages)
        bytes = readAt(m_files.file, qint64(number - 1) * m_pageSize, m_pageSize);
    if (torn)
        *torn = bytes.size() != int(m_pageSize);
    // The missing end of a torn page reads as zeros, which no cell of a store holds.
    if (!bytes.isEmpty() && bytes.size() != int(m_pageSize))
        bytes.append(QByteArray(int(m_pageSize) - int(bytes.size()), '\0'));
    bytes.chop(int(m_reserved));
    return bytes;
}

void DamagedFile::readHeader()
{
    const QByteArray first = page(1);
    const Bytes header(first);
    m_headerIntact = first.startsWith(QByteArray("SQLite format 3\0", 16)) &&
                     pageSizeOf(header.number(16, 2)) == m_pageSize && header.at(21) == 64 && header.at(22) == 32 &&
                     header.at(23) == 32 && header.at(20) <= 64;
    if (!m_headerIntact)
        return;
    m_reserved = header.at(20);
    m_firstFreePage = header.page(32);
    // The number of pages counts when it is as old as the change counter.
    if (header.page(92) == header.page(24))
        m_lastPage = std::max(m_lastPage, header.page(28));
    if (header.page(56) >= 1 && header.page(56) <= 3)
        m_encoding = Encoding(header.page(56));
}

// The size at which most of the file reads as whole pages. The header's own word counts when it does not lie.
quint32 DamagedFile::likelyPageSize() const
{
    constexpr int samples = 500;
    const quint64 said = pageSizeOf(Bytes(readAt(m_files.file, 16, 2)).number(0, 2));
    quint32 best = isPageSize(said) ? quint32(said) : 4096;
    double bestPart = 0;
    for (quint32 size = 512; size <= 65536; size *= 2) {
        const qint64 pages = m_files.file.size() / size;
        const qint64 step = std::max<qint64>(1, pages / samples);
        int seen = 0;
        int whole = 0;
        for (qint64 page = 1; page < pages; page += step, ++seen) {
            const QByteArray bytes = readAt(m_files.file, page * size, size);
            const auto leaf = readLeaf(bytes, false);
            whole += leaf && leaf->sound && !leaf->cells.empty();
        }
        const double part = seen ? double(whole) / seen : 0;
        if (part > bestPart || (part == bestPart && size == said)) {
            best = size;
            bestPart = part;
        }
    }
    return best;
}

} // namespace device_db
