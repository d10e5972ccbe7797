// SPDX-License-Identifier: MIT
#include "configuration.h"

#include "archive/archive_connection.h"
#include "storefile/system_error.h"

#include <QFile>
#include <QFileInfo>
#include <QSettings>

namespace device_ship
{

using device::Result;
using device_db::failure;

namespace
{

// The INI format takes commas for lists.
QString text(const QSettings &settings, const QString &key)
{
    return settings.value(key).toStringList().join(QLatin1Char(','));
}

} // namespace

Result<QByteArray> passwordFrom(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return failure(path, QStringLiteral("it cannot be read: %1").arg(device_db::systemError()));
    QByteArray line = file.readLine(4096);
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty())
        return failure(path, QStringLiteral("its first line is empty; write the password there"));
    return line;
}

Result<Configuration> readConfiguration(const QString &path)
{
    if (!QFileInfo(path).isReadable())
        return failure(path, QStringLiteral("it cannot be read; name a configuration file"));
    QSettings settings(path, QSettings::IniFormat);
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    settings.setIniCodec("UTF-8"); // as Qt 6 reads it
#endif
    if (settings.status() != QSettings::NoError)
        return failure(path, QStringLiteral("it is not in the INI format"));

    Configuration result;
    const auto archive = device_db::connectionSettings(text(settings, QStringLiteral("archive/conninfo")).toUtf8());
    if (!archive)
        return failure(path, QStringLiteral("archive/conninfo: ") + archive.error().cause());
    result.archive = *archive;
    if (result.archive.contains("password"))
        return failure(path, QStringLiteral("archive/conninfo has a password; write it into a file that only the "
                                            "shipper can read, and name that in archive/password-file"));

    bool ok = false;
    result.device = settings.value(QStringLiteral("device/number")).toInt(&ok);
    if (!ok || result.device < 0)
        return failure(path, QStringLiteral("device/number is missing or not a number of a device"));
    const QByteArray role = "dev_" + QByteArray::number(result.device);
    if (result.archive.value("user", role) != role)
        return failure(path, QStringLiteral("archive/conninfo: the role of device %1 is %2; leave \"user\" out")
                                 .arg(result.device)
                                 .arg(QString::fromLatin1(role)));
    result.archive.insert("user", role);
    result.zone = text(settings, QStringLiteral("device/zone"));
    if (result.zone.isEmpty())
        return failure(path, QStringLiteral("device/zone is missing; name the zone of the device's clock, such as "
                                            "Europe/Berlin"));

    QString passwordFile = text(settings, QStringLiteral("archive/password-file"));
    if (passwordFile.isEmpty() && qEnvironmentVariableIsSet("CREDENTIALS_DIRECTORY")) // of the service manager
        passwordFile = qEnvironmentVariable("CREDENTIALS_DIRECTORY") + QStringLiteral("/password");
    if (!passwordFile.isEmpty()) {
        const auto password = passwordFrom(passwordFile);
        if (!password)
            return password.error();
        result.archive.insert("password", *password);
    }

    settings.beginGroup(QStringLiteral("files"));
    const QStringList names = settings.childKeys();
    for (const QString &name : names)
        result.files.append({name, text(settings, name)});
    if (result.files.isEmpty())
        return failure(path, QStringLiteral("[files] is empty; name the files as in history=/data/history.db"));
    return result;
}

} // namespace device_ship
