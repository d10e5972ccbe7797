// SPDX-License-Identifier: MIT
#ifndef INTERFACE_DATA_BASE_H
#define INTERFACE_DATA_BASE_H

#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>

struct sqlite3;

/// The interface through which a host drives a store, and what all kinds of store share.
///
/// A store is bound to at most one SQLite file. device_createDB() makes it, closed; openDB() opens it;
/// device_closeDB() destroys it. Everything runs synchronously on the caller's thread.
///
/// Results: operations throw nothing. A failure is written to Qt's debug output and shows as false, as 0, or as an
/// output list to which nothing was appended; 0 also stands for "no rows". A closed store answers at once with that
/// same result, silently.
/// Outputs: lists belong to the caller; rows are appended to what they hold. Only findDataByTime() empties its list
/// first. A `void *` list is the address of a `QList` of the store's own record: `DataContent` (history), `AlarmData`
/// (alarms), `OperatorLogData` (operator log). Nothing checks this.
/// Texts: names, times and values are pasted into SQL as they are, so a quote in one breaks the statement. Only an
/// alarm's description and a log entry's user name, log name and message are escaped, when they are inserted.
/// Times are compared as text: "yyyy-MM-dd hh:mm:ss", followed by ".zzz" in the operator log. A bound that is a bare
/// number, such as "2024", is compared as a number; every number sorts before every text.
/// Threads: an operation holds the store's mutex while it works and writes its messages, so a message handler must not
/// call the same store. createTable() and operations without meaning for the kind of store do not hold it. Two stores
/// share nothing. Do not close or destroy a store while another thread uses it.
class interface_data_base
{
public:
    interface_data_base();

    // The order of the virtual functions is the contract with hosts that were compiled against it: nothing is
    // inserted, removed or moved here. Slots 0 and 1 are the destructor's.

    /// Writes "~interface_data_base" to the debug output and closes the file.
    virtual ~interface_data_base();

    /// Slot 2. Asks SQLite for a passive checkpoint of the write-ahead log. In other journal modes it changes nothing.
    /// In every mode it fails in a transaction that has read or written.
    virtual void dbWalCheckPoint();

    /// Slot 3. Creates `table`. True if it was created; false if it failed or the table exists.
    /// History also lists the table in tb_config, with `configName`; other stores ignore `configName`.
    virtual bool createTable(QString table, QString configName) = 0;

    /// Slot 4. Runs the host's own SQL. `mode` 0: the first statement. 1: the first statement, its rows appended to
    /// `result`. 2: all statements in one transaction, going on after a failure. Any other mode runs nothing and is
    /// true. True if every statement succeeded, whatever the commit did; modes 0 and 1 are false for an empty list.
    /// No meaning for the operator log: false.
    virtual bool execSQL(QStringList statements, QList<QStringList> &result, int mode) = 0;

    /// Slot 5. Appends `rows` in one transaction, one INSERT per row; `rows` is not changed. A row that fails is lost
    /// silently. If the commit meets a lock, the transaction stays open and a later commit covers both batches.
    /// Alarms always go into the table "AlarmData", whatever `table` says.
    virtual void insertManyDatas(QList<QStringList> &rows, QString table) = 0;

    /// Slot 6. Empties `result`, then fills it with one page (counted from 0) of the rows from `start` to `end`, in ID
    /// order. History: a page or page size of -1 means all rows. Alarms: page 0 with a page size of -1 means all rows.
    /// No meaning for the operator log; does nothing.
    virtual void findDataByTime(QString start, QString end, int page, int pageSize, QList<QStringList> &result,
                                QString table) = 0;

    /// Slot 7. History: samples up to `end` whose value contains `value` (SQL wildcards work).
    /// No meaning for the other stores; does nothing.
    virtual void findDataOfValue(QString value, QString end, void *list, QString table, QString order) = 0;

    /// Slot 8. Operator log: a page of one user's entries. Newest first if `order` is "desc"; otherwise oldest first
    /// among the `newestSpan` newest. No meaning for the other stores; does nothing.
    virtual void findDataOfUserNamePage(QString user, void *list, QString table, QString order, int offset, int count,
                                        int newestSpan) = 0;

