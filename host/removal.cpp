// SPDX-License-Identifier: MIT
#include "removal.h"

#include "deadline.h"
#include "row_text.h"

#include <algorithm>

namespace device
{

namespace
{

// Long enough that what a transaction costs by itself does not count, short enough that nobody notices the wait.
constexpr std::chrono::milliseconds sliceTime{15};
constexpr qint64 narrowest = 50;

Status begin(Connection &connection, Removal &removal)
{
    const auto ends = connection.query(removal.site, QStringLiteral("select (select min(ID) from %1),(select max(ID) "
                                                                    "from %1)")
                                                         .arg(removal.site.table));
    if (!ends)
        return ends.error();
    const QString lowest = ends->first().value(0);
    removal.next = lowest.toLongLong();
    removal.done = lowest.isEmpty();
    if (removal.last < 0)
        removal.last = ends->first().value(1).toLongLong();
    return {};
}

} // namespace

// By the unary plus the rows are found by their IDs, slice after slice, and not by an index on the time.
Result<Removal> Removal::before(LocalTime time, bool withMilliseconds) const
{
    QString text;
    if (!appendTime(text, time, withMilliseconds))
        return site.error(Error::TimeRefused, QStringLiteral("the time is invalid or outside the years 1 to 9999"));
    Removal removal = *this;
    removal.condition = QLatin1String("+DATETIME<") + quoted(text);
    if (!alternative.isEmpty())
        removal.condition += QLatin1String(" or ") + alternative;
    return removal;
}

Result<Removal> Removal::keeping(qint64 rows) const
{
    if (rows < 0)
        return site.error(Error::OptionRefused,
                          QStringLiteral("the number of rows to keep is %1; the least is 0").arg(rows));
    Removal removal = *this;
    removal.keep = rows;
    return removal;
}

Result<qint64> newestToRemove(Connection &connection, const Removal &removal)
{
    const auto rows =
        connection.query(removal.site, QStringLiteral("select ID from %1 order by ID desc limit 1 offset %2")
                                           .arg(removal.site.table, QString::number(removal.keep)));
    if (!rows)
        return rows.error();
    return rows->isEmpty() ? -1 : rows->first().first().toLongLong();
}

Status removeSlice(Connection &connection, Removal &removal)
{
    if (!removal.next) {
        if (const Status begun = begin(connection, removal); !begun)
            return begun;
    }
    if (removal.done || *removal.next > removal.last) {
        removal.done = true;
        return {};
    }
    const qint64 width = std::min(removal.width, removal.widest);
    const qint64 through = *removal.next + std::min(width - 1, removal.last - *removal.next);
    QString sql = QStringLiteral("delete from %1 where ID between %2 and %3")
                      .arg(removal.site.table, QString::number(*removal.next), QString::number(through));
    if (!removal.condition.isEmpty())
        sql += QLatin1String(" and (") + removal.condition + QLatin1Char(')');
    qint64 removed = 0;
    Clock::duration took{};
    const Status done = connection.transaction(removal.site, [&]() -> Status {
        const auto started = Clock::now();
        if (const Status deleted = connection.run(removal.site, sql); !deleted)
            return deleted;
        const auto changes = connection.ask(removal.site, QStringLiteral("select changes()"));
        if (!changes)
            return changes.error();
        removed = changes->first().first().toLongLong();
        took = Clock::now() - started;
        if (through < removal.last || !removal.resetsIds)
            return {};
        return connection.run(removal.site, QStringLiteral("update sqlite_sequence set seq=0 where name=%1 collate "
                                                           "nocase and not exists(select 1 from %2)")
                                                .arg(quoted(removal.site.table), removal.site.table));
    });
    if (!done)
        return done;
    removal.removed += removed;
    removal.next = through + 1;
    removal.done = *removal.next > removal.last;
    removal.width = took > sliceTime ? std::max(narrowest, width / 2) : width * 2;
    removal.width = std::min(removal.width, std::max(narrowest, removal.last - through));
    return {};
}

} // namespace device
