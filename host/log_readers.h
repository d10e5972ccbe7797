// SPDX-License-Identifier: MIT
#ifndef DEVICE_LOG_READERS_H
#define DEVICE_LOG_READERS_H

#include <QString>

namespace device
{

/// The programs that read from the write-ahead log of a file at this moment, as people name them: "device-db (process
/// 1234)". Empty if the system does not say.
QString readersOfLog(const QString &storePath);

} // namespace device

#endif
