// SPDX-License-Identifier: MIT
#ifndef DEVICE_STORE_H
#define DEVICE_STORE_H

#include "library.h"
#include "query.h"
#include "retention.h"
#include "table_name.h"
#include "trend.h"

#include <QList>
#include <QVector>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>

namespace device
{

class Connection;

/// How the file is set up when it is opened. Chosen by name; docs/host.md has what each costs.
enum class Profile {
    AsIs,    ///< As the store library opens it: nothing is set.
    Durable, ///< Write-ahead log, an index on time by createTable(); what is stored survives a power cut.
    Flash    ///< As Durable, but synced at checkpoints only: a power cut takes what was stored since the last one.
};

struct OpenOptions {
    Profile profile = Profile::AsIs;
    bool create = true;                       ///< Make the file when it is missing.
    std::chrono::milliseconds deadline{2000}; ///< How long an operation goes on trying while the file is locked.
    int checkpointPages = 1000;               ///< Durable, Flash: pages in the write-ahead log before a checkpoint.
    const std::atomic_bool *cancel = nullptr; ///< When this turns true, waiting for a lock ends at once.
};

/// A row that was not stored, and why.
struct Refusal {
    int row; ///< Its place in the list that was handed in.
    Error error;
};

/// What became of a list of rows: each was stored exactly once or is among the refused.
struct Appended {
    int stored = 0;
    QVector<Refusal> refused;
};

/// A fixed view of a table to page through while rows are added.
struct Snapshot {
    qint64 rows = 0;
    qint64 lastId = 0;
};

/// What people call a series.
struct SeriesInfo {
    SeriesInfo(QString nameText = {}, QString unitText = {}, QString descriptionText = {})
        : name(std::move(nameText)), unit(std::move(unitText)), description(std::move(descriptionText))
    {
    }

    QString name;
    QString unit; ///< Of the values, such as "°C".
    QString description;
};

/// A series as the file lists it.
struct Series : SeriesInfo {
    Series(SeriesInfo info, QString listedTable, std::optional<TableName> tableName)
        : SeriesInfo(std::move(info)), listed(std::move(listedTable)), table(std::move(tableName))
    {
    }

    QString listed;                 ///< Its table, in the words of the file. Whether it exists was not asked.
    std::optional<TableName> table; ///< The same to work with; empty if it is not a name that this layer takes.
};

/// The times of the earliest and of the latest record.
struct TimeRange {
    LocalTime first;
    LocalTime last;
};

/// What latest() found in one table.
template<typename Record>
struct Latest {
    TableName table;
    std::optional<Record> record; ///< Empty if the table has no rows or could not be read.
    std::optional<Error> error;   ///< Why it could not be read: it is missing, or it has other columns.
};

/// What all stores share: one file, opened by open() of the store, closed by the destructor.
///
/// Every operation either does all of what it says or returns an Error and leaves the file as it was. One
/// thread at a time uses a store; two stores share nothing. An operation waits for a lock up to the deadline
/// on the caller's thread: a panel's event loop uses a Recorder instead.
class DEVICE_HOST_EXPORT StoreFile
{
public:
    StoreFile(StoreFile &&) noexcept;
    StoreFile &operator=(StoreFile &&) noexcept;
    ~StoreFile();

    QString path() const;

    Result<bool> tableExists(const TableName &table);
    /// The tables of the file by name, those of other programs included. The configuration table and what this layer
    /// adds to a file are left out.
    Result<QStringList> tables();

    /// Deletes all rows but the `rows` that were recorded last; the number deleted. `rows` is 0 or more.
    Result<qint64> keepNewest(const TableName &table, qint64 rows);
    /// Empties the table and starts its IDs at 1 again; the number deleted.
    Result<qint64> clear(const TableName &table);
    /// The rows of the table are kept so from now on, true if that is new. It stands in the file; a Recorder sees to
    /// it, a store removes nothing by itself.
    Result<bool> keep(const TableName &table, const Keep &keep);
    /// What the file says of that; nothing where it says nothing.
    Result<std::optional<Kept>> kept(const TableName &table);
    /// Gives free pages back to the file system.
    Status compact();
    /// Moves the write-ahead log into the file as far as readers allow: true if all of it is in the file now, false if
    /// a reader or another checkpoint kept a part back. True without a write-ahead log.
    Result<bool> checkpoint();

    qint64 failedCommits() const; ///< Commits that failed at first; all were healed or rolled back.
    Result<qint64> usedBytes();   ///< Of the file, free pages left out.

protected:
    explicit StoreFile(std::shared_ptr<Connection> connection);

