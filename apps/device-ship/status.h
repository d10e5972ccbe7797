// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_STATUS_H
#define DEVICE_SHIP_STATUS_H

#include "archive_connection.h"

namespace device_ship
{

/// Prints how far each table of each device is. As the owner, makes the partitions of the months to come.
Status showStatus(ArchiveConnection &archive);

} // namespace device_ship

#endif
