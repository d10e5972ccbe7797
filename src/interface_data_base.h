// SPDX-License-Identifier: MIT
#ifndef INTERFACE_DATA_BASE_H
#define INTERFACE_DATA_BASE_H

#include <QByteArray>
#include <QDate>
#include <QDateTime>
#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVarLengthArray>

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

// What the stores build their operations from. Internal to this library; nothing below is exported.

/// Runs one statement text that returns rows and owns what SQLite gave for it.
class TableQuery
{
public:
    TableQuery(sqlite3 *connection, const char *sql); ///< `sql` in UTF-8
    ~TableQuery();

    bool failed() const { return m_code != 0; }
    const char *errorText() const { return m_error; } ///< SQLite's own; null when it gave none.
    int rowCount() const { return m_rows; }
    int columnCount() const { return m_columns; }
    /// The UTF-8 text of a cell, rows counted behind the header; null for NULL.
    const char *cell(int row, int column) const
    {
        return m_cells[(size_t(row) + 1) * size_t(m_columns) + size_t(column)];
    }
    /// The first cell as a number; 0 when there is none or it is no number.
    int count() const;
    /// Appends every row, all columns, to `result`.
    void appendTo(QList<QStringList> &result) const;

private:
    Q_DISABLE_COPY(TableQuery)

    char **m_cells;
    char *m_error;
    int m_rows;
    int m_columns;
    int m_code;
};

/// Runs one statement text that returns no rows and owns SQLite's error text.
class Execution
{
public:
    Execution(sqlite3 *connection, const char *sql); ///< `sql` in UTF-8
    ~Execution();

    bool failed() const { return m_code != 0; }
    const char *errorText() const { return m_error; } ///< SQLite's own; null when it gave none.

private:
    Q_DISABLE_COPY(Execution)

    char *m_error;
    int m_code;
};

/// Reads bytes as Qt 4's QString(const char *) does, up to the first NUL: Latin-1, unless a host on Qt 4
/// installed another codec for C strings.
QString fromCString(const QByteArray &bytes);

/// The text's UTF-8 bytes read as a C string: unchanged for ASCII, encoded once more for all else.
QString rereadUtf8(const QString &text);

/// The text's Latin-1 bytes read as a C string: a "?" for each UTF-16 unit outside Latin-1.
QString rereadLatin1(const QString &text);

/// A statement template, filled row after row. What comes out is what a chain of QString::arg() calls
/// gives, one a cell in ascending order; it is spliced in one buffer unless a cell holds a marker itself.
class StatementTemplate
{
public:
    /// `text` holds "%1" to "%9", each once, in ascending order, and must outlive the template.
    explicit StatementTemplate(const char *text);

    /// One cell a marker. The text stands until the next call.
    const char *fill(const QString *const *cells);

    /// The same, but null where only the chain says what comes out.
    const char *splice(const QString *const *cells);

private:
    Q_DISABLE_COPY(StatementTemplate)
    bool appendCell(const QString &cell, bool mayHoldMarkers);
    void append(const char *bytes, size_t size);

    const char *m_text;
    int m_markers;
    size_t m_pieces[10]; ///< Sizes of the texts in front of each marker, and behind the last with its NUL.
    QVarLengthArray<char, 1024> m_bytes;
    char *m_end; ///< Where the next piece goes.
    QByteArray m_chained;
};

inline const QString &cellText(const QString &text)
{
    return text;
}

inline QString cellText(int number)
{
    return QString::number(number);
}

/// One statement from such a template, in UTF-8: what a chain of QString::arg() calls gives, one a value.
template<typename... Values>
QByteArray statement(const char *text, const Values &...values)
{
    const QString cells[] = {cellText(values)...};
    const QString *places[sizeof...(values)];
    for (size_t i = 0; i < sizeof...(values); ++i)
        places[i] = &cells[i];
    StatementTemplate filled(text);
    if (const char *const spliced = filled.splice(places))
        return QByteArray(spliced);
    QString chained = QString::fromLatin1(text);
    const int steps[] = {(chained = chained.arg(values), 0)...};
    Q_UNUSED(steps);
    return chained.toUtf8();
}

// What a cell means, from SQLite's UTF-8 text. Each answers as the Qt call it stands for, and calls it for
// everything but the plain case.

QString toText(const char *cell);  ///< QString::fromUtf8(), a null text for NULL.
int toInt(const char *cell);       ///< QString::toInt(), 0 when it is no number.
double toDouble(const char *cell); ///< QString::toDouble(), 0 when it is no number or out of range.

/// QDateTime::fromString() with the format "yyyy-MM-dd hh:mm:ss", or that and ".zzz". One for each query:
/// it remembers the last day.
class TimeReader
{
public:
    enum Form { Seconds, Milliseconds };
    explicit TimeReader(Form form);

    void read(const char *cell, QDateTime &time); ///< `time` is a new one: invalid, and of local time.

private:
    Q_DISABLE_COPY(TimeReader)
    void startDay(const char *text);

    Form m_form;
    char m_dayText[10]; ///< "yyyy-MM-dd", or whatever stood there.
    QDate m_day;
    bool m_dayIsPlain;
    qint64 m_dayStart; ///< Of a plain day: midnight, in milliseconds since 1970 in UTC.
};

/// toText() for a column whose texts recur: equal cells share one text. One for each column and
/// query: it refers to the query's cells.
class RecurringTexts
{
public:
    RecurringTexts();
    QString read(const char *cell);

private:
    Q_DISABLE_COPY(RecurringTexts)
    enum { SlotBits = 6, Slots = 1 << SlotBits };
    const char *m_cells[Slots];
    size_t m_sizes[Slots];
    QString m_texts[Slots];
};

/// Makes room for `more` elements before they are appended one by one. Left alone when it would not at least
/// double the list: lists grow geometrically by themselves, and many small batches must not defeat that.
template<typename T>
void reserveFor(QList<T> &list, int more)
{
    if (more > int(list.size()))
        list.reserve(list.size() + more);
}

/// Appends an element to be filled in place.
template<typename T>
T &appendNew(QList<T> &list)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    return list.emplaceBack(); // builds it where it stays
#else
    list.append(T());
    return list.last();
#endif
}

#endif
