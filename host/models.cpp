// SPDX-License-Identifier: MIT
#include "device/models.h"

#include "kind.h"

#include <algorithm>
#include <limits>

namespace device
{

namespace
{

constexpr int followEvery = 250; // milliseconds

template<typename Record, typename Title>
QVector<Title> titlesOf()
{
    QVector<Title> titles;
    for (const Column &column : Kind<Record>::columns())
        titles.append({column.name, QLatin1String(column.title)});
    return titles;
}

} // namespace

PagedModel::PagedModel(Recorder *recorder, QVector<Title> titles, bool newestAtTop, QObject *parent)
    : QAbstractTableModel(parent), m_titles(std::move(titles)), m_newestAtTop(newestAtTop)
{
    m_soon.setSingleShot(true);
    m_soon.setInterval(followEvery);
    connect(&m_soon, &QTimer::timeout, this, &PagedModel::refresh);
    connect(recorder, &Recorder::stored, this, [this] {
        if (m_following && !m_soon.isActive())
            m_soon.start();
    });
}

int PagedModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_rows;
}

int PagedModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_titles.size());
}

QVariant PagedModel::data(const QModelIndex &index, int role) const
{
    const bool shown = role == Qt::DisplayRole;
    const int column = shown ? index.column() : role - Qt::UserRole;
    if (!index.isValid() || index.row() >= m_rows || column < 0 || column >= m_titles.size())
        return QVariant();
    const int position = this->position(index.row());
    const int number = position / pageRows;
    auto page = m_pages.find(number);
    if (page == m_pages.end()) {
        while (m_pages.size() >= pagesKept) {
            m_pages.erase(std::min_element(m_pages.begin(), m_pages.end(),
                                           [](const Page &a, const Page &b) { return a.lastUse < b.lastUse; }));
        }
        page = m_pages.insert(number, Page());
    }
    page->lastUse = ++m_uses;
    if (page->asked != m_look) {
        page->asked = m_look;
        ask(number);
    }
    const QVariant cell = page->cells.value(position % pageRows).value(column);
    // A view writes a time in the manner of the country, which leaves out seconds and milliseconds.
    if (shown && cell.userType() == QMetaType::QDateTime) {
        const QDateTime time = cell.toDateTime();
        return time.toString(time.time().msec() == 0 ? QStringLiteral("yyyy-MM-dd hh:mm:ss")
                                                     : QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
    }
    if (shown && cell.userType() == QMetaType::QTime)
        return cell.toTime().toString(QStringLiteral("hh:mm:ss"));
    if (shown && cell.userType() == QMetaType::QDate)
        return cell.toDate().toString(QStringLiteral("yyyy-MM-dd"));
    return cell;
}

QVariant PagedModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (role != Qt::DisplayRole || section < 0)
        return QVariant();
    if (orientation == Qt::Vertical)
        return section + 1;
    return section < m_titles.size() ? m_titles.at(section).title : QVariant();
}

QHash<int, QByteArray> PagedModel::roleNames() const
{
    QHash<int, QByteArray> names;
    for (int i = 0; i < m_titles.size(); ++i)
        names.insert(Qt::UserRole + i, m_titles.at(i).name);
    return names;
}

void PagedModel::setFollowing(bool following)
{
    if (std::exchange(m_following, following) != following)
        Q_EMIT followingChanged();
}

void PagedModel::refresh()
{
    if (m_asking) { // one question at a time; the answer on its way may be older than this call
        m_askAgain = true;
        return;
    }
    m_asking = true;
    askForSnapshot();
}

