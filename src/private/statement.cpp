// SPDX-License-Identifier: MIT
#include "statement.h"

#include <climits>
#include <cstring>

namespace
{

// Writes the low byte of each unit; true if all were ASCII. Eight units at a time through local arrays: `bytes` may
// alias `units`, so compilers vectorise only then. The last block overlaps the one before it; a tail loop would cost
// more than all the blocks.
bool narrow(const QChar *units, int size, char *bytes)
{
    const ushort *const unit = reinterpret_cast<const ushort *>(units);
    ushort seen = 0;
    if (size < 8) {
        for (int i = 0; i < size; ++i) {
            seen |= unit[i];
            bytes[i] = char(unit[i]);
        }
        return seen < 0x80;
    }
    ushort lanes[8] = {};
    for (int i = 0;; i = i + 16 <= size ? i + 8 : size - 8) {
        ushort from[8];
        char to[8];
        std::memcpy(from, unit + i, sizeof from);
        for (int j = 0; j < 8; ++j)
            to[j] = char(from[j]);
        for (int j = 0; j < 8; ++j)
            lanes[j] |= from[j];
        std::memcpy(bytes + i, to, sizeof to);
        if (i + 8 == size)
            break;
    }
    for (int j = 0; j < 8; ++j)
        seen |= lanes[j];
    return seen < 0x80;
}

// A marker is '%', perhaps 'L', a digit of any script. Any non-ASCII unit counts as one here: taking the chain
// without need is slower, not wrong.
bool startsMarker(ushort unit)
{
    return unit == 'L' || unit >= 0x80 || ushort(unit - '0') < 10;
}

} // namespace

namespace detail
{

StatementTemplate::StatementTemplate(const char *text) : m_text(text), m_markers(0), m_end(nullptr)
{
    const char *piece = text;
    for (const char *mark = std::strchr(text, '%'); mark; mark = std::strchr(piece, '%')) {
        m_pieces[m_markers++] = size_t(mark - piece);
        piece = mark + 2;
    }
    m_pieces[m_markers] = std::strlen(piece) + 1;
}

const char *StatementTemplate::splice(const QString *const *cells)
{
    size_t most = std::strlen(m_text) + 1;
    for (int i = 0; i < m_markers; ++i)
        most += 3 * size_t(cells[i]->size()); // UTF-8 takes at most three bytes for a UTF-16 unit
    if (most > size_t(INT_MAX) / 2)           // more than the buffer can count
        return nullptr;
    if (size_t(m_bytes.size()) < most)
        m_bytes.resize(int(2 * most));

    m_end = m_bytes.data();
    const char *piece = m_text;
    for (int i = 0; i < m_markers; ++i) {
        append(piece, m_pieces[i]);
        if (!appendCell(*cells[i], i + 1 == m_markers))
            return nullptr;
        piece += m_pieces[i] + 2;
    }
    append(piece, m_pieces[m_markers]);
    return m_bytes.data();
}

// Nothing is filled in after the last cell: its markers stay what they are.
bool StatementTemplate::appendCell(const QString &cell, bool isLast)
{
    const int size = int(cell.size());
    if (narrow(cell.constData(), size, m_end)) {
        const char *byte = m_end;
        m_end += size;
        *m_end = '\0';
        while (!isLast) {
            byte = static_cast<const char *>(std::memchr(byte, '%', size_t(m_end - byte)));
            if (!byte)
                break;
            if (startsMarker(uchar(*++byte)))
                return false;
        }
        return true;
    }
    for (int i = 0; i < size; ++i) {
        const QChar unit = cell.at(i);
        if (unit.isHighSurrogate() || unit.isLowSurrogate()) // the bytes of a lone one depend on its neighbour
            return false;
        if (!isLast && unit == QLatin1Char('%') && i + 1 < size && startsMarker(cell.at(i + 1).unicode()))
            return false;
    }
    const QByteArray utf8 = cell.toUtf8();
    append(utf8.constData(), size_t(utf8.size()));
    return true;
}

void StatementTemplate::append(const char *bytes, size_t size)
{
    std::memcpy(m_end, bytes, size);
    m_end += size;
}

} // namespace detail
