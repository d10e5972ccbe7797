// SPDX-License-Identifier: MIT
#include "database.h"

#include "alarm_db.h"
#include "history_db.h"
#include "operatorlog_db.h"

QStringList device_getSupportList()
{
    return QStringList() << QLatin1String("history") << QLatin1String("alarm") << QLatin1String("operatorLog");
}

interface_data_base *device_createDB(QString key)
{
    if (key == QLatin1String("historyDB"))
        return new history;
    if (key == QLatin1String("alarmDB"))
        return new alarm_db;
    if (key == QLatin1String("operatorLogDB"))
        return new operatorlog_db;
    return nullptr;
}

void device_closeDB(interface_data_base *store)
{
    delete store;
}
