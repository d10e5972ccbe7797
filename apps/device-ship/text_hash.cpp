// SPDX-License-Identifier: MIT
#include "text_hash.h"

#include <QtEndian>

namespace device_ship
{

namespace
{

quint32 rotated(quint32 value, int bits)
{
    return value << bits | value >> (32 - bits);
}

// Bob Jenkins' lookup3, of 2006, in the public domain.
void mix(quint32 &a, quint32 &b, quint32 &c)
{
    const auto step = [](quint32 &x, quint32 &y, quint32 z, int bits) {
        x -= y;
        x ^= rotated(y, bits);
        y += z;
    };
    step(a, c, b, 4);
    step(b, a, c, 6);
    step(c, b, a, 8);
    step(a, c, b, 16);
    step(b, a, c, 19);
    step(c, b, a, 4);
}

void finish(quint32 &a, quint32 &b, quint32 &c)
{
    const auto step = [](quint32 &x, quint32 y, int bits) {
        x ^= y;
        x -= rotated(y, bits);
    };
    step(c, b, 14);
    step(a, c, 11);
    step(b, a, 25);
    step(c, b, 16);
    step(a, c, 4);
    step(b, a, 14);
    step(c, b, 24);
}

} // namespace

qint64 textHash(const QByteArray &text)
{
    const auto *at = reinterpret_cast<const uchar *>(text.constData());
    auto left = quint32(text.size());
    quint32 a = 0x9e3779b9U + left + 3923095U;
    quint32 b = a;
    quint32 c = a;
    for (; left >= 12; at += 12, left -= 12) {
        a += qFromLittleEndian<quint32>(at);
        b += qFromLittleEndian<quint32>(at + 4);
        c += qFromLittleEndian<quint32>(at + 8);
        mix(a, b, c);
    }
    // The lowest byte of the third word belongs to the length.
    quint32 words[3] = {};
    for (quint32 i = 0; i < left; ++i) {
        const quint32 place = i < 8 ? i : i + 1;
        words[place / 4] += quint32(at[i]) << place % 4 * 8;
    }
    a += words[0];
    b += words[1];
    c += words[2];
    finish(a, b, c);
    return qint64(quint64(b) << 32 | c);
}

} // namespace device_ship
