// SPDX-License-Identifier: MIT
#pragma once

#include <QDebug>
#include <QStringList>

/// Collects Qt's debug output, from every thread, while it lives. One at a time.
class DebugLog
{
public:
    DebugLog();
    ~DebugLog();

    /// The messages since the last call. Qt has dropped the blank behind a streamed message's last item.
    QStringList take();

private:
    Q_DISABLE_COPY(DebugLog)
};

/// The message that `qDebug() << items...` writes, built by QDebug itself.
template<typename... Items>
QString streamed(const Items &...items)
{
    QString text;
    {
        QDebug stream(&text);
        (void)(stream << ... << items);
    }
    if (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    return text;
}
