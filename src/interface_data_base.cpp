// SPDX-License-Identifier: MIT
#include "interface_data_base.h"

#include "private/cells.h"
#include "private/query.h"
#include "private/statement.h"
#include "private/texts.h"

#include <QDebug>
#include <QMutexLocker>

#include <sqlite3.h>

using namespace detail;

interface_data_base::interface_data_base() : m_connection(nullptr) {}

interface_data_base::~interface_data_base()
{
    qDebug() << "~interface_data_base";
    interface_data_base::closeDB();
}

int interface_data_base::openDB(QString path)
{
    // No pragma, no busy timeout: the file's settings are the host's.
    QMutexLocker lock(&m_mutex);
    return sqlite3_open(path.toUtf8().constData(), &m_connection);
}

int interface_data_base::closeDB()
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    if (!m_connection) // closed by another thread while this one waited
        return 0;
    const int code = sqlite3_close(m_connection);
    m_connection = nullptr; // even when SQLite refused: a closed store stays closed
    return code;
}

void interface_data_base::dbWalCheckPoint()
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const Execution checkpoint(m_connection, "PRAGMA wal_checkpoint = passive;");
    if (checkpoint.failed())
        qDebug() << checkpoint.errorText();
}

// Row callback of tableIsExist: anything but a count that starts with '0' means that the table is there.
// A table name may turn the text into one that answers NULL; that is not a table.
static int isExisted(void *flag, int, char **texts, char **)
{
    *static_cast<bool *>(flag) = texts[0] && texts[0][0] != '0';
    return 0;
}

bool interface_data_base::tableIsExist(QString table)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const QByteArray sql = statement("select count(type) from sqlite_master where type='table' and name ='%1'", table);
    bool exists = false;
    char *error = nullptr;
    sqlite3_exec(m_connection, sql.constData(), isExisted, &exists, &error);
    sqlite3_free(error); // silent: a failure and a missing table answer the same
    return exists;
}

bool interface_data_base::deleteTable(QString table, QString)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const Execution clear(m_connection, statement("delete from '%1'", table));
    if (clear.failed())
        qDebug() << "delete Table " << table << " fail!";
    return !clear.failed();
}

bool interface_data_base::vacuumSqliteDB()
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const Execution vacuum(m_connection, "VACUUM");
    if (vacuum.failed())
        qDebug() << "VACUUM fail!";
    return !vacuum.failed();
}

bool interface_data_base::resetID(QString table)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const Execution reset(m_connection, statement("update sqlite_sequence SET seq = 0 where name = '%1';", table));
    if (reset.failed())
        qDebug() << "reset " << table << " ID fail!";
    return !reset.failed();
}

bool interface_data_base::deleteDataForMax(int count, QString table)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const QString name = rereadUtf8(table);
    // To SQLite a negative count means no limit, which empties the table; by contract nothing guards against it.
    const Execution trim(
        m_connection,
        statement("delete from '%1' where ID in (select ID from %2 order by ID limit 0,%3);", name, name, count));
    if (trim.failed())
        qDebug() << "Delete many data fail";
    return !trim.failed();
}

int interface_data_base::getDataCountOfTable(QString table)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection, statement("select count(*) from '%1' ", rereadUtf8(table)));
    if (query.failed()) {
        qDebug() << "database getDataCountOfTable failed;" << query.errorText();
        return 0;
    }
    return query.count();
}

int interface_data_base::getDataCountOfTableEndDate(QString table, QString end)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement("select count(*) from '%1' where DATETIME <= '%2'", rereadUtf8(table), end));
    if (query.failed()) {
        qDebug() << "database getDataCountOfTableEndDate failed;" << query.errorText();
        return 0;
    }
    return query.count();
}

int interface_data_base::getDataCountOfTimeQuery(QString start, QString end, QString table)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    // Bounds given to the second take in every millisecond of both seconds.
    start.append(QLatin1String(".000"));
    end.append(QLatin1String(".999"));
    const TableQuery query(
        m_connection, statement("select count(*) from '%1' where DATETIME Between '%2' and  '%3'", table, start, end));
    if (query.failed()) {
        qDebug("database getDataCountOfTimeQuery failed\n");
        return 0;
    }
    return query.count();
}

