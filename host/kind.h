// SPDX-License-Identifier: MIT
#ifndef DEVICE_KIND_H
#define DEVICE_KIND_H

#include "device/query.h"
#include "row_text.h"

#include <QVariant>
#include <QVector>

namespace device
{

struct Column {
    const char *name;
    const char *type;
    const char *title; ///< For people.
};

/// A time for a model: a QDateTime, or a text for a time in the hour that the zone leaves out in spring.
QVariant timeCell(LocalTime time, bool withMilliseconds);

/// What differs between the kinds of records: the columns after ID, and the two ways between a record and a row.
/// Everything else is built from this.
template<typename Record>
struct Kind;

template<>
struct Kind<Sample> {
    static constexpr bool milliseconds = false;
    static const QVector<Column> &columns();
    static void encode(const Sample &sample, RowText &row);
    template<typename Cells>
    static Sample decode(Cells &row); ///< RowCells or ColumnCells.
    static QVector<QVariant> cells(const Sample &sample);
    static QString condition(const Filter<Sample> &filter); ///< Empty for no condition.
};

template<>
struct Kind<Alarm> {
    static constexpr bool milliseconds = false;
    static const QVector<Column> &columns();
    static void encode(const Alarm &alarm, RowText &row);
    template<typename Cells>
    static Alarm decode(Cells &row);
    static QVector<QVariant> cells(const Alarm &alarm);
    static QString condition(const Filter<Alarm> &filter);
};

template<>
struct Kind<LogEntry> {
    static constexpr bool milliseconds = true;
    static const QVector<Column> &columns();
    static void encode(const LogEntry &entry, RowText &row);
    template<typename Cells>
    static LogEntry decode(Cells &row);
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
