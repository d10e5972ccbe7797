// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_VERIFY_H
#define DEVICE_SHIP_VERIFY_H

#include "archive/archive_connection.h"
#include "configuration.h"

namespace device_ship
{

using device::Result;
using device::Status;
using device_db::ArchiveConnection;

/// Compares what is shipped with a device's files, by digests over ranges of IDs, and prints what differs. With a
/// connection of the archive's owner, rows that differ are put right. True if none differ, or none any more.
Result<bool> verify(const Configuration &configuration, ArchiveConnection *owner);

} // namespace device_ship

#endif
