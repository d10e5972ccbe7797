// SPDX-License-Identifier: MIT
#ifndef DEVICE_MESSAGE_CAPTURE_H
#define DEVICE_MESSAGE_CAPTURE_H

#include <QString>

namespace device
{

/// Takes Qt's debug messages of this thread while it lives: the store library says there, and only there,
/// why a call failed. Nothing is decided by these words alone: a host may have debug output switched off.
class MessageCapture
{
public:
    /// Puts the handler in front of the present one; again after a host has put its own in front.
    static void install();

    MessageCapture();
    ~MessageCapture();

    QString text() const { return m_text.trimmed(); }

private:
    Q_DISABLE_COPY(MessageCapture)
    friend void take(QtMsgType, const QMessageLogContext &, const QString &);

    QString m_text;
    MessageCapture *m_outer;
};

} // namespace device

#endif
