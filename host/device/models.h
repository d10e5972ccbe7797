// SPDX-License-Identifier: MIT
#ifndef DEVICE_MODELS_H
#define DEVICE_MODELS_H

#include "recorder.h"

#include <QAbstractTableModel>
#include <QHash>
#include <QTimer>
#include <QVariant>

namespace device
{

/// A table of records for a view, fetched page by page from a recorder: rowCount() is the number of records,
/// a cell is empty until its page is there. A few pages are kept, however many rows there are. SampleModel,
/// AlarmModel and LogModel are the ones to use.
///
/// What is shown is the table as it was at the last refresh(), so that pages fit together; with following() a
/// refresh comes a moment after rows were stored. Belongs to the recorder's thread of origin and must not
/// outlive the recorder. For QML each column is also a role, named as the column of the file.
class DEVICE_HOST_EXPORT PagedModel : public QAbstractTableModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ rows NOTIFY countChanged)
    Q_PROPERTY(QString error READ errorText NOTIFY errorChanged)
    Q_PROPERTY(bool following READ following WRITE setFollowing NOTIFY followingChanged)

public:
    static constexpr int pageRows = 100;
    static constexpr int pagesKept = 20;

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    int rows() const { return m_rows; }
    int cachedPages() const { return int(m_pages.size()); }
    QString errorText() const { return m_error; } ///< Empty while all goes well.
    bool following() const { return m_following; }
    void setFollowing(bool following);

    /// Looks at the table again.
    Q_INVOKABLE void refresh();

Q_SIGNALS:
    void countChanged();
    void errorChanged();
    void followingChanged();

protected:
    using Cells = QVector<QVector<QVariant>>;
    struct Title {
        QByteArray name; ///< The column's, and the role's.
        QString title;
    };

    /// A page, said from the end of the table that is nearer: rows are found by counting.
    struct Wanted {
        int page;
        bool newestFirst;
        qint64 offset;
        qint64 count;
        qint64 throughId;
        quint64 look;
    };

    PagedModel(Recorder *recorder, QVector<Title> titles, bool newestAtTop, QObject *parent);

    /// Asks for the snapshot or a page; the answer comes by one of the take functions.
    virtual void askForSnapshot() = 0;
    virtual void askForPage(const Wanted &wanted) = 0;
    void takeSnapshot(const Result<Snapshot> &snapshot);
    void takePage(const Wanted &wanted, const Result<Cells> &cells);

private:
    void setError(const QString &text);
    /// Pages are counted from the oldest row: those that are there keep their rows when new ones come, also when
    /// the new ones stand at the top. Its own inverse.
    int position(int row) const { return m_newestAtTop ? m_rows - 1 - row : row; }
    void ask(int page) const;
    void tellChanged(int firstPosition, int lastPosition);

    struct Page {
        Cells cells;       ///< Of an earlier look until those asked for come: a view that follows does not flicker.
        quint64 asked = 0; ///< The look for which they were asked last.
        quint64 lastUse = 0;
    };

    const QVector<Title> m_titles;
    const bool m_newestAtTop;
    int m_rows = 0;
    qint64 m_throughId = -1;
    quint64 m_look = 0; ///< Counts the snapshots.
    QString m_error;
    bool m_following = false;
    bool m_asking = false; ///< For a snapshot.
    bool m_askAgain = false;
    QTimer m_soon;
    mutable QHash<int, Page> m_pages; // data() is const and asks for what it lacks
    mutable quint64 m_uses = 0;
};

/// The typed side of a PagedModel.
template<typename Record>
class PagedModelOf : public PagedModel
{
public:
    /// Shows what the query finds, in its order; its page plays no part.
    PagedModelOf(RecorderOf<Record> *recorder, const TableName &table, const Query<Record> &query = {},
                 QObject *parent = nullptr);

protected:
    void askForSnapshot() override;
    void askForPage(const Wanted &wanted) override;

private:
    RecorderOf<Record> *m_recorder;
    TableName m_table;
    Query<Record> m_query;
};

using SampleModel = PagedModelOf<Sample>;
using AlarmModel = PagedModelOf<Alarm>;
using LogModel = PagedModelOf<LogEntry>;

extern template class DEVICE_HOST_EXPORT PagedModelOf<Sample>;
extern template class DEVICE_HOST_EXPORT PagedModelOf<Alarm>;
extern template class DEVICE_HOST_EXPORT PagedModelOf<LogEntry>;

} // namespace device

#endif
