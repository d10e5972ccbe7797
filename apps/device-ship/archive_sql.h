// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_ARCHIVE_SQL_H
#define DEVICE_SHIP_ARCHIVE_SQL_H

#include <QByteArray>
#include <QList>

namespace device_ship
{

/// The files of archive/, in their order.
const QList<QByteArray> &archiveSql();

} // namespace device_ship

#endif
