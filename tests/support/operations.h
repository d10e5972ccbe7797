// SPDX-License-Identifier: MIT
#pragma once

#include "kind_test.h"

#include <vector>

/// Makes the file that the operations below are called on: the kind's table under the name AlarmData (which alarms
/// always go into), tb_config, and Ended with the two columns that findNoRecoveryAlarm reads; one row in each.
void prepareFile(const QString &path, Kind kind);

/// What one call is given and gives.
struct Outcome {
    explicit Outcome(Kind kind);
    Q_DISABLE_COPY(Outcome)

    void returns(bool value) { returned = value ? "true"_q : "false"_q; }
    void returns(int value) { returned = QString::number(value); }
    void returns(const QStringList &texts) { returned = ""_q + texts.join("|"_q); } // never null

    /// What was returned; of an operation that returns nothing, how much its outputs hold.
    QString answer() const { return returned.isNull() ? QString::number(held()) : returned; }
    int held() const { return int(rows.size() + samples.size() + alarms.size() + entries.size()); }

    QList<QStringList> input; ///< One row that insertManyDatas of the kind accepts.
    QList<QStringList> rows;
    QList<DataContent> samples;
    QList<AlarmData> alarms;
    QList<OperatorLogData> entries;
    void *list; ///< The one of the three that the kind fills.
    QString returned;
};

/// A message of a failing operation: its text, and how SQLite's error text follows.
struct Message {
    enum Error { None, Bare, Quoted, InTheText };
    QString text;
    Error error = None;

    QString with(const char *errorText) const;
};

/// What one kind of store makes of a call.
struct Meaning {
    Meaning(const char *operation, int ofKinds, const char *answers, QStringList runs,
            std::vector<Message> failureMessages = {}, const char *commitFailureMessage = nullptr)
        : name(operation),
          kinds(ofKinds),
          answer(QString::fromUtf8(answers)),
          statements(std::move(runs)),
          failure(std::move(failureMessages)),
          commitFailure(QString::fromUtf8(commitFailureMessage))
    {
    }

    const char *name;
    int kinds;
    QString answer; ///< On the prepared file.
    QStringList statements;
    std::vector<Message> failure; ///< When every statement fails.
    QString commitFailure;        ///< When the commit fails.
};

/// Null for an operation that has no meaning for the kind: it does nothing.
const Meaning *meaningOf(const char *operation, Kind kind);

/// A call of one operation, with arguments that fit the prepared file.
template<typename Interface>
struct Call {
    using Function = void (*)(Interface &, Outcome &);
    Call(int slotNumber, const char *operation, const char *nothing, Function function)
        : slot(slotNumber), name(operation), refusal(QString::fromUtf8(nothing)), on(function)
    {
    }

    int slot;
    const char *name;
    QString refusal; ///< The answer of a closed store, of a failure, and of an operation without a meaning.
    Function on;
};

