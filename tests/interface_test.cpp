// SPDX-License-Identifier: MIT
//
// The binary contract with a host that was compiled long ago: the position of every virtual function, and the layout
// of every object that passes between the two. All of it is declared here once more, as such a host has it.
#include "operations.h"

#include <cstddef>
#include <cstring>
#include <new>

// In no unnamed namespace: a compiler that sees the whole hierarchy may take these for never implemented.
class HostInterface
{
public:
    virtual ~HostInterface() = 0; // slots 0 and 1
    virtual void dbWalCheckPoint() = 0;
    virtual bool createTable(QString, QString) = 0;
    virtual bool execSQL(QStringList, QList<QStringList> &, int) = 0;
    virtual void insertManyDatas(QList<QStringList> &, QString) = 0;
    virtual void findDataByTime(QString, QString, int, int, QList<QStringList> &, QString) = 0;
    virtual void findDataOfValue(QString, QString, void *, QString, QString) = 0;
    virtual void findDataOfUserNamePage(QString, void *, QString, QString, int, int, int) = 0;
    virtual void findDataOfUserName(QString, void *, QString, QString) = 0;
    virtual int getDataCountOfUserQuery(QString, QString) = 0;
    virtual void findDataOfTimePage(QString, QString, void *, QString, QString, int, int, int) = 0;
    virtual void findDataOfTime(QString, QString, void *, QString, QString) = 0;
    virtual void getAllDataPage(QString, void *, QString, int, int, int) = 0;
    virtual void getCurrData(QString, void *, QString, int) = 0;
    virtual int getDataCountOfTimeQuery(QString, QString, QString) = 0;
    virtual int openDB(QString) = 0;
    virtual int closeDB() = 0;
    virtual bool tableIsExist(QString) = 0;
    virtual bool deleteTable(QString, QString) = 0;
    virtual bool vacuumSqliteDB() = 0;
    virtual bool resetID(QString) = 0;
    virtual int getDataCountOfTable(QString) = 0;
    virtual int getDataCountOfTableEndDate(QString, QString) = 0;
    virtual bool deleteDataForMax(int, QString) = 0;
    virtual QStringList selectConfigInfo() = 0;
    virtual void insertConfig(QString, QString) = 0;
    virtual void selectNewDataOfRows(QString, int, QList<QStringList> &) = 0;
    virtual void selectOldDataOfRows(QString, int, QList<QStringList> &) = 0;
    virtual void selectDataOfRows(QString, int, int, QList<QStringList> &, bool) = 0;
    virtual void selectDataOfDateRows(QString, QString, int, int, QList<QStringList> &, bool) = 0;
    virtual void findNoRecoveryAlarm(QList<QStringList> &, QString) = 0;
};