void PagedModel::takeSnapshot(const Result<Snapshot> &snapshot)
{
    m_asking = false;
    setError(snapshot ? QString() : snapshot.error().text());
    if (snapshot) {
        const int before = m_rows;
        const int rows = int(std::min<qint64>(snapshot->rows, std::numeric_limits<int>::max()));
        if (rows > before) {
            const int first = m_newestAtTop ? 0 : before;
            beginInsertRows(QModelIndex(), first, first + rows - before - 1);
        } else if (rows < before) {
            beginResetModel();
            m_pages.clear();
        }
        m_rows = rows;
        m_throughId = snapshot->lastId;
        ++m_look;
        if (rows > before)
            endInsertRows();
        else if (rows < before)
            endResetModel();
        if (rows > 0)
            tellChanged(0, rows - 1);
        if (rows != before)
            Q_EMIT countChanged();
    }
    if (std::exchange(m_askAgain, false))
        refresh();
}

void PagedModel::ask(int page) const
{
    const int first = page * pageRows;
    const int end = std::min(first + pageRows, m_rows);
    const bool newestFirst = m_rows - end < first;
    const_cast<PagedModel *>(this)->askForPage(
        {page, newestFirst, newestFirst ? m_rows - end : first, end - first, m_throughId, m_look});
}

void PagedModel::takePage(const Wanted &wanted, const Result<Cells> &cells)
{
    setError(cells ? QString() : cells.error().text());
    const auto waiting = m_pages.find(wanted.page);
    if (waiting == m_pages.end() || waiting->asked != wanted.look)
        return; // no longer wanted, or asked again since
    if (!cells) {
        m_pages.erase(waiting); // the next look at it asks again
        return;
    }
    waiting->cells = *cells;
    if (wanted.newestFirst)
        std::reverse(waiting->cells.begin(), waiting->cells.end());
    const int first = wanted.page * pageRows;
    if (first < m_rows)
        tellChanged(first, std::min(first + pageRows, m_rows) - 1);
}

void PagedModel::tellChanged(int firstPosition, int lastPosition)
{
    const auto [first, last] = std::minmax({position(firstPosition), position(lastPosition)});
    Q_EMIT dataChanged(index(first, 0), index(last, columnCount() - 1));
}

void PagedModel::setError(const QString &text)
{
    if (std::exchange(m_error, text) != text)
        Q_EMIT errorChanged();
}

template<typename Record>
PagedModelOf<Record>::PagedModelOf(RecorderOf<Record> *recorder, const TableName &table, const Query<Record> &query,
                                   QObject *parent)
    : PagedModel(recorder, titlesOf<Record, Title>(), query.order == Order::NewestFirst, parent),
      m_recorder(recorder),
      m_table(table),
      m_query(query)
{
    PagedModelOf::refresh();
}

template<typename Record>
void PagedModelOf<Record>::askForSnapshot()
{
    using Store = typename RecorderOf<Record>::StoreType;
    m_recorder->template ask<Result<Snapshot>>(
        this, [table = m_table, query = m_query](Store &store) { return store.snapshot(table, query); },
        [this](const Result<Snapshot> &snapshot) { takeSnapshot(snapshot); });
}

template<typename Record>
void PagedModelOf<Record>::askForPage(const Wanted &wanted)
{
    using Store = typename RecorderOf<Record>::StoreType;
    Query<Record> query = m_query;
    query.through(wanted.throughId).page(wanted.offset, wanted.count);
    query.order = wanted.newestFirst ? Order::NewestFirst : Order::OldestFirst;
    m_recorder->template ask<Result<Cells>>(
        this,
        [table = m_table, query](Store &store) -> Result<Cells> {
            const auto records = store.read(table, query);
            if (!records)
                return records.error();
            Cells cells;
            cells.reserve(records->size());
            for (const Record &record : *records)
                cells.append(Kind<Record>::cells(record));
            return cells;
        },
        [this, wanted](const Result<Cells> &cells) { takePage(wanted, cells); });
}

template class DEVICE_HOST_EXPORT PagedModelOf<Sample>;
template class DEVICE_HOST_EXPORT PagedModelOf<Alarm>;
template class DEVICE_HOST_EXPORT PagedModelOf<LogEntry>;

} // namespace device
