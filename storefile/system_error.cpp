// SPDX-License-Identifier: MIT
#include "storefile/system_error.h"

#include <cerrno>
#include <cstring>

namespace device_db
{

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

} // namespace device_db
