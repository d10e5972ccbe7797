// SPDX-License-Identifier: MIT
#include "housekeeping.h"
#include "failure.h"
#include "monitor.h"
#include "options.h"
#include "tables.h"

#include <iterator>

namespace
{

/// The number of samples that went.
int trim(interface_data_base &history, const QString &table, int most)
{
    const int count = history.getDataCountOfTable(table);
    if (count <= most) // a negative number to delete would delete all
        return 0;
    history.deleteDataForMax(count - most, table);
    return count - history.getDataCountOfTable(table);
}

/// The number of alarms that went. The store's purge deletes every ended alarm and all that started before
/// the threshold; what it will take is copied first. A copy that exists already, from a run that was cut
/// short between the two, is passed over.
int archive(interface_data_base &alarms, const QDateTime &threshold)
{
    const QString oldest = threshold.toString("yyyy-MM-dd hh:mm:ss");
    const int count = alarms.getDataCountOfTable(alarmTable);
    QList<QStringList> none;
    const QString copy = QString("insert or ignore into %1 select * from %2 "
                                 "where DATETIME < '%3' or EndDate != '' and EndTime != ''")
                             .arg(alarmArchive, alarmTable, oldest);
    if (!alarms.execSQL({copy}, none, 0) || !alarms.deleteTable(alarmTable, oldest))
        throw Failure(QString("ended alarms cannot be moved to %1; --verbose shows why").arg(alarmArchive));
    return count - alarms.getDataCountOfTable(alarmTable);
}

} // namespace

void cleanUp(const Stores &stores, Monitor &monitor, const Options &options, const Printer &printer)
{
    QList<QStringList> rows;
    const auto add = [&](interface_data_base &store, const QString &table, const QString &action, int gone) {
        const int left = store.getDataCountOfTable(table);
        rows.append({table, QString::number(left + gone), QString::number(gone), QString::number(left), action});
        monitor.log(action, QString("%1: %2 gone, %3 left").arg(table).arg(gone).arg(left));
    };
    for (const Series &series : allSeries) {
        const QString table = series.table;
        add(*stores.history, table, "Trim", trim(*stores.history, table, options.maxSamples));
    }
    add(*stores.alarms, alarmTable, "Purge",
        archive(*stores.alarms, QDateTime::currentDateTime().addDays(-options.keepDays)));

    interface_data_base *const inFileOrder[] = {stores.history.get(), stores.alarms.get(), stores.log.get()};
    for (size_t i = 0; i < std::size(storeFiles); ++i) {
        const bool compacted = inFileOrder[i]->vacuumSqliteDB();
        inFileOrder[i]->dbWalCheckPoint();
        monitor.log(compacted ? "Compact" : "Compact failed", storeFiles[i]);
    }

    printer.heading(QString("Clean-up: at most %1 samples a table; ended alarms move to %2")
                        .arg(options.maxSamples)
                        .arg(alarmArchive));
    printer.table({"Table", "Before", "Gone", "Left", "By"}, rows, "lrrrl");
}
