// SPDX-License-Identifier: MIT
#include "storefile/salvage/page_images.h"

#include "storefile/salvage/sqlite_pages.h"

#include <algorithm>

namespace device_db
{

namespace
{

QByteArray readAt(QIODevice &device, qint64 offset, qint64 size)
{
    return device.seek(offset) ? device.read(size) : QByteArray();
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

// The journal's checksum takes every 200th byte, from the end of the page, and never the first.
quint32 journalChecksum(Bytes page, quint32 nonce)
{
    quint32 sum = nonce;
    for (qint64 i = qint64(page.size()) - 200; i > 0; i -= 200)
        sum += page.at(size_t(i));
    return sum;
}

} // namespace

bool isPageSize(quint64 size)
{
    return size >= 512 && size <= 65536 && (size & (size - 1)) == 0;
}

PageImages readWriteAheadLog(QIODevice &log, quint32 pageSize)
{
    constexpr int headerSize = 32;
    constexpr int frameHeaderSize = 24;
    const QByteArray header = readAt(log, 0, headerSize);
    const Bytes words(header);
    const quint32 magic = words.page(0);
    PageImages images;
    if (header.size() != headerSize || (magic != 0x377f0682 && magic != 0x377f0683) || !isPageSize(words.page(8)) ||
        (pageSize != 0 && pageSize != words.page(8)))
        return images;
    LogChecksum checksum(magic & 1);
    checksum.add(words.slice(0, 24));
    if (!checksum.matches(words, 24))
        return images;
    images.pageSize = words.page(8);
    QHash<quint32, qint64> transaction;
    for (qint64 offset = headerSize;; offset += frameHeaderSize + images.pageSize) {
        const QByteArray frame = readAt(log, offset, frameHeaderSize + images.pageSize);
        const Bytes bytes(frame);
        if (bytes.size() != frameHeaderSize + images.pageSize || bytes.page(0) == 0 ||
            bytes.number(8, 8) != words.number(16, 8))
            break;
        checksum.add(bytes.slice(0, 8));
        checksum.add(bytes.slice(frameHeaderSize, images.pageSize));
        if (!checksum.matches(bytes, 16))
            break;
        transaction.insert(bytes.page(0), offset + frameHeaderSize);
        if (bytes.page(4) != 0) { // a commit
            images.databasePages = bytes.page(4);
            for (auto it = transaction.cbegin(); it != transaction.cend(); ++it)
                images.offsets.insert(it.key(), it.value());
            transaction.clear();
        }
    }
    for (auto it = images.offsets.begin(); it != images.offsets.end();)
        it = it.key() > images.databasePages ? images.offsets.erase(it) : ++it;
    return images;
}

PageImages readRollbackJournal(QIODevice &journal, quint32 pageSize)
{
    constexpr quint64 magic = 0xd9d505f920a163d7;
    constexpr quint32 untilTheEnd = 0xffffffff; // written without syncs: the size of the journal says how many
    const qint64 size = journal.size();
    PageImages images;
    qint64 sector = 0;
    // One header for each time that SQLite made the journal safe, each at the beginning of a sector.
    for (qint64 offset = 0;;) {
        const QByteArray header = readAt(journal, offset, 28);
        const Bytes words(header);
        if (header.size() != 28 || words.number(0, 8) != magic)
            return images;
        if (sector == 0) {
            const quint64 sectorSize = words.page(20);
            const quint64 journalPage = words.page(24);
            if (sectorSize < 32 || sectorSize > 65536 || (sectorSize & (sectorSize - 1)) != 0 ||
                !isPageSize(journalPage) || (pageSize != 0 && pageSize != journalPage))
                return images;
            sector = qint64(sectorSize);
            images.pageSize = quint32(journalPage);
            images.databasePages = words.page(16);
        }
        const quint32 lockPage =
            0x40000000 / images.pageSize + 1; // never in a journal but before a super-journal's name
        const qint64 recordSize = qint64(images.pageSize) + 8;
        const quint32 count = words.page(8);
        offset += sector;
        const qint64 present = std::max<qint64>(0, (size - offset) / recordSize);
        const qint64 records = count == untilTheEnd ? present : std::min<qint64>(count, present);
        images.damaged |= count != untilTheEnd && records < qint64(count);
        for (qint64 i = 0; i < records; ++i, offset += recordSize) {
            const QByteArray record = readAt(journal, offset, recordSize);
            const Bytes bytes(record);
            const quint32 number = bytes.page(0);
            const Bytes image = bytes.slice(4, images.pageSize);
            if (number == lockPage)
                return images;
            if (number == 0 || bytes.page(4 + images.pageSize) != journalChecksum(image, words.page(12)))
                images.damaged |= count != untilTheEnd; // else it is left from an earlier transaction
            else if (!images.offsets.contains(number))
                images.offsets.insert(number, offset + 4); // the first is the oldest
            // Pages that the transaction added have no original image, so the size is not what the header says.
            if (images.offsets.contains(number) && number > images.databasePages)
                images.databasePages = 0;
        }
        if (records < qint64(count))
            return images;
        offset = (offset + sector - 1) / sector * sector;
    }
}

} // namespace device_db
