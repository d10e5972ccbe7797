// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// A text literal: UTF-8 in the source.
inline QString operator""_q(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}
