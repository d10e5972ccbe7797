// SPDX-License-Identifier: MIT
//
// Removing old rows and sums, a slice at a time.
#include "retention.h"

#include "rollup_file.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr std::chrono::milliseconds sliceTime{10}; // beside what the batch itself takes
constexpr qint64 fewestRows = 50;
constexpr qint64 mostRows = 5000;
constexpr int tablesAtOnce = 16;
constexpr qint64 newestRows = 10; // that a ceiling leaves in each table, so that what fills a file is seen

} // namespace

Status Retention::look(Connection &connection, Table &table)
{
    const auto ends = endsOf(connection, aging(table));
    if (!ends)
        return ends.error();
    table.isLookedAt = true;
    table.ends = *ends;
    return {};
}

Result<Retention::Bounds> Retention::bounds(Table &table, const SummedRows &summed, bool forCeiling)
{
    Bounds bounds;
    bounds.id = bounds.shipped = std::numeric_limits<qint64>::max();
    if (const auto hold = holdOn(table.name)) {
        bounds.shipped = hold->throughId;
        const bool isOld = hold->since.isValid() && m_time.believed() &&
                           *m_time.believed() - device::secondsOf(hold->since) > secondsOf(m_options.reportHold);
        if (isOld && !table.isHoldOld)
            m_troubles.push_back(
                keepSite(table.name)
                    .error(Error::Failed,
                           QStringLiteral("%1 has shipped up to ID %2 and has not moved on for more than %3 h; later "
                                          "rows are held%4")
                               .arg(hold->owner, QString::number(hold->throughId),
                                    QString::number(m_options.reportHold.count()),
                                    m_room.isLimited() ? QStringLiteral(" until the ceiling is reached") : QString())));
        table.isHoldOld = isOld;
    }
    if (!forCeiling)
        bounds.id = bounds.shipped;
    // A trend that was given up holds its rows, but costs no new ones.
    if (const auto sums = summed(table.name); sums && !(forCeiling && sums->isGivenUp)) {
        const bool wasEmptied = table.ends.last < sums->throughId;
        bounds.id = std::min(bounds.id, wasEmptied ? 0 : std::min(sums->throughId, table.ends.last - sums->newest));
    }
    return bounds;
}

Status Retention::trim(Connection &connection, qint64 rows, const SummedRows &summed)
{
    const Status done = trimSome(connection, rows, summed);
    if (done || isPassing(done.error().code()) || isFull(done.error()))
        return done;
    m_done.clear(); // it is rolled back
    if (std::exchange(m_reportedFailure, done.error().text()) != done.error().text())
        m_troubles.push_back(done.error());
    return done;
}

Status Retention::trimSome(Connection &connection, qint64 rows, const SummedRows &summed)
{
    m_done.clear();
    m_wanted = rows;
    if (!m_isKnown) {
        if (const Status looked = lookAtTables(connection); !looked)
            return looked;
    }
    m_shipped.look();
    if (std::exchange(m_reportedProblem, m_shipped.problem()) != m_shipped.problem() && !m_shipped.problem().isEmpty())
        m_troubles.push_back(keepSite(QStringLiteral("all tables")).error(Error::Failed, m_shipped.problem()));
    const auto began = Clock::now();
    // However slow the device is, at least as many go as come.
    const qint64 least = std::max(fewestRows, rows / 2);
    const qint64 most = std::max(least, std::min(rows, m_rowsAtOnce));
    qint64 left = most;
    const auto isOver = [&] { return left <= 0 || (most - left >= least && Clock::now() - began > sliceTime); };
    const size_t tables = m_tables.size();
    int tried = 0;
    for (size_t i = 0; i < tables && tried < tablesAtOnce && !isOver(); ++i) {
        Table &table = m_tables[(m_next + i) % tables];
        if (!isDue(table))
            continue;
        ++tried;
        m_next = (m_next + i + 1) % tables;
        i = 0;
        if (const Status done = trimByRules(connection, table, left, summed); !done)
            return done;
    }
    for (tried = 0; m_room.isShort() && tried < tablesAtOnce && !isOver(); ++tried) {
        Table *const table = oldest();
        if (!table)
            break;
        if (const Status done = trimForCeiling(connection, *table, left, summed); !done)
            return done;
    }
    if (left <= 0)
        m_rowsAtOnce = nextSlice(m_rowsAtOnce, Clock::now() - began, sliceTime, fewestRows, mostRows);
    for (const Done &done : m_done) {
        if (const Status counted = countTrimmed(connection, keepSite(done.table->name), done.rows); !counted)
            return counted;
    }
    if (m_hasEntries && m_time.believed() && *m_time.believed() / secondsOfHour != m_notedTime / secondsOfHour) {
        m_notedTime = *m_time.believed();
        return noteBelieved(connection, keepSite(QString()), m_notedTime, m_time.since());
    }
    return {};
}

