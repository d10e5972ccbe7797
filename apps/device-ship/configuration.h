// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_CONFIGURATION_H
#define DEVICE_SHIP_CONFIGURATION_H

#include "storefile/error.h"

#include <QList>
#include <QMap>
#include <QString>

#include <optional>

namespace device_ship
{

struct ConfiguredFile {
    QString name; ///< In the archive.
    QString path;
};

/// What one shipper ships where: one device.
struct Configuration {
    QMap<QByteArray, QByteArray> archive; ///< libpq's keywords.
    int device = 0;
    QString zone; ///< Of the device's clock, as PostgreSQL names it.
    QList<ConfiguredFile> files;
};

/// Reads a configuration file; the Error names the key.
device::Result<Configuration> readConfiguration(const QString &path);

/// A device's number as its role has it, in decimal digits without a zero before them.
std::optional<int> deviceNumber(const QString &text);

/// The first line of a file with a password.
device::Result<QByteArray> passwordFrom(const QString &path);

} // namespace device_ship

#endif
