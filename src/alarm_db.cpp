// SPDX-License-Identifier: MIT
#include "alarm_db.h"

#include "private/cells.h"
#include "private/query.h"
#include "private/statement.h"
#include "private/texts.h"

#include <QDebug>
#include <QMutexLocker>

#include <helpsqlite.h>

using namespace detail;

namespace
{

bool isEmpty(const char *cell)
{
    return !cell || !*cell;
}

void appendAlarms(const TableQuery &query, void *list)
{
    QList<AlarmData> &alarms = *static_cast<QList<AlarmData> *>(list);
    if (query.columnCount() != 10)
        return;
    reserveFor(alarms, query.rowCount());
    TimeReader times(TimeReader::Seconds);
    RecurringTexts objects, types, values, descriptions;
    for (int row = 0; row < query.rowCount(); ++row) {
        AlarmData &alarm = appendNew(alarms);
        alarm.level = toInt(query.cell(row, 1));
        times.read(query.cell(row, 2), alarm.startTime);
        alarm.alarmObject = objects.read(query.cell(row, 3));
        alarm.alarmType = types.read(query.cell(row, 4));
        alarm.currentValue = values.read(query.cell(row, 5));
        alarm.limitValue = toDouble(query.cell(row, 6));
        alarm.description = descriptions.read(query.cell(row, 7));
        if (!isEmpty(query.cell(row, 8)) || !isEmpty(query.cell(row, 9))) // an active alarm has no end to parse
            alarm.endTime =
                QDateTime::fromString(chained("%1 %2", toText(query.cell(row, 8)), toText(query.cell(row, 9))),
                                      QLatin1String("yyyy-MM-dd hh:mm:ss"));
    }
}

// QString::number() of the text's toInt(). Most levels are one digit.
QString levelText(const QString &text)
{
    if (text.size() == 1 && ushort(text.at(0).unicode() - '0') < 10)
        return text;
    return QString::number(text.toInt());
}

} // namespace

bool alarm_db::createTable(QString table, QString)
{
    // No lock: tableIsExist takes it itself.
    if (!m_connection)
        return false;
    if (tableIsExist(table))
        return false;
    const Execution create(
        m_connection,
        statement(
            "create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)",
            table));
    if (create.failed())
        qDebug() << "alarm Table create fail!";
    else
        qDebug() << "alarm Table create success!";
    return !create.failed();
}

bool alarm_db::execSQL(QStringList statements, QList<QStringList> &result, int mode)
{
    return runStatements(statements, result, mode);
}

// The table name is ignored: alarms have always gone into "AlarmData".
void alarm_db::insertManyDatas(QList<QStringList> &rows, QString)
{
    if (!m_connection || rows.isEmpty())
        return;
    QMutexLocker lock(&m_mutex);
    executeSilently(m_connection, "begin transaction");
    StatementTemplate insert("insert into AlarmData values(NULL,'%1','%2','%3','%4','%5','%6','%7','%8','%9')");
    QString start;
    start.reserve(64); // kept from row to row
    for (int i = 0; i < rows.size(); ++i) {
        const QStringList &row = rows.at(i);
        if (row.size() < 10)
            continue;
        start.resize(0);
        start.append(row.at(1)).append(QLatin1Char(' ')).append(row.at(2)).replace(QLatin1Char('/'), QLatin1Char('-'));
        const QString description = rereadUtf8(helpSQLite::toSQLiteString(row.at(7)));
        executeSilently(m_connection, insert.fill(levelText(row.at(0)), start, row.at(3), row.at(4), row.at(5),
                                                  row.at(6), description, row.at(8), row.at(9)));
    }
    const Execution commit(m_connection, "commit transaction");
    if (commit.failed())
        qDebug() << "insertManyDatas fail!"; // no rollback: the transaction stays open until a later commit
}

void alarm_db::findDataByTime(QString start, QString end, int page, int pageSize, QList<QStringList> &result,
                              QString table)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    result.clear();
    start.replace(QLatin1String("/"), QLatin1String("-"));
    end.replace(QLatin1String("/"), QLatin1String("-"));
    const int offset = int(unsigned(page) * unsigned(pageSize)); // wraps at 32 bits
    const TableQuery query(m_connection,
                           statement("select * from '%1' where DATETIME between '%2' and '%3' order by ID limit %4,%5",
                                     table, start, end, offset, pageSize));
    if (query.failed()) {
        qDebug() << "findDataByTime" << QString::fromLatin1(query.errorText());
        return;
    }
    query.appendTo(result);
}

void alarm_db::findDataOfTimePage(QString start, QString end, void *list, QString table, QString order, int offset,
                                  int count, int)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    start.replace(QLatin1String("/"), QLatin1String("-"));
    end.replace(QLatin1String("/"), QLatin1String("-"));
    const TableQuery query(
        m_connection,
        statement(
            "select * from %1 where DATETIME Between '%2' and  '%3' and EndDate = '' and EndTime = '' order by DATETIME %4 limit %5, %6;",
            table, start, end, order, offset, count));
    if (query.failed()) {
        qDebug() << "findDataOfTimePage" << QString::fromLatin1(query.errorText());
        return;
    }
    appendAlarms(query, list);
}

void alarm_db::findDataOfTime(QString start, QString end, void *list, QString table, QString order)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    start.replace(QLatin1String("/"), QLatin1String("-"));
    end.replace(QLatin1String("/"), QLatin1String("-"));
    const TableQuery query(
        m_connection,
        statement(
            "select * from %1 where DATETIME Between '%2' and  '%3' and EndDate = '' and EndTime = '' order by DATETIME %4;",
            table, start, end, order));
    if (query.failed()) {
        qDebug() << "findDataOfTime" << QString::fromLatin1(query.errorText());
        return;
    }
    appendAlarms(query, list);
}

void alarm_db::getAllDataPage(QString table, void *list, QString order, int, int, int)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(
        m_connection,
        statement("select * from '%1' where EndDate = '' and EndTime = '' order by DATETIME %2", table, order));
    if (query.failed()) {
        qDebug("database getAllData failed\n");
        return;
    }
    appendAlarms(query, list);
}

bool alarm_db::deleteTable(QString table, QString threshold)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    // Without parentheses on purpose: an ended alarm goes whatever its start.
    const Execution purge(m_connection,
                          statement("delete from '%1' where DATETIME < '%2' or EndDate != '' and EndTime != '';",
                                    rereadUtf8(table), threshold));
    if (purge.failed())
        qDebug() << "Delete many data fail";
    return !purge.failed();
}
