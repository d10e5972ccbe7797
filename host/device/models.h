// SPDX-License-Identifier: MIT
#ifndef DEVICE_MODELS_H
#define DEVICE_MODELS_H

#include "recorder.h"

#include <QAbstractTableModel>
#include <QVariant>

namespace device
{

/// A table of records for a view, fetched page by page from a recorder: rowCount() is the number of records, and a cell
/// is empty until its page is there. A few pages are kept, however many rows there are. SampleModel, AlarmModel and
/// LogModel are the ones to use.
///
/// Shows the table as it was at the last refresh(), so that pages fit together; with following() a refresh comes a
/// moment after rows were stored. Belongs to the thread of the recorder object. A recorder that is destroyed, stopped
/// or cannot open its file shows in errorText(). For QML each column is also a role, named as the column of the file.
///
/// A proxy that sorts or filters reads every row at once. The model notices and then keeps all pages, up to
/// rowsKeptAtMost; of a longer table errorText() says that it cannot, and the proxy shows wrong rows: narrow the Query.
class DEVICE_HOST_EXPORT PagedModel : public QAbstractTableModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ rows NOTIFY countChanged)
    Q_PROPERTY(QString error READ errorText NOTIFY errorChanged)
    Q_PROPERTY(bool following READ following WRITE setFollowing NOTIFY followingChanged)

public:
    static constexpr int pageRows = 100;
    static constexpr int pagesKept = 20;
    static constexpr int rowsKeptAtMost = 100000;

    ~PagedModel() override;

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    int rows() const;
    int cachedPages() const;
    QString errorText() const; ///< Empty while all goes well.
    bool following() const;
    void setFollowing(bool following);

    /// Looks at the table again.
    Q_INVOKABLE void refresh();

Q_SIGNALS:
    void countChanged();
    void errorChanged();
    void followingChanged();

protected:
    class Pages;

    explicit PagedModel(std::unique_ptr<Pages> pages, QObject *parent);
    /// The record of a row, once its page is there; asks for it otherwise.
    QVariant record(int row) const;

private:
    friend class Pages;
    std::unique_ptr<Pages> m_pages;
};

/// The samples of a table.
class DEVICE_HOST_EXPORT SampleModel : public PagedModel
{
    Q_OBJECT

public:
    /// Shows what the query finds, in its order; its page plays no part.
    SampleModel(HistoryRecorder *recorder, const TableName &table, const Query<Sample> &query = {},
                QObject *parent = nullptr);
    /// The record of a row; empty while its page is not there.
    std::optional<Sample> recordAt(int row) const;
};

/// The alarms of a table; as SampleModel.
class DEVICE_HOST_EXPORT AlarmModel : public PagedModel
{
    Q_OBJECT

public:
    AlarmModel(AlarmRecorder *recorder, const TableName &table, const Query<Alarm> &query = {},
               QObject *parent = nullptr);
    std::optional<Alarm> recordAt(int row) const;
};

/// The entries of a table; as SampleModel.
class DEVICE_HOST_EXPORT LogModel : public PagedModel
{
    Q_OBJECT

public:
    LogModel(LogRecorder *recorder, const TableName &table, const Query<LogEntry> &query = {},
             QObject *parent = nullptr);
    std::optional<LogEntry> recordAt(int row) const;
};

} // namespace device

#endif