    /// Slot 9. Operator log: all entries of one user. No meaning for the other stores; does nothing.
    virtual void findDataOfUserName(QString user, void *list, QString table, QString order) = 0;

    /// Slot 10. Operator log: the number of one user's entries. No meaning for the other stores: 0.
    virtual int getDataCountOfUserQuery(QString user, QString table) = 0;

    /// Slot 11. `count` records of the time range, after skipping `offset`; alarms: the active ones.
    /// Only the operator log reads `newestSpan`, as in slot 8.
    virtual void findDataOfTimePage(QString start, QString end, void *list, QString table, QString order, int offset,
                                    int count, int newestSpan) = 0;

    /// Slot 12. All records of the time range; alarms: the active ones.
    virtual void findDataOfTime(QString start, QString end, void *list, QString table, QString order) = 0;

    /// Slot 13. A page of all records, chosen as in slot 8. Alarms: every active alarm, without paging.
    virtual void getAllDataPage(QString table, void *list, QString order, int offset, int count, int newestSpan) = 0;

    /// Slot 14. The newest `count` records. No meaning for alarms; does nothing.
    virtual void getCurrData(QString table, void *list, QString order, int count) = 0;

    /// Slot 15. The number of rows from `start` to `end`. The operator log counts both seconds whole; alarms leave out
    /// those at the start second. History takes both bounds as given.
    virtual int getDataCountOfTimeQuery(QString start, QString end, QString table);

    /// Slot 16. Opens the file, or makes an empty one; SQLite's result code, 0 on success. A file that is already open
    /// is not closed first. Sets no pragma and no timeout.
    virtual int openDB(QString path);

    /// Slot 17. Closes the file; SQLite's result code, 0 for a closed store. The store is closed afterwards even if
    /// SQLite refused.
    virtual int closeDB();

    /// Slot 18. True if a table (not an index or a view) has this name. Silent on failure.
    virtual bool tableIsExist(QString table);

    /// Slot 19. Deletes all rows; the second text is ignored. Alarms: deletes the alarms that started before
    /// `threshold` and all ended ones.
    virtual bool deleteTable(QString table, QString threshold);

    /// Slot 20. Compacts the file.
    virtual bool vacuumSqliteDB();

    /// Slot 21. Makes the IDs of an emptied table start at 1 again.
    virtual bool resetID(QString table);

    /// Slot 22. The number of rows.
    virtual int getDataCountOfTable(QString table);

    /// Slot 23. The number of rows at or before `end`.
    virtual int getDataCountOfTableEndDate(QString table, QString end);

    /// Slot 24. Deletes the `count` rows with the smallest IDs; a negative `count` deletes all.
    virtual bool deleteDataForMax(int count, QString table);

    /// Slot 25. The pairs of tb_config, each as "@collector@name"; also empty on failure.
    virtual QStringList selectConfigInfo();

    /// Slot 26. Adds a pair to tb_config, in a transaction as in slot 5. An insert that fails is silent, unless SQLite
    /// rolls back: then the commit fails and is logged.
    virtual void insertConfig(QString collector, QString name);

    /// Slot 27. The newest `count` rows, newest first.
    virtual void selectNewDataOfRows(QString table, int count, QList<QStringList> &result);

    /// Slot 28. The oldest `count` rows, oldest first.
    virtual void selectOldDataOfRows(QString table, int count, QList<QStringList> &result);

    /// Slot 29. `count` rows in time order, after skipping `offset`; a negative `count` means all.
    virtual void selectDataOfRows(QString table, int offset, int count, QList<QStringList> &result, bool newestFirst);

    /// Slot 30. The same among the rows at or before `end`.
    virtual void selectDataOfDateRows(QString table, QString end, int offset, int count, QList<QStringList> &result,
                                      bool newestFirst);

    /// Slot 31. The rows of the active alarms.
    virtual void findNoRecoveryAlarm(QList<QStringList> &result, QString table);

protected:
    /// The execSQL() of the stores that have one.
    bool runStatements(const QStringList &statements, QList<QStringList> &result, int mode);

    sqlite3 *m_connection; ///< Null while the store is closed.
    QMutex m_mutex;        ///< Taken by the operations, never by their helpers: it is not recursive.

private:
    Q_DISABLE_COPY(interface_data_base)
};

#endif
