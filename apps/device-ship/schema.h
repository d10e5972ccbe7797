// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_SCHEMA_H
#define DEVICE_SHIP_SCHEMA_H

#include "archive/archive_connection.h"

namespace device_ship
{

using device::Result;
using device::Status;
using device_db::ArchiveConnection;

/// The version that this program makes and needs.
int schemaVersion();

struct Initialised {
    int former = 0;      ///< The version that it was of, 0 for none.
    QByteArray toRevoke; ///< The statement that a superuser has to run, if any.
};

/// Makes the archive in a database, or brings it up to date: in one transaction.
Result<Initialised> initialise(ArchiveConnection &archive);

/// Makes a device and its role, or gives both another name and password. An empty name: the former one. An empty
/// password: that, or the server knows the role by other means.
Status addDevice(ArchiveConnection &archive, int number, const QString &name, const QByteArray &password);

} // namespace device_ship

#endif
