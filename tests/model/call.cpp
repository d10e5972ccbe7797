// SPDX-License-Identifier: MIT
#include "call.h"

#include "alarm_db.h"
#include "history_db.h"
#include "operatorlog_db.h"

namespace
{

QString text(const QDateTime &time)
{
    return time.isValid() ? time.toString("yyyy-MM-dd hh:mm:ss.zzz"_q) : "invalid"_q;
}

QStringList row(const DataContent &sample)
{
    return {sample.date, sample.time, sample.extraText, sample.value};
}

QStringList row(const AlarmData &alarm)
{
    return {QString::number(alarm.level),
            QString::number(alarm.limitValue, 'g', 17),
            alarm.description,
            alarm.alarmObject,
            alarm.alarmType,
            alarm.currentValue,
            alarm.extraText,
            text(alarm.startTime),
            text(alarm.endTime)};
}

QStringList row(const OperatorLogData &entry)
{
    return {entry.userName, entry.logName, entry.message, text(entry.dateTime)};
}

DataContent markRecord(const DataContent *)
{
    return {QString(), QString(), QString(), rowBefore.first()};
}

AlarmData markRecord(const AlarmData *)
{
    AlarmData alarm;
    alarm.description = rowBefore.first();
    return alarm;
}

OperatorLogData markRecord(const OperatorLogData *)
{
    return {QString(), QString(), rowBefore.first(), QDateTime()};
}

/// Runs a query on a list that holds one record; the rows of what it holds then.
template<typename Record, typename Query>
QList<QStringList> recordsAs(const Query &query)
{
    QList<Record> list{markRecord(static_cast<const Record *>(nullptr))};
    query(&list);
    QList<QStringList> rows{rowBefore};
    for (auto i = 1; i < list.size(); ++i)
        rows.append(row(list.at(i)));
    if (row(list.first()) != row(markRecord(static_cast<const Record *>(nullptr))))
        rows.first() = QStringList{"changed"_q};
    return rows;
}

template<typename Query>
Answer records(Kind kind, const Query &query)
{
    return {0, kind == History ? recordsAs<DataContent>(query)
               : kind == Alarm ? recordsAs<AlarmData>(query)
                               : recordsAs<OperatorLogData>(query)};
}

template<typename Query>
Answer rowsOf(const Query &query)
{
    Answer answer{0, {rowBefore}};
    query(answer.rows);
    return answer;
}

} // namespace

Answer ask(interface_data_base &store, Kind kind, const Call &c)
{
    switch (c.operation) {
    case Operation::Create:
        return {store.createTable(c.table, c.value), {}};
    case Operation::Insert:
    case Operation::InsertOdd: {
        QList<QStringList> rows = c.rows;
        store.insertManyDatas(rows, c.table);
        return {0, {}};
    }
    case Operation::Statements:
    case Operation::EndAlarm: {
        Answer answer{0, {rowBefore}};
        answer.number = store.execSQL(c.statements, answer.rows, c.mode);
        return answer;
    }
    case Operation::InsertConfig:
        store.insertConfig(c.table, c.value);
        return {};
    case Operation::ConfigInfo:
        return {0, {store.selectConfigInfo()}};
    case Operation::TableIsExist:
        return {store.tableIsExist(c.table), {}};
    case Operation::Purge:
        return {store.deleteTable(c.table, c.end), {}};
    case Operation::Trim:
        return {store.deleteDataForMax(c.count, c.table), {}};
    case Operation::Reset:
        return {store.resetID(c.table), {}};
    case Operation::Vacuum:
        return {store.vacuumSqliteDB(), {}};
    case Operation::Checkpoint:
        store.dbWalCheckPoint();
        return {};
    case Operation::Count:
        return {store.getDataCountOfTable(c.table), {}};
    case Operation::CountTo:
        return {store.getDataCountOfTableEndDate(c.table, c.end), {}};
    case Operation::CountRange:
        return {store.getDataCountOfTimeQuery(c.start, c.end, c.table), {}};
    case Operation::CountUser:
        return {store.getDataCountOfUserQuery(c.user, c.table), {}};
    case Operation::RowsByTime:
        return rowsOf([&](auto &rows) { store.findDataByTime(c.start, c.end, c.offset, c.count, rows, c.table); });
    case Operation::RowsNewest:
        return rowsOf([&](auto &rows) { store.selectNewDataOfRows(c.table, c.count, rows); });
    case Operation::RowsOldest:
        return rowsOf([&](auto &rows) { store.selectOldDataOfRows(c.table, c.count, rows); });
    case Operation::RowsPage:
        return rowsOf([&](auto &rows) { store.selectDataOfRows(c.table, c.offset, c.count, rows, c.newestFirst); });
    case Operation::RowsPageTo:
        return rowsOf(
            [&](auto &rows) { store.selectDataOfDateRows(c.table, c.end, c.offset, c.count, rows, c.newestFirst); });
    case Operation::RowsActive:
        return rowsOf([&](auto &rows) { store.findNoRecoveryAlarm(rows, c.table); });
    case Operation::ByValue:
        return records(kind, [&](void *list) { store.findDataOfValue(c.value, c.end, list, c.table, c.order); });
    case Operation::ByUser:
        return records(kind, [&](void *list) { store.findDataOfUserName(c.user, list, c.table, c.order); });
    case Operation::ByUserPage:
        return records(kind, [&](void *list) {
            store.findDataOfUserNamePage(c.user, list, c.table, c.order, c.offset, c.count, c.span);
        });
    case Operation::ByTime:
        return records(kind, [&](void *list) { store.findDataOfTime(c.start, c.end, list, c.table, c.order); });
    case Operation::ByTimePage:
        return records(kind, [&](void *list) {
            store.findDataOfTimePage(c.start, c.end, list, c.table, c.order, c.offset, c.count, c.span);
        });
    case Operation::All:
        return records(kind,
                       [&](void *list) { store.getAllDataPage(c.table, list, c.order, c.offset, c.count, c.span); });
    case Operation::Newest:
        return records(kind, [&](void *list) { store.getCurrData(c.table, list, c.order, c.count); });
    case Operation::Close:
    case Operation::Open:
    case Operation::StartReader:
    case Operation::EndReader:
        break;
    }
    return {};
}

QString Call::description() const
{
    QString text = "operation %1: table %2, start %3, end %4, user %5, value %6, order %7, offset %8, count %9"_q;
    for (const QString &each : {QString::number(int(operation)), table, start, end, user, value, order,
                                QString::number(offset), QString::number(count)})
        text = text.arg(each);
    text += ", span %1, mode %2, newest first %3, rows:"_q.arg(span).arg(mode).arg(newestFirst);
    for (const QStringList &row : rows)
        text += "\n    {"_q + row.join("|"_q) + "}"_q;
    return text + "\n  statements: "_q + statements.join(" ;; "_q);
}

QString difference(const Answer &answer, const Answer &expected)
{
    const auto shown = [](const Answer &each, int row) {
        const QString cells =
            row < each.rows.size() ? "{"_q + each.rows.at(row).join("|"_q).left(500) + "}"_q : "none"_q;
        return "number %1, %2 rows, row %3: "_q.arg(each.number).arg(each.rows.size()).arg(row) + cells;
    };
    int row = 0;
    while (row < answer.rows.size() && row < expected.rows.size() && answer.rows.at(row) == expected.rows.at(row))
        ++row;
    return "answered "_q + shown(answer, row) + "\nthe model "_q + shown(expected, row);
}
