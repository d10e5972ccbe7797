// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_STORE_READER_H
#define DEVICE_SHIP_STORE_READER_H

#include "configuration.h"
#include "storefile/tables.h"

#include <QMap>

#include <chrono>
#include <functional>
#include <optional>

namespace device_ship
{

/// What people call a series.
struct Title {
    QByteArray title;
    QByteArray unit;
    QByteArray description;
};

/// One of the device's files. Each read opens and closes it, so that an idle file costs nothing and one that was
/// replaced is noticed.
class StoreReader
{
public:
    explicit StoreReader(ConfiguredFile file) : m_file(std::move(file)) {}

    QString name() const { return m_file.name; }
    QString path() const { return m_file.path; }

    /// Has `read` read one state of the file. Tries again while the device writes, for some seconds at most. An Error
    /// says why it cannot be read. Then what `read` has found must be thrown away.
    device::Status read(const std::function<device::Status(const device_db::Database &)> &read);
    /// The same, once; false if the device has written in the meantime.
    device::Result<bool> tryRead(const std::function<device::Status(const device_db::Database &)> &read);
    /// What to say of a file at which that was tried in vain for `patience`.
    device::Error neverStill() const;
    static constexpr std::chrono::seconds patience{10};

    /// The tables with records, as they were read last.
    const QList<device_db::Table> &tables() const { return m_known.tables; }
    /// Those that look like ones, but their IDs are no keys: rows could not be told apart.
    const QStringList &keyless() const { return m_known.keyless; }
    /// Those whose names are not UTF-8.
    const QStringList &misnamed() const { return m_known.misnamed; }
    /// Reads them anew if they may have changed; for use within a read.
    device::Result<bool> tablesChanged(const device_db::Database &database);
    /// The names of the series that have some, by their tables; for use within a read.
    device::Result<QMap<QString, Title>> titles(const device_db::Database &database) const;

private:
    const ConfiguredFile m_file;
    struct Known {
        QList<device_db::Table> tables;
        QStringList keyless;
        QStringList misnamed;
        QByteArray version; ///< Of the schema and of the list of the series.
    };
    Known m_known; ///< By the last read that was not thrown away.
};

} // namespace device_ship

#endif
