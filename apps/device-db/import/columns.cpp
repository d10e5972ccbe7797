// SPDX-License-Identifier: MIT
#include "import/columns.h"

#include "storefile/texts.h"
#include "storefile/times.h"

#include <algorithm>

namespace device_db
{

namespace
{

// Names under which files from elsewhere have the columns, beside those of the table and of export.
struct Alias {
    const char *name;
    const char *key;
};
constexpr Alias aliases[] = {
    {"timestamp", "time"}, {"date", "time"},   {"datetime", "time"},    {"time", "start"},       {"timestamp", "start"},
    {"username", "user"},  {"logname", "log"}, {"enddate", "end_date"}, {"endtime", "end_time"}, {"text", "message"}};

QByteArray plain(const QString &name)
{
    return name.trimmed().toLower().toUtf8();
}

bool isOneOf(const QString &name, std::initializer_list<const char *> words)
{
    return std::find(words.begin(), words.end(), plain(name)) != words.end();
}

bool isDate(const QString &name)
{
    return isOneOf(name, {"date", "start_date", "startdate"});
}

bool isClock(const QString &name)
{
    return isOneOf(name, {"time", "clock", "start_time", "starttime"});
}

bool isLeftOut(const QString &name)
{
    return isOneOf(name, {"-", "id"});
}

int columnNamed(Kind kind, const QString &name)
{
    const QVector<KnownColumn> &columns = columnsOf(kind);
    const QByteArray wanted = plain(name);
    for (int i = 0; i < columns.size(); ++i) {
        if (wanted == columns.at(i).key || wanted == QByteArray(columns.at(i).name).toLower() ||
            wanted == QByteArray(columns.at(i).title).toLower())
            return i;
    }
    for (const Alias &alias : aliases) {
        for (int i = 0; i < columns.size(); ++i) {
            if (wanted == alias.name && qstrcmp(columns.at(i).key, alias.key) == 0)
                return i;
        }
    }
    return -1;
}

// One column with a date and one with a time of day, which make the time together.
bool hasDateAndClock(const QStringList &names)
{
    return std::count_if(names.begin(), names.end(), isDate) == 1 &&
           std::count_if(names.begin(), names.end(), isClock) == 1;
}

bool hasTime(const Assignment &assignment)
{
    return assignment.columnOfCell.contains(assignment.timeColumn()) ||
           assignment.columnOfCell.contains(Assignment::DateOfTime);
}

Status addConstants(Assignment &assignment, const QStringList &constants)
{
    for (const QString &constant : constants) {
        const auto equals = constant.indexOf(QLatin1Char('='));
        const int column = columnNamed(assignment.kind, constant.left(equals));
        if (equals < 0 || column < 0)
            return failure(constant,
                           QStringLiteral("give a column and what it holds, such as level=1; the columns are %1")
                               .arg(assignment.columns.join(QLatin1Char(','))));
        if (assignment.columnOfCell.contains(column))
            return failure(constant, QStringLiteral("the input has this column; leave it out with - in --columns"));
        assignment.constants[column] = constant.mid(equals + 1).toUtf8();
    }
    return {};
}

} // namespace

int Assignment::timeColumn() const
{
    return isWide ? 0 : timeColumnOf(kind) - 1;
}

QStringList keysOf(Kind kind)
{
    QStringList keys;
    for (const KnownColumn &column : columnsOf(kind))
        keys << QLatin1String(column.key);
    return keys;
}

Result<Assignment> assigned(const QString &input, Kind kind, const QStringList &names, const QStringList &constants)
{
    Assignment assignment;
    assignment.kind = kind;
    assignment.columns = keysOf(kind);
    assignment.constants.fill(QByteArray(""), int(assignment.columns.size()));
    const QString list = assignment.columns.join(QLatin1Char(','));
    const bool isSplit = hasDateAndClock(names);
    for (const QString &name : names) {
        const int column = isLeftOut(name)                                           ? Assignment::LeftOut
                           : isSplit && isDate(name)                                 ? Assignment::DateOfTime
                           : isSplit && isClock(name)                                ? Assignment::ClockOfTime
                           : kind == Kind::Alarms && isOneOf(name, {"end", "ended"}) ? Assignment::WholeEnd
                                                                                     : columnNamed(kind, name);
        if (column == -1 && !isLeftOut(name))
            return failure(
                input, names.size() == 1
                           ? QStringLiteral("\"%1\" is not a column of %2 (%3); is another --separator needed?")
                                 .arg(name.left(60), QLatin1String(nameOf(kind)), list)
                           : QStringLiteral("\"%1\" is not a column of %2 (%3); name them with --columns, - leaves one "
                                            "out, --no-header takes the first row as data")
                                 .arg(name.left(60), QLatin1String(nameOf(kind)), list));
        if (column >= 0 && assignment.columnOfCell.contains(column))
            return failure(input, QStringLiteral("two columns are called \"%1\"; name them with --columns").arg(name));
        assignment.columnOfCell << column;
    }
    if (!hasTime(assignment))
        return failure(input, QStringLiteral("it has no column for the time; name the columns with --columns, "
                                             "such as --columns ") +
                                  list);
    if (const Status added = addConstants(assignment, constants); !added)
        return added.error();
    return assignment;
}

Result<Assignment> assignedSeries(const QString &input, const QStringList &names)
{
    Assignment assignment;
    assignment.kind = Kind::Samples;
    assignment.isWide = true;
    assignment.columns << QStringLiteral("time");
    const bool isSplit = hasDateAndClock(names);
    for (const QString &name : names) {
        if (isLeftOut(name)) {
            assignment.columnOfCell << Assignment::LeftOut;
        } else if (isSplit && isDate(name)) {
            assignment.columnOfCell << Assignment::DateOfTime;
        } else if (isSplit && isClock(name)) {
            assignment.columnOfCell << Assignment::ClockOfTime;
        } else if (!isSplit && columnNamed(Kind::Samples, name) == 0) {
            if (assignment.columnOfCell.contains(0))
                return failure(input, QStringLiteral("two columns are a time; name them with --columns"));
            assignment.columnOfCell << 0;
        } else {
            if (assignment.columns.contains(name.trimmed(), Qt::CaseInsensitive))
                return failure(input,
                               QStringLiteral("two columns are called \"%1\"; name them with --columns").arg(name));
            assignment.columnOfCell << int(assignment.columns.size());
            assignment.columns << name.trimmed();
        }
    }
    if (!hasTime(assignment) || assignment.columns.size() < 2)
        return failure(input,
                       QStringLiteral("it has no column for the time, or none for a series; name the columns with "
                                      "--columns, such as --columns time,S1,S2"));
    assignment.constants.fill(QByteArray(""), int(assignment.columns.size()));
    return assignment;
}

RowCheck::RowCheck(Assignment assignment, TimeForms times, std::optional<QByteArray> null, bool asIs)
    : m_assignment(std::move(assignment)), m_times(std::move(times)), m_null(std::move(null)), m_asIs(asIs)
{
}

QByteArray RowCheck::refusal(const InputRow &row, QVector<QByteArray> &cells) const
{
    if (!row.fault.isEmpty())
        return row.fault;
    if (row.cells.size() != m_assignment.columnOfCell.size())
        return "its number of cells is " + QByteArray::number(qint64(row.cells.size())) + ", not " +
               QByteArray::number(qint64(m_assignment.columnOfCell.size()));
    cells = m_assignment.constants;
    QByteArray date;
    QByteArray clock;
    QByteArray end;
    for (int i = 0; i < row.cells.size(); ++i) {
        const int column = m_assignment.columnOfCell.at(i);
        if (column == Assignment::LeftOut)
            continue;
        QByteArray &cell = column == Assignment::DateOfTime    ? date
                           : column == Assignment::ClockOfTime ? clock
                           : column == Assignment::WholeEnd    ? end
                                                               : cells[column];
        cell = row.cells.at(i);
        if (m_null && cell == *m_null) {
            cell = QByteArray();
            continue;
        }
        const QByteArray name = column >= 0                      ? m_assignment.columns.at(column).toUtf8()
                                : column == Assignment::WholeEnd ? QByteArray("end")
                                                                 : QByteArray("time");
        if (cell.contains('\0'))
            return name + " holds U+0000, which ends a text in the file";
        if (!isUtf8(cell))
            return name + " is not UTF-8; name the input's --encoding";
    }
    if (m_assignment.columnOfCell.contains(Assignment::DateOfTime))
        cells[m_assignment.timeColumn()] = date + ' ' + clock;
    if (m_assignment.columnOfCell.contains(Assignment::WholeEnd) && !end.isEmpty()) {
        if (!m_asIs) {
            if (const QByteArray reason = m_times.refusal(end, false); !reason.isEmpty())
                return "of the end, " + reason;
        }
        cells[AlarmEndDate - 1] = end.left(10);
        cells[AlarmEndTime - 1] = end.mid(11);
    }
    return m_asIs ? QByteArray() : misfit(cells);
}

QByteArray RowCheck::misfit(QVector<QByteArray> &cells) const
{
    const QByteArray reason = m_times.refusal(cells[m_assignment.timeColumn()], hasMilliseconds(m_assignment.kind));
    if (!reason.isEmpty() || m_assignment.kind != Kind::Alarms)
        return reason;
    bool isNumber = false;
    const QByteArray &level = cells.at(AlarmLevel - 1);
    level.toInt(&isNumber);
    if (!isNumber)
        return "the level \"" + level.left(40) + "\" is not a whole number";
    return misfitOfEnd(cells[AlarmEndDate - 1], cells[AlarmEndTime - 1]);
}

// Hosts write the ends with - or /, so an end that is in order stays as it is.
QByteArray RowCheck::misfitOfEnd(QByteArray &date, QByteArray &time) const
{
    if (date.isEmpty() && time.isEmpty() && !date.isNull() && !time.isNull())
        return QByteArray(); // active
    if (date.isEmpty() || time.isEmpty())
        return "an end needs a date and a time, or neither; no query finds an alarm with half an end";
    if (isTime(endOfAlarm(date, time), false))
        return QByteArray();
    QByteArray end = date + ' ' + time;
    if (const QByteArray reason = m_times.refusal(end, false); !reason.isEmpty())
        return "of the end, " + reason;
    date = end.left(10);
    time = end.mid(11);
    return QByteArray();
}

bool endsBeforeItBegins(Kind kind, const QVector<QByteArray> &cells)
{
    if (kind != Kind::Alarms)
        return false;
    const QByteArray &start = cells.at(AlarmStart - 1);
    const QByteArray end = endOfAlarm(cells.at(AlarmEndDate - 1), cells.at(AlarmEndTime - 1));
    return isTime(start, false) && isTime(end, false) && end < start;
}

} // namespace device_db
