// SPDX-License-Identifier: MIT
#pragma once

#include "operatorlog_db.h"
#include "plain_connection.h"

/// The entries as rows of text: the time ("invalid" when it is), the user, the log name, the message.
inline Rows textsOf(const QList<OperatorLogData> &entries)
{
    Rows rows;
    for (const OperatorLogData &entry : entries) {
        const QString time = entry.dateTime.isValid()
                                 ? entry.dateTime.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"))
                                 : QStringLiteral("invalid");
        rows.append({time, entry.userName, entry.logName, entry.message});
    }
    return rows;
}
