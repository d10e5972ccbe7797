// SPDX-License-Identifier: MIT
#ifndef OPERATORLOG_DB_H
#define OPERATORLOG_DB_H

#include "interface_data_base.h"

#include <QDateTime>

/// One entry of the operator log. The layout is the contract with the host: the time comes last here,
/// though it comes first in the table.
struct OperatorLogData {
    QString userName;
    QString logName;
    QString message;
    QDateTime dateTime; ///< Local time with milliseconds; invalid if the text is not such a time.
};
Q_DECLARE_TYPEINFO(OperatorLogData, Q_MOVABLE_TYPE);

/// The store for the operator log: who did what, to the millisecond.
/// The operations are described at interface_data_base.
class operatorlog_db : public interface_data_base
{
public:
    bool createTable(QString table, QString) override;
    bool execSQL(QStringList, QList<QStringList> &, int) override { return false; }
    void insertManyDatas(QList<QStringList> &rows, QString table) override;
    void findDataByTime(QString, QString, int, int, QList<QStringList> &, QString) override {}
    void findDataOfValue(QString, QString, void *, QString, QString) override {}
    void findDataOfUserNamePage(QString user, void *list, QString table, QString order, int offset, int count,
                                int newestSpan) override;
    void findDataOfUserName(QString user, void *list, QString table, QString order) override;
    int getDataCountOfUserQuery(QString user, QString table) override;
    void findDataOfTimePage(QString start, QString end, void *list, QString table, QString order, int offset, int count,
                            int newestSpan) override;
    void findDataOfTime(QString start, QString end, void *list, QString table, QString order) override;
    void getAllDataPage(QString table, void *list, QString order, int offset, int count, int newestSpan) override;
    void getCurrData(QString table, void *list, QString order, int count) override;
};

#endif
