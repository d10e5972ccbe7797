// SPDX-License-Identifier: MIT
#include "monitor.h"
#include "alarm_db.h"
#include "failure.h"

#include <algorithm>

namespace
{

const QString dateFormat = "yyyy-MM-dd";
const QString timeFormat = "hh:mm:ss";

QString sideText(const Series &series)
{
    return series.side == Series::Above ? "above" : "below";
}

} // namespace

Monitor::Monitor(const Stores &stores, const QString &user) : m_stores(stores), m_user(user)
{
    createTable(*m_stores.log, logTable, QString()); // first: it takes the other entries
    createTable(*m_stores.alarms, alarmTable, QString());
    createTable(*m_stores.alarms, alarmArchive, QString());

    QList<AlarmData> active;
    m_stores.alarms->getAllDataPage(alarmTable, &active, "asc", 0, 0, 0);
    for (size_t i = 0; i < allSeries.size(); ++i) {
        const Series &series = allSeries[i];
        createTable(*m_stores.history, series.table, QString("%1, %2").arg(series.name, series.unit));
        m_states[i].expectedCount = m_stores.history->getDataCountOfTable(series.table);
        m_states[i].alarmActive = std::any_of(active.cbegin(), active.cend(),
                                              [&](const AlarmData &alarm) { return alarm.alarmObject == series.name; });
    }
}

void Monitor::createTable(interface_data_base &store, const QString &table, const QString &name)
{
    if (store.createTable(table, name))
        log("Table created", table);
    else if (!store.tableIsExist(table)) // "false" alone also says that it stood already
        throw Failure(QString("table %1 cannot be created; --verbose shows why").arg(table));
}

void Monitor::setLimit(size_t series, double limit)
{
    m_states[series].limit = limit;
    log("Limit set",
        QString("%1: alarm %2 %3 %4")
            .arg(allSeries[series].name, sideText(allSeries[series]), numberText(limit), allSeries[series].unit));
}

void Monitor::add(const Values &values, const QDateTime &now)
{
    const QString time = now.toString(dateFormat + ' ' + timeFormat);
    for (size_t i = 0; i < allSeries.size(); ++i) {
        const Series &series = allSeries[i];
        State &state = m_states[i];
        state.batch.append({time, valueText(series, values[i])});

        const double over = series.side == Series::Above ? values[i] - state.limit : state.limit - values[i];
        if (!state.alarmActive && over > 0)
            raiseAlarm(i, values[i], now);
        else if (state.alarmActive && over <= -series.hysteresis)
            endAlarm(i, values[i], now);
    }
}

void Monitor::raiseAlarm(size_t series, double value, const QDateTime &now)
{
    const Series &what = allSeries[series];
    const QString limit = numberText(m_states[series].limit);
    const QString description = QString("%1 %2 %3 %4").arg(what.name, sideText(what), limit, what.unit);
    QList<QStringList> rows{{QString::number(what.level), now.toString(dateFormat), now.toString(timeFormat), what.name,
                             what.side == Series::Above ? "High" : "Low", valueText(what, value), limit, description,
                             "", ""}}; // no end yet: active
    m_stores.alarms->insertManyDatas(rows, alarmTable);
    m_states[series].alarmActive = true;
    log("Alarm raised", QString("%1 (%2)").arg(description, valueText(what, value)));
}

void Monitor::endAlarm(size_t series, double value, const QDateTime &now)
{
    // The interface has no operation for it: the host runs its own statement.
    const Series &what = allSeries[series];
    const QString update = QString("update AlarmData set EndDate = '%1', EndTime = '%2' "
                                   "where AlarmObject = '%3' and EndDate = '' and EndTime = ''")
                               .arg(now.toString(dateFormat), now.toString(timeFormat), escaped(what.name));
    QList<QStringList> none;
    if (!m_stores.alarms->execSQL({update}, none, 0))
        return; // still active: the next sample tries again
    m_states[series].alarmActive = false;
    log("Alarm ended", QString("%1 (%2)").arg(what.name, valueText(what, value)));
}

void Monitor::store()
{
    for (size_t i = 0; i < allSeries.size(); ++i) {
        State &state = m_states[i];
        m_stores.history->insertManyDatas(state.batch, allSeries[i].table);
        state.expectedCount += int(state.batch.size());
        state.batch.clear();
    }
}

void Monitor::checkStored() const
{
    for (size_t i = 0; i < allSeries.size(); ++i) {
        const QString table = allSeries[i].table;
        const int missing = m_states[i].expectedCount - m_stores.history->getDataCountOfTable(table);
        if (missing > 0)
            throw Failure(QString("%1 samples did not arrive in table %2; is the disk full or the file "
                                  "locked? --verbose shows what the library says")
                              .arg(missing)
                              .arg(table));
    }
}

void Monitor::log(const QString &action, const QString &message)
{
    QList<QStringList> rows{
        {QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss.zzz"), m_user, action, message}};
    m_stores.log->insertManyDatas(rows, logTable);
}

int Monitor::activeAlarms() const
{
    return int(std::count_if(m_states.begin(), m_states.end(), [](const State &state) { return state.alarmActive; }));
}