    std::shared_ptr<Connection> m_connection;
};

/// The operations on one kind of record. HistoryStore, AlarmStore and LogStore are the ones to use.
template<typename Record>
class DEVICE_HOST_EXPORT Store : public StoreFile
{
public:
    /// Makes the table if it is missing: true if it was made, false if it exists already. An Error if it exists with
    /// other columns.
    Result<bool> createTable(const TableName &table);

    /// Stores the rows, in order, in one transaction. Rows that cannot be held are refused one by one, the
    /// others stored; when none could be stored, the first row's Error is returned.
    Result<Appended> append(const TableName &table, const QList<Record> &rows);

    Result<QList<Record>> read(const TableName &table, const Query<Record> &query = {});
    /// The number of records that read() would give without a page.
    Result<qint64> count(const TableName &table, const Query<Record> &query = {});
    /// The same, with the last ID: a query `through()` it sees no later rows.
    Result<Snapshot> snapshot(const TableName &table, const Query<Record> &query = {});

    /// The record of each table that was recorded last, in the order of `tables`. That is the one with the highest ID,
    /// not the one with the latest time: after a clock was set back, the latest time would be an old value's for as
    /// long as it was set back. A table that is missing or has other columns has an Error of its own and the others
    /// are read all the same. Asks the file twice, however many tables there are (and once more per 400 tables).
    Result<QList<Latest<Record>>> latest(const QList<TableName> &tables);
    /// The earliest and the latest time of the table, whatever the order of recording; nothing if it has no rows. Rows
    /// whose time has another form than the store's play no part.
    Result<std::optional<TimeRange>> range(const TableName &table);

    /// Deletes the records before `time`, active alarms included; the number deleted.
    Result<qint64> removeBefore(const TableName &table, LocalTime time);

protected:
    using StoreFile::StoreFile;
};

class DEVICE_HOST_EXPORT HistoryStore : public Store<Sample>
{
public:
    static Result<HistoryStore> open(const Library &library, const QString &path, const OpenOptions &options = {});

    /// As for every store; the file lists the table with the name, which is kept from then on. A unit or a description
    /// replaces what the file had for this table, even if the table exists already; without both, that stays.
    Result<bool> createTable(const TableName &table, const SeriesInfo &info = {});

    /// The series that the file lists, each once, in the order in which they were first listed.
    Result<QList<Series>> series();

    /// The samples of a range, summed up column by column: the same numbers as from the rows themselves, for the mean
    /// but for rounding. In milliseconds where the table has a trend (see keepTrend()) and an index on time; otherwise
    /// every row of the range is read.
    Result<Trend> trend(const TableName &table, const TrendQuery &query);
    /// Has the file keep sums of the table in tables of their own, which make trend() quick: true if it did not do so
    /// before. A recorder that opens the file brings them up to date and keeps them so; until then, and for rows that
    /// are stored without one, trend() reads the rows. With other levels than before they begin anew.
    Result<bool> keepTrend(const TableName &table, const TrendOptions &options = {});
    /// Ends that; false if there was nothing to end. The next recorder removes what is left.
    Result<bool> dropTrend(const TableName &table);

private:
    using Store::Store;
    template<typename>
    friend class RecorderOf; // makes stores on its own connection
};

class DEVICE_HOST_EXPORT AlarmStore : public Store<Alarm>
{
public:
    static Result<AlarmStore> open(const Library &library, const QString &path, const OpenOptions &options = {});

    /// The alarms that have not ended, newest first.
    Result<QList<Alarm>> active(const TableName &table);
    /// Stores the alarm unless one of the same object and type is active: whether it was stored. A program that starts
    /// again raises what it finds with this, so that an alarm that was raised before does not appear twice.
    Result<bool> raiseUnlessActive(const TableName &table, const Alarm &alarm);
    /// Ends the active alarms of this object and type; how many there were.
    Result<qint64> end(const TableName &table, const QString &object, const QString &type, LocalTime when);
    /// Deletes every ended alarm, and of the active ones those that started before `time`; the number deleted.
    Result<qint64> removeEndedAndBefore(const TableName &table, LocalTime time);

private:
    using Store::Store;
    template<typename>
    friend class RecorderOf; // makes stores on its own connection
};

class DEVICE_HOST_EXPORT LogStore : public Store<LogEntry>
{
public:
    static Result<LogStore> open(const Library &library, const QString &path, const OpenOptions &options = {});

private:
    using Store::Store;
    template<typename>
    friend class RecorderOf; // makes stores on its own connection
};

extern template class Store<Sample>;
extern template class Store<Alarm>;
extern template class Store<LogEntry>;

} // namespace device

#endif