/// All operations but openDB and closeDB, in slot order.
template<typename Interface>
const std::vector<Call<Interface>> &calls()
{
    using S = Interface;
    using O = Outcome;
    using C = Call<Interface>;
    static const QString table = "AlarmData"_q;
    static const QString start = "2024/05/05"_q;
    static const QString end = "2024/05/07"_q;
    static const QString desc = "desc"_q;
    static const QString asc = "asc"_q;
    static const QString user = "admin"_q;
    static const QStringList statements{"delete from Ended"_q, "delete from tb_config"_q};
    static const std::vector<C> all = {
        C(2, "dbWalCheckPoint", "0", [](S &s, O &) { s.dbWalCheckPoint(); }),
        C(3, "createTable", "false", [](S &s, O &o) { o.returns(s.createTable("Other"_q, "N"_q)); }),
        C(4, "execSQL, mode 0", "false", [](S &s, O &o) { o.returns(s.execSQL(statements, o.rows, 0)); }),
        C(4, "execSQL, mode 1", "false",
          [](S &s, O &o) { o.returns(s.execSQL({"select * from Ended"_q}, o.rows, 1)); }),
        C(4, "execSQL, mode 2", "false", [](S &s, O &o) { o.returns(s.execSQL(statements, o.rows, 2)); }),
        C(5, "insertManyDatas", "0", [](S &s, O &o) { s.insertManyDatas(o.input, table); }),
        C(6, "findDataByTime", "0", [](S &s, O &o) { s.findDataByTime(start, end, 0, 7, o.rows, table); }),
        C(7, "findDataOfValue", "0", [](S &s, O &o) { s.findDataOfValue("7"_q, end, o.list, table, desc); }),
        C(8, "findDataOfUserNamePage", "0",
          [](S &s, O &o) { s.findDataOfUserNamePage(user, o.list, table, asc, 0, 7, 8); }),
        C(9, "findDataOfUserName", "0", [](S &s, O &o) { s.findDataOfUserName(user, o.list, table, asc); }),
        C(10, "getDataCountOfUserQuery", "0", [](S &s, O &o) { o.returns(s.getDataCountOfUserQuery(user, table)); }),
        C(11, "findDataOfTimePage", "0",
          [](S &s, O &o) { s.findDataOfTimePage(start, end, o.list, table, desc, 0, 7, 8); }),
        C(12, "findDataOfTime", "0", [](S &s, O &o) { s.findDataOfTime(start, end, o.list, table, asc); }),
        C(13, "getAllDataPage", "0", [](S &s, O &o) { s.getAllDataPage(table, o.list, asc, 0, 7, 8); }),
        C(14, "getCurrData", "0", [](S &s, O &o) { s.getCurrData(table, o.list, desc, 7); }),
        C(15, "getDataCountOfTimeQuery", "0",
          [](S &s, O &o) { o.returns(s.getDataCountOfTimeQuery("2024-05-05"_q, "2024-05-07"_q, table)); }),
        C(18, "tableIsExist", "false", [](S &s, O &o) { o.returns(s.tableIsExist(table)); }),
        C(19, "deleteTable", "false", [](S &s, O &o) { o.returns(s.deleteTable(table, "2024-05-07"_q)); }),
        C(20, "vacuumSqliteDB", "false", [](S &s, O &o) { o.returns(s.vacuumSqliteDB()); }),
        C(21, "resetID", "false", [](S &s, O &o) { o.returns(s.resetID(table)); }),
        C(22, "getDataCountOfTable", "0", [](S &s, O &o) { o.returns(s.getDataCountOfTable(table)); }),
        C(23, "getDataCountOfTableEndDate", "0",
          [](S &s, O &o) { o.returns(s.getDataCountOfTableEndDate(table, "2024-05-07"_q)); }),
        C(24, "deleteDataForMax", "false", [](S &s, O &o) { o.returns(s.deleteDataForMax(7, table)); }),
        C(25, "selectConfigInfo", "", [](S &s, O &o) { o.returns(s.selectConfigInfo()); }),
        C(26, "insertConfig", "0", [](S &s, O &) { s.insertConfig("T1"_q, "N1"_q); }),
        C(27, "selectNewDataOfRows", "0", [](S &s, O &o) { s.selectNewDataOfRows(table, 7, o.rows); }),
        C(28, "selectOldDataOfRows", "0", [](S &s, O &o) { s.selectOldDataOfRows(table, 7, o.rows); }),
        C(29, "selectDataOfRows", "0", [](S &s, O &o) { s.selectDataOfRows(table, 0, 7, o.rows, true); }),
        C(30, "selectDataOfDateRows", "0",
          [](S &s, O &o) { s.selectDataOfDateRows(table, "2024-05-07"_q, 0, 7, o.rows, false); }),
        C(31, "findNoRecoveryAlarm", "0", [](S &s, O &o) { s.findNoRecoveryAlarm(o.rows, "Ended"_q); }),
    };
    return all;
}
