// SPDX-License-Identifier: MIT
#include "shipped_file.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/stat.h>

namespace device
{

namespace
{

constexpr qint64 mostBytes = 4 * 1024 * 1024;
constexpr int version = 1;
constexpr double highestId = 9007199254740992.0; // up to here a number of JSON is exact

} // namespace

void ShippedFile::look()
{
    struct stat found;
    const QByteArray path = QFile::encodeName(m_path);
    if (::stat(path.constData(), &found) != 0) {
        m_inode = 0;
        m_holds.clear();
        m_all = {m_path, 0, {}};
        m_problem.clear();
        if (::lstat(path.constData(), &found) == 0) // a link to what is not there, yet or any more
            m_problem = QStringLiteral("%1 leads nowhere, so all rows are held").arg(m_path);
        return;
    }
    const qint64 changed = qint64(found.st_mtim.tv_sec) * 1000000000 + found.st_mtim.tv_nsec;
    if (quint64(found.st_ino) == m_inode && changed == m_changed)
        return;
    m_inode = found.st_ino;
    m_changed = changed;
    m_holds.clear();
    const LocalTime since(QDateTime::fromSecsSinceEpoch(found.st_mtim.tv_sec));
    m_all = {m_path, 0, since};
    m_problem.clear();
    const auto refuse = [this](const QString &why) {
        m_holds.clear();
        m_problem = QStringLiteral("%1 cannot be read, so all rows are held: %2").arg(m_path, why);
    };
    if (!S_ISREG(found.st_mode)) // opening a pipe would wait for whoever writes into it
        return refuse(QStringLiteral("it is not a file"));
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return refuse(file.errorString());
    const QByteArray text = file.read(mostBytes + 1);
    if (text.size() > mostBytes)
        return refuse(QStringLiteral("it is larger than %1 bytes").arg(mostBytes));
    QJsonParseError error;
    const QJsonObject all = QJsonDocument::fromJson(text, &error).object();
    if (error.error != QJsonParseError::NoError)
        return refuse(QStringLiteral("%1 at byte %2").arg(error.errorString()).arg(error.offset));
    if (all.value(QLatin1String("version")).toInt() != version)
        return refuse(QStringLiteral("its version is not %1").arg(version));
    const QString owner = all.value(QLatin1String("owner")).toString();
    if (owner.isEmpty() || !all.value(QLatin1String("shipped")).isObject())
        return refuse(QStringLiteral("it has no \"owner\" or no \"shipped\""));
    const QJsonObject shipped = all.value(QLatin1String("shipped")).toObject();
    for (auto each = shipped.begin(); each != shipped.end(); ++each) {
        const double id = each.value().toDouble(-1);
        if (id < 0 || id > highestId || id != double(qint64(id)))
            return refuse(QStringLiteral("the ID of \"%1\" is none").arg(each.key()));
        const QString table = each.key().toLower(); // named twice, the lower ID counts
        if (const Hold *const named = hold(table); !named || qint64(id) < named->throughId)
            m_holds.insert(table, {owner, qint64(id), since});
    }
}

const Hold *ShippedFile::hold(const QString &table) const
{
    if (!m_problem.isEmpty())
        return &m_all;
    const auto found = m_holds.constFind(table.toLower());
    return found == m_holds.constEnd() ? nullptr : &*found;
}

} // namespace device
