// SPDX-License-Identifier: MIT
#include "texts.h"

#include "qt_versions.h"

namespace
{

// ASCII without a NUL: every conversion leaves such a text as it is.
bool isPlainAscii(const QString &text)
{
    const ushort *const unit = reinterpret_cast<const ushort *>(text.constData());
    const int size = int(text.size());
    ushort outside = 0;
    int i = 0;
    for (; i + 8 <= size; i += 8) {
        for (int j = 0; j < 8; ++j)
            outside |= ushort(unit[i + j] > 0x7f) | ushort(unit[i + j] == 0);
    }
    for (; i < size; ++i)
        outside |= ushort(unit[i] > 0x7f) | ushort(unit[i] == 0);
    return outside == 0;
}

} // namespace

namespace detail
{

QString rereadUtf8(const QString &text)
{
    return cStringsAreLatin1() && isPlainAscii(text) ? text : fromCString(text.toUtf8());
}

QString rereadLatin1(const QString &text)
{
    return cStringsAreLatin1() && isPlainAscii(text) ? text : fromCString(text.toLatin1());
}

} // namespace detail