Status Retention::trimByRules(Connection &connection, Table &table, qint64 &rows, const SummedRows &summed)
{
    if (const Status looked = look(connection, table); !looked)
        return looked;
    if (sumsAreDue(table)) {
        if (const Status done = trimSums(connection, table); !done)
            return done;
    }
    if (!isDue(table)) {
        table.isAllowed = false;
        return {};
    }
    const auto may = bounds(table, summed, false);
    if (!may)
        return may.error();
    const qint64 before = rows;
    if (const auto tooOld = cutoff(table); tooOld && table.ends.firstSeconds < *tooOld) {
        // After a week without a jump the time is right, as far as anybody can tell: the device was off, or the rule
        // is new.
        const bool mayBeMuch = table.isAllowed || isEven(*m_time.believed(), m_time.since());
        const auto tooMuch =
            mayBeMuch ? Result<bool>(false)
                      // What came since the last time may push as much out: in a small table that is
                      // a large part.
                      : isTooMuch(connection, aging(table), table.ends, *tooOld, std::min(table.sinceTrim, m_wanted));
        if (!tooMuch)
            return tooMuch.error();
        if (*tooMuch) {
            held(table, QStringLiteral("more than a tenth of its rows are older than %1 h at once, as after a change "
                                       "of the clock")
                            .arg(table.keep.age->count()));
        } else {
            table.isHeld = false;
            Bounds old = *may;
            old.before = std::min(*tooOld, atLeastSince(table));
            if (const Status done = remove(connection, table, old, rows); !done)
                return done;
        }
    }
    if (rows > 0 && table.ends.first > 0 && table.keep.rows >= 0 &&
        table.ends.first <= table.ends.last - table.keep.rows) {
        Bounds surplus = *may;
        surplus.id = std::min(surplus.id, table.ends.last - table.keep.rows);
        if (const qint64 since = atLeastSince(table); since <= lastSecond)
            surplus.before = since;
        if (const Status done = remove(connection, table, surplus, rows); !done)
            return done;
    }
    if (rows == before)
        pause(table);
    return {};
}

Status Retention::trimForCeiling(Connection &connection, Table &table, qint64 &rows, const SummedRows &summed)
{
    if (const Status looked = look(connection, table); !looked)
        return looked;
    auto may = bounds(table, summed, true);
    if (!may)
        return may.error();
    may->id = std::min(may->id, table.ends.last - newestRows);
    if (const qint64 since = atLeastSince(table); since <= lastSecond)
        may->before = since;
    const qint64 before = rows;
    if (table.ends.first > 0) {
        if (const Status done = remove(connection, table, *may, rows); !done)
            return done;
    }
    if (rows == before)
        pause(table);
    return {};
}

// Levels of sums have ages of their own.
Status Retention::trimSums(Connection &connection, Table &table)
{
    table.sumsOfHour = *m_time.believed() / secondsOfHour;
    SumFloors floors = table.floors;
    for (auto each = table.keep.sums.begin(); each != table.keep.sums.end(); ++each) {
        const qint64 age = secondsOf(*each);
        const qint64 width = widthOf(each.key());
        const qint64 floor = (*m_time.believed() - age) / 86400 * 86400;
        if (floor <= 0)
            continue;
        auto &now = floors[width];
        if (now > 0 && floor > now + std::max<qint64>(age / 10, 2 * 86400) && !table.isAllowed &&
            !isEven(*m_time.believed(), m_time.since())) {
            held(table, QStringLiteral("more than a tenth of its sums are older than %1 h at once, as after a change "
                                       "of the clock")
                            .arg(each->count()));
            continue;
        }
        now = std::max(now, floor);
    }
    if (floors == table.floors)
        return {};
    table.floors = floors;
    return setSumFloors(connection, keepSite(table.name), table.name, floors);
}

Status Retention::remove(Connection &connection, Table &table, const Bounds &bounds, qint64 &rows)
{
    const Site site = keepSite(table.name);
    if (table.ends.first > bounds.id)
        return {};
    const QString also = mayGo(aging(table));
    QString window = QStringLiteral("select ID,DATETIME from %1 where ID>=%2 and ID<=%3%4 order by ID limit %5")
                         .arg(table.name, QString::number(table.ends.first), QString::number(bounds.id), also,
                              QString::number(rows));
    QString condition = also;
    if (bounds.before) {
        const QString before = timeLiteral(*bounds.before);
        window = QStringLiteral("select ID,DATETIME from (%1) where DATETIME>='0' and DATETIME<%2").arg(window, before);
        condition += goesBefore(aging(table), *bounds.before);
    }
    const auto end =
        connection.ask(site, QStringLiteral("select ID,DATETIME from (%1) order by ID desc limit 1").arg(window));
    if (!end)
        return end.error();
    if (end->isEmpty())
        return {};
    const qint64 through = end->first().at(0).toLongLong();
    if (const Status done = connection.run(
            site, QStringLiteral("delete from %1 where ID>=%2 and ID<=%3%4")
                      .arg(table.name, QString::number(table.ends.first), QString::number(through), condition));
        !done)
        return done;
    const auto changes = connection.ask(site, QStringLiteral("select changes()"));
    if (!changes)
        return changes.error();
    const qint64 removed = changes->first().first().toLongLong();
    rows -= removed;
    const qint64 unshipped = std::clamp<qint64>(through - std::max(bounds.shipped, table.ends.first - 1), 0, removed);
    if (m_done.empty() || m_done.back().table != &table)
        m_done.push_back({&table, {table.name, 0, 0, 0, QString()}, table.sinceTrim});
    TrimmedRows &all = m_done.back().rows;
    all.rows += removed;
    all.unshipped += unshipped;
    all.throughId = through;
    all.through = end->first().at(1);
    return look(connection, table);
}

void Retention::held(Table &table, const QString &why)
{
    if (std::exchange(table.isHeld, true))
        return;
    const QString until =
        QStringLiteral("; nothing is removed by age until trimNow() allows it or the time goes on for "
                       "a week without a jump");
    m_troubles.push_back(keepSite(table.name).error(Error::Failed, why + until));
}

} // namespace device
