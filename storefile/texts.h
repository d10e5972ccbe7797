// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TEXTS_H
#define STOREFILE_TEXTS_H

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace device_db
{

/// 1234567 as "1,234,567".
QString grouped(qint64 number);
/// "1 row", "1,234 rows".
QString rowsText(qint64 rows);
/// "12.3 MB".
QString bytesText(qint64 bytes);

/// Whether a cell survives the way through a QString.
bool isUtf8(const QByteArray &cell);
/// The text of a cell; of a file it would be the beginning, and U+FEFF there no part of it.
QString fromUtf8(const QByteArray &cell);
/// A cell that the store library encoded twice as it was meant; any other as it is.
QByteArray decodedTwice(const QByteArray &cell);

/// Characters that would move the cursor, as visible ones: nothing in a file can steer a terminal.
QString visible(const QString &text);

/// Whether a text is a number as JSON has it: not 03, +1, 1. or Inf.
bool isJsonNumber(const QByteArray &text);

/// Some ten of the names, those first that begin most like `wanted`, and how many more there are.
QString someOf(const QStringList &names, const QString &wanted = QString());

/// Whether one name comes before another as people count: S2 before S10, whatever the case of the letters.
bool comesBefore(const QString &name, const QString &other);

} // namespace device_db

#endif
