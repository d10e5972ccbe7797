// SPDX-License-Identifier: MIT
#include "shipped_statement.h"

#include "storefile/system_error.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace device_ship
{

device::Status stateShipped(const QString &storePath, const QMap<QString, qint64> &watermarks)
{
    QJsonObject shipped;
    for (auto each = watermarks.constBegin(); each != watermarks.constEnd(); ++each)
        shipped.insert(each.key(), each.value());
    const QJsonObject all{{QStringLiteral("version"), 1},
                          {QStringLiteral("owner"), QStringLiteral("device-ship")},
                          {QStringLiteral("shipped"), shipped}};
    const QString path = QFileInfo(storePath).canonicalFilePath() + QStringLiteral(".shipped");
    QSaveFile file(path);
    // The recorder may be another user's. What commit() itself writes fails silently where the disk is full.
    if (!file.open(QIODevice::WriteOnly) ||
        !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup |
                             QFileDevice::ReadOther) ||
        file.write(QJsonDocument(all).toJson(QJsonDocument::Compact)) < 0 || !file.flush() || !file.commit())
        return device_db::failure(path, QStringLiteral("it cannot be written: %1; the recorder does not know what is "
                                                       "shipped")
                                            .arg(device_db::systemError()));
    return {};
}

} // namespace device_ship
