// SPDX-License-Identifier: MIT
#include "fingerprint.h"

#include "connection.h"

QByteArray hash(const std::function<void(QCryptographicHash &)> &add)
{
    QCryptographicHash sum(QCryptographicHash::Sha1);
    add(sum);
    return sum.result();
}

void add(QCryptographicHash &sum, const QString &text)
{
    sum.addData(text.toUtf8().append('\0'));
}

void add(QCryptographicHash &sum, const DataContent &sample)
{
    for (const QString &text : {sample.date, sample.time, sample.extraText, sample.value})
        add(sum, text);
}

void add(QCryptographicHash &sum, const AlarmData &alarm)
{
    for (const QString &text : {QString::number(alarm.level), QString::number(alarm.limitValue), alarm.description,
                                alarm.alarmObject, alarm.alarmType, alarm.currentValue, alarm.extraText,
                                alarm.startTime.toString(Qt::ISODateWithMs), alarm.endTime.toString(Qt::ISODateWithMs)})
        add(sum, text);
}

void add(QCryptographicHash &sum, const OperatorLogData &entry)
{
    for (const QString &text :
         {entry.userName, entry.logName, entry.message, entry.dateTime.toString(Qt::ISODateWithMs)})
        add(sum, text);
}

void add(QCryptographicHash &sum, const QStringList &row)
{
    for (const QString &text : row)
        add(sum, text);
}

void add(QCryptographicHash &sum, const device::Sample &sample)
{
    for (const QString &text :
         {QString::number(sample.id), sample.time.toDateTime().toString(Qt::ISODateWithMs), sample.value})
        add(sum, text);
}

void add(QCryptographicHash &sum, const device::Alarm &alarm)
{
    for (const QString &text :
         {QString::number(alarm.id), QString::number(alarm.level), alarm.start.toDateTime().toString(Qt::ISODateWithMs),
          alarm.object, alarm.type, alarm.value, alarm.limit, alarm.description,
          alarm.end ? alarm.end->toDateTime().toString(Qt::ISODateWithMs) : QString()})
        add(sum, text);
}

void add(QCryptographicHash &sum, const device::LogEntry &entry)
{
    for (const QString &text : {QString::number(entry.id), entry.time.toDateTime().toString(Qt::ISODateWithMs),
                                entry.user, entry.name, entry.message})
        add(sum, text);
}

QByteArray contents(const char *table, const QString &path)
{
    return hash([&](QCryptographicHash &sum) {
        Connection connection(path);
        const Table cells(connection.handle(), "select * from " + QByteArray(table) + " order by ID");
        for (int row = 1; row <= cells.rows; ++row) {
            for (int column = 1; column < cells.columns; ++column)
                sum.addData(QByteArray(cells.cells[row * cells.columns + column]).append('\0'));
        }
    });
}
