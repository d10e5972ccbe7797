// SPDX-License-Identifier: MIT
#ifndef DATABASE_H
#define DATABASE_H

#include <QString>
#include <QStringList>

class interface_data_base;

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage" // C names, C++ values: both sides are C++
#endif

// The library's only exported functions. A host finds them by these names. They hold no state and may be
// called from any thread.
extern "C" {

/// The kinds of store: "history", "alarm", "operatorLog", in this order. These are not keys: a key is
/// the kind followed by "DB".
Q_DECL_EXPORT QStringList device_getSupportList();

/// A new, closed store for the key "historyDB", "alarmDB" or "operatorLogDB" (case matters); null for any
/// other key. The host owns it until it passes it to device_closeDB().
Q_DECL_EXPORT interface_data_base *device_createDB(QString key);

/// Closes and destroys a store that device_createDB() made; does nothing for null.
Q_DECL_EXPORT void device_closeDB(interface_data_base *store);
}

#if defined(__clang__)
#pragma clang diagnostic pop
#endif

#endif
