// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_SHIPPED_STATEMENT_H
#define DEVICE_SHIP_SHIPPED_STATEMENT_H

#include "storefile/error.h"

#include <QMap>
#include <QString>

namespace device_ship
{

/// Replaces the file beside a store that says what is shipped, which the recorder's retention waits for. A reader sees
/// the former or the new one.
device::Status stateShipped(const QString &storePath, const QMap<QString, qint64> &watermarks);

} // namespace device_ship

#endif
