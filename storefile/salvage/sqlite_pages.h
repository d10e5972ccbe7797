// SPDX-License-Identifier: MIT
#ifndef STOREFILE_SQLITE_PAGES_H
#define STOREFILE_SQLITE_PAGES_H

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <optional>
#include <vector>

/// SQLite's file format, as far as rows are to be read out of pages that may hold anything.
/// https://www.sqlite.org/fileformat2.html has the words used here.
namespace device_db
{

/// A view of bytes that cannot be read past: outside of it there are zeros.
class Bytes
{
public:
    Bytes() = default;
    Bytes(const uchar *data, size_t size) : m_data(data), m_size(size) {}
    Bytes(const QByteArray &bytes) : Bytes(reinterpret_cast<const uchar *>(bytes.constData()), size_t(bytes.size())) {}

    size_t size() const { return m_size; }
    uchar at(size_t offset) const { return offset < m_size ? m_data[offset] : 0; }
    bool has(size_t offset, size_t size) const { return offset <= m_size && size <= m_size - offset; }
    /// The part of these bytes that is there.
    Bytes slice(size_t offset, size_t size) const
    {
        return offset < m_size ? Bytes(m_data + offset, qMin(size, m_size - offset)) : Bytes();
    }
    /// An unsigned number of `width` bytes, the most significant first.
    quint64 number(size_t offset, int width) const
    {
        quint64 value = 0;
        for (int i = 0; i < width; ++i)
            value = value << 8 | at(offset + size_t(i));
        return value;
    }
    quint32 page(size_t offset) const { return quint32(number(offset, 4)); }
    const char *chars() const { return reinterpret_cast<const char *>(m_data); }
    QByteArray copy() const { return m_size ? QByteArray(chars(), int(m_size)) : QByteArray(); }

private:
    const uchar *m_data = nullptr;
    size_t m_size = 0;
};

struct Varint {
    quint64 value = 0;
    size_t size = 0; ///< 0: the bytes end within the number.
};
Varint readVarint(Bytes bytes, size_t offset);

/// A row's place in a leaf page.
struct Cell {
    qint64 rowid = 0;
    quint64 payloadSize = 0;
    Bytes local;          ///< The part of the payload that is in the page.
    quint32 overflow = 0; ///< The page that goes on with it; 0: none.
};

enum class PageType { Other = 0, IndexInterior = 2, TableInterior = 5, IndexLeaf = 10, TableLeaf = 13 };
PageType pageType(Bytes page, bool first);

struct Leaf {
    bool sound = false; ///< Each byte is accounted for, as SQLite writes a page.
    std::vector<Cell> cells;
    int rejected = 0; ///< Cells that point outside of the page.
};
/// The rows of a table leaf. `page` holds the usable bytes and lives as long as the result. Null when nothing
/// about the page looks like one.
std::optional<Leaf> readLeaf(Bytes page, bool first);

struct Child {
    quint32 page;
    qint64 lastRowid; ///< None of its rows has a greater one.
};
/// The children of an interior page of a table; the last one's lastRowid has no meaning. Empty when the page is
/// not whole in every detail. A child beyond `pageCount`, where a file is cut, counts only when the page is also filled
/// to the last byte, as SQLite writes it.
std::vector<Child> readInterior(Bytes page, bool first, quint32 pageCount);

struct Value {
    enum Type { Null, Integer, Real, Text, Blob };
    Type type = Null;
    qint64 integer = 0;
    double real = 0;
    Bytes bytes;
};
/// The columns of a record; empty when it is none. `whole` false: the payload may be cut, and columns behind the
/// cut have the right type and no bytes.
std::vector<Value> readRecord(Bytes payload, quint64 payloadSize, bool whole);

enum class Encoding { Utf8 = 1, Utf16Little = 2, Utf16Big = 3 };
/// The text in UTF-8; null when the bytes are no text of this encoding or hold U+0000, which no store writes.
std::optional<QByteArray> readText(Bytes bytes, Encoding encoding);

} // namespace device_db

#endif
