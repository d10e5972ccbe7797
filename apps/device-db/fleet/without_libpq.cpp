// SPDX-License-Identifier: MIT
#include "fleet/fleet.h"

namespace device_db
{

Result<std::unique_ptr<Fleet>> openFleet(const QString &address, const QStringList &)
{
    return failure(address, QStringLiteral("this device-db was built without libpq and takes files alone; build it "
                                           "where libpq is found"));
}

} // namespace device_db
