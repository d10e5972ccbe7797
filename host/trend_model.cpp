// SPDX-License-Identifier: MIT
#include "kind.h"
#include "pages.h"

#include <QElapsedTimer>

#include <algorithm>

namespace device
{

namespace
{

constexpr int followEvery = 250; // milliseconds
constexpr int patience = 250;    // milliseconds

struct Title {
    const char *role;
    const char *title;
};

// In the order of TrendModel::Column.
constexpr Title titles[] = {{"time", "Time"},    {"end", "Until"},   {"low", "Lowest"},
                            {"high", "Highest"}, {"first", "First"}, {"last", "Last"},
                            {"mean", "Mean"},    {"count", "Rows"},  {"exact", "Exact"}};
static_assert(std::size(titles) == TrendModel::ColumnCount);

QVariant sampleCell(const Sample &sample, bool shown)
{
    return shown ? sample.value : QVariant(sample.number().value_or(0));
}

QVariant cellOf(const TrendColumn &column, int which, bool shown)
{
    if (which >= TrendModel::Low && which <= TrendModel::Mean && column.numbers == 0)
        return QVariant();
    switch (which) {
    case TrendModel::Time:
        return timeCell(column.from, Kind<Sample>::milliseconds);
    case TrendModel::End:
        return timeCell(column.to, Kind<Sample>::milliseconds);
    case TrendModel::Low:
        return sampleCell(column.lowest, shown);
    case TrendModel::High:
        return sampleCell(column.highest, shown);
    case TrendModel::First:
        return sampleCell(column.first, shown);
    case TrendModel::Last:
        return sampleCell(column.last, shown);
    case TrendModel::Mean:
        return shown ? QVariant(QString::number(column.mean, 'g', 7)) : column.mean;
    case TrendModel::Count:
        return column.rows;
    case TrendModel::Exact:
        return column.exact;
    default:
        return QVariant();
    }
}

} // namespace

class TrendModel::Asking
{
public:
    Asking(TrendModel *model, HistoryRecorder *recorder, const TableName &table);
    ~Asking() { m_question.cancel(); }

    const Trend &trend() const { return m_trend; }
    int rows() const { return int(m_trend.columns.size()); }
    QString error() const { return m_error; }
    bool busy() const { return m_superseded || m_isNew; }
    bool following() const { return m_following; }
    void setFollowing(bool following) { m_following = following; }

    void show(const TrendQuery &query);
    void refresh();

private:
    void ask();
    void take(const Result<Trend> &answer);
    void replace(const Trend &trend);
    void end();
    void report();

    TrendModel *const m_model;
    const QPointer<HistoryRecorder> m_recorder;
    const TableName m_table;
    std::optional<TrendQuery> m_query; ///< The newest.
    Trend m_trend;
    QString m_error;
    bool m_following = false;

    Question m_question;
    bool m_isAsking = false;
    bool m_isNew = false;      ///< The question that runs is that of a show(), not of a refresh.
    bool m_superseded = false; ///< It is not m_query that runs.
    bool m_askAgain = false;
    QElapsedTimer m_asked;
    QTimer m_patience;
    QTimer m_soon;