QStringList interface_data_base::selectConfigInfo()
{
    QMutexLocker lock(&m_mutex); // before the test for the closed store, unlike all other operations
    QStringList pairs;
    if (!m_connection)
        return pairs;
    const TableQuery query(m_connection, "select COLLECTOR,NAME from 'tb_config'");
    if (query.failed()) {
        qDebug() << "database selectConfigInfo failed;" << query.errorText();
        return pairs;
    }
    for (int row = 0; row < query.rowCount(); ++row) {
        QString pair;
        for (int column = 0; column < query.columnCount(); ++column)
            pair.append(QLatin1String("@")).append(toText(query.cell(row, column)));
        pairs.append(pair);
    }
    return pairs;
}

void interface_data_base::insertConfig(QString collector, QString name)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    executeSilently(m_connection, "begin transaction");
    executeSilently(m_connection,
                    statement("insert into tb_config values(NULL,'%1','%2')", rereadUtf8(collector), rereadUtf8(name)));
    const Execution commit(m_connection, "commit transaction");
    if (commit.failed())
        qDebug() << "insertManyDatas fail"; // no rollback: the transaction stays open until a later commit
}

void interface_data_base::selectNewDataOfRows(QString table, int count, QList<QStringList> &result)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement("select * from '%1' order by DATETIME desc limit 0,'%2' ", table, count));
    if (query.failed()) {
        qDebug() << "database selectNewDataOfRows failed";
        return;
    }
    query.appendTo(result);
}

void interface_data_base::selectOldDataOfRows(QString table, int count, QList<QStringList> &result)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement("select * from '%1' order by DATETIME asc limit 0,'%2' ", table, count));
    if (query.failed()) {
        qDebug() << "database selectOldDataOfRows failed";
        return;
    }
    query.appendTo(result);
}

void interface_data_base::selectDataOfRows(QString table, int offset, int count, QList<QStringList> &result,
                                           bool newestFirst)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement(newestFirst ? "select * from '%1' order by DATETIME desc , ID limit %2,%3 "
                                                 : "select * from '%1' order by DATETIME  , ID limit %2,%3 ",
                                     rereadUtf8(table), offset, count));
    if (query.failed()) {
        qDebug() << "database selectDataOfRows failed" << query.errorText();
        return;
    }
    query.appendTo(result);
}

void interface_data_base::selectDataOfDateRows(QString table, QString end, int offset, int count,
                                               QList<QStringList> &result, bool newestFirst)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    if (table.isEmpty()) {
        qDebug() << "database TableName is empty!";
        return;
    }
    const QString sql = chained( // not statement(): the message holds the text
        newestFirst ? "select * from '%1' where DATETIME <= '%2' order by DATETIME desc , ID limit %3,%4 "
                    : "select * from '%1' where DATETIME <= '%2' order by DATETIME , ID limit %3,%4 ",
        rereadUtf8(table), end, offset, count);
    const TableQuery query(m_connection, sql.toUtf8());
    if (query.failed()) {
        qDebug() << "database selectDataOfDateRows failed";
        qDebug() << sql;
        qDebug() << query.errorText();
        return;
    }
    query.appendTo(result);
}

void interface_data_base::findNoRecoveryAlarm(QList<QStringList> &result, QString table)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection, statement("select * from '%1' where EndDate == '' and EndTime == '';", table));
    if (query.failed()) {
        qDebug() << "findNoRecoveryAlarm" << QString::fromLatin1(query.errorText());
        return;
    }
    query.appendTo(result);
}

bool interface_data_base::runStatements(const QStringList &statements, QList<QStringList> &result, int mode)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    if (mode == 0) {
        if (statements.isEmpty())
            return false;
        const Execution first(m_connection, statements.first().toUtf8());
        if (first.failed())
            qDebug() << first.errorText();
        return !first.failed();
    }
    if (mode == 1) {
        if (statements.isEmpty())
            return false;
        const TableQuery query(m_connection, statements.first().toUtf8());
        if (query.failed()) {
            qDebug() << query.errorText();
            return false;
        }
        query.appendTo(result);
        return true;
    }
    if (mode != 2)
        return true;

    bool allSucceeded = true;
    executeSilently(m_connection, "begin transaction");
    for (int i = 0; i < statements.size(); ++i) {
        const Execution each(m_connection, statements.at(i).toUtf8());
        if (each.failed()) {
            qDebug() << chained("SQL=%1   error:%2", rereadUtf8(statements.at(i)),
                                QString::fromLatin1(each.errorText()));
            allSucceeded = false;
        }
    }
    const Execution commit(m_connection, "commit transaction");
    if (commit.failed())
        qDebug() << "sql fail"; // no rollback, and the answer is about the statements alone
    return allSucceeded;
}
