// SPDX-License-Identifier: MIT
#pragma once

#include "typed_records.h"

#include <memory>
#include <string>

/// Another way from Qt to SQLite, used as well as it allows, on one database file. As the library does, it
/// writes a batch in one transaction and keeps no statement between two calls. Failures are thrown.
class Peer
{
public:
    Peer() = default;
    virtual ~Peer() = default;

    virtual void insertPrepared(const Kind &kind, const Rows &rows) = 0;
    /// One statement text a row, PLAIN's.
    virtual void insertText(const Kind &kind, const Rows &rows) = 0;
    /// One statement text per row, joined directly. Worth a line for the fastest peer alone.
    virtual void insertJoined(const Kind &, const Rows &) {}

    virtual void read(const Kind &kind, const QString &sql, QList<DataContent> &samples) = 0;
    virtual void read(const Kind &kind, const QString &sql, QList<AlarmData> &alarms) = 0;
    virtual void read(const Kind &kind, const QString &sql, QList<OperatorLogData> &entries) = 0;
    virtual void read(const Kind &kind, const QString &sql, QList<QStringList> &result) = 0;

    // The host layer's records, in one transaction.
    virtual void appendPrepared(const QList<device::Sample> &samples) = 0;
    virtual void appendPrepared(const QList<device::Alarm> &alarms) = 0;
    virtual void appendPrepared(const QList<device::LogEntry> &entries) = 0;
    virtual void appendText(const QList<device::Sample> &samples) = 0;
    virtual void appendText(const QList<device::Alarm> &alarms) = 0;
    virtual void appendText(const QList<device::LogEntry> &entries) = 0;
    virtual void readTyped(const QString &sql, QList<device::Sample> &samples) = 0;
    virtual void readTyped(const QString &sql, QList<device::Alarm> &alarms) = 0;
    virtual void readTyped(const QString &sql, QList<device::LogEntry> &entries) = 0;
    /// Sample after sample into table after table, beginning anew after the last: one prepared statement per table,
    /// kept from batch to batch as an application does that stores the same series for years.
    virtual void appendRoundRobin(const QStringList &tables, const QList<device::Sample> &samples) = 0;

private:
    Q_DISABLE_COPY(Peer)
};

struct PeerType {
    const char *name;
    std::unique_ptr<Peer> (*open)(const QString &path);
    std::string (*version)();
};

extern const PeerType qtSqlPeer;
extern const PeerType sqliteCppPeer;
extern const PeerType sociPeer;
extern const PeerType pocoPeer;

/// "insert into Table values(NULL,?,?)".
QString preparedInsert(const Kind &kind);
QString preparedInsert(const Kind &kind, const QString &table);
/// PLAIN's statement for the row.
QString textInsert(const Kind &kind, const QStringList &row);
/// The same in the fewest steps.
std::string joinedInsert(const Kind &kind, const QStringList &row);

// One row of a result as a record. `cells` gives text(i), integer(i), real(i) and size() in the peer's
// fastest form. The times are in ISO 8601 form, which Qt parses faster than a format.

inline QDateTime isoTime(const QString &text)
{
    return text.isEmpty() ? QDateTime() : QDateTime::fromString(text, Qt::ISODateWithMs);
}

template<typename Cells>
void fill(DataContent &sample, const Cells &cells)
{
    const QString dateTime = cells.text(1);
    sample.date = dateTime.left(10);
    sample.time = dateTime.mid(11);
    sample.value = cells.text(2);
}

template<typename Cells>
void fill(AlarmData &alarm, const Cells &cells)
{
    alarm.level = cells.integer(1);
    alarm.startTime = isoTime(cells.text(2));
    alarm.alarmObject = cells.text(3);
    alarm.alarmType = cells.text(4);
    alarm.currentValue = cells.text(5);
    alarm.limitValue = cells.real(6);
    alarm.description = cells.text(7);
    const QString endDate = cells.text(8);
    if (!endDate.isEmpty())
        alarm.endTime = isoTime(endDate + QLatin1Char(' ') + cells.text(9));
}

template<typename Cells>
void fill(OperatorLogData &entry, const Cells &cells)
{
    entry.dateTime = isoTime(cells.text(1));
    entry.userName = cells.text(2);
    entry.logName = cells.text(3);
    entry.message = cells.text(4);
}

template<typename Cells>
void fill(QStringList &row, const Cells &cells)
{
    row.reserve(cells.size());
    for (int column = 0; column < cells.size(); ++column)
        row.append(cells.text(column));
}

/// Forwards the overloads to `Derived::readInto(kind, sql, list)`, appendRecords(list), appendTexts(list) and
/// readRecords(sql, list).
template<typename Derived>
class PeerBase : public Peer
{
public:
    void read(const Kind &kind, const QString &sql, QList<DataContent> &samples) override
    {
        self().readInto(kind, sql, samples);
    }
    void read(const Kind &kind, const QString &sql, QList<AlarmData> &alarms) override
    {
        self().readInto(kind, sql, alarms);
    }
    void read(const Kind &kind, const QString &sql, QList<OperatorLogData> &entries) override
    {
        self().readInto(kind, sql, entries);
    }
    void read(const Kind &kind, const QString &sql, QList<QStringList> &result) override
    {
        self().readInto(kind, sql, result);
    }

    void appendPrepared(const QList<device::Sample> &samples) override { self().appendRecords(samples); }
    void appendPrepared(const QList<device::Alarm> &alarms) override { self().appendRecords(alarms); }
    void appendPrepared(const QList<device::LogEntry> &entries) override { self().appendRecords(entries); }
    void appendText(const QList<device::Sample> &samples) override { self().appendTexts(samples); }
    void appendText(const QList<device::Alarm> &alarms) override { self().appendTexts(alarms); }
    void appendText(const QList<device::LogEntry> &entries) override { self().appendTexts(entries); }
    void readTyped(const QString &sql, QList<device::Sample> &samples) override { self().readRecords(sql, samples); }
    void readTyped(const QString &sql, QList<device::Alarm> &alarms) override { self().readRecords(sql, alarms); }
    void readTyped(const QString &sql, QList<device::LogEntry> &entries) override { self().readRecords(sql, entries); }

private:
    Derived &self() { return *static_cast<Derived *>(this); }
};
