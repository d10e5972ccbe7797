// SPDX-License-Identifier: MIT
#include "old_rows.h"

#include "bucket.h"
#include "keep_file.h"
#include "row_text.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace device
{

namespace
{

constexpr std::chrono::hours atLeastOfLogs{24 * 365};
constexpr qint64 evenTime = 7 * 86400;

} // namespace

std::chrono::hours atLeastOf(const Keep &keep, bool isLog)
{
    return keep.atLeast.value_or(isLog ? atLeastOfLogs : std::chrono::hours(0));
}

bool isEven(qint64 believed, qint64 since)
{
    return believed - since > evenTime;
}

std::optional<qint64> secondsOfCell(const QString &cell)
{
    TimeReader times(false);
    if (cell.size() < times.length())
        return {};
    const LocalTime time = times.read(cell.constData(), times.length());
    return time.isValid() ? secondsOf(time) : std::optional<qint64>();
}

QString timeLiteral(qint64 seconds)
{
    QString text;
    appendTime(text, timeOfSeconds(std::clamp<qint64>(seconds, 0, lastSecond)), false);
    return quoted(text);
}

QString mayGo(const AgingTable &table)
{
    return table.isAlarm ? QStringLiteral(" and EndDate!='' and EndTime!=''") : QString();
}

QString goesBefore(const AgingTable &table, qint64 second)
{
    return QStringLiteral(" and not (+DATETIME>=%1 and +DATETIME<%2)")
        .arg(timeLiteral(second), timeLiteral(table.believed.value_or(lastSecond) + 1));
}

Result<std::optional<qint64>> timeOfMost(SqlChannel &connection, const QStringList &tables)
{
    std::vector<qint64> newest;
    for (const QString &table : tables) {
        const auto last = connection.query(
            keepSite(table), QStringLiteral("select DATETIME from %1 order by ID desc limit 1").arg(table));
        if (!last)
            return last.error();
        if (const auto seconds = secondsOfCell(last->value(0).value(0)))
            newest.push_back(*seconds);
    }
    if (newest.empty())
        return std::optional<qint64>();
    const auto middle = newest.begin() + std::ptrdiff_t(newest.size() / 2);
    std::nth_element(newest.begin(), middle, newest.end());
    return std::optional<qint64>(*middle);
}

Result<TableEnds> endsOf(SqlChannel &connection, const AgingTable &table)
{
    const Site site = keepSite(table.name);
    const auto rows = connection.ask(
        site, QStringLiteral("select ID,DATETIME,(select max(ID) from %1) from %1 where ID>0%2 order by ID limit 1")
                  .arg(table.name, mayGo(table)));
    if (!rows)
        return rows.error();
    TableEnds ends;
    if (rows->isEmpty())
        return ends;
    const QStringList &row = rows->first();
    ends.first = row.at(0).toLongLong();
    ends.firstSeconds = secondsOfCell(row.at(1)).value_or(-1);
    ends.last = row.at(2).toLongLong();
    const qint64 believed = table.believed.value_or(lastSecond);
    if (ends.firstSeconds >= 0 && ends.firstSeconds <= believed)
        return ends;
    const auto next = connection.ask(
        site, QStringLiteral("select DATETIME from (select DATETIME from %1 where ID>=%2%3 order by ID limit 1000) "
                             "where DATETIME>='0' and DATETIME<%4 limit 1")
                  .arg(table.name, QString::number(ends.first), mayGo(table), timeLiteral(believed + 1)));
    if (!next)
        return next.error();
    ends.firstSeconds = secondsOfCell(next->value(0).value(0)).value_or(ends.firstSeconds);
    return ends;
}

Result<bool> isTooMuch(SqlChannel &connection, const AgingTable &table, const TableEnds &ends, qint64 before,
                       qint64 more)
{
    const qint64 tenth = std::max<qint64>(1, (ends.last - ends.first + 1) / 10) + more;
    const qint64 place = ends.first + std::min(tenth, std::numeric_limits<qint64>::max() - ends.first);
    const auto rows = connection.ask(
        keepSite(table.name),
        QStringLiteral("select count(*),ifnull(sum(DATETIME>='0' and DATETIME<%1),0) from (select DATETIME from %2 "
                       "where ID>=%3%4 order by ID limit 3)")
            .arg(timeLiteral(before), table.name, QString::number(place), mayGo(table)));
    if (!rows)
        return rows.error();
    const QStringList &counts = rows->first();
    return counts.at(1).toInt() * 2 > counts.at(0).toInt();
}

} // namespace device
