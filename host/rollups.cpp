// SPDX-License-Identifier: MIT
#include "rollups.h"

#include "row_text.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr qint64 rowsInMemory = 2000; // a reader looks at so many rows by themselves
constexpr std::chrono::seconds timeInMemory{60};
constexpr qint64 spanInMemory = 60;
constexpr size_t tablesAtOnce = 50;                // so that a transaction stays short
constexpr std::chrono::milliseconds sliceTime{15}; // as that of deletions
constexpr qint64 fewestRows = 100;
constexpr qint64 mostRows = 20000;

} // namespace

Status Rollups::open(Connection &connection)
{
    m_tables.clear();
    m_places.clear();
    m_gone.clear();
    const auto names = tablesWithRollups(connection);
    if (!names)
        return names.error();
    const auto gone = rollupsOfNoTable(connection);
    if (!gone)
        return gone.error();
    for (const QString &name : *names) {
        Table table;
        table.name = name;
        m_tables.push_back(std::move(table));
    }
    m_gone = *gone;
    return {};
}

Rollups::Table *Rollups::tableOf(const QString &name)
{
    return m_tables.empty() ? nullptr : m_places.find(m_tables, name);
}

void Rollups::stored(const Write &row)
{
    Table *const table = tableOf(row.table);
    if (!table || table->standing != Standing::Kept)
        return;
    if (table->rows++ == 0)
        table->since = Clock::now();
    table->newest = row.text;
    const RowText::SampleCells cells = RowText::sampleCells(row.text);
    const LocalTime time = m_times.read(cells.time, m_times.length());
    if (!time.isValid())
        return;
    const qint64 seconds = secondsOf(time);
    const qint64 width = table->state.levels.front();
    table->buckets[seconds / width * width].add(seconds, cells.value, cells.valueSize);
}

QStringList Rollups::tables() const
{
    QStringList names;
    for (const Table &table : m_tables)
        names << table.name;
    return names;
}

bool Rollups::lookAgain(const QString &name)
{
    Table *const table = tableOf(name);
    if (table)
        forget(*table);
    return table != nullptr;
}

bool Rollups::isDue(const Table &table)
{
    return table.standing == Standing::Kept && table.rows > 0 &&
           (table.rows >= rowsInMemory || Clock::now() - table.since >= timeInMemory ||
            (!table.buckets.empty() && table.buckets.rbegin()->first - table.buckets.begin()->first >= spanInMemory));
}

bool Rollups::isDue() const
{
    return std::any_of(m_tables.begin(), m_tables.end(), [](const Table &table) { return isDue(table); });
}

bool Rollups::isInMemory() const
{
    return std::any_of(m_tables.begin(), m_tables.end(), [](const Table &table) { return table.rows > 0; });
}

// What is in memory no longer fits what is in the file; the rows are read there. Until then nobody knows which rows are
// in the buckets.
void Rollups::forget(Table &table)
{
    table.standing = Standing::Behind;
    table.state.mark = 0;
    table.isWritten = false;
    table.rows = 0;
    table.buckets.clear();
}

Status Rollups::write(Connection &connection, bool all)
{
    const auto isWanted = [all](const Table &table) {
        return table.standing == Standing::Kept && table.rows > 0 && (all || isDue(table));
    };
    for (Table &table : m_tables)
        table.isWritten = false;
    if (std::none_of(m_tables.begin(), m_tables.end(), isWanted))
        return {};
    const Site site = trendSite(QStringLiteral("some tables"));
    const auto marks = rollupMarks(connection, site);
    if (!marks)
        return forgetAllAfter(marks.error());
    std::vector<RollupAddition> additions;
    const size_t begin = std::exchange(m_next, 0);
    for (size_t i = 0; i < m_tables.size(); ++i) {
        const size_t place = (begin + i) % m_tables.size();
        Table &table = m_tables[place];
        if (!isWanted(table))
            continue;
        if (additions.size() == tablesAtOnce) {
            m_next = place;
            break;
        }
        const RollupMark mark = marks->value(table.name.toLower());
        if (mark.number != table.state.number || mark.mark != table.state.mark ||
            mark.last - mark.mark != table.rows) { // somebody else stored rows, or emptied the table
            forget(table);
            continue;
        }
        table.newMark = mark.last;
        table.isWritten = true;
        const RowText::SampleCells cells = RowText::sampleCells(table.newest);
        RollupAddition addition{table.name, table.state, &table.buckets, mark.last, QStringLiteral("'")};
        addition.marked += QString(cells.time, m_times.length()) + QLatin1Char(' ') +
                           QString(cells.value, int(cells.valueSize)) + QLatin1Char('\'');
        additions.push_back(addition);
    }
    if (additions.empty())
        return {};
    const Status done = addToRollups(connection, site, additions);
    return done ? done : forgetAllAfter(done.error());
}

