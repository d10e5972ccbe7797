// SPDX-License-Identifier: MIT
#ifndef INTERFACE_DATA_BASE_H
#define INTERFACE_DATA_BASE_H

#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>

struct sqlite3;

/// The interface through which a host drives a store, and what all stores share.
///
/// A store is bound to at most one SQLite file. It comes from device_createDB(), closed; openDB()
/// opens it; device_closeDB() destroys it. Everything runs synchronously on the caller's thread.
///
/// Results: operations throw nothing. A failure is written to Qt's debug output and shows as false,
/// as 0, or as an output list to which nothing was appended; 0 also stands for "no rows". A closed
/// store answers at once with that same result, silently.
/// Outputs: lists belong to the caller; rows are appended behind what they hold. Only findDataByTime()
/// empties its list first. A `void *` list is the `QList` of the store's own record: `DataContent`
/// (history), `AlarmData` (alarms), `OperatorLogData` (operator log); nothing checks it.
/// Texts: names, times and values are pasted into SQL as they are; a quote in one makes the statement
/// fail. Times are compared as text: "yyyy-MM-dd hh:mm:ss", with ".zzz" behind it in the operator log.
/// Threads: each operation holds the store's mutex, createTable() alone does not. Two stores share
/// nothing. A store must not be closed or destroyed while another thread uses it.
class interface_data_base
{
public:
    interface_data_base();

    // The order of the virtual functions is the contract with hosts that were compiled against it:
    // nothing is inserted, removed or moved here. Slots 0 and 1 are the destructor's.

    /// Writes "~interface_data_base" to the debug output and closes the file.
    virtual ~interface_data_base();

    /// Slot 2. Asks SQLite for a passive checkpoint of the write-ahead log; nothing in other journal modes.
    virtual void dbWalCheckPoint();

    /// Slot 3. Creates `table`. True when it was created; false when it failed or stands already.
    /// History also lists the table in tb_config, `configName` beside it; other stores ignore `configName`.
    virtual bool createTable(QString table, QString configName) = 0;

    /// Slot 4. Runs the host's own SQL. `mode` 0: the first statement. 1: the first statement, its rows
    /// appended to `result`. 2: all statements in one transaction, going on behind a failure. Any other
    /// mode runs nothing and is true. True when every statement succeeded, whatever the commit did.
    /// No meaning for the operator log: false.
    virtual bool execSQL(QStringList statements, QList<QStringList> &result, int mode) = 0;

    /// Slot 5. Appends `rows` in one transaction, one INSERT a row. A row that fails is lost without a
    /// word. After a failed commit the transaction stays open and a later commit covers both batches.
    /// `rows` is not changed. Alarms always go into the table "AlarmData", whatever `table` says.
    virtual void insertManyDatas(QList<QStringList> &rows, QString table) = 0;

    /// Slot 6. Empties `result`, then fills it with one page (counted from 0) of the rows from `start` to
    /// `end`, in ID order. History: a page or page size of -1 means all rows.
    /// No meaning for the operator log; does nothing.
    virtual void findDataByTime(QString start, QString end, int page, int pageSize, QList<QStringList> &result,
                                QString table) = 0;

    /// Slot 7. History: samples up to `end` whose value contains `value` (SQL wildcards work).
    /// No meaning for the other stores; does nothing.
    virtual void findDataOfValue(QString value, QString end, void *list, QString table, QString order) = 0;

    /// Slot 8. Operator log: a page of one user's entries. Newest first when `order` is "desc"; else
    /// oldest first among the `newestSpan` newest. No meaning for the other stores; does nothing.
    virtual void findDataOfUserNamePage(QString user, void *list, QString table, QString order, int offset, int count,
                                        int newestSpan) = 0;

    /// Slot 9. Operator log: all entries of one user. No meaning for the other stores; does nothing.
    virtual void findDataOfUserName(QString user, void *list, QString table, QString order) = 0;

    /// Slot 10. Operator log: the number of one user's entries. No meaning for the other stores: 0.
    virtual int getDataCountOfUserQuery(QString user, QString table) = 0;

    /// Slot 11. `count` records of the time range behind the first `offset`; alarms: the active ones.
    /// `newestSpan` is read by the operator log alone, as in slot 8.
    virtual void findDataOfTimePage(QString start, QString end, void *list, QString table, QString order, int offset,
                                    int count, int newestSpan) = 0;

    /// Slot 12. All records of the time range; alarms: the active ones.
    virtual void findDataOfTime(QString start, QString end, void *list, QString table, QString order) = 0;

    /// Slot 13. A page of all records, chosen as in slot 8. Alarms: every active alarm, without paging.
    virtual void getAllDataPage(QString table, void *list, QString order, int offset, int count, int newestSpan) = 0;

    /// Slot 14. The newest `count` records. No meaning for alarms; does nothing.
    virtual void getCurrData(QString table, void *list, QString order, int count) = 0;

    /// Slot 15. The number of rows from `start` to `end`, both seconds whole. History takes both as given.
    virtual int getDataCountOfTimeQuery(QString start, QString end, QString table);

    /// Slot 16. Opens the file; SQLite's result code, 0 on success. A file that is already open is not
    /// closed first. Sets no pragma and no timeout.
    virtual int openDB(QString path);

    /// Slot 17. Closes the file; SQLite's result code, 0 for a closed store. The store is closed afterwards
    /// even when SQLite refused.
    virtual int closeDB();

    /// Slot 18. True when a table (no index, no view) has this name. Silent on failure.
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

    /// Slot 25. The pairs of tb_config, each as "@collector@name"; empty also on failure.
    virtual QStringList selectConfigInfo();

    /// Slot 26. Adds a pair to tb_config. A failing insert is silent.
    virtual void insertConfig(QString collector, QString name);

    /// Slot 27. The newest `count` rows, newest first.
    virtual void selectNewDataOfRows(QString table, int count, QList<QStringList> &result);

    /// Slot 28. The oldest `count` rows, oldest first.
    virtual void selectOldDataOfRows(QString table, int count, QList<QStringList> &result);

    /// Slot 29. `count` rows in time order behind the first `offset`; a negative `count` means all.
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
