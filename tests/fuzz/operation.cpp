// SPDX-License-Identifier: MIT
#include "operation.h"

#include "alarm_db.h"
#include "history_db.h"
#include "operatorlog_db.h"

using sandbox::require;

namespace
{

const QString Mark = QStringLiteral("was here before");

bool isMark(const DataContent &record)
{
    return record.value == Mark;
}

bool isMark(const AlarmData &record)
{
    return record.description == Mark;
}

bool isMark(const OperatorLogData &record)
{
    return record.message == Mark;
}

/// The three lists of records, each with one record in it; the store is given its own.
class Records
{
public:
    explicit Records(Kind kind) : m_kind(kind)
    {
        m_samples.append({QString(), QString(), QString(), Mark});
        AlarmData alarm;
        alarm.description = Mark;
        m_alarms.append(alarm);
        m_entries.append({QString(), QString(), Mark, QDateTime()});
    }
    ~Records()
    {
        require(isMark(m_samples.first()) && isMark(m_alarms.first()) && isMark(m_entries.first()),
                "a query changed a record that was in the list");
        // Looked at as a host does, so that the sanitizers see each text and time.
        for (const DataContent &sample : std::as_const(m_samples))
            require(sample.extraText.isEmpty() && sample.value.size() >= 0, "a sample has an extra text");
        for (const AlarmData &alarm : std::as_const(m_alarms))
            require(alarm.extraText.isEmpty() && !alarm.endTime.isValid() && alarm.startTime.toString().size() >= 0,
                    "an alarm has an extra text or an end");
        for (const OperatorLogData &entry : std::as_const(m_entries))
            require(entry.dateTime.toString().size() >= 0, "an entry's time");
    }
    void *list()
    {
        return m_kind == Kind::History ? static_cast<void *>(&m_samples)
               : m_kind == Kind::Alarm ? static_cast<void *>(&m_alarms)
                                       : static_cast<void *>(&m_entries);
    }

private:
    Q_DISABLE_COPY(Records)
    Kind m_kind;
    QList<DataContent> m_samples;
    QList<AlarmData> m_alarms;
    QList<OperatorLogData> m_entries;
};

QString path(Input &input)
{
    // No path of the file system but one that cannot be opened; files are the business of fuzz_files.
    return input.choose(3) < 3 ? QStringLiteral(":memory:") : QStringLiteral("/missing/folder/store.db");
}

} // namespace

