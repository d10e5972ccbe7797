// SPDX-License-Identifier: MIT
#include "storefile/error.h"

namespace device_db
{

Error failure(const QString &input, const QString &cause)
{
    return Error(Error::Failed, input, QString(), cause);
}

QString oneLine(const Error &error)
{
    QString line = error.operation();
    if (!error.table().isEmpty())
        line += QLatin1Char(' ') + error.table();
    line += QLatin1String(": ") + error.cause();
    // The host layer keeps the remedy apart; ours is in the cause.
    if (error.code() != Error::Failed)
        line += QLatin1String(". ") + error.advice();
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return line;
}

} // namespace device_db
