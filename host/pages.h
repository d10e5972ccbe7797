// SPDX-License-Identifier: MIT
#ifndef DEVICE_PAGES_H
#define DEVICE_PAGES_H

#include "device/models.h"

#include <QHash>
#include <QTimer>

namespace device
{

/// A cell as a view shows it. Views format a QDateTime in the locale's short form, which drops seconds.
QVariant shownCell(const QVariant &cell);

/// Has a model hear of its recorder as long as both live: rows of its table came or went, an error may have ended with
/// a new table or an opened file, the recorder is gone.
void listen(Recorder *recorder, QObject *model, const QString &table, const std::function<void()> &changed,
            const std::function<void()> &again, const std::function<void(const QString &why)> &gone);

/// What a PagedModel shows and how it comes there; what differs between the kinds of records is in its two questions.
class PagedModel::Pages
{
public:
    struct Title {
        QByteArray name; ///< The column's, and the role's.
        QString title;
    };
    /// The cells of each row, and after them the record itself.
    using Rows = QVector<QVector<QVariant>>;
    /// A page request, counted from the nearer end of the table, because SQLite skips OFFSET rows one by one, or from
    /// the newest row where the oldest ones went.
    struct Wanted {
        int page;
        bool newestFirst;
        qint64 offset;
        qint64 count;
        qint64 throughId;
        quint64 look;
    };
    using AskSnapshot = std::function<Question(QObject *context, std::function<void(const Result<Snapshot> &)> answer)>;
    using AskPage = std::function<Question(QObject *context, const Wanted &wanted,
                                           std::function<void(const Result<Rows> &)> answer)>;

    Pages(Recorder *recorder, const QString &table, QVector<Title> titles, bool newestAtTop, AskSnapshot askSnapshot,
          AskPage askPage);

    /// Called once by the model.
    void belongTo(PagedModel *model);

    int rows() const { return m_rows; }
    int cached() const { return int(m_pages.size()); }
    QString error() const { return m_tooLong.isEmpty() ? m_error : m_tooLong; }
    bool following() const { return m_following; }
    void setFollowing(bool following);
    const QVector<Title> &titles() const { return m_titles; }

    void refresh();
    /// A cell, or the record for the column after the last; asks for the page when it is not there.
    QVariant cell(int row, int column);

private:
    struct Page {
        Rows rows;         ///< Of an earlier look until those asked for come: a view that follows does not flicker.
        quint64 asked = 0; ///< The look for which they were asked last.
        quint64 lastUse = 0;
        bool newestFirst = false; ///< How they were asked for.
        Question question;
    };

    /// Pages are counted from the oldest row: those that are there keep their rows when new ones come, even when
    /// the new ones appear at the top. Its own inverse.
    int position(int row) const { return m_newestAtTop ? m_rows - 1 - row : row; }
    Page &page(int number);
    void makeRoom();
    void ask(int number, Page &page);
    void shrink();
    void takeSnapshot(const Result<Snapshot> &snapshot);
    void takePage(const Wanted &wanted, const Result<Rows> &rows);
    void reportChange(int firstPosition, int lastPosition);
    void setError(const QString &text);
    void setErrors(const QString &error, const QString &tooLong);

    PagedModel *m_model = nullptr;
    const QPointer<Recorder> m_recorder;
    const QString m_table;
    const QVector<Title> m_titles;
    const bool m_newestAtTop;
    const AskSnapshot m_askSnapshot;
    const AskPage m_askPage;

    int m_rows = 0;
    qint64 m_throughId = -1;
    quint64 m_look = 0;       ///< Counts the snapshots.
    bool m_hasShrunk = false; ///< Since the last one.
    QString m_error;
    QString m_tooLong; ///< Set while somebody reads more rows than can be kept.
    bool m_following = false;
    bool m_asking = false; ///< For a snapshot.
    bool m_askAgain = false;
    QTimer m_soon;
    QHash<int, Page> m_pages;
    quint64 m_uses = 0;
    // A view reads a screenful between two turns of the event loop; who reads more reads everything.
    QTimer m_turn;
    int m_askedThisTurn = 0;
    bool m_keepsAll = false;
};

} // namespace device

#endif
