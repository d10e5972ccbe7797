// SPDX-License-Identifier: MIT
//
// What is to be removed from a file, and when; retention_slices.cpp removes it.
#include "retention.h"

#include "rollup_file.h"
#include "schema.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr std::chrono::seconds pauseTime{60};
constexpr qint64 pauseRows = 1000;

} // namespace

void Retention::hold(const QString &table, const QString &owner, qint64 throughId)
{
    const std::lock_guard lock(m_mutex);
    m_holdsMoved = true;
    Hold &hold = m_holds[table.toLower()][owner];
    if (hold.owner.isEmpty() || hold.throughId != throughId)
        hold = {owner, throughId, LocalTime::now()};
}

void Retention::release(const QString &table, const QString &owner)
{
    const std::lock_guard lock(m_mutex);
    m_holdsMoved = true;
    m_holds[table.toLower()].erase(owner);
}

void Retention::allow(const QString &table)
{
    const std::lock_guard lock(m_mutex);
    m_allowed << table.toLower();
}

Status Retention::open(Connection &connection, const std::function<bool()> &cancelled)
{
    m_isKnown = false;
    if (const Status opened = m_room.open(connection, cancelled); !opened)
        return opened;
    return lookAtTables(connection);
}

// The tables of the three kinds, as far as rows of them may ever go.
Status Retention::lookAtTables(Connection &connection)
{
    const auto file = keepFile(connection);
    const bool isUnreadable = !file && file.error().code() == Error::TableLayout;
    if (!file && !isUnreadable)
        return file.error();
    m_hasEntries = file && !file->tables.isEmpty();
    const std::vector<Table> tables = std::exchange(m_tables, {});
    m_places.clear();
    m_done.clear();
    m_isKnown = true;
    if (isUnreadable) { // nobody knows what may go; that is no reason to lose the rows that come
        m_troubles.push_back(keepSite(file.error().table())
                                 .error(Error::TableLayout,
                                        file.error().cause() + QStringLiteral("; nothing is removed until it can be")));
        return {};
    }
    if (!m_hasEntries && !m_room.isLimited())
        return {};
    const auto layouts = layoutsIn(connection);
    if (!layouts)
        return layouts.error();
    const auto names =
        connection.query(keepSite(QStringLiteral("all tables")),
                         QStringLiteral("select name from sqlite_master where type='table' order by name"));
    if (!names)
        return names.error();
    const QString id = QStringLiteral("ID,");
    for (const QStringList &name : *names) {
        const QString key = name.first().toLower();
        const QString columns = layouts->value(key).join(QLatin1Char(','));
        Table table;
        const auto before =
            std::find_if(tables.begin(), tables.end(), [&](const Table &each) { return each.name == name.first(); });
        if (before != tables.end())
            table = *before;
        table.isLookedAt = false;
        table.isAlarm = columns == id + columnList<Alarm>();
        table.isLog = columns == id + columnList<LogEntry>();
        if ((!table.isAlarm && !table.isLog && columns != id + columnList<Sample>()) || !TableName::from(name.first()))
            continue;
        table.name = name.first();
        table.keep = file->tables.value(key).keep;
        table.floors = file->floors.value(key);
        m_tables.push_back(table);
    }
    if (!m_time.believed()) {
        m_notedTime = file->believed.value_or(0);
        std::optional<qint64> believed = file->believed;
        if (!believed) {
            QStringList all;
            for (const Table &table : m_tables)
                all << table.name;
            const auto most = timeOfMost(connection, all);
            if (!most)
                return most.error();
            believed = *most;
        }
        m_time = PlausibleTime(believed, file->since);
    }
    // Only now: what a first row says depends on the time. One without a rule loses rows to a ceiling alone.
    for (Table &table : m_tables) {
        if (m_room.isLimited() || file->tables.contains(table.name.toLower())) {
            if (const Status looked = look(connection, table); !looked)
                return looked;
        }
    }
    return {};
}

void Retention::stored(const Write &row, LocalTime time, Clock::time_point now)
{
    if (m_tables.empty())
        return;
    ++m_stored;
    if (time.isValid()) {
        const std::optional<qint64> before = m_time.believed();
        m_time.seen(device::secondsOf(time), std::chrono::duration_cast<std::chrono::seconds>(now - m_began).count());
        if (m_time.believed() < before) { // where tables begin was judged by a time that was wrong
            for (Table &table : m_tables)
                table.isLookedAt = false;
        }
    }
    if (Table *const table = m_places.find(m_tables, row.table)) {
        ++table->sinceTrim;
        ++table->ends.last;
        if (table->ends.first == 0)
            table->isLookedAt = false;
    }
}

