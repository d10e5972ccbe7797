// SPDX-License-Identifier: MIT
#include "storefile/salvage/sqlite_pages.h"

#include <algorithm>
#include <cstring>

namespace device_db
{

namespace
{

constexpr size_t firstPageHeader = 100;

size_t headerOffset(bool first)
{
    return first ? firstPageHeader : 0;
}

// How much of a payload is in the leaf itself.
size_t localSize(quint64 payloadSize, size_t usable)
{
    if (payloadSize <= usable - 35)
        return size_t(payloadSize);
    const size_t least = (usable - 12) * 32 / 255 - 23;
    const size_t wanted = least + size_t((payloadSize - least) % (usable - 4));
    return wanted <= usable - 35 ? wanted : least;
}

struct Extent {
    size_t begin;
    size_t end;
};

// Whether cells and free blocks fill the content area to the last byte, as in every page that SQLite wrote. `cells`:
// where the list of the cells ends.
bool fillsContent(Bytes page, size_t header, size_t cells, std::vector<Extent> extents)
{
    const size_t content = page.number(header + 5, 2) ? size_t(page.number(header + 5, 2)) : 65536;
    if (content > page.size() || content < cells)
        return false;
    for (size_t block = size_t(page.number(header + 1, 2)); block != 0;) {
        const size_t next = size_t(page.number(block, 2));
        const size_t size = size_t(page.number(block + 2, 2));
        if (size < 4 || !page.has(block, size) || (next != 0 && next < block + size))
            return false;
        extents.push_back({block, block + size});
        block = next;
    }
    std::sort(extents.begin(), extents.end(), [](Extent a, Extent b) { return a.begin < b.begin; });
    size_t filled = 0;
    size_t end = content;
    for (const Extent extent : extents) {
        if (extent.begin < end)
            return false;
        filled += extent.end - extent.begin;
        end = extent.end;
    }
    return filled + page.at(header + 7) == page.size() - content;
}

std::optional<Cell> readCell(Bytes page, size_t offset, Extent &extent)
{
    const Varint payload = readVarint(page, offset);
    const Varint rowid = readVarint(page, offset + payload.size);
    if (payload.size == 0 || rowid.size == 0 || payload.value == 0 || payload.value > 0x7fffffff)
        return std::nullopt;
    const size_t begin = offset + payload.size + rowid.size;
    const size_t local = localSize(payload.value, page.size());
    const bool overflows = local < payload.value;
    if (!page.has(begin, local + (overflows ? 4 : 0)))
        return std::nullopt;
    Cell cell;
    cell.rowid = qint64(rowid.value);
    cell.payloadSize = payload.value;
    cell.local = page.slice(begin, local);
    if (overflows)
        cell.overflow = page.page(begin + local);
    extent = {offset, std::max(begin + local + (overflows ? 4 : 0), offset + 4)};
    return cell;
}

bool isUtf8(Bytes bytes)
{
    for (size_t i = 0; i < bytes.size();) {
        const uchar lead = bytes.at(i);
        const int more = lead < 0x80 ? 0 : lead < 0xc2 ? -1 : lead < 0xe0 ? 1 : lead < 0xf0 ? 2 : lead < 0xf5 ? 3 : -1;
        if (more < 0 || lead == 0 || !bytes.has(i, size_t(more) + 1))
            return false;
        quint32 code = more == 0 ? lead : lead & (0x3f >> more);
        for (int k = 1; k <= more; ++k) {
            if ((bytes.at(i + size_t(k)) & 0xc0) != 0x80)
                return false;
            code = code << 6 | (bytes.at(i + size_t(k)) & 0x3f);
        }
        if ((more == 2 && code < 0x800) || (more == 3 && (code < 0x10000 || code > 0x10ffff)) ||
            (code >= 0xd800 && code < 0xe000))
            return false;
        i += size_t(more) + 1;
    }
    return true;
}

} // namespace

Varint readVarint(Bytes bytes, size_t offset)
{
    Varint varint;
    for (size_t i = 0; i < 9 && bytes.has(offset + i, 1); ++i) {
        const uchar byte = bytes.at(offset + i);
        varint.value = i == 8 ? varint.value << 8 | byte : varint.value << 7 | (byte & 0x7f);
        if (i == 8 || byte < 0x80) {
            varint.size = i + 1;
            return varint;
        }
    }
    return {};
}

PageType pageType(Bytes page, bool first)
{
    switch (page.at(headerOffset(first))) {
    case 2:
        return PageType::IndexInterior;
    case 5:
        return PageType::TableInterior;
    case 10:
        return PageType::IndexLeaf;
    case 13:
        return PageType::TableLeaf;
    default:
        return PageType::Other;
    }
}

std::optional<Leaf> readLeaf(Bytes page, bool first)
{
    const size_t header = headerOffset(first);
    const size_t count = size_t(page.number(header + 3, 2));
    const size_t cells = header + 8 + 2 * count;
    if (pageType(page, first) != PageType::TableLeaf || cells > page.size())
        return std::nullopt;
    Leaf leaf;
    std::vector<Extent> extents;
    bool ascending = true;
    for (size_t i = 0; i < count; ++i) {
        const size_t offset = size_t(page.number(header + 8 + 2 * i, 2));
        Extent extent{0, 0};
        const auto cell = offset >= cells ? readCell(page, offset, extent) : std::nullopt;
        if (!cell) {
            ++leaf.rejected;
            continue;
        }
        ascending = ascending && (leaf.cells.empty() || leaf.cells.back().rowid < cell->rowid);
        leaf.cells.push_back(*cell);
        extents.push_back(extent);
    }
    leaf.sound = leaf.rejected == 0 && ascending && fillsContent(page, header, cells, std::move(extents));
    return leaf;
}

std::vector<Child> readInterior(Bytes page, bool first, quint32 pageCount)
{
    const size_t header = headerOffset(first);
    const size_t count = size_t(page.number(header + 3, 2));
    const size_t cells = header + 12 + 2 * count;
    if (pageType(page, first) != PageType::TableInterior || cells > page.size())
        return {};
    std::vector<Child> children;
    std::vector<Extent> extents;
    bool allExist = true;
    const auto add = [&](quint32 child, qint64 key) {
        children.push_back({child, key});
        allExist = allExist && child <= pageCount;
        return child >= 2;
    };
    for (size_t i = 0; i < count; ++i) {
        const size_t offset = size_t(page.number(header + 12 + 2 * i, 2));
        const Varint key = readVarint(page, offset + 4);
        if (offset < cells || key.size == 0 || (i > 0 && children.back().lastRowid >= qint64(key.value)) ||
            !add(page.page(offset), qint64(key.value)))
            return {};
        extents.push_back({offset, offset + 4 + key.size});
    }
    if (!add(page.page(header + 8), 0) || (!allExist && !fillsContent(page, header, cells, std::move(extents))))
        return {};
    return children;
}

std::vector<Value> readRecord(Bytes payload, quint64 payloadSize, bool whole)
{
    const Varint headerSize = readVarint(payload, 0);
    if (headerSize.size == 0 || headerSize.value < headerSize.size || headerSize.value > payload.size())
        return {};
    const Bytes header = payload.slice(0, size_t(headerSize.value));
    std::vector<Value> values;
    quint64 at = headerSize.value;
    for (size_t offset = headerSize.size; offset < header.size();) {
        const Varint serial = readVarint(header, offset);
        if (serial.size == 0 || serial.value == 10 || serial.value == 11)
            return {};
        offset += serial.size;
        static constexpr quint64 sizes[] = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0};
        const quint64 size = serial.value < 10 ? sizes[serial.value] : (serial.value - 12) / 2;
        if (size > payloadSize || at > payloadSize - size)
            return {};
        Value value;
        const Bytes bytes = payload.slice(size_t(at), size_t(size));
        if (serial.value >= 12) {
            value.type = serial.value % 2 ? Value::Text : Value::Blob;
            value.bytes = bytes;
        } else if (serial.value == 7) {
            value.type = Value::Real;
            const quint64 bits = bytes.number(0, 8);
            std::memcpy(&value.real, &bits, sizeof bits);
        } else if (serial.value >= 1) {
            value.type = Value::Integer;
            const int width = int(size);
            if (width == 0)
                value.integer = serial.value == 9;
            else // the sign stands in the first bit
                value.integer = qint64(bytes.number(0, width) << (64 - 8 * width)) >> (64 - 8 * width);
        }
        values.push_back(value);
        at += size;
    }
    if (at != payloadSize || (whole && payload.size() != payloadSize))
        return {};
    return values;
}

std::optional<QByteArray> readText(Bytes bytes, Encoding encoding)
{
    if (encoding == Encoding::Utf8)
        return isUtf8(bytes) ? std::optional(bytes.copy()) : std::nullopt;
    if (bytes.size() % 2 != 0)
        return std::nullopt;
    QString text;
    text.reserve(int(bytes.size() / 2));
    for (size_t i = 0; i < bytes.size(); i += 2) {
        const int low = encoding == Encoding::Utf16Little ? 0 : 1;
        const QChar unit(ushort(bytes.at(i + size_t(low)) | bytes.at(i + size_t(1 - low)) << 8));
        if (unit.isNull())
            return std::nullopt;
        text += unit;
    }
    if (!text.isValidUtf16())
        return std::nullopt;
    return text.toUtf8();
}

} // namespace device_db
