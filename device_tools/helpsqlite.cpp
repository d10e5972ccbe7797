// SPDX-License-Identifier: MIT
#include "helpsqlite.h"

QString helpSQLite::toSQLiteString(QString text)
{
    if (!text.contains(QLatin1Char('\''))) // most texts; the search alone is far cheaper
        return text;
    return text.replace(QLatin1Char('\''), QLatin1String("''"));
}
