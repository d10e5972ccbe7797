// SPDX-License-Identifier: MIT
#include "import/refused_rows.h"

#include "storefile/system_error.h"
#include "terminal/table_writer.h"

#include <QCryptographicHash>
#include <QFileInfo>

#include <algorithm>

namespace device_db
{

namespace
{

const QByteArray header("line,reason,cells\n");

bool isThere(const QString &path)
{
    const QFileInfo present(path);
    return present.exists() || present.isSymLink(); // a link that leads nowhere is something too
}

} // namespace

RefusedRows::RefusedRows(QString wanted, bool mayBeNumbered, const QByteArray &import, qint64 keep)
    : m_wanted(std::move(wanted)), m_mayBeNumbered(mayBeNumbered), m_keep(keep)
{
    const QByteArray mark = QCryptographicHash::hash(import, QCryptographicHash::Sha1).toHex().left(8);
    m_path = m_wanted + QLatin1String(".part-") + QString::fromLatin1(mark);
}

Result<RefusedRows> RefusedRows::make(const QString &named, const QString &input, const QByteArray &import, qint64 keep)
{
    if (named.isEmpty())
        return RefusedRows(input + QLatin1String(".refused.csv"), true, import, keep);
    if (isThere(named))
        return failure(named, QStringLiteral("there is a file of this name; name another one with --refused"));
    return RefusedRows(named, false, import, keep);
}

bool RefusedRows::open()
{
    m_file = std::make_unique<QFile>(m_path);
    if (!m_file->open(QIODevice::ReadWrite))
        return false;
    const qint64 kept = std::min(m_keep, m_file->size());
    return m_file->resize(kept) && m_file->seek(kept) && (kept > 0 || m_file->write(header) == header.size());
}

Status RefusedRows::add(const InputRow &row, const QByteArray &reason)
{
    const bool written =
        (m_file || open()) &&
        m_file->write(csvRow(QVector<QByteArray>{QByteArray::number(row.line), reason} + row.cells, ',')) > 0;
    return written ? Status() : trouble(systemError());
}

Status RefusedRows::flush()
{
    return !m_file || m_file->flush() ? Status() : Status(trouble(systemError()));
}

Status RefusedRows::finish()
{
    if (!m_file && m_keep == 0) {
        discard(); // what a run left that was begun again
        return {};
    }
    m_file.reset();
    QFile file(m_path);
    QString name = m_wanted;
    for (int number = 2; m_mayBeNumbered && isThere(name); ++number)
        name = m_wanted.chopped(3) + QStringLiteral("%1.csv").arg(number);
    if (!file.rename(name)) // which replaces nothing
        return trouble(file.errorString());
    m_path = name;
    return {};
}

void RefusedRows::discard()
{
    if (m_keep > 0)
        return;
    m_file.reset();
    QFile::remove(m_path);
}

Error RefusedRows::trouble(const QString &why) const
{
    return failure(m_wanted, why + QStringLiteral("; name another place for refused rows with --refused"));
}

} // namespace device_db
