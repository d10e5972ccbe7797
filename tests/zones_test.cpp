// SPDX-License-Identifier: MIT
//
// The date-times of records are local time, read as this Qt's own QDateTime::fromString reads them, gaps and
// overlaps of daylight saving included. CTest runs this program once a zone (DEVICE_DATABASE_TEST_ZONE).
#include "store_test.h"

namespace
{

const QString millisecondFormat = "yyyy-MM-dd hh:mm:ss.zzz"_q;
const QString secondFormat = "yyyy-MM-dd hh:mm:ss"_q;

// To the second. The gaps and overlaps are those of Berlin and New York; elsewhere the times are ordinary ones.
const char *const times[] = {
    "2024-01-15 12:00:00", "2024-07-15 12:00:00",                        // winter, summer
    "2024-03-31 01:59:59", "2024-03-31 02:00:00", "2024-03-31 02:30:00", // Berlin springs forward
    "2024-03-31 02:59:59", "2024-03-31 03:00:00",                        //
    "2024-10-27 01:59:59", "2024-10-27 02:00:00", "2024-10-27 02:30:00", // Berlin falls back
    "2024-10-27 02:59:59", "2024-10-27 03:00:00",                        //
    "2024-03-10 01:59:59", "2024-03-10 02:00:00", "2024-03-10 02:30:00", // New York springs forward
    "2024-03-10 02:59:59", "2024-03-10 03:00:00",                        //
    "2024-11-03 00:59:59", "2024-11-03 01:00:00", "2024-11-03 01:30:00", // New York falls back
    "2024-11-03 01:59:59", "2024-11-03 02:00:00",                        //
    "1970-01-01 00:00:00", "1969-12-31 23:59:59", "2038-01-19 03:14:08", // the ends of 32 bits
    "1583-01-01 00:00:00", "7999-12-31 23:59:59",                        //
};

/// Everything that two date-times can differ in.
QStringList describe(const QDateTime &time)
{
    return {time.isValid() ? "valid"_q : "invalid"_q,
            time.isNull() ? "null"_q : "not null"_q,
            time.date().toString(Qt::ISODate),
            time.time().toString("hh:mm:ss.zzz"_q),
            QString::number(time.timeSpec()),
            time.isValid() ? QString::number(time.toMSecsSinceEpoch()) : QString(),
            time.isValid() ? QString::number(time.offsetFromUtc()) : QString()};
}

class Zones : public StoreTest
{
protected:
    QByteArray zone = qgetenv("DEVICE_DATABASE_TEST_ZONE");
};

TEST_F(Zones, TheZoneIsTheOneThatWasAskedFor)
{
    const auto hours = [](int month) {
        return QDateTime(QDate(2024, month, 15), QTime(12, 0)).offsetFromUtc() / 3600.0;
    };
    const QList<double> offsets{hours(1), hours(7)};
    if (!qEnvironmentVariableIsSet("DEVICE_DATABASE_TEST_ZONE") || zone == "UTC")
        EXPECT_EQ(offsets, QList<double>({0, 0}));
    else if (zone.isEmpty())
        EXPECT_FALSE(qEnvironmentVariableIsSet("TZ")); // the system's zone, whatever it is
    else if (zone == "Europe/Berlin")
        EXPECT_EQ(offsets, QList<double>({1, 2}));
    else if (zone == "America/New_York")
        EXPECT_EQ(offsets, QList<double>({-5, -4}));
    else
        FAIL() << zone.constData() << " has no expectation here";
}

TEST_F(Zones, AnOperatorLogTimeIsWhatThisQtReads)
{
    open("operatorLogDB");
    store().createTable("OperatorLog"_q, QString());
    Rows rows;
    for (const char *time : times)
        for (const char *milliseconds : {".000", ".500", ".999"})
            rows.append(
                {QString::fromLatin1(time) + QString::fromLatin1(milliseconds), "admin"_q, "log"_q, "message"_q});
    store().insertManyDatas(rows, "OperatorLog"_q);
    log.take();

    for (const QStringList &row : rows) {
        const QString second = row.first().left(int(qstrlen("yyyy-MM-dd hh:mm:ss")));
        QList<OperatorLogData> entries;
        store().findDataOfTime(second, second, &entries, "OperatorLog"_q, "asc"_q);
        ASSERT_EQ(entries.size(), 3) << qPrintable(second); // ranges compare text and know no zone
        const OperatorLogData &entry = entries.at(row.first().endsWith(".000"_q)   ? 0
                                                  : row.first().endsWith(".500"_q) ? 1
                                                                                   : 2);
        EXPECT_EQ(describe(entry.dateTime), describe(QDateTime::fromString(row.first(), millisecondFormat)))
            << qPrintable(row.first());
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(Zones, AnAlarmsStartIsWhatThisQtReads)
{
    open("alarmDB");
    store().createTable("AlarmData"_q, QString());
    Rows rows;
    for (const char *time : times) {
        const QStringList dateAndTime = QString::fromLatin1(time).split(" "_q);
        rows.append(
            {"1"_q, dateAndTime.at(0), dateAndTime.at(1), "Pump"_q, "High"_q, "1"_q, "2"_q, "text"_q, ""_q, ""_q});
    }
    store().insertManyDatas(rows, QString());
    log.take();

    for (const char *text : times) {
        const QString time = QString::fromLatin1(text);
        QList<AlarmData> alarms;
        store().findDataOfTime(time, time, &alarms, "AlarmData"_q, "asc"_q);
        ASSERT_EQ(alarms.size(), 1) << text;
        EXPECT_EQ(describe(alarms.first().startTime), describe(QDateTime::fromString(time, secondFormat))) << text;
        EXPECT_EQ(describe(alarms.first().endTime), describe(QDateTime::fromString(" "_q, secondFormat))) << text;
    }
    EXPECT_EQ(log.take(), QStringList());
}

TEST_F(Zones, ASamplesTimeStaysText)
{
    open("historyDB");
    store().createTable("T1"_q, "config"_q);
    Rows rows;
    for (const char *time : times)
        rows.append({QString::fromLatin1(time), "7.5"_q});
    store().insertManyDatas(rows, "T1"_q);

    QStringList read;
    QList<DataContent> samples;
    store().findDataOfTime("1500-01-01"_q, "9000-01-01"_q, &samples, "T1"_q, "asc"_q);
    for (const DataContent &sample : samples)
        read.append(sample.date + " "_q + sample.time);
    QStringList expected;
    for (const char *time : times)
        expected.append(QString::fromLatin1(time));
    expected.sort();
    EXPECT_EQ(read, expected);
}

} // namespace
