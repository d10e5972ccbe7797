// SPDX-License-Identifier: MIT
#ifndef DEVICE_RECORDS_H
#define DEVICE_RECORDS_H

#include <QDateTime>
#include <QMetaType>
#include <QString>

#include <optional>

namespace device
{

// Times are kept as local time: to the second in samples and alarms (fractions are cut off), to the
// millisecond in the log. A time that a file holds in another form is read as an invalid one; the record
// still comes.

/// One sampled value.
struct Sample {
    QDateTime time;
    QString value;

    friend bool operator==(const Sample &a, const Sample &b) { return a.time == b.time && a.value == b.value; }
};

/// One alarm, identified on the device by its object and type.
struct Alarm {
    int level = 0;
    QDateTime start;
    QString object;
    QString type;
    QString value; ///< The value that raised it, as text: nothing is rounded.
    QString limit; ///< The limit it crossed, as text.
    QString description;
    std::optional<QDateTime> end; ///< Empty while the alarm is active.

    bool active() const { return !end; }
    friend bool operator==(const Alarm &a, const Alarm &b)
    {
        return a.level == b.level && a.start == b.start && a.object == b.object && a.type == b.type &&
               a.value == b.value && a.limit == b.limit && a.description == b.description && a.end == b.end;
    }
};

/// One action of an operator.
struct LogEntry {
    QDateTime time;
    QString user;
    QString name;
    QString message;

    friend bool operator==(const LogEntry &a, const LogEntry &b)
    {
        return a.time == b.time && a.user == b.user && a.name == b.name && a.message == b.message;
    }
};

} // namespace device

Q_DECLARE_METATYPE(device::Sample)
Q_DECLARE_METATYPE(device::Alarm)
Q_DECLARE_METATYPE(device::LogEntry)

#endif
