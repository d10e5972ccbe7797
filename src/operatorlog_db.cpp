// SPDX-License-Identifier: MIT
#include "operatorlog_db.h"

#include "private/cells.h"
#include "private/query.h"
#include "private/statement.h"

#include <QDebug>
#include <QMutexLocker>

#include <helpsqlite.h>

using namespace detail;

namespace
{

void appendEntries(const TableQuery &query, void *list)
{
    QList<OperatorLogData> &entries = *static_cast<QList<OperatorLogData> *>(list);
    if (query.columnCount() != 5)
        return;
    reserveFor(entries, query.rowCount());
    TimeReader times(TimeReader::Milliseconds);
    RecurringTexts users, logs;
    for (int row = 0; row < query.rowCount(); ++row) {
        OperatorLogData &entry = appendNew(entries);
        times.read(query.cell(row, 1), entry.dateTime);
        entry.userName = users.read(query.cell(row, 2));
        entry.logName = logs.read(query.cell(row, 3));
        entry.message = toText(query.cell(row, 4));
    }
}

// Bounds always get milliseconds, even if they already have some.
QString rangeStart(QString time)
{
    return time.replace(QLatin1String("/"), QLatin1String("-")).append(QLatin1String(".000"));
}

QString rangeEnd(QString time)
{
    return time.replace(QLatin1String("/"), QLatin1String("-")).append(QLatin1String(".999"));
}

} // namespace

bool operatorlog_db::createTable(QString table, QString)
{
    // No lock: tableIsExist takes it itself.
    if (!m_connection)
        return false;
    if (tableIsExist(table))
        return false;
    const Execution create(
        m_connection,
        statement(
            "create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)",
            table));
    if (create.failed())
        qDebug() << "operatorlog Table create fail!";
    else
        qDebug() << "operatorlog Table create success!";
    return !create.failed();
}

void operatorlog_db::insertManyDatas(QList<QStringList> &rows, QString table)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    executeSilently(m_connection, "begin transaction");
    StatementTemplate insert("insert into %1 values(NULL, '%2', '%3', '%4', '%5');");
    for (int i = 0; i < rows.size(); ++i) {
        const QStringList &row = rows.at(i);
        if (row.size() < 4)
            continue;
        const QString user = helpSQLite::toSQLiteString(row.at(1));
        const QString log = helpSQLite::toSQLiteString(row.at(2));
        const QString message = helpSQLite::toSQLiteString(row.at(3));
        executeSilently(m_connection, insert.fill(table, row.at(0), user, log, message));
    }
    const Execution commit(m_connection, "commit transaction");
    if (commit.failed())
        qDebug() << "insertManyDatas fail"; // no rollback: the transaction stays open until a later commit
}

void operatorlog_db::findDataOfUserNamePage(QString user, void *list, QString table, QString order, int offset,
                                            int count, int newestSpan)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const QByteArray sql =
        order == QLatin1String("desc")
            ? statement("select * from %1 where userName = '%2' order by DATETIME desc limit %3, %4;", table, user,
                        offset, count)
            : statement(
                  "select * from (select * from %1 where userName = '%2' order by DATETIME desc limit %3) order by DATETIME limit %4, %5;",
                  table, user, newestSpan, offset, count);
    const TableQuery query(m_connection, sql);
    if (query.failed()) {
        qDebug() << "findDataOfUserNamePage" << QString::fromLatin1(query.errorText());
        return;
    }
    appendEntries(query, list);
}

void operatorlog_db::findDataOfUserName(QString user, void *list, QString table, QString order)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(
        m_connection, statement("select * from %1 where userName = '%2' order by DATETIME %3;", table, user, order));
    if (query.failed()) {
        qDebug() << "findDataOfUserName" << QString::fromLatin1(query.errorText());
        return;
    }
    appendEntries(query, list);
}

int operatorlog_db::getDataCountOfUserQuery(QString user, QString table)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection, statement("select count(*) from '%1' where userName = '%2'", table, user));
    if (query.failed()) {
        qDebug("database getDataCountOfUserQuery failed\n");
        return 0;
    }
    return query.count();
}

void operatorlog_db::findDataOfTimePage(QString start, QString end, void *list, QString table, QString order,
                                        int offset, int count, int newestSpan)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const QByteArray sql =
        order == QLatin1String("desc")
            ? statement("select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME desc limit %4, %5;",
                        table, rangeStart(start), rangeEnd(end), offset, count)
            : statement(
                  "select * from (select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME desc limit %4) order by DATETIME limit %5, %6;",
                  table, rangeStart(start), rangeEnd(end), newestSpan, offset, count);
    const TableQuery query(m_connection, sql);
    if (query.failed()) {
        qDebug() << "findDataOfTimePage" << QString::fromLatin1(query.errorText());
        return;
    }
    appendEntries(query, list);
}

void operatorlog_db::findDataOfTime(QString start, QString end, void *list, QString table, QString order)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement("select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME %4;",
                                     table, rangeStart(start), rangeEnd(end), order));
    if (query.failed()) {
        qDebug() << "findDataOfTime" << QString::fromLatin1(query.errorText());
        return;
    }
    appendEntries(query, list);
}

void operatorlog_db::getAllDataPage(QString table, void *list, QString order, int offset, int count, int newestSpan)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const QByteArray sql =
        order == QLatin1String("desc")
            ? statement("select * from '%1' order by DATETIME desc limit %2, %3;", table, offset, count)
            : statement(
                  "select * from (select * from '%1' order by DATETIME desc limit %2) order by DATETIME limit %3, %4;",
                  table, newestSpan, offset, count);
    const TableQuery query(m_connection, sql);
    if (query.failed()) {
        qDebug("database getAllData failed\n");
        return;
    }
    appendEntries(query, list);
}

void operatorlog_db::getCurrData(QString table, void *list, QString order, int count)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const QByteArray sql =
        statement(order == QLatin1String("desc")
                      ? "select * from '%1' order by DATETIME desc limit %2;"
                      : "select * from (select * from '%1' order by DATETIME desc limit %2) order by DATETIME asc;",
                  table, count);
    const TableQuery query(m_connection, sql);
    if (query.failed()) {
        qDebug("database getCurrData failed\n");
        qDebug() << query.errorText();
        return;
    }
    appendEntries(query, list);
}
