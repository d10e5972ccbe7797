// SPDX-License-Identifier: MIT
#include "storefile/times.h"

#include "host/time_text.h"

#include <QRegularExpression>

#include <algorithm>

namespace device_db
{

namespace
{

constexpr const char *localMark = " local";

QByteArray formOf(const QDateTime &time, bool milliseconds)
{
    return time
        .toString(milliseconds ? QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz") : QStringLiteral("yyyy-MM-dd hh:mm:ss"))
        .toLatin1();
}

QDateTime fromText(const QByteArray &time, bool milliseconds, const QTimeZone &zone)
{
    const QString text = QString::fromLatin1(time);
    QDateTime parsed = QDateTime::fromString(text, milliseconds ? QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")
                                                                : QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    if (zone.isValid())
        parsed.setTimeZone(zone);
    return parsed;
}

constexpr qint64 dayOf1970 = 2440588; // the Julian day
constexpr qint64 dayLength = 86400000;

std::optional<qint64> timeIn(const QByteArray &text, bool milliseconds)
{
    device::TimeReader reader(milliseconds);
    return device_db::timeIn(text, reader);
}

} // namespace

std::optional<WrittenTime> writtenTime(const QString &text)
{
    static const QRegularExpression form(QStringLiteral(
        "^(?:(\\d{4})([-/.])(\\d{1,2})\\2(\\d{1,2})|(\\d{1,2})\\.(\\d{1,2})\\.(\\d{4}))(?:[ T]+"
        "(\\d{1,2}):(\\d\\d)(?::(\\d\\d)(?:[.,](\\d{1,9}))?)?(?: ?(Z|UTC|([+-])(\\d\\d):?(\\d\\d)?))?)?$"));
    const auto match = form.match(text.trimmed());
    if (!match.hasMatch())
        return std::nullopt;
    const auto part = [&](int group) { return match.captured(group).isEmpty() ? -1 : match.captured(group).toInt(); };
    WrittenTime time;
    time.date = part(1) >= 0 ? QDate(part(1), part(3), part(4)) : QDate(part(7), part(6), part(5));
    time.hour = part(8);
    time.minute = part(9);
    time.second = part(10);
    if (const QString fraction = match.captured(11); !fraction.isEmpty())
        time.millisecond = fraction.leftJustified(3, QLatin1Char('0'), true).toInt();
    if (match.captured(12).isEmpty())
        return time;
    const int minutes = std::max(0, part(14)) * 60 + std::max(0, part(15));
    const bool exists = part(15) < 60 && minutes <= 14 * 60; // Kiribati's; none is further from UTC
    time.offset = !exists ? WrittenTime::noOffset : match.captured(13) == QLatin1String("-") ? -minutes : minutes;
    return time;
}

Result<QByteArray> boundText(const QString &given, Bound bound, bool milliseconds, bool utc, const QTimeZone &zone)
{
    const auto local = [&zone](const QDateTime &any) {
        return zone.isValid() ? any.toTimeZone(zone) : any.toLocalTime();
    };
    const QString text = given.trimmed();
    const QDateTime now = utc ? QDateTime::currentDateTimeUtc() : local(QDateTime::currentDateTimeUtc());
    QDateTime time;
    static const QRegularExpression span(QStringLiteral("^(\\d{1,6})([smhdw])$"));
    const bool last = bound == Bound::Last;
    if (text == QLatin1String("now")) {
        time = now;
    } else if (text == QLatin1String("today") || text == QLatin1String("yesterday")) {
        time = now;
        time.setDate(now.date().addDays(text == QLatin1String("today") ? 0 : -1));
        time.setTime(last ? QTime(23, 59, 59, 999) : QTime(0, 0));
    } else if (const auto back = span.match(text); back.hasMatch()) {
        const qint64 seconds[] = {1, 60, 3600, 86400, 7 * 86400};
        const auto unit = QStringLiteral("smhdw").indexOf(back.captured(2));
        time = now.addSecs(-back.captured(1).toLongLong() * seconds[unit]);
    } else if (const auto written = writtenTime(text)) {
        const auto filled = [&](int part, int highest) { return part >= 0 ? part : last ? highest : 0; };
        const QDate date = written->date;
        const QTime clock(filled(written->hour, 23), filled(written->minute, 59), filled(written->second, 59),
                          filled(written->millisecond, 999));
        const int offset = written->offset.value_or(0);
        if (!date.isValid() || !clock.isValid() || offset == WrittenTime::noOffset)
            return failure(given, QStringLiteral("there is no such day or time; give one such as 2024-05-06 07:08:09"));
        // Not through a QDateTime: an hour that the zone leaves out is a time like any other in the tables.
        if (!utc && !written->offset) {
            const QByteArray form =
                (date.toString(Qt::ISODate) + QLatin1Char(' ') + clock.toString(QStringLiteral("hh:mm:ss.zzz")))
                    .toLatin1();
            return milliseconds ? form : form.left(19);
        }
        time = QDateTime(date, clock, Qt::UTC).addSecs(-60 * offset);
    } else {
        return failure(given, QStringLiteral("not a time; give one such as 2024-05-06, \"2024-05-06 07:08:09\", "
                                             "today or 24h (that long ago)"));
    }
    return formOf(local(time), milliseconds);
}

std::optional<qint64> timeIn(const QByteArray &text, device::TimeReader &reader)
{
    const device::LocalTime time = reader.read(text.constData(), text.size());
    if (!time.isValid())
        return std::nullopt;
    return (time.date().toJulianDay() - dayOf1970) * dayLength + time.time().msecsSinceStartOfDay();
}

QByteArray timeText(qint64 time, bool milliseconds)
{
    constexpr qint64 firstTime = -62135596800000; // of the year 1
    constexpr qint64 lastTime = 253402300799999;  // of the year 9999
    const qint64 shown = std::clamp(time, firstTime, lastTime);
    const qint64 day = (shown - firstTime) / dayLength + firstTime / dayLength; // towards the past
    char text[device::longestTime];
    const int size = device::writeTime(text,
                                       device::LocalTime(QDate::fromJulianDay(day + dayOf1970),
                                                         QTime::fromMSecsSinceStartOfDay(int(shown - day * dayLength))),
                                       milliseconds);
    return QByteArray(text, size);
}

qint64 millisecondsOf(const QByteArray &time, bool milliseconds)
{
    return timeIn(time, milliseconds).value_or(-1);
}

bool isTime(const QByteArray &text, bool milliseconds)
{
    return timeIn(text, milliseconds).has_value();
}

QByteArray endOfAlarm(const QByteArray &date, const QByteArray &time)
{
    return QByteArray(date + ' ' + time).replace('/', '-');
}

QByteArray inUtc(const QByteArray &time, bool milliseconds, const QTimeZone &zone)
{
    if (!isTime(time, milliseconds))
        return time;
    const QDateTime parsed = fromText(time, milliseconds, zone);
    // In an hour that summer time leaves out Qt gives an invalid time or moves it, by version.
    if (!parsed.isValid() || formOf(parsed, milliseconds) != time)
        return time + localMark;
    QDateTime utc = parsed.toUTC();
    if (zone.isValid()) {
        // Qt 5 takes the second pass of an hour that a zone repeats.
        for (const int shift : {3600, 1800}) {
            const QDateTime earlier = utc.addSecs(-shift);
            if (formOf(earlier.toTimeZone(zone), milliseconds) == time)
                utc = earlier;
        }
    }
    return formOf(utc, milliseconds);
}

QByteArray beginningOf(const QByteArray &time, int size)
{
    return time.endsWith(localMark) ? time.left(size) + localMark : time.left(size);
}

QString duration(qint64 milliseconds)
{
    if (milliseconds < 1000)
        return QStringLiteral("%1 s").arg(double(milliseconds) / 1000, 0, 'f', 3);
    const qint64 seconds = milliseconds / 1000;
    QString text;
    if (seconds >= 86400)
        text = QStringLiteral("%1 d ").arg(seconds / 86400);
    const qint64 rest = seconds % 86400;
    return text + QStringLiteral("%1:%2:%3")
                      .arg(rest / 3600)
                      .arg(rest / 60 % 60, 2, 10, QLatin1Char('0'))
                      .arg(rest % 60, 2, 10, QLatin1Char('0'));
}

} // namespace device_db
