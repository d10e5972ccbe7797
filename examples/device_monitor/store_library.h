// SPDX-License-Identifier: MIT
#pragma once

#include "database.h"
#include "interface_data_base.h"

#include <QLibrary>

#include <memory>

/// A store, handed back to the library when it goes.
using StorePtr = std::unique_ptr<interface_data_base, decltype(&device_closeDB)>;

/// The database library, loaded at run time and known by its three functions alone.
class StoreLibrary
{
public:
    /// Loads `path`; when it is empty, the library beside this program or where the system finds it.
    explicit StoreLibrary(const QString &path);

    QString fileName() const { return m_library.fileName(); }
    QStringList kinds() const { return m_supportList(); }
    /// The file is created when there is none.
    StorePtr openStore(const char *key, const QString &file) const;

private:
    template<typename Function>
    Function resolve(const char *name);

    QLibrary m_library;
    decltype(&device_getSupportList) m_supportList;
    decltype(&device_createDB) m_create;
    decltype(&device_closeDB) m_close;
};

/// The three stores of the monitor, one file each.
struct Stores {
    StorePtr history;
    StorePtr alarms;
    StorePtr log;
};
Stores openStores(const StoreLibrary &library, const QString &folder);

inline const char *const storeFiles[] = {"history.db", "alarm.db", "operator_log.db"};

/// The table that the alarm store writes to, and the one to which ended alarms are moved.
inline const QString alarmTable = "AlarmData";
inline const QString alarmArchive = "AlarmArchive";
inline const QString logTable = "OperatorLog";

/// The text as it may stand between single quotes in SQL: the stores paste most texts as they are.
QString escaped(QString text);
