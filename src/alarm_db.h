// SPDX-License-Identifier: MIT
#ifndef ALARM_DB_H
#define ALARM_DB_H

#include "interface_data_base.h"

#include <QDateTime>

/// One alarm. The layout is the contract with the host.
struct AlarmData {
    int level = 0;         ///< 0 if the cell is not a number.
    double limitValue = 0; ///< 0 if the cell is not a number.
    QString description;
    QString alarmObject;
    QString alarmType;
    QString currentValue; ///< Text, unlike the limit.
    QString extraText;    ///< Never filled; empty.
    QDateTime startTime;  ///< Local time; invalid if the text is not a time.
    QDateTime endTime; ///< Of an active alarm invalid, and the record queries return only active ones. They go by the
                       ///< columns' names, this field by the last two cells: another layout can make it valid.
};
Q_DECLARE_TYPEINFO(AlarmData, Q_MOVABLE_TYPE);

/// The store for alarms: when one started, what raised it, and when it ended.
/// An alarm is active while its end date and end time are both empty.
/// The operations are described at interface_data_base.
class alarm_db : public interface_data_base
{
public:
    bool createTable(QString table, QString) override;
    bool execSQL(QStringList statements, QList<QStringList> &result, int mode) override;
    void insertManyDatas(QList<QStringList> &rows, QString) override;
    void findDataByTime(QString start, QString end, int page, int pageSize, QList<QStringList> &result,
                        QString table) override;
    void findDataOfValue(QString, QString, void *, QString, QString) override {}
    void findDataOfUserNamePage(QString, void *, QString, QString, int, int, int) override {}
    void findDataOfUserName(QString, void *, QString, QString) override {}
    int getDataCountOfUserQuery(QString, QString) override { return 0; }
    void findDataOfTimePage(QString start, QString end, void *list, QString table, QString order, int offset, int count,
                            int) override;
    void findDataOfTime(QString start, QString end, void *list, QString table, QString order) override;
    void getAllDataPage(QString table, void *list, QString order, int, int, int) override;
    void getCurrData(QString, void *, QString, int) override {}
    bool deleteTable(QString table, QString threshold) override;
};

#endif
