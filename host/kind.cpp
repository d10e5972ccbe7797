// SPDX-License-Identifier: MIT
#include "kind.h"

#include "cells.h"

namespace device
{

QVariant timeCell(LocalTime time, bool withMilliseconds)
{
    const QDateTime here = time.toDateTime();
    QString text;
    if (here.isValid() || !appendTime(text, time, withMilliseconds))
        return here;
    return text;
}

const QVector<Column> &Kind<Sample>::columns()
{
    static const QVector<Column> columns{{"DATETIME", "dateTime", "Time"}, {"Value", "text", "Value"}};
    return columns;
}

void Kind<Sample>::encode(const Sample &sample, RowText &row)
{
    row.sample(sample.time, "Value", sample.value);
}

template<typename Cells>
Sample Kind<Sample>::decode(Cells &row)
{
    Sample sample;
    sample.id = row.id();
    sample.time = row.time();
    sample.value = row.text();
    return sample;
}

QVector<QVariant> Kind<Sample>::cells(const Sample &sample)
{
    return {timeCell(sample.time, milliseconds), sample.value};
}

QString Kind<Sample>::condition(const Filter<Sample> &filter)
{
    return filter.containing.isEmpty() ? QString() : QStringLiteral("instr(Value,%1)>0").arg(quoted(filter.containing));
}

const QVector<Column> &Kind<Alarm>::columns()
{
    static const QVector<Column> columns{{"LevelID", "INTEGER", "Level"},
                                         {"DATETIME", "dateTime", "Start"},
                                         {"AlarmObject", "text", "Object"},
                                         {"AlarmType", "text", "Type"},
                                         {"CurrentValue", "text", "Value"},
                                         {"LimitValue", "text", "Limit"},
                                         {"AlarmDescription", "text", "Description"},
                                         {"EndDate", "text", "End date"},
                                         {"EndTime", "text", "End time"}};
    return columns;
}

void Kind<Alarm>::encode(const Alarm &alarm, RowText &row)
{
    row.number(alarm.level);
    row.time(alarm.start, milliseconds);
    row.text("AlarmObject", alarm.object);
    row.text("AlarmType", alarm.type);
    row.text("CurrentValue", alarm.value);
    row.text("LimitValue", alarm.limit);
    row.twiceEncoded("AlarmDescription", alarm.description);
    row.dateAndClock(alarm.end);
}

template<typename Cells>
Alarm Kind<Alarm>::decode(Cells &row)
{
    Alarm alarm;
    alarm.id = row.id();
    alarm.level = row.number();
    alarm.start = row.time();
    alarm.object = row.recurring();
    alarm.type = row.recurring();
    alarm.value = row.text();
    alarm.limit = row.recurring();
    alarm.description = decodedTwice(row.recurring());
    alarm.end = row.dateAndClock();
    return alarm;
}

QVector<QVariant> Kind<Alarm>::cells(const Alarm &alarm)
{
    return {alarm.level,
            timeCell(alarm.start, milliseconds),
            alarm.object,
            alarm.type,
            alarm.value,
            alarm.limit,
            alarm.description,
            alarm.end ? alarm.end->date() : QVariant(),
            alarm.end ? alarm.end->time() : QVariant()};
}

QString Kind<Alarm>::condition(const Filter<Alarm> &filter)
{
    switch (filter.state) {
    case Filter<Alarm>::Active:
        return QStringLiteral("EndDate='' and EndTime=''");
    case Filter<Alarm>::Ended:
        return QStringLiteral("EndDate!='' and EndTime!=''");
    case Filter<Alarm>::All:
        break;
    }
    return QString();
}

const QVector<Column> &Kind<LogEntry>::columns()
{
    static const QVector<Column> columns{{"DATETIME", "dateTime NOT NULL", "Time"},
                                         {"userName", "text", "User"},
                                         {"logName", "text", "Log"},
                                         {"message", "text", "Message"}};
    return columns;
}

void Kind<LogEntry>::encode(const LogEntry &entry, RowText &row)
{
    row.time(entry.time, milliseconds);
    row.text("userName", entry.user);
    row.text("logName", entry.name);
    row.text("message", entry.message);
}

template<typename Cells>
LogEntry Kind<LogEntry>::decode(Cells &row)
{
    LogEntry entry;
    entry.id = row.id();
    entry.time = row.time();
    entry.user = row.recurring();
    entry.name = row.recurring();
    entry.message = row.text();
    return entry;
}

QVector<QVariant> Kind<LogEntry>::cells(const LogEntry &entry)
{
    return {timeCell(entry.time, milliseconds), entry.user, entry.name, entry.message};
}

QString Kind<LogEntry>::condition(const Filter<LogEntry> &filter)
{
    return filter.user ? QStringLiteral("userName=%1").arg(quoted(*filter.user)) : QString();
}

namespace
{

QString isActive(const QString &object, const QString &type)
{
    return QLatin1String("AlarmObject=") + quoted(object) + QLatin1String(" and AlarmType=") + quoted(type) +
           QLatin1String(" and EndDate='' and EndTime=''");
}

} // namespace
template Sample Kind<Sample>::decode(RowCells &);
template Sample Kind<Sample>::decode(ColumnCells &);
template Alarm Kind<Alarm>::decode(RowCells &);
template Alarm Kind<Alarm>::decode(ColumnCells &);
template LogEntry Kind<LogEntry>::decode(RowCells &);
template LogEntry Kind<LogEntry>::decode(ColumnCells &);

Result<QString> endingStatement(const QString &operation, const QString &table, const QString &object,
                                const QString &type, LocalTime when)
{
    QString time;
    if (!appendTime(time, when, false))
        return Error(Error::TimeRefused, operation, table, QStringLiteral("the tables cannot hold this time"));
    for (const QString &text : {object, type}) {
        if (const char *why = unstorable(text))
            return Error(Error::TextRefused, operation, table,
                         QStringLiteral("no alarm can have the object or type: ") + QLatin1String(why));
    }
    return QLatin1String("update ") + table + QLatin1String(" set EndDate='") + time.left(10) +
           QLatin1String("',EndTime='") + time.mid(11) + QLatin1String("' where ") + isActive(object, type);
}

Result<QString> raisingStatement(const QString &operation, const QString &table, const Alarm &alarm)
{
    RowText row;
    Kind<Alarm>::encode(alarm, row);
    const auto values = row.take(operation, table);
    if (!values)
        return values.error();
    return QLatin1String("insert into ") + table + QLatin1String(" select * from (values") + *values +
           QLatin1String(") where not exists(select 1 from ") + table + QLatin1String(" where ") +
           isActive(alarm.object, alarm.type) + QLatin1Char(')');
}

} // namespace device
