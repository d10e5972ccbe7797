// SPDX-License-Identifier: MIT
#ifndef STOREFILE_SYSTEM_ERROR_H
#define STOREFILE_SYSTEM_ERROR_H

#include <QString>

namespace device_db
{

/// What errno says, for people. Right after a QFile has failed it says more than errorString(), which does not know why
/// a write stopped half-way.
QString systemError();

} // namespace device_db

#endif
