// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_STATUS_H
#define DEVICE_SHIP_STATUS_H

#include "archive/archive_connection.h"

namespace device_ship
{

using device::Result;
using device::Status;
using device_db::ArchiveConnection;

/// Prints how far each table of each device is. As the owner, makes the partitions of the months to come.
Status showStatus(ArchiveConnection &archive);

} // namespace device_ship

#endif
