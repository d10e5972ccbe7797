// SPDX-License-Identifier: MIT
#include "storefile/salvage/page_survey.h"

#include <algorithm>

namespace device_db
{

void PageSurvey::look(const std::function<void(double)> &progress)
{
    findEncoding();
    const auto numbers = m_file.pages();
    pages = qint64(numbers.size());
    for (size_t i = 0; i < numbers.size(); ++i) {
        if (progress && i % 1024 == 0)
            progress(double(i) / double(numbers.size()));
        lookAt(numbers[i]);
    }
    findFreePages();
}

// By what the times look like; only the header, which may be gone, says whether texts are in UTF-16.
void PageSurvey::findEncoding()
{
    if (m_file.headerIntact())
        return;
    std::array<int, 4> votes{};
    int looked = 0;
    for (const quint32 number : m_file.pages()) {
        const QByteArray bytes = m_file.page(number);
        const auto leaf = readLeaf(bytes, number == 1);
        if (!leaf || !leaf->sound || leaf->cells.empty())
            continue;
        const Cell &cell = leaf->cells.front();
        for (const Value &value : readRecord(cell.local, cell.payloadSize, false)) {
            for (const Encoding encoding : {Encoding::Utf8, Encoding::Utf16Little, Encoding::Utf16Big})
                votes[size_t(encoding)] += isTime(value, encoding);
        }
        if (++looked == 1000)
            break;
    }
    m_file.setEncoding(Encoding(std::max_element(votes.begin() + 1, votes.end()) - votes.begin()));
}

void PageSurvey::lookAt(quint32 number)
{
    bool torn = false;
    const QByteArray bytes = m_file.page(number, &torn);
    const bool first = number == 1 && m_file.headerIntact();
    switch (pageType(bytes, first)) {
    case PageType::TableLeaf:
        if (const auto leaf = readLeaf(bytes, first)) {
            LeafInfo info;
            info.sound = leaf->sound && !torn;
            info.first = highestId;
            info.last = lowestId;
            for (const Cell &cell : leaf->cells) {
                const RowKind kind = kindOfRow(readRecord(cell.local, cell.payloadSize, false), encoding());
                if (!info.sound && kind == Foreign)
                    continue; // not a row at all
                ++info.votes[kind];
                ++info.count;
                info.first = std::min(info.first, cell.rowid);
                info.last = std::max(info.last, cell.rowid);
            }
            if (info.sound || info.count > 0)
                leaves[number] = info;
        }
        break;
    case PageType::TableInterior: {
        auto children = readInterior(bytes, first, m_file.lastPage());
        if (!children.empty() && !torn)
            interiors[number] = std::move(children);
        break;
    }
    case PageType::IndexInterior:
    case PageType::IndexLeaf:
        ++indexPages;
        break;
    case PageType::Other:
        break;
    }
}

// The free list is a chain of pages, each with the number of the next and a list of free pages. Pages keep what they
// held when they become free, so rows on them were deleted. The chain may be broken or its beginning lost:
// each page that can only be a part of it is taken as one.
void PageSurvey::findFreePages()
{
    // Without a header nobody knows whether the file is cut, so the list may name pages beyond its end.
    const quint32 lastPage = m_file.headerIntact() ? m_file.lastPage() : 0xfffffffe;
    for (const quint32 number : m_file.pages()) {
        if (number == 1 || leaves.count(number) || interiors.count(number))
            continue;
        const QByteArray bytes = m_file.page(number);
        const Bytes page(bytes);
        const quint32 next = page.page(0);
        const quint32 count = page.page(4);
        if (next > lastPage || next == 1 || count > page.size() / 4 - 2 || (next == 0 && count == 0))
            continue;
        QSet<quint32> listed;
        for (quint32 i = 0; i < count; ++i) {
            const quint32 entry = page.page(8 + 4 * size_t(i));
            if (entry < 2 || entry > lastPage || listed.contains(entry))
                break;
            listed.insert(entry);
        }
        if (quint32(listed.size()) != count || (count == 0 && number != m_file.firstFreePage()))
            continue;
        free += listed;
        free.insert(number);
    }
}

void PageSurvey::forEachRow(quint32 page, const std::function<void(const Row &)> &use) const
{
    const QByteArray bytes = m_file.page(page);
    const auto leaf = readLeaf(bytes, page == 1 && m_file.headerIntact());
    if (!leaf)
        return;
    for (const Cell &cell : leaf->cells) {
        Row row;
        row.id = cell.rowid;
        const auto whole = payload(cell, row.chain);
        if (whole)
            row.cells = readRecord(*whole, cell.payloadSize, true);
        use(row);
    }
}

// The whole payload of a row, and the overflow pages that it goes on in; null when their chain is broken.
std::optional<QByteArray> PageSurvey::payload(const Cell &cell, QSet<quint32> &chain) const
{
    QByteArray bytes = cell.local.copy();
    const quint64 perPage = m_file.pageSize() - 4; // less what is reserved, which a page() leaves out
    for (quint32 next = cell.overflow; quint64(bytes.size()) < cell.payloadSize;) {
        const auto leaf = leaves.find(next);
        if (next < 2 || next > m_file.lastPage() || chain.contains(next) || overflow.contains(next) ||
            inTrees.contains(next) || (leaf != leaves.end() && leaf->second.sound) ||
            cell.payloadSize / perPage > quint64(pages))
            return std::nullopt;
        chain.insert(next);
        bool torn = false;
        const QByteArray page = m_file.page(next, &torn);
        if (page.size() <= 4 || torn)
            return std::nullopt;
        bytes += page.mid(4, int(qMin<quint64>(quint64(page.size()) - 4, cell.payloadSize - quint64(bytes.size()))));
        next = Bytes(page).page(0);
        if (quint64(bytes.size()) == cell.payloadSize && next != 0)
            return std::nullopt;
    }
    return bytes;
}

} // namespace device_db
