// SPDX-License-Identifier: MIT
#include "message_capture.h"

#include <QtGlobal>

#include <atomic>

namespace device
{

namespace
{

thread_local MessageCapture *current = nullptr;
thread_local bool handingOn = false;
std::atomic<QtMessageHandler> first{nullptr};
std::atomic<QtMessageHandler> next{nullptr};

} // namespace

void take(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (current && type == QtDebugMsg) {
        current->m_text += text + QLatin1Char(' ');
        return;
    }
    // A host's handler that hands on to this one would be called in a circle: the second time it goes to the
    // handler that was there first.
    if (handingOn) {
        if (const QtMessageHandler handler = first)
            handler(type, context, text);
        return;
    }
    handingOn = true;
    if (const QtMessageHandler handler = next)
        handler(type, context, text);
    handingOn = false;
}

void MessageCapture::install()
{
    const QtMessageHandler previous = qInstallMessageHandler(take);
    if (previous == take)
        return;
    QtMessageHandler none = nullptr;
    first.compare_exchange_strong(none, previous);
    next = previous;
}

MessageCapture::MessageCapture() : m_outer(current)
{
    current = this;
}

MessageCapture::~MessageCapture()
{
    current = m_outer;
}

} // namespace device