std::optional<Hold> Retention::holdOn(const QString &table)
{
    std::optional<Hold> hold;
    if (const Hold *const outside = m_shipped.hold(table))
        hold = *outside;
    const std::lock_guard lock(m_mutex);
    if (const auto found = m_holds.find(table.toLower()); found != m_holds.end()) {
        for (const auto &[owner, each] : found->second) {
            if (!hold || each.throughId < hold->throughId)
                hold = each;
        }
    }
    return hold;
}

bool Retention::isPaused(const Table &table) const
{
    return m_stored < table.notBefore && Clock::now() < table.orAt && !table.isAllowed;
}

void Retention::pause(Table &table)
{
    table.notBefore = m_stored + pauseRows;
    table.orAt = Clock::now() + pauseTime;
    table.isAllowed = false;
}

// Rows before this second are too old.
std::optional<qint64> Retention::cutoff(const Table &table) const
{
    if (!table.keep.age || !m_time.believed())
        return {};
    return *m_time.believed() - secondsOf(*table.keep.age);
}

// Rows from this second on stay.
qint64 Retention::atLeastSince(const Table &table) const
{
    const auto atLeast = atLeastOf(table.keep, table.isLog);
    if (atLeast.count() == 0)
        return lastSecond + 1;
    return m_time.believed().value_or(0) - secondsOf(atLeast);
}

bool Retention::sumsAreDue(const Table &table) const
{
    return !table.keep.sums.isEmpty() && m_time.believed() &&
           (*m_time.believed() / secondsOfHour > table.sumsOfHour || table.isAllowed);
}

bool Retention::isDue(const Table &table) const
{
    if (isPaused(table))
        return false;
    if (sumsAreDue(table))
        return true;
    if (!table.isLookedAt)
        return table.keep.age || table.keep.rows >= 0;
    if (table.ends.first == 0)
        return false;
    const auto before = cutoff(table);
    return (before && table.ends.firstSeconds < *before) ||
           (table.keep.rows >= 0 && table.ends.first <= table.ends.last - table.keep.rows &&
            table.ends.firstSeconds < atLeastSince(table));
}

bool Retention::hearsWord()
{
    const std::lock_guard lock(m_mutex);
    if (!m_isKnown || (m_allowed.isEmpty() && !m_holdsMoved))
        return false;
    if (std::exchange(m_holdsMoved, false)) {
        for (Table &table : m_tables)
            table.orAt = {};
    }
    for (const QString &name : std::exchange(m_allowed, {})) {
        if (Table *const table = m_places.find(m_tables, name))
            table->isAllowed = m_isUrgent = true;
    }
    return true;
}

bool Retention::isDue() const
{
    if (!m_isKnown)
        return true;
    return m_room.isShort() ||
           std::any_of(m_tables.begin(), m_tables.end(), [this](const Table &table) { return isDue(table); });
}

// The table that reaches back the farthest, of those that may lose rows. A time that cannot be believed says nothing:
// such rows go first.
Retention::Table *Retention::oldest()
{
    Table *oldest = nullptr;
    qint64 since = 0;
    for (Table &table : m_tables) {
        if (isPaused(table) || (table.isLookedAt && table.ends.first == 0))
            continue;
        const bool isBelieved = table.isLookedAt && table.ends.firstSeconds <= m_time.believed().value_or(lastSecond);
        const qint64 begins = isBelieved ? table.ends.firstSeconds : -1;
        if (!oldest || begins < since) {
            oldest = &table;
            since = begins;
        }
    }
    return oldest;
}

std::vector<TrimmedRows> Retention::trimmed()
{
    std::vector<TrimmedRows> all;
    for (Done &done : m_done) {
        done.table->sinceTrim -= done.sinceTrim; // the rows of this very transaction count for the next time
        if (done.rows.rows > 0)
            all.push_back(std::move(done.rows));
    }
    m_done.clear();
    m_hasEntries = m_hasEntries || !all.empty();
    if (m_isUrgent)
        m_isUrgent = isDue();
    return all;
}

std::vector<Error> Retention::takeTroubles()
{
    return std::exchange(m_troubles, {});
}

QString Retention::whyFull() const
{
    return QStringLiteral(
               "the ceiling of %1 bytes is reached, and nothing may be removed: what is there is younger "
               "than its table keeps at least, among the newest rows of it, an alarm that lasts, not yet in the sums of its trend, or such "
               "sums themselves, which have ages of their own")
        .arg(m_options.ceiling);
}

} // namespace device
