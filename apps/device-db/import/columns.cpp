// SPDX-License-Identifier: MIT
#include "import/columns.h"

#include "storefile/texts.h"
#include "storefile/times.h"

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

int columnNamed(Kind kind, const QString &name)
{
    const QVector<KnownColumn> &columns = columnsOf(kind);
    const QByteArray plain = name.trimmed().toLower().toUtf8();
    for (int i = 0; i < columns.size(); ++i) {
        if (plain == columns.at(i).key || plain == QByteArray(columns.at(i).name).toLower() ||
            plain == QByteArray(columns.at(i).title).toLower())
            return i;
    }
    for (const Alias &alias : aliases) {
        for (int i = 0; i < columns.size(); ++i) {
            if (plain == alias.name && qstrcmp(columns.at(i).key, alias.key) == 0)
                return i;
        }
    }
    return -1;
}

/// The time in the form of the tables when it is one in a form beside it (`/`, `T`, without milliseconds in the log).
bool toTableForm(QByteArray &time, bool milliseconds)
{
    if (isTime(time, milliseconds))
        return true;
    QByteArray turned = time;
    turned.replace('/', '-');
    if (turned.size() > 10 && turned.at(10) == 'T')
        turned[10] = ' ';
    if (milliseconds && turned.size() == 19)
        turned += ".000";
    if (!isTime(turned, milliseconds))
        return false;
    time = turned;
    return true;
}

} // namespace

QStringList keysOf(Kind kind)
{
    QStringList keys;
    for (const KnownColumn &column : columnsOf(kind))
        keys << QLatin1String(column.key);
    return keys;
}

Result<Assignment> assigned(const QString &input, Kind kind, const QStringList &names)
{
    const QString list = keysOf(kind).join(QLatin1Char(','));
    Assignment assignment{kind, {}};
    for (const QString &name : names) {
        const bool leftOut = name == QLatin1String("-") || name.compare(QLatin1String("id"), Qt::CaseInsensitive) == 0;
        const int column = leftOut ? -1 : columnNamed(kind, name);
        if (column < 0 && !leftOut)
            return failure(
                input, names.size() == 1
                           ? QStringLiteral("\"%1\" is no column of %2 (%3); is another --separator needed?")
                                 .arg(name.left(60), QLatin1String(nameOf(kind)), list)
                           : QStringLiteral("\"%1\" is no column of %2 (%3); name them with --columns, - leaves one "
                                            "out, --no-header takes the first row as data")
                                 .arg(name.left(60), QLatin1String(nameOf(kind)), list));
        if (column >= 0 && assignment.columnOfCell.contains(column))
            return failure(input, QStringLiteral("two columns are called \"%1\"; name them with --columns").arg(name));
        assignment.columnOfCell << column;
    }
    if (!assignment.columnOfCell.contains(timeColumnOf(kind) - 1))
        return failure(input, QStringLiteral("it has no column for the time; name the columns with --columns, "
                                             "such as --columns ") +
                                  list);
    return assignment;
}

RowCheck::RowCheck(Assignment assignment, std::optional<QByteArray> null, bool asIs)
    : m_assignment(std::move(assignment)), m_null(std::move(null)), m_asIs(asIs)
{
}

QByteArray RowCheck::refusal(const CsvRow &row, QVector<QByteArray> &cells) const
{
    if (!row.fault.isEmpty())
        return row.fault;
    if (row.cells.size() != m_assignment.cells())
        return "its number of cells is " + QByteArray::number(qint64(row.cells.size())) + ", not " +
               QByteArray::number(m_assignment.cells());
    cells.fill(QByteArray(""), int(columnsOf(m_assignment.kind).size()));
    for (int i = 0; i < row.cells.size(); ++i) {
        const int column = m_assignment.columnOfCell.at(i);
        if (column < 0)
            continue;
        QByteArray &cell = cells[column];
        cell = row.cells.at(i);
        if (m_null && cell == *m_null) {
            cell = QByteArray();
            continue;
        }
        if (cell.contains('\0'))
            return nameOfColumn(column) + " holds U+0000, which ends a text in the file";
        if (!isUtf8(cell))
            return nameOfColumn(column) +
                   " is no UTF-8, or begins with a byte order mark; convert the input with iconv";
    }
    return m_asIs ? QByteArray() : misfit(cells);
}

QByteArray RowCheck::misfit(QVector<QByteArray> &cells) const
{
    const bool milliseconds = hasMilliseconds(m_assignment.kind);
    QByteArray &time = cells[timeColumnOf(m_assignment.kind) - 1];
    if (!toTableForm(time, milliseconds))
        return "the time \"" + time.left(40) + "\" is none of the form " +
               (milliseconds ? "yyyy-MM-dd hh:mm:ss.zzz" : "yyyy-MM-dd hh:mm:ss");
    if (m_assignment.kind == Kind::Alarms) {
        bool isNumber = false;
        const QByteArray &level = cells.at(AlarmLevel - 1);
        level.toInt(&isNumber);
        if (!isNumber)
            return "the level \"" + level.left(40) + "\" is no whole number";
        const QByteArray &endDate = cells.at(AlarmEndDate - 1);
        const QByteArray &endTime = cells.at(AlarmEndTime - 1);
        const bool active = endDate.isEmpty() && endTime.isEmpty() && !endDate.isNull() && !endTime.isNull();
        if (!active && (endDate.isEmpty() || endTime.isEmpty()))
            return "an end needs a date and a time, or neither; no query finds an alarm with half an end";
        if (!active && !isTime(endOfAlarm(endDate, endTime), false))
            return "the end \"" + (endDate + ' ' + endTime).left(40) + "\" is none of the form yyyy-MM-dd hh:mm:ss";
    }
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
