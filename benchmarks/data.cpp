// SPDX-License-Identifier: MIT
#include "data.h"

#include <QDateTime>

namespace
{

// One step of splitmix64: a good number out of any number.
std::uint64_t scramble(std::uint64_t number)
{
    number += 0x9e3779b97f4a7c15u;
    number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9u;
    number = (number ^ (number >> 27)) * 0x94d049bb133111ebu;
    return number ^ (number >> 31);
}

QDateTime moment(int index)
{
    static const QDateTime first(QDate(2024, 1, 1), QTime(0, 0), Qt::UTC);
    return first.addSecs(index);
}

QString date(int index)
{
    return moment(index).toString(QStringLiteral("yyyy-MM-dd"));
}

QString clock(int index)
{
    return moment(index).toString(QStringLiteral("hh:mm:ss"));
}

QString measurement(std::uint64_t number)
{
    return QString::number(double(number % 10000000000u) / 1e8, 'f', 8);
}

} // namespace

QString Data::time(int index)
{
    return date(index) + QLatin1Char(' ') + clock(index);
}

QStringList Data::row(const Kind &kind, int index) const
{
    static const QStringList objects{"Boiler 1",  "Boiler 2",      "Feed pump A", "Feed pump B",
                                     "Condenser", "Cooling tower", "Main valve",  "Compressor"};
    static const QStringList types{"High limit", "Low limit", "Rate of change", "Sensor fault", "Communication"};
    static const QStringList users{"admin", "operator", "service", "night shift", "day shift"};
    static const QStringList actions{"Login", "Logout", "Set point", "Acknowledge", "Configuration"};

    const std::uint64_t number = scramble(m_seed + std::uint64_t(index));
    const auto pick = [number](const QStringList &texts, int shift) {
        return texts.at(int((number >> shift) % std::uint64_t(texts.size())));
    };
    if (&kind == &historyKind)
        return {time(index), measurement(number)};
    if (&kind == &alarmKind) {
        const QString object = pick(objects, 8);
        return {QString::number(1 + int(number % 4)), date(index), clock(index), object, pick(types, 16),
                measurement(number), QStringLiteral("87.5"),
                // One description in 64 holds a quote.
                (object + QLatin1String((number >> 24) % 64 == 0 ? "'s value" : " value") +
                 QLatin1String(" has left its permitted range"))
                    .leftJustified(40, QLatin1Char('.'), true),
                QString(), QString()};
    }
    return {time(index) + QStringLiteral(".%1").arg(int(number % 1000), 3, 10, QLatin1Char('0')), pick(users, 8),
            pick(actions, 16),
            QStringLiteral("Set point of %1 changed from %2 to %3 by hand")
                .arg(pick(objects, 24), measurement(number), measurement(number >> 20))
                .leftJustified(60, QLatin1Char('.'), true)};
}

Rows Data::rows(const Kind &kind, int count) const
{
    Rows rows;
    rows.reserve(count);
    for (int index = 0; index < count; ++index)
        rows.append(row(kind, index));
    return rows;
}
