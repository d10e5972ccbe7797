// SPDX-License-Identifier: MIT
#include "configuration.h"

#include "archive/archive_connection.h"
#include "row_encoder.h"

#include <QFile>
#include <QFileInfo>
#include <QSet>

namespace device_ship
{

using device::Result;
using device_db::failure;

namespace
{

const QMap<QString, QStringList> &knownKeys()
{
    static const QMap<QString, QStringList> keys{
        {QStringLiteral("archive"), {QStringLiteral("conninfo"), QStringLiteral("password-file")}},
        {QStringLiteral("device"), {QStringLiteral("number"), QStringLiteral("zone")}},
        {QStringLiteral("files"), {}}, // any
    };
    return keys;
}

struct Setting {
    QString key; ///< With its section: "device/zone".
    QString value;
};

// Sections, KEY=VALUE, and comments on lines of their own. Values are taken as they are: QSettings would end one at a
// semicolon, drop quotes and backslashes, and not say that a key is there twice.
Result<QList<Setting>> settingsOf(const QString &path)
{
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return failure(path, QStringLiteral("it cannot be read; name a configuration file"));
    const QByteArray bytes = file.readAll();
    if (!isText({bytes.constData(), size_t(bytes.size())}))
        return failure(path, QStringLiteral("it is not a text in UTF-8"));
    QList<Setting> settings;
    QSet<QString> seen;
    QString section;
    int number = 0;
    for (const QString &whole : QString::fromUtf8(bytes).split(QLatin1Char('\n'))) {
        ++number;
        const QString line = whole.trimmed();
        const auto wrong = [&](const QString &why) {
            return failure(path, QStringLiteral("line %1: %2").arg(number).arg(why));
        };
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')) || line.startsWith(QLatin1Char(';')))
            continue;
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            section = line.mid(1, line.size() - 2);
            if (!knownKeys().contains(section))
                return wrong(
                    QStringLiteral("there is no section [%1]; there are [archive], [device] and [files]").arg(section));
            continue;
        }
        const int equals = int(line.indexOf(QLatin1Char('=')));
        const QString key = line.left(equals).trimmed();
        if (equals < 0 || key.isEmpty() || section.isEmpty())
            return wrong(QStringLiteral("it is not in the INI format: sections, and KEY=VALUE below them"));
        const QStringList known = knownKeys().value(section);
        if (!known.isEmpty() && !known.contains(key))
            return wrong(QStringLiteral("there is no %1 in [%2]; there are %3")
                             .arg(key, section, known.join(QStringLiteral(" and "))));
        const QString full = section + QLatin1Char('/') + key;
        if (seen.contains(full))
            return wrong(QStringLiteral("%1 is there twice").arg(full));
        seen.insert(full);
        settings.append({full, line.mid(equals + 1).trimmed()});
    }
    return settings;
}

} // namespace

std::optional<int> deviceNumber(const QString &text)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    return ok && number >= 0 && text == QString::number(number) ? std::optional<int>(number) : std::nullopt;
}

Result<QByteArray> passwordFrom(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return failure(path, QStringLiteral("it cannot be read: %1").arg(file.errorString()));
    QByteArray line = file.readLine(4096);
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty())
        return failure(path, QStringLiteral("its first line is empty; write the password there"));
    if (line.contains('\0'))
        return failure(path, QStringLiteral("a zero byte is in the password; write it as text"));
    return line;
}

Result<Configuration> readConfiguration(const QString &path)
{
    const auto settings = settingsOf(path);
    if (!settings)
        return settings.error();
    const auto text = [&](const char *key) {
        for (const Setting &each : *settings) {
            if (each.key == QLatin1String(key))
                return each.value;
        }
        return QString();
    };

    Configuration result;
    const auto archive = device_db::connectionSettings(text("archive/conninfo").toUtf8());
    if (!archive)
        return failure(path, QStringLiteral("archive/conninfo: ") + archive.error().cause());
    result.archive = *archive;
    if (result.archive.contains("password"))
        return failure(path, QStringLiteral("archive/conninfo has a password; write it into a file that only the "
                                            "shipper can read, and name that in archive/password-file"));

    const auto number = deviceNumber(text("device/number"));
    if (!number)
        return failure(path, QStringLiteral("device/number is missing or not a number of a device"));
    result.device = *number;
    const QByteArray role = "dev_" + QByteArray::number(result.device);
    if (result.archive.value("user", role) != role)
        return failure(path, QStringLiteral("archive/conninfo: the role of device %1 is %2; leave \"user\" out")
                                 .arg(result.device)
                                 .arg(QString::fromLatin1(role)));
    result.archive.insert("user", role);
    result.zone = text("device/zone");
    if (result.zone.isEmpty())
        return failure(path, QStringLiteral("device/zone is missing; name the zone of the device's clock, such as "
                                            "Europe/Berlin"));

    QString passwordFile = text("archive/password-file");
    if (passwordFile.isEmpty() && qEnvironmentVariableIsSet("CREDENTIALS_DIRECTORY")) // of the service manager
        passwordFile = qEnvironmentVariable("CREDENTIALS_DIRECTORY") + QStringLiteral("/password");
    if (!passwordFile.isEmpty()) {
        const auto password = passwordFrom(passwordFile);
        if (!password)
            return password.error();
        result.archive.insert("password", *password);
    }

    const QString files = QStringLiteral("files/");
    QMap<QString, QString> keys;
    for (const Setting &each : *settings) {
        if (!each.key.startsWith(files))
            continue;
        if (each.value.isEmpty())
            return failure(path, QStringLiteral("%1 names no file").arg(each.key));
        const QFileInfo info(each.value);
        QString &key = keys[info.exists() ? info.canonicalFilePath() : info.absoluteFilePath()];
        if (!key.isEmpty())
            return failure(
                path, QStringLiteral("%1 and %2 are one file, whose rows would be stored twice").arg(key, each.key));
        key = each.key;
        result.files.append({each.key.mid(files.size()), each.value});
    }
    if (result.files.isEmpty())
        return failure(path, QStringLiteral("[files] is empty; name the files as in history=/data/history.db"));
    return result;
}

} // namespace device_ship
