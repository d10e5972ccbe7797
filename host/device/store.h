// SPDX-License-Identifier: MIT
#ifndef DEVICE_STORE_H
#define DEVICE_STORE_H

#include "library.h"
#include "query.h"
#include "table_name.h"

#include <QList>
#include <QVector>

#include <atomic>
#include <chrono>
#include <memory>

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

/// A value table as the configuration table lists it.
struct Series {
    QString table;
    QString name;
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
    Result<QStringList> tables();

    /// Deletes the oldest recorded rows beyond the `keep` newest; the number deleted.
    Result<qint64> trim(const TableName &table, qint64 keep);
    /// Empties the table and starts its IDs at 1 again; the number deleted.
    Result<qint64> clear(const TableName &table);
    /// Gives free pages back to the file system.
    Status compact();
    /// Moves the write-ahead log into the file as far as readers allow; nothing in other journal modes.
    void checkpoint();

    qint64 failedCommits() const; ///< Commits that failed at first; all were healed or rolled back.
    Result<qint64> usedBytes();   ///< Of the file, free pages left out.

protected:
    explicit StoreFile(std::shared_ptr<Connection> connection);

    std::shared_ptr<Connection> m_connection;
};

/// The operations on one kind of record. HistoryStore, AlarmStore and LogStore are the ones to use.
template<typename Record>
class Store : public StoreFile
{
public:
    /// Makes the table when it is missing: true when it was made, false when it stood already. An Error when
    /// it stands with other columns. History tables are listed with `name` in the configuration table.
    Result<bool> createTable(const TableName &table, const QString &name = QString());

    /// Stores the rows, in order, in one transaction. Rows that cannot be held are refused one by one, the
    /// others stored; when none could be stored, the first row's Error is returned.
    Result<Appended> append(const TableName &table, const QList<Record> &rows);

    Result<QList<Record>> read(const TableName &table, const Query<Record> &query = {});
    /// The number of records that read() would give without a page.
    Result<qint64> count(const TableName &table, const Query<Record> &query = {});
    /// The same, with the last ID: a query `through()` it sees no later rows.
    Result<Snapshot> snapshot(const TableName &table, const Query<Record> &query = {});
    /// Deletes the records before `time`; the number deleted.
    Result<qint64> removeBefore(const TableName &table, LocalTime time);

protected:
    using StoreFile::StoreFile;
};

class DEVICE_HOST_EXPORT HistoryStore : public Store<Sample>
{
public:
    static Result<HistoryStore> open(const Library &library, const QString &path, const OpenOptions &options = {});

    Result<QList<Series>> series();

private:
    using Store::Store;
    template<typename>
    friend class RecorderOf; // makes stores on its own connection
};

class DEVICE_HOST_EXPORT AlarmStore : public Store<Alarm>
{
public:
    static Result<AlarmStore> open(const Library &library, const QString &path, const OpenOptions &options = {});

    /// Ends the active alarms of this object and type; how many there were.
    Result<qint64> end(const TableName &table, const QString &object, const QString &type, LocalTime when);
    /// Deletes the alarms that started before `time`, and every ended one; the number deleted.
    Result<qint64> purge(const TableName &table, LocalTime time);

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

extern template class DEVICE_HOST_EXPORT Store<Sample>;
extern template class DEVICE_HOST_EXPORT Store<Alarm>;
extern template class DEVICE_HOST_EXPORT Store<LogEntry>;

} // namespace device

#endif
