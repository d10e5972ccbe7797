// SPDX-License-Identifier: MIT
#include "storefile/salvage/damaged_file.h"

#include <algorithm>

namespace device_db
{

namespace
{

constexpr quint32 smallestPage = 512;
constexpr quint32 largestPage = 65536;

bool isPageSize(quint64 size)
{
    return size >= smallestPage && size <= largestPage && (size & (size - 1)) == 0;
}

// The running checksum of a write-ahead log.
class LogChecksum
{
public:
    explicit LogChecksum(bool mostSignificantFirst) : m_mostSignificantFirst(mostSignificantFirst) {}

    void add(Bytes bytes)
    {
        for (size_t i = 0; i + 8 <= bytes.size(); i += 8) {
            m_first += word(bytes, i) + m_second;
            m_second += word(bytes, i + 4) + m_first;
        }
    }
    bool matches(Bytes bytes, size_t offset) const
    {
        return bytes.page(offset) == m_first && bytes.page(offset + 4) == m_second;
    }

private:
    quint32 word(Bytes bytes, size_t i) const
    {
        return m_mostSignificantFirst ? bytes.page(i)
                                      : quint32(bytes.at(i)) | quint32(bytes.at(i + 1)) << 8 |
                                            quint32(bytes.at(i + 2)) << 16 | quint32(bytes.at(i + 3)) << 24;
    }

    bool m_mostSignificantFirst;
    quint32 m_first = 0;
    quint32 m_second = 0;
};

} // namespace

DamagedFile::DamagedFile(QIODevice &file, QIODevice *wal, quint32 pageSize) : m_file(file), m_wal(wal)
{
    m_pageSize = pageSize;
    if (wal)
        readLog(*wal);
    if (m_pageSize == 0)
        m_pageSize = likelyPageSize();
    m_filePages = quint32(std::min<qint64>((m_file.size() + m_pageSize - 1) / m_pageSize, 0xfffffffe));
    m_lastPage = m_filePages;
    for (auto it = m_log.keyBegin(); it != m_log.keyEnd(); ++it)
        m_lastPage = std::max(m_lastPage, *it);
    readHeader();
}

std::vector<quint32> DamagedFile::pages() const
{
    std::vector<quint32> numbers;
    for (quint32 number = 1; number <= m_filePages; ++number)
        numbers.push_back(number);
    for (auto it = m_log.keyBegin(); it != m_log.keyEnd(); ++it) {
        if (*it > m_filePages)
            numbers.push_back(*it);
    }
    std::sort(numbers.begin() + m_filePages, numbers.end());
    return numbers;
}

QByteArray DamagedFile::readAt(QIODevice &device, qint64 offset, qint64 size) const
{
    return device.seek(offset) ? device.read(size) : QByteArray();
}

QByteArray DamagedFile::page(quint32 number, bool *torn) const
{
    const auto logged = m_log.constFind(number);
    QByteArray bytes = logged != m_log.constEnd() ? readAt(*m_wal, *logged, m_pageSize)
                       : number >= 1              ? readAt(m_file, qint64(number - 1) * m_pageSize, m_pageSize)
                                                  : QByteArray();
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
    const quint64 size = header.number(16, 2) == 1 ? largestPage : header.number(16, 2);
    m_headerStands = first.startsWith(QByteArray("SQLite format 3\0", 16)) && size == m_pageSize &&
                     header.at(21) == 64 && header.at(22) == 32 && header.at(23) == 32 && header.at(20) <= 64;
    if (!m_headerStands)
        return;
    m_reserved = header.at(20);
    m_firstFreePage = header.page(32);
    if (header.page(56) >= 1 && header.page(56) <= 3)
        m_encoding = Encoding(header.page(56));
}

void DamagedFile::readLog(QIODevice &wal)
{
    constexpr int headerSize = 32;
    constexpr int frameHeaderSize = 24;
    const QByteArray header = readAt(wal, 0, headerSize);
    const Bytes words(header);
    const quint32 magic = words.page(0);
    if (header.size() != headerSize || (magic != 0x377f0682 && magic != 0x377f0683) || !isPageSize(words.page(8)))
        return;
    LogChecksum checksum(magic & 1);
    checksum.add(words.slice(0, 24));
    if (!checksum.matches(words, 24))
        return;
    if (m_pageSize == 0)
        m_pageSize = words.page(8);
    if (m_pageSize != words.page(8))
        return;
    QHash<quint32, qint64> transaction;
    for (qint64 offset = headerSize;; offset += frameHeaderSize + m_pageSize) {
        const QByteArray frame = readAt(wal, offset, frameHeaderSize + m_pageSize);
        const Bytes bytes(frame);
        if (bytes.size() != frameHeaderSize + m_pageSize || bytes.page(0) == 0 ||
            bytes.number(8, 8) != words.number(16, 8))
            break;
        checksum.add(bytes.slice(0, 8));
        checksum.add(bytes.slice(frameHeaderSize, m_pageSize));
        if (!checksum.matches(bytes, 16))
            break;
        transaction.insert(bytes.page(0), offset + frameHeaderSize);
        if (bytes.page(4) != 0) { // a commit
            for (auto it = transaction.cbegin(); it != transaction.cend(); ++it)
                m_log.insert(it.key(), it.value());
            transaction.clear();
        }
    }
}

// The size at which most of the file reads as whole pages. The header's own word counts when it does not lie.
quint32 DamagedFile::likelyPageSize() const
{
    constexpr int samples = 500;
    const QByteArray header = readAt(m_file, 16, 2);
    const quint64 said = Bytes(header).number(0, 2) == 1 ? largestPage : Bytes(header).number(0, 2);
    quint32 best = isPageSize(said) ? quint32(said) : 4096;
    double bestPart = 0;
    for (quint32 size = smallestPage; size <= largestPage; size *= 2) {
        const qint64 pages = m_file.size() / size;
        const qint64 step = std::max<qint64>(1, pages / samples);
        int seen = 0;
        int whole = 0;
        for (qint64 page = 1; page < pages; page += step, ++seen) {
            const QByteArray bytes = readAt(m_file, page * size, size);
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
