// SPDX-License-Identifier: MIT
#include "device/result.h"

namespace device
{

QString Error::advice() const
{
    switch (m_code) {
    case Failed:
        break;
    case LibraryError:
        return QStringLiteral("Install the library for this Qt, or name its file.");
    case FileError:
        return QStringLiteral("Check the path, the folder and its permissions; restore a damaged file from a backup.");
    case TableMissing:
        return QStringLiteral("Create the table first.");
    case TableLayout:
        return QStringLiteral("Open the table with the store of its kind, or use another name.");
    case NameRefused:
        return QStringLiteral(
            "Use up to 64 letters, digits and \"_\"; do not begin with a digit or use a word of SQL.");
    case TextRefused:
        return QStringLiteral("Remove what cannot be stored, or encode the text, for example as base64.");
    case TimeRefused:
        return QStringLiteral("Give a valid time of the years 1 to 9999.");
    case Locked:
        return QStringLiteral("Try again; close or shorten what else reads or writes the file, or open it as Durable.");
    case StorageFailed:
        return QStringLiteral("Free space or check the medium, then try again.");
    case QueueFull:
        return QStringLiteral("Record less often, enlarge the queue, or choose to drop the oldest.");
    case Cancelled:
        return QStringLiteral("The application cancelled this itself.");
    case Stopped:
        return QStringLiteral("Make a new recorder to go on.");
    case TimedOut:
        return QStringLiteral("Give it more time: the disk is slow or much is waiting.");
    case NotStarted:
        return QStringLiteral("Call start() first.");
    case FileMoved:
        return QStringLiteral("Open the file again; do not move or delete it while it is open.");
    case ReadOnly:
        return QStringLiteral("Use the recorder's own functions to change the file.");
    case OptionRefused:
        return QStringLiteral("Correct the option.");
    }
    return QString();
}

QString Error::text() const
{
    QString line = m_operation;
    if (!m_table.isEmpty())
        line += QLatin1Char(' ') + m_table;
    line += QLatin1String(": ") + m_cause + QLatin1Char('.');
    const QString remedy = advice();
    return remedy.isEmpty() ? line : line + QLatin1Char(' ') + remedy;
}

} // namespace device
