// SPDX-License-Identifier: MIT
#include "serve/table_pass.h"

#include "storefile/times.h"

#include "device/number.h"

#include <algorithm>

namespace device_db
{

namespace
{

constexpr int rowsBetweenLooks = 256; // at the clock

QByteArray columnsRead(Kind kind)
{
    switch (kind) {
    case Kind::Alarms:
        return "ID,DATETIME,EndDate,EndTime,LevelID";
    case Kind::Log:
        return "ID,DATETIME,userName";
    default:
        return "ID,DATETIME,Value";
    }
}

} // namespace

void TimeExtent::add(qint64 time)
{
    from = std::min(from.value_or(time), time);
    to = std::max(to.value_or(time), time);
}

Result<TableEnds> endsOf(const Database &database, const QString &table)
{
    // Two subqueries: SQLite scans the table for both ends at once.
    const QByteArray name = identifier(table);
    const QByteArray both =
        "select coalesce((select min(ID) from " + name + "),0),coalesce((select max(ID) from " + name + "),0),";
    auto row = database.prepare(both + "coalesce((select max(seq) from sqlite_sequence where name=?1),0)");
    if (!row) // a file in which nothing counts IDs
        row = database.prepare(both + "0 where ?1 is not null");
    if (!row)
        return row.error();
    row->bind(1, table.toUtf8());
    if (!row->step())
        return row->status() ? Result<TableEnds>(TableEnds()) : row->status().error();
    return TableEnds{row->number(0), row->number(1), std::max(row->number(1), row->number(2))};
}

double TableEnds::shareThrough(qint64 id) const
{
    const double first = double(firstId); // the difference of two IDs may be too large for one
    return std::min(0.999, (double(id) - first + 1) / std::max(1.0, double(highestId) - first + 1));
}

TablePass::TablePass(Table table, const TableEnds &ends)
    : m_table(std::move(table)), m_ends(ends), m_idSoFar(ends.beforeFirst()), m_judge(m_table)
{
}

Result<bool> TablePass::lookAround(const Database &database)
{
    const auto found = definitionFindings(database, m_table);
    if (!found)
        return found.error();
    m_ofDefinition = *found;
    auto index = database.prepare("select count(*) from pragma_index_list(?1) l join pragma_index_info(l.name) i "
                                  "where i.seqno=0 and upper(i.name)='DATETIME'");
    if (!index)
        return index.error();
    index->bind(1, m_table.name.toUtf8());
    m_isIndexed = index->step() && index->number(0) > 0;
    if (!m_isIndexed)
        return false;
    std::vector<qint64> times;
    for (const char *end : {"min", "max"}) {
        const auto text = database.text(QByteArray("select ") + end + "(DATETIME) from " + identifier(m_table.name));
        if (!text)
            return text.error();
        times.push_back(millisecondsOf(*text, hasMilliseconds(m_table.kind)));
    }
    if (times.front() < 0 || times.back() < 0)
        return false;
    for (const qint64 time : times)
        note(time);
    if (const Status added = addRemoved(database); !added)
        return added.error();
    return true;
}

void TablePass::grow(const TableEnds &ends)
{
    if (m_rows == 0)
        m_idSoFar = ends.beforeFirst();
    m_hasRemovedRows = m_hasRemovedRows || (m_rows > 0 && ends.firstId > m_ends.firstId);
    m_ends = ends;
    m_isDone = m_isDone && m_idSoFar >= ends.highestId;
}

void TablePass::addTime(qint64 time)
{
    note(time);
    m_times.add(time);
}

Status TablePass::read(const Database &database, SliceEnd until)
{
    const auto began = Clock::now();
    const Status status = readOn(database, until);
    const auto now = Clock::now();
    m_took += now - began;
    if (m_isDone && !m_keptUntil)
        m_keptUntil = now + 4 * m_took;
    return status;
}

Status TablePass::readOn(const Database &database, SliceEnd until)
{
    m_judge.readClock(); // a device is watched for longer than the day that a clock may be ahead
    auto rows = database.prepare("select " + columnsRead(m_table.kind) + " from " + identifier(m_table.name) +
                                 " where ID>?1 order by ID");
    if (!rows)
        return rows.error();
    rows->bind(1, m_idSoFar);
    for (int count = 1; rows->step(); ++count) {
        addRow(*rows);
        if (count % rowsBetweenLooks == 0 && std::chrono::steady_clock::now() >= until)
            return {};
    }
    if (const Status status = rows->status(); !status)
        return status;
    if (m_lanes.last())
        note(*m_lanes.last());
    m_isDone = true;
    return m_table.kind == Kind::Samples ? addRemoved(database) : Status();
}

void TablePass::addRow(const Statement &row)
{
    const qint64 id = row.number(0);
    const QByteArray text = row.cell(1);
    const bool isAlarm = m_table.kind == Kind::Alarms;
    const QByteArray endDate = isAlarm ? row.cell(2) : QByteArray();
    const QByteArray endTime = isAlarm ? row.cell(3) : QByteArray();
    const auto time = m_judge.add(id, text, endDate, endTime);
    if (m_rows == 0 || text < m_first)
        m_first = text.isNull() ? QByteArray("") : text;
    if (m_rows == 0 || text > m_last)
        m_last = text.isNull() ? QByteArray("") : text;
    if (time)
        addTime(*time);
    std::optional<double> value;
    if (isAlarm) {
        m_lanes.add(row.number(4), time, millisecondsOf(endOfAlarm(endDate, endTime), false));
        choose(row.cell(4));
    } else if (m_table.kind == Kind::Log) {
        m_marks.add(id, time);
        choose(row.cell(2));
    } else {
        value = device::number(row.cell(2));
        m_statistics.addValue(value);
    }
    m_blocks.add(id, time, value);
    m_idSoFar = id;
    ++m_rows;
}

// Sums stay when their rows go.
Status TablePass::addRemoved(const Database &database)
{
    const auto sums = m_table.kind == Kind::Samples ? TrendPoints::of(database, m_table.name) : std::nullopt;
    if (!sums)
        return {};
    const auto range = sums->removedRange();
    if (!range)
        return range.error();
    for (const QByteArray &time : {range->first, range->second}) {
        if (const qint64 removed = millisecondsOf(time, false); removed >= 0)
            note(removed);
    }
    return {};
}

// A time that no row has.
void TablePass::note(qint64 time)
{
    if (m_judge.isPlausible(time))
        m_plausible.add(time);
}

void TablePass::choose(const QByteArray &text)
{
    constexpr size_t mostChoices = 200;
    constexpr int longestChoice = 200; // nobody chooses by more
    if (text.size() > longestChoice && QString::fromUtf8(text).size() > longestChoice)
        return;
    const auto place = m_choicePlaces.constFind(text);
    if (place != m_choicePlaces.constEnd()) {
        ++m_choices[size_t(*place)].second;
    } else if (m_choices.size() < mostChoices) {
        m_choicePlaces.insert(text, int(m_choices.size()));
        m_choices.emplace_back(text, 1);
    }
}

std::vector<std::pair<QByteArray, qint64>> TablePass::choices() const
{
    auto sorted = m_choices;
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto &a, const auto &b) { return a.second > b.second; });
    return sorted;
}

double TablePass::share() const
{
    return m_isDone ? 1 : m_ends.shareThrough(m_idSoFar);
}

qint64 TablePass::expectedRows() const
{
    return m_isDone ? m_rows : std::max(m_rows, m_ends.highestId - m_ends.firstId + 1);
}

QList<Finding> TablePass::findings() const
{
    QList<Finding> all = m_judge.findings() + m_ofDefinition;
    if (!m_isIndexed && expectedRows() > 0)
        all.append({Severity::Note, m_table.name,
                    QStringLiteral("no index on time: a range of time is found only by reading the whole table"), 0, 0,
                    QString(), "noIndex"});
    return all;
}

} // namespace device_db
