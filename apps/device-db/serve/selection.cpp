// SPDX-License-Identifier: MIT
#include "serve/selection.h"

#include "storefile/times.h"

#include <algorithm>

namespace device_db
{

namespace
{

constexpr qint64 rowsAtOnce = 1000;

bool isEmpty(const RowFilter &filter)
{
    return filter.from.isEmpty() && filter.to.isEmpty() && !filter.active && !filter.ended && filter.levels.empty() &&
           filter.users.isEmpty() && filter.containing.isEmpty();
}

} // namespace

Selection::Selection(std::shared_ptr<TablePass> pass, SelectionQuery query)
    : m_pass(std::move(pass)),
      m_query(std::move(query)),
      m_isAll(isEmpty(m_query.filter) && m_query.column.isEmpty()),
      m_idSoFar(m_pass->ends().beforeFirst())
{
}

bool Selection::grow()
{
    if (!m_query.column.isEmpty())
        return false;
    m_isDone = false;
    return true;
}

double Selection::share() const
{
    return m_isAll ? m_pass->share() : m_isDone ? 1 : m_pass->ends().shareThrough(m_idSoFar);
}

Status Selection::beginToSort()
{
    auto sorter = Database::temporary();
    if (!sorter)
        return sorter.error();
    m_sorter.emplace(std::move(sorter).value());
    // NULL comes first, and is no part of a key.
    if (const Status made = m_sorter->run("pragma journal_mode=off;pragma synchronous=off;create table S(IsThere,K,I,"
                                          "primary key(IsThere,K,I)) without rowid;begin");
        !made)
        return made;
    auto insertion = m_sorter->prepare("insert into S values(?1 is not null,ifnull(?1,''),?2)");
    if (!insertion)
        return insertion.error();
    m_insertion.emplace(std::move(insertion).value());
    return {};
}

Status Selection::find(const Database &database, SliceEnd until)
{
    const bool isSorted = !m_query.column.isEmpty();
    if (m_sorted)
        return takeSorted(until);
    if (isSorted && !m_sorter) {
        if (const Status begun = beginToSort(); !begun)
            return begun;
    }
    bool isAtEnd = false;
    do {
        if (const Status found = findSome(database, isAtEnd); !found)
            return found;
    } while (!isAtEnd && std::chrono::steady_clock::now() < until);
    m_isDone = isAtEnd && !isSorted;
    if (!isAtEnd || !isSorted)
        return {};
    m_insertion.reset();
    const QByteArray direction = m_query.descending ? " desc" : "";
    auto sorted =
        m_sorter->prepare("select I from S order by IsThere" + direction + ",K" + direction + ",I" + direction);
    if (!sorted)
        return sorted.error();
    m_sorted.emplace(std::move(sorted).value());
    return {};
}

// By rows and not by IDs, of which there may be many without a row.
Result<std::optional<qint64>> Selection::endOfChunk(const Database &database) const
{
    auto end = database.prepare("select max(ID) from (select ID from " + identifier(m_pass->table().name) +
                                " where ID>?1 order by ID limit ?2)");
    if (!end)
        return end.error();
    end->bind(1, m_idSoFar);
    end->bind(2, rowsAtOnce);
    if (!end->step() || end->cell(0).isNull())
        return end->status() ? Result<std::optional<qint64>>(std::optional<qint64>()) : end->status().error();
    return std::optional<qint64>(end->number(0));
}

Status Selection::findSome(const Database &database, bool &isAtEnd)
{
    const auto end = endOfChunk(database);
    if (!end)
        return end.error();
    isAtEnd = !*end;
    if (isAtEnd)
        return {};
    RowFilter filter = m_query.filter;
    filter.afterId = m_idSoFar;
    auto rows = filtered(database, m_pass->table(), filter, false,
                         "select ID" + (m_insertion ? ',' + m_query.column : QByteArray()) + " from " +
                             identifier(m_pass->table().name),
                         " and ID<=" + QByteArray::number(**end) + " order by ID");
    if (!rows)
        return rows.error();
    while (rows->step()) {
        if (!m_insertion) {
            m_ids.push_back(rows->number(0));
            continue;
        }
        m_insertion->bind(1, *rows, 1);
        m_insertion->bind(2, rows->number(0));
        m_insertion->step();
        if (const Status inserted = m_insertion->status(); !inserted)
            return inserted;
        m_insertion->reset();
    }
    m_idSoFar = **end;
    return rows->status();
}

Status Selection::takeSorted(SliceEnd until)
{
    for (int count = 1; m_sorted->step(); ++count) {
        m_ids.push_back(m_sorted->number(0));
        if (count % 1000 == 0 && std::chrono::steady_clock::now() >= until)
            return {};
    }
    const Status status = m_sorted->status();
    m_sorted.reset();
    m_sorter.reset();
    m_isDone = true;
    return status;
}

Result<std::vector<std::vector<QByteArray>>> Selection::page(const Database &database, qint64 offset, qint64 limit,
                                                             std::optional<qint64> before) const
{
    const Table &table = m_pass->table();
    const auto columns = columnsOf(table.kind).size() + 1;
    std::vector<std::vector<QByteArray>> rows;
    const auto add = [&](const Statement &row) {
        rows.emplace_back();
        for (int column = 0; column < columns; ++column)
            rows.back().push_back(row.cell(column));
    };
    const QByteArray head = "select " + columnList(table.kind) + " from " + identifier(table.name);
    if (!m_isAll) {
        auto row = database.prepare(head + " where ID=?1");
        if (!row)
            return row.error();
        const qint64 end = std::min<qint64>(qint64(m_ids.size()), offset + limit);
        for (qint64 i = offset; i < end; ++i) {
            row->bind(1, m_ids[size_t(i)]);
            if (row->step())
                add(*row);
            row->reset();
        }
        return rows;
    }
    // An ID at or before the row of this number, and how many rows are between them.
    qint64 id = m_pass->ends().firstId + offset;
    qint64 skipped = 0;
    if (before) {
        id = *before + 1;
    } else if (m_pass->isDone() && offset < m_pass->rows()) {
        const auto &blocks = m_pass->blocks().all();
        const auto block = std::prev(std::upper_bound(
            blocks.begin(), blocks.end(), offset, [](qint64 place, const Block &each) { return place < each.place; }));
        id = block->firstId;
        skipped = offset - block->place;
    } else if (m_pass->isDone()) {
        id = m_pass->ends().highestId + 1;
    }
    auto row = database.prepare(head + " where ID>=?1 order by ID limit ?2 offset ?3");
    if (!row)
        return row.error();
    row->bind(1, id);
    row->bind(2, limit);
    row->bind(3, skipped);
    while (row->step())
        add(*row);
    if (const Status status = row->status(); !status)
        return status.error();
    return rows;
}

Result<qint64> Selection::placeOfId(const Database &database, qint64 id) const
{
    if (!m_isAll) {
        const bool isAscending = m_query.column.isEmpty();
        const auto found =
            isAscending ? std::lower_bound(m_ids.begin(), m_ids.end(), id) : std::find(m_ids.begin(), m_ids.end(), id);
        return found == m_ids.end() || *found != id ? -1 : qint64(found - m_ids.begin());
    }
    if (!m_pass->isDone())
        return id - m_pass->ends().firstId;
    const auto place =
        firstPlace(database, [id](const std::vector<QByteArray> &row) { return row.front().toLongLong() < id; });
    if (!place)
        return place;
    const auto row = page(database, *place, 1);
    if (!row)
        return row.error();
    return !row->empty() && row->front().front().toLongLong() == id ? *place : -1;
}

Result<qint64> Selection::placeOfTime(const Database &database, qint64 time) const
{
    const Kind kind = m_pass->table().kind;
    const bool isLatestFirst = m_query.descending && m_query.column == "DATETIME";
    device::TimeReader reader(hasMilliseconds(kind));
    const auto place = firstPlace(database, [&](const std::vector<QByteArray> &row) {
        const auto there = timeIn(row.at(size_t(timeColumnOf(kind))), reader);
        return there && (isLatestFirst ? *there > time : *there < time);
    });
    return place ? Result<qint64>(std::min(*place, total() - 1)) : place;
}

// The number of the first row that is not before; of all rows if each one is.
Result<qint64> Selection::firstPlace(const Database &database,
                                     const std::function<bool(const std::vector<QByteArray> &)> &isBefore) const
{
    qint64 low = 0;
    for (qint64 high = total(); low < high;) {
        const qint64 middle = (low + high) / 2;
        const auto row = page(database, middle, 1);
        if (!row)
            return row.error();
        if (!row->empty() && isBefore(row->front()))
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

} // namespace device_db
