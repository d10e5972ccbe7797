// SPDX-License-Identifier: MIT
#include "helpsqlite.h"

QString helpSQLite::toSQLiteString(QString text)
{
    return text.replace(QLatin1Char('\''), QLatin1String("''"));
}
