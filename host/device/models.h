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
/// moment after rows were stored. When rows were removed since, the oldest rows of the model are empty, as many as
/// went. Belongs to the thread of the recorder object. A recorder that is destroyed, stopped or cannot open its file
/// shows in errorText(). For QML each column is also a role, named as the column of the file.
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

/// The trend of a table for a picture or a view: one row of the model per column of the trend, in the order of time.
/// Nothing is shown before the first show().
///
/// show() asks the recorder's thread, one question at a time, and the newest wins: of the requests that come while a
/// question runs only the last is asked, and a question that takes longer than a quarter of a second is cancelled for
/// it. The columns stay until the answer is there, after an Error too. With following() the same range is asked for
/// again a moment after rows were stored; to let the range move with the time, show() another one.
///
/// Belongs to the thread of the recorder object. A recorder that is destroyed, stopped or cannot open its file shows in
/// errorText(). For QML each column of the model is also a role, of this name.
class DEVICE_HOST_EXPORT TrendModel : public QAbstractTableModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ rows NOTIFY countChanged)
    Q_PROPERTY(QString error READ errorText NOTIFY errorChanged)
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    Q_PROPERTY(bool following READ following WRITE setFollowing NOTIFY followingChanged)

public:
    /// The numbers are double by their roles and the texts as recorded in a view, empty without numbers; TrendColumn
    /// says what each is. A view shows times as the tables hold them.
    enum Column {
        Time,  ///< `time`: the column has the samples from here
        End,   ///< `end`: until before this.
        Low,   ///< `low`
        High,  ///< `high`
        First, ///< `first`
        Last,  ///< `last`
        Mean,  ///< `mean`
        Count, ///< `count`: all rows, also those without a number.
        Exact, ///< `exact`
        ColumnCount
    };

    TrendModel(HistoryRecorder *recorder, const TableName &table, QObject *parent = nullptr);
    ~TrendModel() override;

    /// Asks for another range. What cannot be asked for, as a time that is invalid, shows in errorText().
    void show(const TrendQuery &query);
    Q_INVOKABLE void show(const QDateTime &from, const QDateTime &to, int columns);
    /// Asks for the same range again.
    Q_INVOKABLE void refresh();

    const Trend &trend() const; ///< What is shown.
    int rows() const;
    QString errorText() const; ///< Empty while all goes well.
    bool busy() const;         ///< The last show() is not answered yet.
    bool following() const;
    void setFollowing(bool following);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void trendChanged(); ///< An answer came; the rows have changed already.
    void countChanged();
    void errorChanged();
    void busyChanged();
    void followingChanged();

private:
    class Asking;
    std::unique_ptr<Asking> m_asking;
};

} // namespace device

#endif
