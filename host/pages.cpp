// SPDX-License-Identifier: MIT
#include "pages.h"

#include <algorithm>
#include <limits>

namespace device
{

namespace
{

constexpr int followEvery = 250; // milliseconds

} // namespace

PagedModel::Pages::Pages(Recorder *recorder, const QString &table, QVector<Title> titles, bool newestAtTop,
                         AskSnapshot askSnapshot, AskPage askPage)
    : m_recorder(recorder),
      m_table(table),
      m_titles(std::move(titles)),
      m_newestAtTop(newestAtTop),
      m_askSnapshot(std::move(askSnapshot)),
      m_askPage(std::move(askPage))
{
}

void listen(Recorder *recorder, QObject *model, const QString &table, const std::function<void()> &changed,
            const std::function<void()> &again, const std::function<void(const QString &why)> &gone)
{
    const auto changedTable = [table, changed](const QString &which) {
        if (which.compare(table, Qt::CaseInsensitive) == 0)
            changed();
    };
    QObject::connect(recorder, &Recorder::stored, model, changedTable);
    QObject::connect(recorder, &Recorder::removed, model, changedTable);
    QObject::connect(recorder, &Recorder::trimmed, model, changedTable);
    QObject::connect(recorder, &Recorder::tableReady, model, again);
    QObject::connect(recorder, &Recorder::ready, model, again);
    QObject::connect(recorder, &Recorder::recovered, model, again);
    QObject::connect(recorder, &QObject::destroyed, model,
                     [gone] { gone(QStringLiteral("the recorder of this model is gone")); });
}

void PagedModel::Pages::belongTo(PagedModel *model)
{
    m_model = model;
    m_soon.setSingleShot(true);
    m_soon.setInterval(followEvery);
    m_turn.setSingleShot(true);
    QObject::connect(&m_soon, &QTimer::timeout, model, [this] { refresh(); });
    QObject::connect(&m_turn, &QTimer::timeout, model, [this] { m_askedThisTurn = 0; });
    Recorder *const recorder = m_recorder;
    if (!recorder) {
        setError(QStringLiteral("the model was made without a recorder"));
        return;
    }
    listen(
        recorder, model, m_table,
        [this] {
            if (m_following && !m_soon.isActive())
                m_soon.start();
        },
        [this] {
            if (!m_error.isEmpty() || m_following)
                refresh();
        },
        [this](const QString &why) { setError(why); });
    const auto shrunk = [this](const QString &which) {
        if (which.compare(m_table, Qt::CaseInsensitive) == 0)
            shrink();
    };
    QObject::connect(recorder, &Recorder::removed, model, shrunk);
    QObject::connect(recorder, &Recorder::trimmed, model, shrunk);
    refresh();
}

// The oldest rows went: what was counted from there is counted from the newest on, until the next look. That is slower
// in a long table, so a model that looks again in a moment waits for it.
void PagedModel::Pages::shrink()
{
    if (m_following || std::exchange(m_hasShrunk, true))
        return;
    const QPointer<PagedModel> alive(m_model); // a slot may delete it
    for (const int number : m_pages.keys()) {
        const auto page = m_pages.find(number);
        const int first = number * pageRows;
        if (page == m_pages.end() || page->newestFirst || first >= m_rows)
            continue;
        page->asked = 0;
        reportChange(first, std::min(first + pageRows, m_rows) - 1);
        if (!alive)
            return;
    }
}

void PagedModel::Pages::setFollowing(bool following)
{
    if (std::exchange(m_following, following) != following)
        Q_EMIT m_model->followingChanged();
}

void PagedModel::Pages::refresh()
{
    if (!m_recorder)
        return;
    if (m_asking) { // one question at a time; the answer on its way may be older than this call
        m_askAgain = true;
        return;
    }
    m_asking = true;
    m_askSnapshot(m_model, [this](const Result<Snapshot> &snapshot) { takeSnapshot(snapshot); });
}

void PagedModel::Pages::takeSnapshot(const Result<Snapshot> &snapshot)
{
    const QPointer<PagedModel> alive(m_model); // a slot may delete it
    m_asking = false;
    setError(snapshot ? QString() : snapshot.error().text());
    if (alive && snapshot) {
        const int before = m_rows;
        const int rows = int(std::min<qint64>(snapshot->rows, std::numeric_limits<int>::max()));
        if (rows > before) {
            const int first = m_newestAtTop ? 0 : before;
            m_model->beginInsertRows(QModelIndex(), first, first + rows - before - 1);
        } else if (rows < before) {
            m_model->beginResetModel();
            m_pages.clear();
        }
        m_rows = rows;
        m_throughId = snapshot->lastId;
        m_hasShrunk = false;
        ++m_look;
        if (rows > before)
            m_model->endInsertRows();
        else if (rows < before)
            m_model->endResetModel();
        if (alive && m_rows <= rowsKeptAtMost)
            setErrors(m_error, QString());
        if (alive && rows > 0)
            reportChange(0, rows - 1);
        if (alive && rows != before)
            Q_EMIT m_model->countChanged();
    }
    if (alive && std::exchange(m_askAgain, false))
        refresh();
}

QVariant PagedModel::Pages::cell(int row, int column)
{
    const int position = this->position(row);
    Page &page = this->page(position / pageRows);
    page.lastUse = ++m_uses;
    if (page.asked != m_look)
        ask(position / pageRows, page);
    return page.rows.value(position % pageRows).value(column);
}

PagedModel::Pages::Page &PagedModel::Pages::page(int number)
{
    const auto at = m_pages.find(number);
    if (at != m_pages.end())
        return *at;
    if (++m_askedThisTurn > pagesKept && !m_keepsAll) {
        if (m_rows <= rowsKeptAtMost)
            m_keepsAll = true;
        else
            setErrors(m_error,
                      QStringLiteral("something reads all %1 rows through this model, as a proxy that sorts or "
                                     "filters does; it keeps %2 at most. Narrow its query")
                          .arg(QString::number(m_rows), QString::number(rowsKeptAtMost)));
    }
    if (!m_turn.isActive())
        m_turn.start(0);
    if (!m_keepsAll || m_rows > rowsKeptAtMost)
        makeRoom();
    return *m_pages.insert(number, Page());
}

void PagedModel::Pages::makeRoom()
{
    while (m_pages.size() >= pagesKept) {
        const auto oldest = std::min_element(m_pages.begin(), m_pages.end(),
                                             [](const Page &a, const Page &b) { return a.lastUse < b.lastUse; });
        oldest->question.cancel();
        m_pages.erase(oldest);
    }
}

void PagedModel::Pages::ask(int number, Page &page)
{
    page.asked = m_look;
    if (!m_recorder)
        return;
    const int first = number * pageRows;
    const int end = std::min(first + pageRows, m_rows);
    const bool newestFirst = m_hasShrunk || m_rows - end < first;
    page.newestFirst = newestFirst;
    const Wanted wanted{number, newestFirst, newestFirst ? m_rows - end : first, end - first, m_throughId, m_look};
    page.question = m_askPage(m_model, wanted, [this, wanted](const Result<Rows> &rows) { takePage(wanted, rows); });
}

void PagedModel::Pages::takePage(const Wanted &wanted, const Result<Rows> &rows)
{
    const auto waiting = m_pages.find(wanted.page);
    if (waiting == m_pages.end() || waiting->asked != wanted.look || waiting->newestFirst != wanted.newestFirst)
        return; // no longer wanted, or asked again since
    if (rows) {
        waiting->rows = *rows;
        if (wanted.newestFirst) {
            waiting->rows.resize(int(wanted.count)); // those that are gone are the oldest
            std::reverse(waiting->rows.begin(), waiting->rows.end());
        }
    } else {
        m_pages.erase(waiting); // the next look at it asks again
    }
    const QPointer<PagedModel> alive(m_model); // a slot may delete it
    setError(rows ? QString() : rows.error().text());
    const int first = wanted.page * pageRows;
    if (alive && rows && first < m_rows)
        reportChange(first, std::min(first + pageRows, m_rows) - 1);
}

void PagedModel::Pages::reportChange(int firstPosition, int lastPosition)
{
    const auto [first, last] = std::minmax({position(firstPosition), position(lastPosition)});
    Q_EMIT m_model->dataChanged(m_model->index(first, 0), m_model->index(last, m_model->columnCount() - 1));
}

void PagedModel::Pages::setError(const QString &text)
{
    setErrors(text, m_tooLong);
}

void PagedModel::Pages::setErrors(const QString &error, const QString &tooLong)
{
    const QString before = this->error();
    m_error = error;
    m_tooLong = tooLong;
    if (before != this->error())
        Q_EMIT m_model->errorChanged();
}

} // namespace device