// catchUp() finds which table it is.
Status Rollups::forgetAllAfter(const Error &error)
{
    if (!isPassing(error.code())) {
        for (Table &table : m_tables)
            forget(table);
    }
    return error;
}

void Rollups::written()
{
    for (Table &table : m_tables) {
        if (!std::exchange(table.isWritten, false))
            continue;
        table.state.mark = table.newMark;
        table.state.front = table.state.frontWith(table.buckets);
        table.rows = 0;
        table.buckets.clear();
    }
}

bool Rollups::isBehind(const QString &name)
{
    const Table *const table = tableOf(name);
    return table && table->standing == Standing::Behind;
}

std::optional<Rollups::Summed> Rollups::summed(const QString &name)
{
    const Table *const table = tableOf(name);
    if (!table)
        return {};
    return Summed{table->state.mark, table->rows, table->standing == Standing::GivenUp};
}

bool Rollups::isBehind() const
{
    return !m_gone.isEmpty() || std::any_of(m_tables.begin(), m_tables.end(),
                                            [](const Table &table) { return table.standing == Standing::Behind; });
}

Status Rollups::catchUp(Connection &connection)
{
    const auto table = std::find_if(m_tables.begin(), m_tables.end(),
                                    [](const Table &each) { return each.standing == Standing::Behind; });
    if (table == m_tables.end() && !m_gone.isEmpty()) {
        const auto removed = removeRollups(connection, m_gone.last());
        if (removed && *removed)
            m_gone.removeLast();
        return removed ? Status() : removed.error();
    }
    if (table == m_tables.end())
        return {};
    const auto started = Clock::now();
    const Status done = catchUp(connection, *table);
    if (done) {
        m_rowsOfASlice = nextSlice(m_rowsOfASlice, Clock::now() - started, sliceTime, fewestRows, mostRows);
        return done;
    }
    const Error::Code why = done.error().code();
    if (isPassing(why) || !connection.explained())
        return done;
    if (why != Error::TableMissing && !std::exchange(table->isReported, true))
        m_trouble = done.error();
    if (isFull(done.error()))
        m_rowsOfASlice = std::max(fewestRows, m_rowsOfASlice / 2); // under a ceiling, fewer buckets may have room
    if (isOfTheFile(why)) {                                        // a full disk, a broken page: the others first
        std::rotate(table, table + 1, m_tables.end());
        m_places.clear();
        return done;
    }
    if (why == Error::TableMissing || table->isEnded) {
        m_tables.erase(table);
        m_places.clear();
    } else { // somebody changed its buckets: it would fail again and again
        table->standing = Standing::GivenUp;
    }
    return {};
}

Status Rollups::catchUp(Connection &connection, Table &table)
{
    const Site site = trendSite(table.name);
    std::optional<RollupState> state;
    bool isAtEnd = false;
    const Status done = connection.transaction(site, [&]() -> Status {
        const auto found = rollupState(connection, site, table.name);
        if (!found)
            return found.error();
        state = *found;
        if (!state)
            return {};
        if (!state->isOfThisTable)
            return beginAnew(connection, site, *state);
        const auto added = addNextRows(connection, site, table.name, m_rowsOfASlice, *state);
        isAtEnd = added.valueOr(false);
        return added ? Status() : added.error();
    });
    if (!done)
        return done;
    table.isEnded = !state;
    if (table.isEnded)
        return site.error(Error::Failed, QStringLiteral("its trend is no longer in the file: another program ended or "
                                                        "dropped it. keepTrend() begins it anew"));
    if (!state->isOfThisTable) {
        m_gone.append(state->number);
        return {};
    }
    table.state = *state;
    table.standing = isAtEnd ? Standing::Kept : Standing::Behind;
    return {};
}

std::optional<Error> Rollups::takeTrouble()
{
    return std::exchange(m_trouble, std::nullopt);
}

} // namespace device
