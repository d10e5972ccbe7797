// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_SERVICE_H
#define DEVICE_SHIP_SERVICE_H

#include "configuration.h"

namespace device_ship
{

/// Ships what there is, and says how far it is. False if not all could be shipped.
device::Result<bool> shipOnce(const Configuration &configuration);

/// Ships for ever, and says on standard error what is wrong. Ends by a signal: at no moment is anything half done.
[[noreturn]] void shipAlways(const Configuration &configuration);

/// A line on standard error, with the name of the program before it.
void complain(const QString &line);

} // namespace device_ship

#endif
