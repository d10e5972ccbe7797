// SPDX-License-Identifier: MIT
#include "report.h"
#include "alarm_db.h"
#include "history_db.h"
#include "monitor.h"
#include "operatorlog_db.h"
#include "tables.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace
{

const QString newestFirst = "desc";
const QString oldestFirst = "asc";
const QString second = "yyyy-MM-dd hh:mm:ss";

using Samples = QList<DataContent>;

/// One table for all series: they are sampled together.
void printSamples(const Printer &printer, const QString &heading,
                  const std::function<void(const QString &table, Samples *samples)> &query)
{
    QStringList headers{"DATETIME"};
    QList<QStringList> rows;
    for (const Series &series : allSeries) {
        headers.append(series.table);
        Samples samples;
        query(headers.last(), &samples);
        for (int i = 0; i < samples.size(); ++i) {
            if (i == rows.size())
                rows.append({samples[i].date + ' ' + samples[i].time});
            rows[i].append(samples[i].value);
        }
    }
    printer.heading(heading);
    printer.table(headers, rows, "lrrrr");
}

void printSeries(interface_data_base &history, const QString &from, const QString &to, const Printer &printer)
{
    QList<QStringList> rows;
    const QStringList series = history.selectConfigInfo();
    for (const QString &entry : series) { // "@table@name"
        const QString table = entry.section('@', 1, 1);
        QList<QStringList> found; // ID, DATETIME, Value
        history.findDataByTime(from, to, -1, -1, found, table);
        QVector<double> values;
        for (const QStringList &row : std::as_const(found))
            values.append(row.at(2).toDouble());
        if (values.isEmpty())
            continue;
        const auto [lowest, highest] = std::minmax_element(values.cbegin(), values.cend());
        rows.append({entry.section('@', 2), QString::number(history.getDataCountOfTable(table)),
                     QString::number(history.getDataCountOfTimeQuery(from, to, table)), numberText(*lowest),
                     numberText(*highest), printer.trend(values, 24)});
    }
    printer.heading("Series (selectConfigInfo, findDataByTime)");
    printer.table({"Series", "Samples", "Run", "Lowest", "Highest", "Trend"}, rows, "lrrrrl");
}

void printHistory(interface_data_base &history, const QDateTime &start, const QDateTime &end, const Printer &printer)
{
    const QString from = start.toString(second);
    const QString to = end.toString(second);
    printSeries(history, from, to, printer);

    printSamples(printer, "Newest samples (getCurrData)",
                 [&](const QString &table, Samples *samples) { history.getCurrData(table, samples, newestFirst, 5); });

    printSamples(
        printer, "Page 2 of the newest 30, 5 a page, oldest first (getAllDataPage)",
        [&](const QString &table, Samples *samples) { history.getAllDataPage(table, samples, oldestFirst, 5, 5, 30); });

    const QString middle = start.addSecs(start.secsTo(end) / 2).toString(second);
    printSamples(printer, QString("The first 5 from %1 on (findDataOfTimePage)").arg(middle),
                 [&](const QString &table, Samples *samples) {
                     history.findDataOfTimePage(middle, to, samples, table, oldestFirst, 0, 5, 0);
                 });

    const QString table = allSeries[1].table;
    Samples newest;
    history.getCurrData(table, &newest, newestFirst, 1);
    const QString text = newest.value(0).value;
    Samples found;
    history.findDataOfValue(text, to, &found, table, newestFirst);
    QList<QStringList> rows;
    for (const DataContent &sample : std::as_const(found).mid(0, 3))
        rows.append({sample.date + ' ' + sample.time, sample.value});
    printer.heading(
        QString("%1 samples that contain \"%2\"; the newest 3 (findDataOfValue)").arg(found.size()).arg(text));
    printer.table({"DATETIME", table}, rows, "lr");
}

void printAlarms(interface_data_base &alarms, const QDateTime &start, const QDateTime &end, Monitor &monitor,
                 const Printer &printer)
{
    QList<AlarmData> active;
    alarms.getAllDataPage(alarmTable, &active, newestFirst, 0, 0, 0);
    QList<QStringList> rows;
    for (const AlarmData &alarm : std::as_const(active)) {
        rows.append({QString::number(alarm.level), alarm.startTime.toString(second), alarm.currentValue,
                     numberText(alarm.limitValue), alarm.alarmType, alarm.description});
        monitor.log("Alarm acknowledged", alarm.description);
    }
    printer.heading("Active alarms (getAllDataPage)");
    printer.table({"Level", "Started", "Value", "Limit", "Type", "Description"}, rows, "rlrrll");

    rows.clear();
    for (const QString &table : {alarmArchive, alarmTable}) {
        QList<QStringList> found; // ID, level, start, object, type, value, limit, description, end date, end time
        alarms.findDataByTime(start.toString(second), end.toString(second), 0, -1, found, table);
        for (const QStringList &row : std::as_const(found))
            rows.append({table, row.at(2), row.at(9), row.at(5), row.at(6), row.at(3)});
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const QStringList &a, const QStringList &b) { return a.at(1) < b.at(1); });
    printer.heading(QString("Alarms raised in this run: %1; the newest 10 (findDataByTime)").arg(rows.size()));
    printer.table({"Table", "Started", "Ended", "Value", "Limit", "Object"}, rows.mid(qMax(0, int(rows.size()) - 10)),
                  "lllrrl");
}

void printLog(interface_data_base &log, const QDateTime &start, const QString &user, const Printer &printer)
{
    // Pasted between quotes by the store, unlike the cells of an insert.
    const QString name = escaped(user);
    const int newest = 30;
    QList<OperatorLogData> entries;
    log.findDataOfUserNamePage(name, &entries, logTable, oldestFirst, 0, newest, newest);
    QList<QStringList> rows;
    for (const OperatorLogData &entry : std::as_const(entries))
        rows.append({entry.dateTime.toString("hh:mm:ss.zzz"), entry.logName, entry.message});
    const int ofRun =
        log.getDataCountOfTimeQuery(start.toString(second), QDateTime::currentDateTime().toString(second), logTable);
    printer.heading("Operator log (findDataOfUserNamePage)");
    printer.line(QString("%1 entries since the start, %2 of %3 in all; the newest %4")
                     .arg(ofRun)
                     .arg(log.getDataCountOfUserQuery(name, logTable))
                     .arg(user)
                     .arg(rows.size()));
    printer.table({"Time", "Action", "Message"}, rows, "lll");
}

} // namespace

void report(const Stores &stores, Monitor &monitor, const QDateTime &start, const QDateTime &end,
            const Printer &printer)
{
    printer.heading("Read back through the interface: all that follows lies in the files.");
    printHistory(*stores.history, start, end, printer);
    printAlarms(*stores.alarms, start, end, monitor, printer);
    printLog(*stores.log, start, monitor.user(), printer); // last: reading the alarms acknowledged them
}
