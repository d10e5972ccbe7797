// SPDX-License-Identifier: MIT
#ifndef PRIVATE_TEXTS_H
#define PRIVATE_TEXTS_H

#include <QString>

namespace detail
{

// Historical conversions by way of an 8-bit C string, which is read as Latin-1 (on Qt 4: with the codec that the host
// installed, if any). Files and hosts in the field rely on what they do to texts outside ASCII.

/// The text's UTF-8 bytes read as a C string: unchanged for ASCII, encoded once more for anything else.
QString rereadUtf8(const QString &text);

/// The text's Latin-1 bytes read as a C string: a "?" for each UTF-16 unit outside Latin-1.
QString rereadLatin1(const QString &text);

} // namespace detail

#endif
