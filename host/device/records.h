// SPDX-License-Identifier: MIT
#ifndef DEVICE_RECORDS_H
#define DEVICE_RECORDS_H

#include "number.h"

#include <QDateTime>
#include <QMetaType>
#include <QString>

#include <limits>
#include <optional>
#include <utility>

namespace device
{

/// A time as the tables hold it: calendar and clock of the device, without a zone. To the second in samples and
/// alarms (fractions are cut off when they are stored), to the millisecond in the log. A text of a file that is
/// no such time is read as an invalid one; its record still comes.
///
/// A QDateTime is taken wherever one is asked for; the way back is toDateTime(). It is not a QDateTime because that
/// asks the zone at every construction, which makes reading three times as slow, and because an hour that the zone
/// leaves out in spring is a time like any other here.
class DEVICE_HOST_EXPORT LocalTime
{
public:
    LocalTime() = default;
    LocalTime(const QDate &date, const QTime &time)
        : m_msecs(date.isValid() && time.isValid() && qAbs(date.toJulianDay()) < farthestDay
                      ? date.toJulianDay() * msecsPerDay + time.msecsSinceStartOfDay()
                      : invalid)
    {
    }
    LocalTime(const QDateTime &time) : LocalTime(local(time)) {}

    /// The time of this device's clock, in its zone.
    static LocalTime now() { return QDateTime::currentDateTime(); }

    bool isValid() const { return m_msecs != invalid; }
    QDate date() const { return isValid() ? QDate::fromJulianDay(days()) : QDate(); }
    QTime time() const
    {
        return isValid() ? QTime::fromMSecsSinceStartOfDay(int(m_msecs - days() * msecsPerDay)) : QTime();
    }
    QDateTime toDateTime() const { return isValid() ? QDateTime(date(), time()) : QDateTime(); }

    friend bool operator==(LocalTime a, LocalTime b) { return a.m_msecs == b.m_msecs; }
    friend bool operator!=(LocalTime a, LocalTime b) { return a.m_msecs != b.m_msecs; }
    friend bool operator<(LocalTime a, LocalTime b) { return a.m_msecs < b.m_msecs; }

private:
    static constexpr qint64 msecsPerDay = 86400000;
    static constexpr qint64 farthestDay = std::numeric_limits<qint64>::max() / msecsPerDay - 1;
    static constexpr qint64 invalid = std::numeric_limits<qint64>::min();

    static LocalTime local(const QDateTime &time)
    {
        const QDateTime here = time.toLocalTime();
        return here.isValid() ? LocalTime(here.date(), here.time()) : LocalTime();
    }
    qint64 days() const { return m_msecs >= 0 ? m_msecs / msecsPerDay : -((-m_msecs + msecsPerDay - 1) / msecsPerDay); }

    qint64 m_msecs = invalid;
};

/// One sampled value.
struct DEVICE_HOST_EXPORT Sample {
    Sample() = default;
    Sample(LocalTime when, QString text) : time(when), value(std::move(text)) {}
    /// The value as numberText() writes it: number() gives the same double. One that is not finite is stored as a text
    /// that is not a number.
    Sample(LocalTime when, double amount) : time(when), value(numberText(amount)) {}

    LocalTime time;
    QString value;
    qint64 id = 0; ///< The row's ID in the table; 0 for one not read from a file. Not compared.

    /// The value as a number, or nothing: see device::number().
    std::optional<double> number() const { return device::number(value); }
    friend bool operator==(const Sample &a, const Sample &b) { return a.time == b.time && a.value == b.value; }
};

/// One alarm, identified on the device by its object and type.
struct DEVICE_HOST_EXPORT Alarm {
    int level = 0;
    LocalTime start;
    QString object;
    QString type;
    QString value; ///< The value that raised it, as text: nothing is rounded.
    QString limit; ///< The limit it crossed, as text.
    QString description;
    std::optional<LocalTime> end; ///< Empty while the alarm is active.
    qint64 id = 0;                ///< As in Sample.

    bool active() const { return !end; }
    friend bool operator==(const Alarm &a, const Alarm &b)
    {
        return a.level == b.level && a.start == b.start && a.object == b.object && a.type == b.type &&
               a.value == b.value && a.limit == b.limit && a.description == b.description && a.end == b.end;
    }
};

/// One action of an operator.
struct DEVICE_HOST_EXPORT LogEntry {
    LocalTime time;
    QString user;
    QString name;
    QString message;
    qint64 id = 0; ///< As in Sample.

    friend bool operator==(const LogEntry &a, const LogEntry &b)
    {
        return a.time == b.time && a.user == b.user && a.name == b.name && a.message == b.message;
    }
};

} // namespace device

Q_DECLARE_METATYPE(device::LocalTime)
Q_DECLARE_METATYPE(device::Sample)
Q_DECLARE_METATYPE(device::Alarm)
Q_DECLARE_METATYPE(device::LogEntry)

#endif
