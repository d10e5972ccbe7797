// SPDX-License-Identifier: MIT
#include "import/time_forms.h"

#include "storefile/times.h"

#include <QLocale>
#include <QRegularExpression>

#include <algorithm>

namespace device_db
{

namespace
{

QByteArray textOf(const QDateTime &time, bool milliseconds)
{
    const QString form =
        milliseconds ? QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz") : QStringLiteral("yyyy-MM-dd hh:mm:ss");
    return time.toString(form).toLatin1();
}

QByteArray quoted(const QByteArray &time)
{
    return "the time \"" + time.left(40) + "\"";
}

} // namespace

Result<TimeForms> TimeForms::make(const QString &format, const QString &zone)
{
    TimeForms forms;
    forms.m_format = format;
    const bool hasDate =
        format.contains(QLatin1String("yy")) && format.contains(QLatin1Char('M')) && format.contains(QLatin1Char('d'));
    if (!format.isEmpty() && !hasDate)
        return failure(format, QStringLiteral("a form of times needs year, month and day, such as dd/MM/yyyy h:mm AP"));
    if (zone.isEmpty())
        return forms;
    forms.m_zone = QTimeZone(zone.toLatin1());
    if (!forms.m_zone.isValid())
        return failure(zone, QStringLiteral("there is no such time zone; name one such as Europe/Berlin or UTC+02:00"));
    return forms;
}

QByteArray TimeForms::refusal(QByteArray &time, bool milliseconds) const
{
    if (m_format.isEmpty() && isTime(time, milliseconds))
        return QByteArray();
    // The form of the tables has a wall clock's time, also in the hour that a zone leaves out: UTC here only means that
    // nothing is converted.
    QDateTime parsed;
    if (!m_format.isEmpty()) {
        parsed = QLocale::c().toDateTime(QString::fromUtf8(time), m_format);
        if (!parsed.isValid())
            return quoted(time) + " is not of the form " + m_format.toUtf8();
        parsed = QDateTime(parsed.date(), parsed.time(), Qt::UTC);
        if (!m_format.contains(QLatin1String("yyyy")) && parsed.date().year() < 1970)
            parsed = parsed.addYears(100);
        time = textOf(parsed, milliseconds);
        return QByteArray();
    }
    static const QRegularExpression epoch(QStringLiteral("^(?:(\\d{9,10})(?:\\.(\\d{1,9}))?|(\\d{12,13}))$"));
    const QString text = QString::fromLatin1(time).trimmed();
    if (const auto match = epoch.match(text); match.hasMatch()) {
        if (!m_zone.isValid())
            return quoted(time) + " is a number; if it counts from 1970, name the device's zone with --zone";
        const qint64 instant = match.captured(3).isEmpty()
                                   ? match.captured(1).toLongLong() * 1000 +
                                         match.captured(2).leftJustified(3, QLatin1Char('0'), true).toInt()
                                   : match.captured(3).toLongLong();
        time = textOf(QDateTime::fromMSecsSinceEpoch(instant, m_zone), milliseconds);
        return QByteArray();
    }
    const auto written = writtenTime(text);
    const bool hasClock = written && written->hour >= 0;
    const QTime clock = hasClock ? QTime(written->hour, written->minute, std::max(0, written->second),
                                         std::max(0, written->millisecond))
                                 : QTime();
    if (!hasClock || !written->date.isValid() || !clock.isValid())
        return quoted(time) + " is not in a known form; --time-format can name its form";
    if (!written->offset) {
        time = textOf(QDateTime(written->date, clock, Qt::UTC), milliseconds);
        return QByteArray();
    }
    if (*written->offset == WrittenTime::noOffset)
        return quoted(time) + " has an offset from UTC that no zone has";
    if (!m_zone.isValid())
        return quoted(time) + " is of another zone than the device; name the device's with --zone";
    const QDateTime instant = QDateTime(written->date, clock, Qt::UTC).addSecs(-60 * *written->offset);
    time = textOf(instant.toTimeZone(m_zone), milliseconds);
    return QByteArray();
}

} // namespace device_db
