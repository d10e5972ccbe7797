// SPDX-License-Identifier: MIT
#include "plain.h"

#include <helpsqlite.h>

namespace
{

QString readAsLatin1(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.constData());
}

QString text(const plain::CellTable &cells, int row, int column)
{
    return QString::fromUtf8(cells.cells[(row + 1) * cells.columns + column]);
}

QDateTime parseTime(const QString &time)
{
    return QDateTime::fromString(time, QLatin1String("yyyy-MM-dd hh:mm:ss"));
}

} // namespace

QString plain::historyStatement(const QStringList &row, const QString &table)
{
    QString dateTime;
    QString value;
    if (row.size() == 2) {
        dateTime = row.at(0);
        value = row.at(1);
    }
    dateTime.replace(QLatin1String("/"), QLatin1String("-"));
    return QString::fromLatin1("insert into %1 values(NULL,'%2','%3')")
        .arg(readAsLatin1(table.toLatin1()))
        .arg(readAsLatin1(dateTime.toLatin1()))
        .arg(readAsLatin1(value.toLatin1()));
}

QString plain::alarmStatement(const QStringList &row)
{
    if (row.size() < 10)
        return QString();
    QString start = row.at(1);
    start.append(QLatin1String(" ")).append(row.at(2)).replace(QLatin1String("/"), QLatin1String("-"));
    QString sql = QString::fromLatin1("insert into %1 values").arg(QLatin1String("AlarmData"));
    sql.append(QString::fromLatin1("(NULL,'%1','%2','%3','%4','%5','%6','%7','%8','%9')")
                   .arg(row.at(0).toInt())
                   .arg(start)
                   .arg(row.at(3))
                   .arg(row.at(4))
                   .arg(row.at(5))
                   .arg(row.at(6))
                   .arg(readAsLatin1(helpSQLite::toSQLiteString(row.at(7)).toUtf8()))
                   .arg(row.at(8))
                   .arg(row.at(9)));
    return sql;
}

QString plain::logStatement(const QStringList &row, const QString &table)
{
    if (row.size() < 4)
        return QString();
    return QString::fromLatin1("insert into %1 values(NULL, '%2', '%3', '%4', '%5');")
        .arg(table)
        .arg(row.at(0))
        .arg(helpSQLite::toSQLiteString(row.at(1)))
        .arg(helpSQLite::toSQLiteString(row.at(2)))
        .arg(helpSQLite::toSQLiteString(row.at(3)));
}

void plain::append(const CellTable &cells, QList<DataContent> &samples)
{
    if (cells.columns != 3)
        return;
    for (int row = 0; row < cells.rows; ++row) {
        const QStringList dateTime = text(cells, row, 1).split(QLatin1String(" "));
        if (dateTime.size() != 2)
            return;
        DataContent sample;
        sample.date = dateTime.at(0);
        sample.time = dateTime.at(1);
        sample.value = text(cells, row, 2);
        samples.append(sample);
    }
}

void plain::append(const CellTable &cells, QList<AlarmData> &alarms)
{
    if (cells.columns != 10)
        return;
    for (int row = 0; row < cells.rows; ++row) {
        AlarmData alarm;
        alarm.level = text(cells, row, 1).toInt();
        alarm.startTime = parseTime(text(cells, row, 2));
        alarm.alarmObject = text(cells, row, 3);
        alarm.alarmType = text(cells, row, 4);
        alarm.currentValue = text(cells, row, 5);
        bool isNumber = false;
        const double limitValue = text(cells, row, 6).toDouble(&isNumber);
        alarm.limitValue = isNumber ? limitValue : 0;
        alarm.description = text(cells, row, 7);
        alarm.endTime = parseTime(QString::fromLatin1("%1 %2").arg(text(cells, row, 8)).arg(text(cells, row, 9)));
        alarms.append(alarm);
    }
}

void plain::append(const CellTable &cells, QList<OperatorLogData> &entries)
{
    if (cells.columns != 5)
        return;
    for (int row = 0; row < cells.rows; ++row) {
        OperatorLogData entry;
        entry.dateTime = QDateTime::fromString(text(cells, row, 1), QLatin1String("yyyy-MM-dd hh:mm:ss.zzz"));
        entry.userName = text(cells, row, 2);
        entry.logName = text(cells, row, 3);
        entry.message = text(cells, row, 4);
        entries.append(entry);
    }
}

void plain::append(const CellTable &cells, QList<QStringList> &result)
{
    for (int row = 0; row < cells.rows; ++row) {
        QStringList texts;
        for (int column = 0; column < cells.columns; ++column)
            texts.append(text(cells, row, column));
        result.append(texts);
    }
}