void call(int which, interface_data_base &store, Kind kind, Input &input)
{
    const QStringList mark{Mark};
    QList<QStringList> result{mark};
    Records records(kind);
    const int cells = kind == Kind::History ? 2 : kind == Kind::Alarm ? 10 : 4;
    bool empties = false;

    // Arguments are taken from the input in their order, one statement each: the order within a call is not fixed.
    QString a, b, c, d;
    int i = 0, j = 0, k = 0;
    input.startStatement();
    switch (which) {
    case 0:
        store.dbWalCheckPoint();
        break;
    case 1:
        a = input.table();
        b = input.text();
        store.createTable(a, b);
        break;
    case 2: {
        const QStringList statements = input.cells(1);
        store.execSQL(statements, result, input.choose(4) - 1);
        break;
    }
    case 3:
    case 4:
    case 5: {
        QList<QStringList> rows = input.rows(cells);
        const QList<QStringList> given = rows;
        a = input.table();
        store.insertManyDatas(rows, a);
        require(rows == given, "insertManyDatas changed its rows");
        break;
    }
    case 6:
        a = input.time();
        b = input.time();
        i = input.number();
        j = input.number();
        c = input.table();
        store.findDataByTime(a, b, i, j, result, c);
        empties = true;
        break;
    case 7:
        a = input.text();
        b = input.time();
        c = input.table();
        d = input.order();
        store.findDataOfValue(a, b, records.list(), c, d);
        break;
    case 8:
        a = input.text();
        b = input.table();
        c = input.order();
        i = input.number();
        j = input.number();
        k = input.number();
        store.findDataOfUserNamePage(a, records.list(), b, c, i, j, k);
        break;
    case 9:
        a = input.text();
        b = input.table();
        c = input.order();
        store.findDataOfUserName(a, records.list(), b, c);
        break;
    case 10:
        a = input.text();
        b = input.table();
        store.getDataCountOfUserQuery(a, b);
        break;
    case 11:
        a = input.time();
        b = input.time();
        c = input.table();
        d = input.order();
        i = input.number();
        j = input.number();
        k = input.number();
        store.findDataOfTimePage(a, b, records.list(), c, d, i, j, k);
        break;
    case 12:
        a = input.time();
        b = input.time();
        c = input.table();
        d = input.order();
        store.findDataOfTime(a, b, records.list(), c, d);
        break;
    case 13:
        a = input.table();
        b = input.order();
        i = input.number();
        j = input.number();
        k = input.number();
        store.getAllDataPage(a, records.list(), b, i, j, k);
        break;
    case 14:
        a = input.table();
        b = input.order();
        i = input.number();
        store.getCurrData(a, records.list(), b, i);
        break;
    case 15:
        a = input.time();
        b = input.time();
        c = input.table();
        store.getDataCountOfTimeQuery(a, b, c);
        break;
    case 16: // An open store would lose its first file for ever; so it is closed before.
        require(store.closeDB() == 0, "closeDB failed");
        a = path(input);
        if (store.openDB(a) != 0 && input.flag())
            require(store.closeDB() == 0, "closeDB failed behind a failed openDB");
        break;
    case 17:
        require(store.closeDB() == 0, "closeDB failed");
        require(store.getDataCountOfTable(QStringLiteral("T1")) == 0 && !store.tableIsExist(QStringLiteral("T1")),
                "a closed store answered");
        store.openDB(QStringLiteral(":memory:"));
        break;
    case 18:
        a = input.table();
        store.tableIsExist(a);
        break;
    case 19:
        a = input.table();
        b = input.time();
        store.deleteTable(a, b);
        break;
    case 20:
        store.vacuumSqliteDB();
        break;
    case 21:
        a = input.table();
        store.resetID(a);
        break;
    case 22:
        a = input.table();
        store.getDataCountOfTable(a);
        break;
    case 23:
        a = input.table();
        b = input.time();
        store.getDataCountOfTableEndDate(a, b);
        break;
    case 24:
        i = input.number();
        a = input.table();
        store.deleteDataForMax(i, a);
        break;
    case 25:
        store.selectConfigInfo();
        break;
    case 26:
        a = input.text();
        b = input.text();
        store.insertConfig(a, b);
        break;
    case 27:
        a = input.table();
        i = input.number();
        if (input.flag())
            store.selectNewDataOfRows(a, i, result);
        else
            store.selectOldDataOfRows(a, i, result);
        break;
    case 28: {
        a = input.table();
        b = input.time();
        i = input.number();
        j = input.number();
        const bool newestFirst = input.flag();
        if (input.flag())
            store.selectDataOfRows(a, i, j, result, newestFirst);
        else
            store.selectDataOfDateRows(a, b, i, j, result, newestFirst);
        break;
    }
    default:
        a = input.table();
        store.findNoRecoveryAlarm(result, a);
    }
    if (!empties)
        require(!result.isEmpty() && result.first() == mark, "a query changed a row that was in the list");
}

void readEverything(interface_data_base &store, Kind kind, const QString &table)
{
    const QString start = QStringLiteral("0000-00-00 00:00:00");
    const QString end = QStringLiteral("9999-12-31 23:59:59");
    const QString user = QStringLiteral("admin");
    Records records(kind);
    QList<QStringList> rows;
    store.tableIsExist(table);
    store.findDataByTime(start, end, 0, 100, rows, table);
    for (const char *word : {"desc", "asc"}) {
        const QString order = QString::fromLatin1(word);
        store.findDataOfValue(QString(), end, records.list(), table, order);
        store.findDataOfUserNamePage(user, records.list(), table, order, 0, 100, 100);
        store.findDataOfUserName(user, records.list(), table, order);
        store.findDataOfTimePage(start, end, records.list(), table, order, 0, 100, 100);
        store.findDataOfTime(start, end, records.list(), table, order);
        store.getAllDataPage(table, records.list(), order, 0, 100, 100);
        store.getCurrData(table, records.list(), order, 100);
        store.selectDataOfRows(table, 0, -1, rows, order.size() == 4);
        store.selectDataOfDateRows(table, end, 0, -1, rows, order.size() == 4);
    }
    store.getDataCountOfUserQuery(user, table);
    store.getDataCountOfTimeQuery(start, end, table);
    store.getDataCountOfTable(table);
    store.getDataCountOfTableEndDate(table, end);
    store.selectNewDataOfRows(table, 100, rows);
    store.selectOldDataOfRows(table, 100, rows);
    store.findNoRecoveryAlarm(rows, table);
    store.selectConfigInfo();
}
