// SPDX-License-Identifier: MIT
#pragma once

#include <QDateTime>
#include <QDebug>
#include <QString>
#include <QStringList>

#include <ostream>

// GoogleTest finds these by the argument's namespace.

inline void PrintTo(const QString &text, std::ostream *stream)
{
    QString quoted;
    QDebug(&quoted).nospace() << text;
    *stream << (text.isNull() ? "null " : "") << quoted.toUtf8().constData();
}

inline void PrintTo(const QDateTime &time, std::ostream *stream)
{
    *stream << (time.isValid() ? time.toString(Qt::ISODateWithMs).toUtf8().constData() : "invalid");
}
