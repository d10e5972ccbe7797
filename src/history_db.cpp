// SPDX-License-Identifier: MIT
#include "history_db.h"

#include "private/cells.h"
#include "private/query.h"
#include "private/statement.h"
#include "private/texts.h"

#include <QDebug>
#include <QMutexLocker>

#include <cstdio>

using namespace detail;

namespace
{

// A row whose time is not "date time" ends the output: the samples before it stay.
void appendSamples(const TableQuery &query, void *list)
{
    QList<DataContent> &samples = *static_cast<QList<DataContent> *>(list);
    if (query.columnCount() != 3)
        return;
    DayReader days;
    for (int row = 0; row < query.rowCount(); ++row) {
        QString date;
        QString time;
        if (!days.read(query.cell(row, 1), date, time))
            return;
        if (row == 0)
            reserveFor(samples, query.rowCount()); // no sooner: a list that gets nothing must not grow
        DataContent &sample = appendNew(samples);
        sample.date.swap(date);
        sample.time.swap(time);
        sample.value = toText(query.cell(row, 2));
    }
}

} // namespace

bool history::createTable(QString table, QString configName)
{
    // No lock: the operations called here take it themselves.
    if (!m_connection)
        return false;
    if (tableIsExist(table))
        return false;
    if (table == QLatin1String("tb_config")) {
        const Execution create(
            m_connection,
            statement("create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)", table));
        if (create.failed()) {
            qDebug() << "HisData Table create fail!" << create.errorText();
            return false;
        }
        qDebug() << "HisData tb_config create success!";
        return true;
    }
    {
        const Execution create(
            m_connection,
            statement("create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)", table));
        if (create.failed()) {
            qDebug() << "HisData Table create fail!" << create.errorText();
            return false;
        }
        qDebug() << "HisData Table create success!";
    }
    createTable(QLatin1String("tb_config"), QLatin1String(""));
    insertConfig(table, configName);
    return true;
}

bool history::execSQL(QStringList statements, QList<QStringList> &result, int mode)
{
    return runStatements(statements, result, mode);
}

void history::insertManyDatas(QList<QStringList> &rows, QString table)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    executeSilently(m_connection, "begin transaction");
    StatementTemplate insert("insert into %1 values(NULL,'%2','%3')");
    const QString name = rereadLatin1(table);
    for (int i = 0; i < rows.size(); ++i) {
        QString dateTime;
        QString value;
        if (rows.at(i).size() == 2) { // any other row is stored with both texts empty
            dateTime = rows.at(i).at(0);
            value = rows.at(i).at(1);
        }
        dateTime = rereadLatin1(dateTime.replace(QLatin1Char('/'), QLatin1Char('-')));
        value = rereadLatin1(value);
        executeSilently(m_connection, insert.fill(name, dateTime, value));
    }
    const Execution commit(m_connection, "commit transaction");
    if (commit.failed())
        qDebug() << "insertManyDatas fail"; // no rollback: the transaction stays open until a later commit
}

void history::findDataByTime(QString start, QString end, int page, int pageSize, QList<QStringList> &result,
                             QString table)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    result.clear();
    start.replace(QLatin1String("/"), QLatin1String("-"));
    end.replace(QLatin1String("/"), QLatin1String("-"));
    char sql[2048] = {};
    int length;
    if (page == -1 || pageSize == -1) {
        length = std::snprintf(sql, sizeof sql, "select * from '%s' where DATETIME between '%s' and '%s' order by ID",
                               table.toUtf8().constData(), start.toUtf8().constData(), end.toUtf8().constData());
    } else {
        const int offset = int(unsigned(page) * unsigned(pageSize)); // wraps at 32 bits
        length = std::snprintf(
            sql, sizeof sql, "select * from '%s' where DATETIME between '%s' and '%s' order by ID limit %d,%d",
            table.toUtf8().constData(), start.toUtf8().constData(), end.toUtf8().constData(), offset, pageSize);
    }
    if (length < 0 || size_t(length) >= sizeof sql) { // a cut statement could mean something else
        qDebug() << "findDataByTime" << QString::fromLatin1("string or blob too big");
        return;
    }
    const TableQuery query(m_connection, sql);
    if (query.failed()) {
        qDebug() << "findDataByTime" << QString::fromLatin1(query.errorText());
        return;
    }
    query.appendTo(result);
}

void history::findDataOfValue(QString value, QString end, void *list, QString table, QString order)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    // Each template is filled before it is joined: a "%1" in the value stays what it is.
    QString sql = chained("select * from %1 where DATETIME <= '%2' AND Value LIKE ", table, end);
    sql.append(QLatin1String("'%")).append(value).append(QLatin1String("%'"));
    sql.append(chained(" order by DATETIME %1;", order));
    const TableQuery query(m_connection, sql.toUtf8());
    if (query.failed()) {
        qDebug() << "findDataOfValue" << QString::fromLatin1(query.errorText());
        return;
    }
    appendSamples(query, list);
}

void history::findDataOfTimePage(QString start, QString end, void *list, QString table, QString order, int offset,
                                 int count, int)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    start.replace(QLatin1String("/"), QLatin1String("-"));
    end.replace(QLatin1String("/"), QLatin1String("-"));
    const TableQuery query(
        m_connection,
        statement("select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME %4 limit %5, %6;", table,
                  start, end, order, offset, count));
    if (query.failed()) {
        qDebug() << "findDataOfTimePage" << QString::fromLatin1(query.errorText());
        return;
    }
    appendSamples(query, list);
}

void history::findDataOfTime(QString start, QString end, void *list, QString table, QString order)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    start.replace(QLatin1String("/"), QLatin1String("-"));
    end.replace(QLatin1String("/"), QLatin1String("-"));
    const TableQuery query(m_connection,
                           statement("select * from %1 where DATETIME Between '%2' and  '%3' order by DATETIME %4;",
                                     table, start, end, order));
    if (query.failed()) {
        qDebug() << "findDataOfTime" << QString::fromLatin1(query.errorText());
        return;
    }
    appendSamples(query, list);
}

void history::getAllDataPage(QString table, void *list, QString order, int offset, int count, int newestSpan)
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
    appendSamples(query, list);
}

void history::getCurrData(QString table, void *list, QString order, int count)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    // The ";" inside the parentheses is a syntax error: every order but "desc" fails. Hosts rely on it.
    const QByteArray sql =
        statement(order == QLatin1String("desc")
                      ? "select * from '%1' order by DATETIME desc limit %2;"
                      : "select * from (select * from '%1' order by DATETIME desc limit %2;) order by DATETIME asc;",
                  table, count);
    const TableQuery query(m_connection, sql);
    if (query.failed()) {
        qDebug("database getAllData failed\n");
        return;
    }
    appendSamples(query, list);
}

int history::getDataCountOfTimeQuery(QString start, QString end, QString table)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(
        m_connection, statement("select count(*) from '%1' where DATETIME Between '%2' and  '%3'", table, start, end));
    if (query.failed()) {
        qDebug("database getDataCountOfTimeQuery failed\n");
        return 0;
    }
    return query.count();
}