    // What the signals have said.
    int m_rowsSaid = 0;
    QString m_errorSaid;
    bool m_busySaid = false;
};

TrendModel::Asking::Asking(TrendModel *model, HistoryRecorder *recorder, const TableName &table)
    : m_model(model), m_recorder(recorder), m_table(table)
{
    if (!recorder) {
        m_error = QStringLiteral("the model was made without a recorder");
        return;
    }
    m_patience.setSingleShot(true);
    m_patience.setInterval(patience);
    m_soon.setSingleShot(true);
    m_soon.setInterval(followEvery);
    QObject::connect(&m_patience, &QTimer::timeout, model, [this] {
        if (m_superseded)
            m_question.cancel();
    });
    QObject::connect(&m_soon, &QTimer::timeout, model, [this] { refresh(); });
    listen(
        recorder, model, table.text(),
        [this] {
            if (m_following && !m_soon.isActive())
                m_soon.start();
        },
        [this] {
            if (!m_error.isEmpty() || m_following)
                refresh();
        },
        [this](const QString &why) {
            m_error = why;
            report();
        });
}

void TrendModel::Asking::show(const TrendQuery &query)
{
    if (!m_recorder)
        return;
    m_query = query;
    if (m_isAsking) {
        // The answer on its way is worth showing while a finger still moves, if it comes soon.
        m_superseded = true;
        if (!m_patience.isActive())
            m_question.cancel();
    } else {
        m_isNew = true;
        ask();
    }
    report();
}

void TrendModel::Asking::refresh()
{
    if (!m_query || !m_recorder)
        return;
    if (m_isAsking)
        m_askAgain = true;
    else
        ask();
}

void TrendModel::Asking::ask()
{
    m_isAsking = true;
    m_asked.start();
    m_patience.start();
    m_question = m_recorder->ask(
        m_model, [table = m_table, query = *m_query](HistoryStore &store) { return store.trend(table, query); },
        [this](const Result<Trend> &answer) { take(answer); });
}

void TrendModel::Asking::take(const Result<Trend> &answer)
{
    const QPointer<TrendModel> alive(m_model); // a slot may delete it
    // Without sums an answer can take seconds: a model that follows asks for half of the time at most.
    m_soon.setInterval(std::max(followEvery, int(m_asked.elapsed())));
    if (answer || !m_superseded)
        m_error = answer ? QString() : answer.error().text();
    if (answer)
        replace(*answer);
    else
        end();
    if (alive && answer)
        Q_EMIT m_model->trendChanged();
    if (alive)
        report();
}

void TrendModel::Asking::replace(const Trend &trend)
{
    const QPointer<TrendModel> alive(m_model);
    const int before = rows();
    const int after = int(trend.columns.size());
    // A refresh mostly adds columns at the end: views keep their place and their selection.
    const bool continues =
        before <= after && std::equal(m_trend.columns.cbegin(), m_trend.columns.cend(), trend.columns.cbegin(),
                                      [](const TrendColumn &a, const TrendColumn &b) { return a.from == b.from; });
    if (!continues)
        m_model->beginResetModel();
    else if (before < after)
        m_model->beginInsertRows(QModelIndex(), before, after - 1);
    if (!alive)
        return;
    m_trend = trend;
    end(); // only now, and before the signals: a slot that runs an event loop gets the next answer, and no older one
    if (!continues)
        m_model->endResetModel();
    else if (before < after)
        m_model->endInsertRows();
    if (!alive)
        return;
    if (const int last = std::min(before, rows()) - 1; continues && last >= 0)
        Q_EMIT m_model->dataChanged(m_model->index(0, 0), m_model->index(last, ColumnCount - 1));
}

// The question that ran is answered.
void TrendModel::Asking::end()
{
    m_isAsking = false;
    m_isNew = std::exchange(m_superseded, false) && m_recorder; // a slot may have deleted it
    const bool again = std::exchange(m_askAgain, false);
    if (m_isNew)
        ask();
    else if (again)
        m_soon.start();
}

// Slots may change everything: each signal is for what has changed when its turn comes.
void TrendModel::Asking::report()
{
    const QPointer<TrendModel> alive(m_model);
    if (std::exchange(m_rowsSaid, rows()) != rows())
        Q_EMIT m_model->countChanged();
    if (alive && std::exchange(m_errorSaid, m_error) != m_error)
        Q_EMIT m_model->errorChanged();
    if (alive && std::exchange(m_busySaid, busy()) != busy())
        Q_EMIT m_model->busyChanged();
}

TrendModel::TrendModel(HistoryRecorder *recorder, const TableName &table, QObject *parent)
    : QAbstractTableModel(parent), m_asking(std::make_unique<Asking>(this, recorder, table))
{
}

TrendModel::~TrendModel() = default;

void TrendModel::show(const TrendQuery &query)
{
    m_asking->show(query);
}

void TrendModel::show(const QDateTime &from, const QDateTime &to, int columns)
{
    show(TrendQuery::between(from, to).columns(columns));
}

void TrendModel::refresh()
{
    m_asking->refresh();
}

const Trend &TrendModel::trend() const
{
    return m_asking->trend();
}

int TrendModel::rows() const
{
    return m_asking->rows();
}

QString TrendModel::errorText() const
{
    return m_asking->error();
}

bool TrendModel::busy() const
{
    return m_asking->busy();
}

bool TrendModel::following() const
{
    return m_asking->following();
}

void TrendModel::setFollowing(bool following)
{
    if (m_asking->following() == following)
        return;
    m_asking->setFollowing(following);
    Q_EMIT followingChanged();
}

int TrendModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : rows();
}

int TrendModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(ColumnCount);
}

QVariant TrendModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= rows())
        return QVariant();
    const bool shown = role == Qt::DisplayRole;
    const int column = shown ? index.column() : role - Qt::UserRole;
    const QVariant cell = cellOf(trend().columns.at(index.row()), column, shown);
    return shown ? shownCell(cell) : cell;
}

QVariant TrendModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (role != Qt::DisplayRole || section < 0)
        return QVariant();
    if (orientation == Qt::Vertical)
        return section + 1;
    return section < ColumnCount ? QString::fromLatin1(titles[section].title) : QVariant();
}

QHash<int, QByteArray> TrendModel::roleNames() const
{
    QHash<int, QByteArray> names;
    for (int i = 0; i < ColumnCount; ++i)
        names.insert(Qt::UserRole + i, titles[i].role);
    return names;
}

} // namespace device