namespace
{

struct HostStore {
    void **slots_; ///< of the virtual functions
    sqlite3 *connection;
    QMutex mutex;
};

struct HostSample {
    QString date;
    QString time;
    QString extraText;
    QString value;
};

struct HostAlarm {
    qint32 level;
    double limitValue;
    QString description;
    QString alarmObject;
    QString alarmType;
    QString currentValue;
    QString extraText;
    QDateTime startTime;
    QDateTime endTime;
};

struct HostEntry {
    QString userName;
    QString logName;
    QString message;
    QDateTime dateTime;
};

class Interface : public KindTest
{
protected:
    /// A closed store, as the host sees it. The test destroys it.
    HostInterface *newStore() { return reinterpret_cast<HostInterface *>(library::create(QString::fromLatin1(key()))); }
};

INSTANTIATE_TEST_SUITE_P(Kinds, Interface, everyKind(), nameOfKind);

// Of each slot: the statements that reach SQLite, the answer, and the output that was filled tell which operation ran
// and that its arguments arrived in order.
TEST_P(Interface, EverySlotReachesItsOwnOperation)
{
    for (const Call<HostInterface> &call : calls<HostInterface>()) {
        SCOPED_TRACE("slot " + std::to_string(call.slot) + ", " + call.name);
        const QString file = path(("slot" + std::to_string(call.slot) + call.name + ".db").c_str());
        prepareFile(file, GetParam());
        HostInterface *store = newStore();
        ASSERT_EQ(store->openDB(file), 0);
        trace.take();
        log.take();

        Outcome outcome(GetParam());
        call.on(*store, outcome);
        const Meaning *meaning = meaningOf(call.name, GetParam());
        EXPECT_EQ(trace.take(), meaning ? meaning->statements : QStringList());
        EXPECT_EQ(outcome.answer(), meaning ? meaning->answer : call.refusal);
        if (std::strcmp(call.name, "createTable") != 0) {
            EXPECT_EQ(log.take(), QStringList());
        }
        delete store;
    }
}

TEST_P(Interface, Slots16And17OpenAndCloseTheFile)
{
    prepareFile(path(), GetParam());
    HostInterface *store = newStore();
    EXPECT_FALSE(store->tableIsExist("AlarmData"_q));
    EXPECT_EQ(store->openDB(path()), 0);
    EXPECT_TRUE(store->tableIsExist("AlarmData"_q));
    EXPECT_EQ(store->closeDB(), 0);
    EXPECT_FALSE(store->tableIsExist("AlarmData"_q));
    EXPECT_EQ(store->openDB(path("no folder/store.db")), SQLITE_CANTOPEN);
    delete store;
}

TEST_P(Interface, Slot0DestroysAndLeavesTheMemoryToItsOwner)
{
    HostInterface *store = newStore();
    ASSERT_EQ(store->openDB(path()), 0);
    log.take();
    store->~HostInterface();
    EXPECT_EQ(log.take(), QStringList{"~interface_data_base"_q});
    ::operator delete(static_cast<void *>(store)); // freed twice if the slot had freed it
}

TEST_P(Interface, Slot1DestroysAndFrees)
{
    HostInterface *store = newStore();
    ASSERT_EQ(store->openDB(path()), 0);
    log.take();
    delete store;
    EXPECT_EQ(log.take(), QStringList{"~interface_data_base"_q});
}

TEST_P(Interface, TheConnectionIsTheFirstField)
{
    HostInterface *store = newStore();
    const auto fields = reinterpret_cast<const HostStore *>(store);
    EXPECT_EQ(fields->connection, nullptr);
    ASSERT_EQ(store->openDB(path()), 0);
    EXPECT_EQ(fields->connection, trace.connection());
    EXPECT_EQ(store->closeDB(), 0);
    EXPECT_EQ(fields->connection, nullptr);
    delete store;
}

TEST(Layout, NoStoreHasFieldsOfItsOwn)
{
    EXPECT_EQ(sizeof(interface_data_base), sizeof(HostStore));
    EXPECT_EQ(sizeof(history), sizeof(HostStore));
    EXPECT_EQ(sizeof(alarm_db), sizeof(HostStore));
    EXPECT_EQ(sizeof(operatorlog_db), sizeof(HostStore));
    EXPECT_EQ(sizeof(HostStore), 3 * sizeof(void *));
}

struct FieldPlace {
    const char *name;
    size_t declared;
    size_t expected;
};

#define FIELD(record, hostRecord, field)                                                                               \
    FieldPlace                                                                                                         \
    {                                                                                                                  \
#field, offsetof(record, field), offsetof(hostRecord, field)                                                   \
    }

void expectLayout(std::initializer_list<FieldPlace> fields)
{
    for (const FieldPlace &field : fields)
        EXPECT_EQ(field.declared, field.expected) << field.name;
}

TEST(Layout, ASampleIsFourTexts)
{
    expectLayout({FIELD(DataContent, HostSample, date), FIELD(DataContent, HostSample, time),
                  FIELD(DataContent, HostSample, extraText), FIELD(DataContent, HostSample, value)});
    EXPECT_EQ(sizeof(DataContent), sizeof(HostSample));
    EXPECT_EQ(sizeof(DataContent), 4 * sizeof(QString));
}

TEST(Layout, AnAlarmIsLevelLimitFiveTextsAndTwoTimes)
{
    expectLayout({FIELD(AlarmData, HostAlarm, level), FIELD(AlarmData, HostAlarm, limitValue),
                  FIELD(AlarmData, HostAlarm, description), FIELD(AlarmData, HostAlarm, alarmObject),
                  FIELD(AlarmData, HostAlarm, alarmType), FIELD(AlarmData, HostAlarm, currentValue),
                  FIELD(AlarmData, HostAlarm, extraText), FIELD(AlarmData, HostAlarm, startTime),
                  FIELD(AlarmData, HostAlarm, endTime)});
    EXPECT_EQ(sizeof(AlarmData), sizeof(HostAlarm));
}

TEST(Layout, AnEntryHasItsTimeLast)
{
    expectLayout({FIELD(OperatorLogData, HostEntry, userName), FIELD(OperatorLogData, HostEntry, logName),
                  FIELD(OperatorLogData, HostEntry, message), FIELD(OperatorLogData, HostEntry, dateTime)});
    EXPECT_EQ(sizeof(OperatorLogData), sizeof(HostEntry));
}

// The figures that hosts in the field were built with.
TEST(Layout, SizesAreThoseOfTheQtMajorAndTheProcessor)
{
    const bool qt6 = QT_VERSION >= QT_VERSION_CHECK(6, 0, 0);
    const bool wide = sizeof(void *) == 8;
    EXPECT_EQ(sizeof(QString), size_t(qt6 ? (wide ? 24 : 12) : (wide ? 8 : 4)));
    EXPECT_EQ(sizeof(AlarmData), size_t(qt6 ? (wide ? 152 : 88) : (wide ? 72 : 48)));
    EXPECT_EQ(sizeof(OperatorLogData), size_t(qt6 ? (wide ? 80 : 40) : (wide ? 32 : 16)));
    EXPECT_EQ(sizeof(history), size_t(wide ? 24 : 12));
}

TEST(Layout, ANewRecordIsEmpty)
{
    const DataContent sample;
    EXPECT_TRUE(sample.date.isNull() && sample.time.isNull() && sample.extraText.isNull() && sample.value.isNull());
    const AlarmData alarm;
    EXPECT_EQ(alarm.level, 0);
    EXPECT_EQ(alarm.limitValue, 0);
    EXPECT_TRUE(alarm.description.isNull() && alarm.alarmObject.isNull() && alarm.alarmType.isNull() &&
                alarm.currentValue.isNull() && alarm.extraText.isNull());
    EXPECT_FALSE(alarm.startTime.isValid() || alarm.endTime.isValid());
    const OperatorLogData entry;
    EXPECT_TRUE(entry.userName.isNull() && entry.logName.isNull() && entry.message.isNull());
    EXPECT_FALSE(entry.dateTime.isValid());
}

} // namespace
