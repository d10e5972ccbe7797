// SPDX-License-Identifier: MIT
//
// The files of earlier releases (tests/data) are read whole, and written on.
#include "operator_log.h"
#include "store_test.h"

#include <QCryptographicHash>
#include <QFile>

#include <algorithm>

namespace
{

class OldFiles : public StoreTest
{
protected:
    /// Opens a copy; the file itself must be the one that was committed.
    void openCopy(const char *key, const char *name, const char *sha256)
    {
        QFile file(QString::fromUtf8(OLD_FILES "/") + QString::fromLatin1(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        const QByteArray bytes = file.readAll();
        ASSERT_EQ(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex(), sha256);
        QFile copy(path());
        ASSERT_TRUE(copy.open(QIODevice::WriteOnly));
        ASSERT_EQ(copy.write(bytes), bytes.size());
        copy.close();
        open(key);
    }
    QStringList schema() const
    {
        QStringList texts;
        for (const QStringList &row : rowsOf(path(), "select sql from sqlite_master order by name"_q))
            texts.append(row.first());
        return texts;
    }
    QString sequenceOf(const QString &table) const
    {
        return valueOf(path(), "select seq from sqlite_sequence where name = '"_q + table + "'"_q);
    }
};

const QString sequenceTable = "CREATE TABLE sqlite_sequence(name,seq)"_q;
const QString year = "2024-01-01 00:00:00"_q, yearsEnd = "2024-12-31 23:59:59"_q;

class OldHistory : public OldFiles
{
protected:
    void SetUp() override
    {
        openCopy("historyDB", "history-1.0.db", "99a53039f0daacfda4f84c00555f31c60806bf1035ae7e79199cd11983b9b43f");
    }
    Rows samples()
    {
        Rows rows;
        for (const DataContent &sample : list)
            rows.append({sample.date + " "_q + sample.time, sample.value});
        list.clear();
        return rows;
    }

    QList<DataContent> list;
};

const Rows temperature{{"2024-05-06 07:00:00"_q, "20.5"_q},
                       {"2024-05-06 07:00:01"_q, "-7"_q},
                       {"2024-05-06 07:00:02"_q, "21 °C"_q},
                       {"2024-05-06 07:00:03"_q, "??"_q},
                       {"2024-05-06 07:00:05"_q, "%1 %2"_q}};
const Rows pressure{{"2024-01-01 00:00:00"_q, "1.01"_q}, {"2024-01-01 00:00:01"_q, "1.02"_q}};

Rows reversed(Rows rows)
{
    std::reverse(rows.begin(), rows.end());
    return rows;
}

TEST_F(OldHistory, HasItsSchema)
{
    EXPECT_EQ(
        schema(),
        QStringList({"CREATE TABLE Pressure(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q,
                     "CREATE TABLE Temperature(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q,
                     sequenceTable,
                     "CREATE TABLE tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)"_q}));
    store().createTable("Later"_q, "config"_q); // and a table of today has the same one
    EXPECT_EQ(valueOf(path(), "select replace(sql, 'Later', 'Pressure') from sqlite_master where name = 'Later'"_q),
              schema().value(1));
}

TEST_F(OldHistory, ListsItsTables)
{
    EXPECT_TRUE(store().tableIsExist("Temperature"_q));
    EXPECT_TRUE(store().tableIsExist("Pressure"_q));
    EXPECT_TRUE(store().tableIsExist("tb_config"_q));
    EXPECT_FALSE(store().tableIsExist("AlarmData"_q));
    EXPECT_EQ(store().selectConfigInfo(), QStringList({"@Temperature@Boiler 1"_q, "@Pressure@Kessel SÃ¼d"_q}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OldHistory, IsReadAsRecords)
{
    store().getCurrData("Temperature"_q, &list, "desc"_q, 99); // down to the sample without a time
    EXPECT_EQ(samples(), reversed(temperature));
    store().getAllDataPage("Temperature"_q, &list, "desc"_q, 0, 99, 99);
    EXPECT_EQ(samples(), reversed(temperature));
    store().getAllDataPage("Pressure"_q, &list, "asc"_q, 0, 99, 99);
    EXPECT_EQ(samples(), pressure);
    store().findDataOfTime("2024/01/01 00:00:00"_q, yearsEnd, &list, "Temperature"_q, "asc"_q);
    EXPECT_EQ(samples(), temperature);
    store().findDataOfTimePage(year, yearsEnd, &list, "Temperature"_q, "asc"_q, 1, 2, 0);
    EXPECT_EQ(samples(), temperature.mid(1, 2));
    store().findDataOfValue("2"_q, yearsEnd, &list, "Temperature"_q, "asc"_q);
    EXPECT_EQ(samples(), Rows({temperature.at(0), temperature.at(2), temperature.at(4)}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OldHistory, IsReadAsRowsAndCounted)
{
    Rows rows;
    store().findDataByTime(year, yearsEnd, -1, -1, rows, "Pressure"_q);
    EXPECT_EQ(rows, Rows({QStringList("2"_q) + pressure.at(0), QStringList("3"_q) + pressure.at(1)}));
    rows.clear();
    store().selectOldDataOfRows("Temperature"_q, 2, rows);
    EXPECT_EQ(rows, Rows({{"5"_q, ""_q, ""_q}, QStringList("1"_q) + temperature.at(0)}));
    rows.clear();
    store().selectNewDataOfRows("Temperature"_q, 1, rows);
    EXPECT_EQ(rows, Rows({QStringList("6"_q) + temperature.at(4)}));
    EXPECT_EQ(store().getDataCountOfTable("Temperature"_q), 6);
    EXPECT_EQ(store().getDataCountOfTable("Pressure"_q), 2);
    EXPECT_EQ(store().getDataCountOfTableEndDate("Temperature"_q, "2024-05-06 07:00:01"_q), 3);
    EXPECT_EQ(store().getDataCountOfTimeQuery(year, yearsEnd, "Temperature"_q), 5);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OldHistory, IsWrittenOn)
{
    Rows rows{{"2024/05/06 07:00:06"_q, "22"_q}};
    store().insertManyDatas(rows, "Temperature"_q);
    EXPECT_EQ(sequenceOf("Temperature"_q), "7"_q);
    store().getCurrData("Temperature"_q, &list, "desc"_q, 1);
    EXPECT_EQ(samples(), Rows({{"2024-05-06 07:00:06"_q, "22"_q}}));
    EXPECT_FALSE(store().createTable("Temperature"_q, "Boiler 1"_q));
}

class OldAlarms : public OldFiles
{
protected:
    void SetUp() override
    {
        openCopy("alarmDB", "alarm-1.0.db", "b6ab8bae380550f6c156d9351cd45583fb0b6d2aab2533d6752c578721a94e63");
    }
    Rows alarms()
    {
        Rows rows;
        for (const AlarmData &alarm : list)
            rows.append({QString::number(alarm.level), alarm.startTime.toString("yyyy-MM-dd hh:mm:ss"_q),
                         alarm.alarmObject, alarm.alarmType, alarm.currentValue, QString::number(alarm.limitValue),
                         alarm.description});
        list.clear();
        return rows;
    }

    QList<AlarmData> list;
};

const Rows activeAlarms{{"2"_q, "2024-05-06 07:08:09"_q, "Pump 1"_q, "High"_q, "87.5"_q, "80"_q, "Level above limit"_q},
                        {"1"_q, "2024-05-06 07:08:10"_q, "Pump 2"_q, "Low"_q, "3,5"_q, "10"_q, "it's low"_q},
                        {"0"_q, "2024-05-06 07:08:11"_q, "Größe 温度"_q, "Type"_q, "x"_q, "0"_q, "GrÃ¶Ã\u009Fe"_q}};
const QStringList oddAlarm{"4"_q, ""_q, "Valve"_q, "Open"_q, "1"_q, "2"_q, "odd time"_q};

TEST_F(OldAlarms, HaveTheirSchema)
{
    EXPECT_EQ(
        schema(),
        QStringList({"CREATE TABLE AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,"
                     "AlarmObject text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,"
                     "EndDate text,EndTime text)"_q,
                     sequenceTable}));
    store().createTable("Later"_q, QString());
    EXPECT_EQ(valueOf(path(), "select replace(sql, 'Later', 'AlarmData') from sqlite_master where name = 'Later'"_q),
              schema().value(0));
}

TEST_F(OldAlarms, AreReadAsRecords)
{
    store().getAllDataPage("AlarmData"_q, &list, "asc"_q, 0, 0, 0);
    EXPECT_EQ(alarms(), activeAlarms + Rows({oddAlarm}));
    store().findDataOfTime("2024/01/01 00:00:00"_q, yearsEnd, &list, "AlarmData"_q, "desc"_q);
    EXPECT_EQ(alarms(), reversed(activeAlarms));
    store().findDataOfTimePage(year, yearsEnd, &list, "AlarmData"_q, "asc"_q, 1, 1, 0);
    EXPECT_EQ(alarms(), activeAlarms.mid(1, 1));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OldAlarms, AreReadAsRowsAndCounted)
{
    const Rows ended{{"4"_q, "3"_q, "2024-05-06 07:08:12"_q, "Pump 1"_q, "High"_q, "90"_q, "80"_q, "ended"_q,
                      "2024/05/07"_q, "08:00:00"_q},
                     {"5"_q, "3"_q, "2024-05-06 07:08:13"_q, "Pump 1"_q, "High"_q, "91"_q, "80"_q, "half ended"_q,
                      "2024-05-07"_q, ""_q}};
    Rows rows;
    store().findDataByTime("2024-05-06 07:08:12"_q, yearsEnd, 0, 9, rows, "AlarmData"_q);
    EXPECT_EQ(rows, ended);
    store().findDataByTime(year, yearsEnd, 0, 9, rows, "AlarmData"_q);
    EXPECT_EQ(rows.size(), 5);
    rows.clear();
    store().findNoRecoveryAlarm(rows, "AlarmData"_q);
    EXPECT_EQ(rows.size(), 4);
    EXPECT_EQ(store().getDataCountOfTable("AlarmData"_q), 6);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OldAlarms, AreWrittenOnAndPurged)
{
    Rows rows{{"2"_q, "2024/05/08"_q, "07:08:09"_q, "Pump 3"_q, "High"_q, "1"_q, "2"_q, "new"_q, ""_q, ""_q}};
    store().insertManyDatas(rows, QString());
    EXPECT_EQ(sequenceOf("AlarmData"_q), "7"_q);
    EXPECT_TRUE(store().deleteTable("AlarmData"_q, "2024-05-06 07:08:10"_q)); // the first one, and the ended one
    EXPECT_EQ(rowsOf(path(), "select ID from AlarmData order by ID"_q),
              Rows({{"2"_q}, {"3"_q}, {"5"_q}, {"6"_q}, {"7"_q}}));
}

class OldOperatorLog : public OldFiles
{
protected:
    void SetUp() override
    {
        openCopy("operatorLogDB", "operatorlog-1.0.db",
                 "8996e90f24e6de89d0980beeefa85ccea83b29f24c48ad2f5318b3efc47bef4d");
    }
    Rows found()
    {
        const Rows rows = textsOf(list);
        list.clear();
        return rows;
    }

    QList<OperatorLogData> list;
};

// In the order of their raw times.
const Rows entries{{"2024-05-06 07:08:09.123"_q, "admin"_q, "Login"_q, "Logged in"_q},
                   {"2024-05-06 07:08:09.999"_q, "O'Neill"_q, "Note"_q, "it's 5 o'clock"_q},
                   {"2024-05-06 07:08:10.000"_q, "Jürgen"_q, "温度"_q, "limit → 85 😀"_q},
                   {"invalid"_q, "admin"_q, "No milliseconds"_q, "%1 %5"_q},
                   {"2024-05-07 00:00:00.000"_q, "admin"_q, "Logout"_q, ""_q},
                   {"invalid"_q, "admin"_q, "Slashes"_q, ""_q}};

TEST_F(OldOperatorLog, HasItsSchema)
{
    EXPECT_EQ(schema(), QStringList({"CREATE TABLE OperatorLog(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime "
                                     "NOT NULL,userName text,logName text,message text)"_q,
                                     sequenceTable}));
    store().createTable("Later"_q, QString());
    EXPECT_EQ(valueOf(path(), "select replace(sql, 'Later', 'OperatorLog') from sqlite_master where name = 'Later'"_q),
              schema().value(1));
}

TEST_F(OldOperatorLog, IsReadAsRecords)
{
    store().getCurrData("OperatorLog"_q, &list, "asc"_q, 99);
    EXPECT_EQ(found(), entries);
    store().getAllDataPage("OperatorLog"_q, &list, "desc"_q, 0, 99, 0);
    EXPECT_EQ(found(), reversed(entries));
    store().findDataOfTime("2024/05/06 07:08:09"_q, "2024/05/06 07:08:09"_q, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), entries.mid(0, 2));
    store().findDataOfTimePage(year, yearsEnd, &list, "OperatorLog"_q, "desc"_q, 1, 2, 0);
    EXPECT_EQ(found(), reversed(entries.mid(2, 2)));
    store().findDataOfUserName("admin"_q, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), Rows({entries.at(0), entries.at(3), entries.at(4), entries.at(5)}));
    store().findDataOfUserNamePage("Jürgen"_q, &list, "OperatorLog"_q, "desc"_q, 0, 9, 0);
    EXPECT_EQ(found(), Rows({entries.at(2)}));
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OldOperatorLog, IsReadAsRowsAndCounted)
{
    Rows rows;
    store().selectNewDataOfRows("OperatorLog"_q, 1, rows);
    EXPECT_EQ(rows, Rows({{"4"_q, "2024/05/06 07:08:11.000"_q, "admin"_q, "Slashes"_q, ""_q}}));
    EXPECT_EQ(store().getDataCountOfUserQuery("admin"_q, "OperatorLog"_q), 4);
    EXPECT_EQ(store().getDataCountOfTable("OperatorLog"_q), 6);
    EXPECT_EQ(store().getDataCountOfTimeQuery(year, yearsEnd, "OperatorLog"_q), 5);
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(OldOperatorLog, IsWrittenOn)
{
    Rows rows{{"2024-12-01 00:00:00.000"_q, "admin"_q, "Login"_q, "later"_q}};
    store().insertManyDatas(rows, "OperatorLog"_q);
    EXPECT_EQ(sequenceOf("OperatorLog"_q), "7"_q);
    store().findDataOfTime("2024-12-01 00:00:00"_q, yearsEnd, &list, "OperatorLog"_q, "asc"_q);
    EXPECT_EQ(found(), rows);
}

} // namespace
