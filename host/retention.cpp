// SPDX-License-Identifier: MIT
//
// What is to be removed from a file, and when; retention_slices.cpp removes it.
#include "retention.h"

#include "rollup_file.h"
#include "row_text.h"
#include "schema.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr std::chrono::seconds pauseTime{60};
constexpr qint64 pauseRows = 1000;
constexpr std::chrono::hours atLeastOfLogs{24 * 365};

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
    std::vector<qint64> newest;
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
        if (const Status looked = look(connection, table); !looked)
            return looked;
        m_tables.push_back(table);
        if (m_time.believed() || file->believed)
            continue;
        const auto last = connection.query(
            keepSite(table.name), QStringLiteral("select DATETIME from %1 order by ID desc limit 1").arg(table.name));
        if (!last)
            return last.error();
        TimeReader times(false);
        if (!last->isEmpty() && last->first().first().size() >= times.length()) {
            const LocalTime time = times.read(last->first().first().constData(), times.length());
            if (time.isValid())
                newest.push_back(device::secondsOf(time));
        }
    }
    if (m_time.believed())
        return {};
    m_notedTime = file->believed.value_or(0);
    std::optional<qint64> believed = file->believed;
    if (!believed && !newest.empty()) { // most tables are right
        std::nth_element(newest.begin(), newest.begin() + std::ptrdiff_t(newest.size() / 2), newest.end());
        believed = newest[newest.size() / 2];
    }
    m_time = PlausibleTime(believed, file->since);
    return {};
}

Retention::Table *Retention::tableOf(const QString &name)
{
    auto place = m_places.constFind(name);
    if (place == m_places.constEnd()) {
        const auto found = std::find_if(m_tables.begin(), m_tables.end(), [&](const Table &each) {
            return each.name.compare(name, Qt::CaseInsensitive) == 0;
        });
        place = m_places.insert(name, found == m_tables.end() ? -1 : int(found - m_tables.begin()));
    }
    return *place < 0 ? nullptr : &m_tables[size_t(*place)];
}

void Retention::stored(const Write &row, LocalTime time)
{
    if (m_tables.empty())
        return;
    ++m_stored;
    if (time.isValid())
        m_time.seen(device::secondsOf(time),
                    std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_began).count());
    if (Table *const table = tableOf(row.table)) {
        ++table->sinceTrim;
        ++table->last;
        if (table->first == 0)
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
    const auto atLeast = table.keep.atLeast.value_or(table.isLog ? atLeastOfLogs : std::chrono::hours(0));
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
    if (table.first == 0)
        return false;
    const auto before = cutoff(table);
    return (before && table.firstSeconds < *before) ||
           (table.keep.rows >= 0 && table.first <= table.last - table.keep.rows &&
            table.firstSeconds < atLeastSince(table));
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
        if (Table *const table = tableOf(name))
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
        if (isPaused(table) || (table.isLookedAt && table.first == 0))
            continue;
        const bool isBelieved = table.isLookedAt && table.firstSeconds <= m_time.believed().value_or(lastSecond);
        const qint64 begins = isBelieved ? table.firstSeconds : -1;
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
