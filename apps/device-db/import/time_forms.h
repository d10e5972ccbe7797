// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_TIME_FORMS_H
#define DEVICE_DB_TIME_FORMS_H

#include "storefile/error.h"

#include <QByteArray>
#include <QString>
#include <QTimeZone>

namespace device_db
{

/// Turns times in the forms of other programs into that of the tables, which is the device's local time.
///
/// Taken are dates with the year first (- / .) or the day first (dots alone: 6.5.2024), times with or without seconds
/// and fractions, a blank or T between them. A Z, an offset from UTC or seconds since 1970 name an instant, which is a
/// local time only together with the device's zone: that of this computer need not be the same.
class TimeForms
{
public:
    /// `format`: the only form to take, in Qt's letters, such as "dd/MM/yyyy h:mm AP"; may be empty.
    /// `zone`: the device's, such as "Europe/Berlin" or "UTC+02:00"; may be empty. An Error when either makes no sense.
    static Result<TimeForms> make(const QString &format, const QString &zone);

    /// Turns `time` into "yyyy-MM-dd hh:mm:ss", with milliseconds if these are asked for. What is finer is cut off.
    /// Gives the reason when that cannot be done, and leaves `time` alone; else an empty text.
    QByteArray refusal(QByteArray &time, bool milliseconds) const;

private:
    QString m_format;
    QTimeZone m_zone; ///< Invalid: unknown.
};

} // namespace device_db

#endif
