// SPDX-License-Identifier: MIT
#include "kind.h"
#include "pages.h"

#include <QHash>

namespace device
{

namespace
{

// How a model of this kind asks its recorder.
template<typename Pages, typename Record, typename Recorder>
std::unique_ptr<Pages> pagesOf(Recorder *recorder, const TableName &table, const Query<Record> &query)
{
    using Store = typename Recorder::StoreType;
    QVector<typename Pages::Title> titles;
    for (const Column &column : Kind<Record>::columns())
        titles.append({column.name, QLatin1String(column.title)});
    const auto askSnapshot = [=](QObject *context, const auto &answer) {
        return recorder->ask(
            context, [=](Store &store) { return store.snapshot(table, query); }, answer);
    };
    const auto askPage = [=](QObject *context, const typename Pages::Wanted &wanted, const auto &answer) {
        Query<Record> page = query;
        page.through(wanted.throughId).page(wanted.offset, wanted.count);
        page.order = wanted.newestFirst ? Order::NewestFirst : Order::OldestFirst;
        return recorder->ask(
            context,
            [=](Store &store) -> Result<typename Pages::Rows> {
                const auto records = store.read(table, page);
                if (!records)
                    return records.error();
                typename Pages::Rows rows;
                rows.reserve(records->size());
                for (const Record &record : *records)
                    rows.append(Kind<Record>::cells(record) << QVariant::fromValue(record));
                return rows;
            },
            answer);
    };
    return std::make_unique<Pages>(recorder, table.text(), titles, query.order == Order::NewestFirst, askSnapshot,
                                   askPage);
}

template<typename Record>
std::optional<Record> recordIn(const QVariant &record)
{
    return record.isValid() ? std::optional(record.value<Record>()) : std::nullopt;
}

} // namespace

QVariant shownCell(const QVariant &cell)
{
    if (cell.userType() == QMetaType::QDateTime) {
        const QDateTime time = cell.toDateTime();
        return time.toString(time.time().msec() == 0 ? QStringLiteral("yyyy-MM-dd hh:mm:ss")
                                                     : QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
    }
    if (cell.userType() == QMetaType::QTime)
        return cell.toTime().toString(QStringLiteral("hh:mm:ss"));
    if (cell.userType() == QMetaType::QDate)
        return cell.toDate().toString(QStringLiteral("yyyy-MM-dd"));
    return cell;
}

PagedModel::PagedModel(std::unique_ptr<Pages> pages, QObject *parent)
    : QAbstractTableModel(parent), m_pages(std::move(pages))
{
    m_pages->belongTo(this);
}

PagedModel::~PagedModel() = default;

int PagedModel::rows() const
{
    return m_pages->rows();
}

int PagedModel::cachedPages() const
{
    return m_pages->cached();
}

QString PagedModel::errorText() const
{
    return m_pages->error();
}

bool PagedModel::following() const
{
    return m_pages->following();
}

void PagedModel::setFollowing(bool following)
{
    m_pages->setFollowing(following);
}

void PagedModel::refresh()
{
    m_pages->refresh();
}

int PagedModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_pages->rows();
}

int PagedModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_pages->titles().size());
}

QVariant PagedModel::data(const QModelIndex &index, int role) const
{
    const bool shown = role == Qt::DisplayRole;
    const int column = shown ? index.column() : role - Qt::UserRole;
    if (!index.isValid() || index.row() >= m_pages->rows() || column < 0 || column >= columnCount())
        return QVariant();
    const QVariant cell = m_pages->cell(index.row(), column);
    return shown ? shownCell(cell) : cell;
}

QVariant PagedModel::record(int row) const
{
    return row < 0 || row >= m_pages->rows() ? QVariant() : m_pages->cell(row, columnCount());
}

QVariant PagedModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (role != Qt::DisplayRole || section < 0)
        return QVariant();
    if (orientation == Qt::Vertical)
        return section + 1;
    return section < columnCount() ? m_pages->titles().at(section).title : QVariant();
}

QHash<int, QByteArray> PagedModel::roleNames() const
{
    QHash<int, QByteArray> names;
    for (int i = 0; i < columnCount(); ++i)
        names.insert(Qt::UserRole + i, m_pages->titles().at(i).name);
    return names;
}

SampleModel::SampleModel(HistoryRecorder *recorder, const TableName &table, const Query<Sample> &query, QObject *parent)
    : PagedModel(pagesOf<Pages>(recorder, table, query), parent)
{
}

std::optional<Sample> SampleModel::recordAt(int row) const
{
    return recordIn<Sample>(record(row));
}

AlarmModel::AlarmModel(AlarmRecorder *recorder, const TableName &table, const Query<Alarm> &query, QObject *parent)
    : PagedModel(pagesOf<Pages>(recorder, table, query), parent)
{
}

std::optional<Alarm> AlarmModel::recordAt(int row) const
{
    return recordIn<Alarm>(record(row));
}

LogModel::LogModel(LogRecorder *recorder, const TableName &table, const Query<LogEntry> &query, QObject *parent)
    : PagedModel(pagesOf<Pages>(recorder, table, query), parent)
{
}

std::optional<LogEntry> LogModel::recordAt(int row) const
{
    return recordIn<LogEntry>(record(row));
}

} // namespace device
