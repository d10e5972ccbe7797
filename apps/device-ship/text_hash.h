// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_TEXT_HASH_H
#define DEVICE_SHIP_TEXT_HASH_H

#include <QByteArray>

namespace device_ship
{

/// What hashtextextended(text, 0) of a little-endian PostgreSQL gives, whatever this machine is.
qint64 textHash(const QByteArray &text);

} // namespace device_ship

#endif
