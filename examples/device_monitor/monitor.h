// SPDX-License-Identifier: MIT
#pragma once

#include "series.h"
#include "store_library.h"

#include <QDateTime>

/// The work of the device's application: samples in, alarms raised and ended, actions logged.
class Monitor
{
public:
    /// Creates the tables that a new file lacks and takes up the alarms that an earlier run left active.
    Monitor(const Stores &stores, const QString &user);

    void setLimit(size_t series, double limit);
    /// Checks the values against the limits at once; they are stored by the next store().
    void add(const Values &values, const QDateTime &now);
    /// Stores the samples that were added since the last call, one batch a table.
    void store();
    /// Throws when samples did not arrive in the file.
    void checkStored() const;

    /// One entry of the operator log, stored at once.
    void log(const QString &action, const QString &message);

    int activeAlarms() const;
    QString user() const { return m_user; }

private:
    struct State {
        double limit = 0;
        bool alarmActive = false;
        QList<QStringList> batch;
        int expectedCount = 0; ///< What the table must hold.
    };

    void createTable(interface_data_base &store, const QString &table, const QString &name);
    void raiseAlarm(size_t series, double value, const QDateTime &now);
    void endAlarm(size_t series, double value, const QDateTime &now);

    const Stores &m_stores;
    QString m_user;
    std::array<State, allSeries.size()> m_states;
};
