// SPDX-License-Identifier: MIT
#include "reading.h"

#include "cells.h"
#include "kind.h"
#include "one_moment.h"

#include <algorithm>

namespace device
{

namespace
{

// IDs in one statement: all that is in memory twice is a slice, however large the table is.
constexpr qint64 sliceIds = 10000;

// A question to a recorder lets go of its moment after this many slices, some tenths of a second: while it holds one,
// the write-ahead log can only grow.
constexpr int slicesOfAMoment = 20;

LocalTime timeOf(const Sample &sample)
{
    return sample.time;
}

LocalTime timeOf(const Alarm &alarm)
{
    return alarm.start;
}

LocalTime timeOf(const LogEntry &entry)
{
    return entry.time;
}

template<typename Record>
bool isOlder(const Record &a, const Record &b)
{
    return timeOf(a) != timeOf(b) ? timeOf(a) < timeOf(b) : a.id < b.id;
}

// All records that match, by joined columns, in the order of recording, which SQLite need not sort. Where the clock was
// never set back, this is the order of time already.
template<typename Record>
class JoinedReading
{
public:
    JoinedReading(SqlChannel &connection, const Site &site, const Selection &selection)
        : m_connection(connection), m_site(site), m_selection(selection)
    {
    }

    Status read();
    /// Whether the records are exactly those of the table.
    bool exact() const { return m_exact; }
    QList<Record> take();

private:
    Status readSlices(OneMoment &moment);
    Status readSlice(const QString &condition);
    Result<QStringList> ask(const QString &sql);

    SqlChannel &m_connection;
    const Site m_site;
    const Selection m_selection;
    qint64 m_first = 0; ///< IDs
    qint64 m_last = 0;
    QList<Record> m_records;
    bool m_exact = true;
    bool m_inOrder = true;
};

template<typename Record>
Status JoinedReading<Record>::read()
{
    OneMoment moment(m_connection, m_site);
    const auto ids =
        ask(QStringLiteral("select (select min(ID) from %1),(select max(ID) from %1)").arg(m_selection.table));
    if (!ids)
        return ids.error();
    m_first = ids->at(0).toLongLong();
    m_last = ids->at(1).toLongLong();
    if (quint64(m_last) - quint64(m_first) < quint64(sliceIds))
        return readSlice(m_selection.where);
    const auto layout = ask(QStringLiteral("select (select count(*) from pragma_table_info('%1') where name='ID' and "
                                           "type='INTEGER' and pk=1),(select count(*) from pragma_index_list('%1'))")
                                .arg(m_selection.table));
    if (!layout)
        return layout.error();
    m_exact = layout->at(0) == QLatin1String("1");
    if (layout->at(1) != QLatin1String("0") && !m_selection.where.isEmpty()) {
        // An index may find few rows among many.
        const auto found =
            ask(QLatin1String("select count(*),min(ID),max(ID) from ") + m_selection.table + m_selection.where);
        if (!found)
            return found.error();
        if (found->at(0).toLongLong() <= sliceIds)
            return readSlice(m_selection.where);
        m_first = found->at(1).toLongLong();
        m_last = found->at(2).toLongLong();
    }
    return readSlices(moment);
}

template<typename Record>
Status JoinedReading<Record>::readSlices(OneMoment &moment)
{
    // An index on time would only lead away from the IDs of the slice.
    const QString condition =
        QLatin1String(" not indexed") +
        (m_selection.where.isEmpty() ? QStringLiteral(" where") : m_selection.where + QLatin1String(" and"));
    int slices = 0;
    for (qint64 first = m_first; m_exact;) {
        if (m_connection.isReader() && ++slices % slicesOfAMoment == 0)
            moment.renew();
        const auto end = ask(QStringLiteral("select (select ID from %1 where ID>=%2 order by ID limit 1 offset %3)")
                                 .arg(m_selection.table, QString::number(first), QString::number(sliceIds - 1)));
        if (!end)
            return end.error();
        const qint64 last = end->first().isEmpty() ? m_last : std::min(m_last, end->first().toLongLong());
        const Status done = readSlice(condition + QStringLiteral(" ID>=%1 and ID<=%2").arg(first).arg(last));
        if (!done || last == m_last)
            return done;
        first = last + 1;
    }
    return {};
}

template<typename Record>
Status JoinedReading<Record>::readSlice(const QString &condition)
{
    const auto row = ask(QLatin1String("select ") + ColumnCells::selection(Kind<Record>::columns()) +
                         QLatin1String(" from ") + m_selection.table + condition);
    if (!row)
        return row.error();
    ColumnCells cells(*row, Kind<Record>::milliseconds);
    if (m_records.isEmpty())
        m_records.reserve(cells.rows());
    for (int i = 0; i < cells.rows(); ++i) {
        m_records.append(Kind<Record>::decode(cells));
        const auto size = m_records.size();
        m_inOrder = m_inOrder && (size == 1 || isOlder(m_records.at(size - 2), m_records.at(size - 1)));
    }
    m_exact = m_exact && cells.exact();
    return {};
}

template<typename Record>
QList<Record> JoinedReading<Record>::take()
{
    if (!m_inOrder)
        std::sort(m_records.begin(), m_records.end(), isOlder<Record>);
    if (m_selection.newestFirst)
        std::reverse(m_records.begin(), m_records.end());
    return std::move(m_records);
}

template<typename Record>
Result<QStringList> JoinedReading<Record>::ask(const QString &sql)
{
    auto rows = m_connection.query(m_site, sql);
    if (!rows)
        return rows.error();
    return std::move(rows.value().first()); // an aggregate or a value, so there is a row
}

template<typename Record>
Result<QList<Record>> readRows(SqlChannel &connection, const Site &site, const Selection &selection)
{
    QString sql = QLatin1String("select ") + RowCells::selection(Kind<Record>::columns()) + QLatin1String(" from ") +
                  selection.table + selection.where +
                  QLatin1String(selection.newestFirst ? " order by DATETIME desc,ID desc" : " order by DATETIME,ID");
    if (selection.limit >= 0 || selection.offset > 0)
        sql += QStringLiteral(" limit %1 offset %2").arg(selection.limit).arg(selection.offset);
    auto rows = connection.query(site, sql);
    if (!rows)
        return rows.error();
    RowCells cells(Kind<Record>::milliseconds);
    QList<Record> records;
    records.reserve(rows->size());
    for (QStringList &row : rows.value()) {
        cells.begin(std::move(row));
        records.append(Kind<Record>::decode(cells));
    }
    return records;
}

} // namespace

template<typename Record>
Result<QList<Record>> readRecords(SqlChannel &connection, const Site &site, const Selection &selection)
{
    if (selection.limit < 0 && selection.offset <= 0) {
        JoinedReading<Record> joined(connection, site, selection);
        const Status read = joined.read();
        if (read && joined.exact())
            return joined.take();
        // A column too long to be joined fails too, like anything that SQLite may not know; the rows say it best.
        if (!read && read.error().code() != Error::Failed)
            return read.error();
    }
    return readRows<Record>(connection, site, selection);
}

template Result<QList<Sample>> readRecords(SqlChannel &, const Site &, const Selection &);
template Result<QList<Alarm>> readRecords(SqlChannel &, const Site &, const Selection &);
template Result<QList<LogEntry>> readRecords(SqlChannel &, const Site &, const Selection &);

} // namespace device
