// SPDX-License-Identifier: MIT
#ifndef DEVICE_KIND_H
#define DEVICE_KIND_H

#include "device/query.h"
#include "device/result.h"

#include <QStringList>
#include <QVariant>
#include <QVector>

namespace device
{

/// A text as an SQL literal: between single quotes, each quote inside doubled.
QString quoted(const QString &text);

/// Why a text would not come back from the file as it went in; null when it would.
const char *unstorable(const QString &text);

/// Writes a time as the tables hold it. `withMilliseconds`: the log's form. False for a time they cannot hold.
bool appendTime(QString &to, LocalTime time, bool withMilliseconds);
LocalTime parseTime(const QString &text, bool withMilliseconds);

/// Builds "(NULL,'...','...')" for one record and remembers the first cell that cannot be held.
class RowText
{
public:
    RowText() : m_sql(QStringLiteral("(NULL")) {}

    void number(int value);
    void time(LocalTime time, bool withMilliseconds);
    /// Two cells, the date and the clock; both empty without a time.
    void dateAndClock(const std::optional<LocalTime> &time);
    void text(const char *column, const QString &text);

    /// The whole text, or the Error for the operation and table.
    Result<QString> take(const QString &operation, const QString &table);

private:
    void refuse(Error::Code code, const QString &cause);

    QString m_sql;
    bool m_refused = false;
    Error::Code m_code = Error::Failed;
    QString m_cause;
};

struct Column {
    const char *name;
    const char *type;
    const char *title; ///< For people.
};

/// What differs between the kinds of records: the columns behind ID, and the two ways between a record and a
/// row. Everything else is built from this.
template<typename Record>
struct Kind;

template<>
struct Kind<Sample> {
    static constexpr bool milliseconds = false;
    static const QVector<Column> &columns();
    static void encode(const Sample &sample, RowText &row);
    static Sample decode(QStringList row);
    static QVector<QVariant> cells(const Sample &sample);
    static QString condition(const Filter<Sample> &filter); ///< Empty for no condition.
};

template<>
struct Kind<Alarm> {
    static constexpr bool milliseconds = false;
    static const QVector<Column> &columns();
    static void encode(const Alarm &alarm, RowText &row);
    static Alarm decode(QStringList row);
    static QVector<QVariant> cells(const Alarm &alarm);
    static QString condition(const Filter<Alarm> &filter);
};

template<>
struct Kind<LogEntry> {
    static constexpr bool milliseconds = true;
    static const QVector<Column> &columns();
    static void encode(const LogEntry &entry, RowText &row);
    static LogEntry decode(QStringList row);
    static QVector<QVariant> cells(const LogEntry &entry);
    static QString condition(const Filter<LogEntry> &filter);
};

/// The UPDATE that ends the active alarms of an object and type.
Result<QString> endingStatement(const QString &operation, const QString &table, const QString &object,
                                const QString &type, LocalTime when);

/// The INSERT that raises an alarm unless one of the same object and type is active; changes() says whether it did.
Result<QString> raisingStatement(const QString &operation, const QString &table, const Alarm &alarm);

} // namespace device

#endif
