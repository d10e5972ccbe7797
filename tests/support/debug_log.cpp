// SPDX-License-Identifier: MIT
#include "debug_log.h"

#include <QMutex>
#include <QMutexLocker>

namespace
{

QMutex mutex;
QStringList messages;
QtMessageHandler previous = nullptr;

void collect(QtMsgType, const QMessageLogContext &, const QString &text)
{
    QMutexLocker lock(&mutex);
    messages.append(text);
}

} // namespace

DebugLog::DebugLog()
{
    take();
    previous = qInstallMessageHandler(collect);
}

DebugLog::~DebugLog()
{
    qInstallMessageHandler(previous);
}

QStringList DebugLog::take()
{
    QMutexLocker lock(&mutex);
    QStringList taken;
    taken.swap(messages);
    return taken;
}
