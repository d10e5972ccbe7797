// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIPPED_FILE_H
#define DEVICE_SHIPPED_FILE_H

#include "device/records.h"

#include <QHash>
#include <QString>

namespace device
{

/// Up to which ID somebody has shipped a table: later rows are held.
struct Hold {
    QString owner;
    qint64 throughId = 0;
    LocalTime since; ///< When it last moved.
};

/// What a shipper states in a small file beside the store, which it replaces by rename. So it needs no right to write
/// into the store, and can be stopped, moved or removed without it.
///
///     {"version": 1, "owner": "plant archive", "shipped": {"Boiler": 120000, "Pump": 0}}
class ShippedFile
{
public:
    explicit ShippedFile(const QString &storePath) : m_path(storePath + QLatin1String(".shipped")) {}

    QString path() const { return m_path; }
    /// Looks whether it was replaced. One that cannot be read holds every row: nobody knows what was shipped.
    void look();
    /// The hold on a table, if there is one.
    const Hold *hold(const QString &table) const;
    QString problem() const { return m_problem; } ///< Why it cannot be read; empty while it can, or is not there.

private:
    const QString m_path;
    quint64 m_inode = 0;
    qint64 m_changed = 0; ///< Nanoseconds.
    QString m_problem;
    Hold m_all;                   ///< Of every table, while it cannot be read.
    QHash<QString, Hold> m_holds; ///< By the name in lower case.
};

} // namespace device

#endif
