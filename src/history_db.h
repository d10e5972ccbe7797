// SPDX-License-Identifier: MIT
#ifndef HISTORY_DB_H
#define HISTORY_DB_H

#include "interface_data_base.h"

/// One sample. The layout is the contract with the host.
struct DataContent {
    QString date;      ///< "yyyy-MM-dd"
    QString time;      ///< "hh:mm:ss"
    QString extraText; ///< Never filled; empty.
    QString value;
};
Q_DECLARE_TYPEINFO(DataContent, Q_MOVABLE_TYPE);

/// The store for sampled values: one value table per series, and tb_config, which lists them.
/// The operations are described at interface_data_base.
class history : public interface_data_base
{
public:
    bool createTable(QString table, QString configName) override;
    bool execSQL(QStringList statements, QList<QStringList> &result, int mode) override;
    void insertManyDatas(QList<QStringList> &rows, QString table) override;
    void findDataByTime(QString start, QString end, int page, int pageSize, QList<QStringList> &result,
                        QString table) override;
    void findDataOfValue(QString value, QString end, void *list, QString table, QString order) override;
    void findDataOfUserNamePage(QString, void *, QString, QString, int, int, int) override {}
    void findDataOfUserName(QString, void *, QString, QString) override {}
    int getDataCountOfUserQuery(QString, QString) override { return 0; }
    void findDataOfTimePage(QString start, QString end, void *list, QString table, QString order, int offset, int count,
                            int) override;
    void findDataOfTime(QString start, QString end, void *list, QString table, QString order) override;
    void getAllDataPage(QString table, void *list, QString order, int offset, int count, int newestSpan) override;
    void getCurrData(QString table, void *list, QString order, int count) override;
    int getDataCountOfTimeQuery(QString start, QString end, QString table) override;
};

#endif
