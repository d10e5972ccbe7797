// SPDX-License-Identifier: MIT
#ifndef DEVICE_TIME_TEXT_H
#define DEVICE_TIME_TEXT_H

#include "device/records.h"

namespace device
{

// The times of the tables: "yyyy-MM-dd hh:mm:ss", and ".zzz" after it in the log. Characters are QChar, or char for
// UTF-8.

constexpr int longestTime = 23;

/// Writes a time into at most `longestTime` characters; their number, or 0 for a time that the tables cannot hold.
template<typename Character>
int writeTime(Character *to, LocalTime time, bool withMilliseconds)
{
    int year = 0;
    int month = 0;
    int day = 0;
    time.date().getDate(&year, &month, &day);
    if (!time.isValid() || year < 1 || year > 9999)
        return 0;
    const QTime clock = time.time();
    Character *at = to;
    const auto write = [&at](int value, int width, char after) {
        for (int i = width; i-- > 0; value /= 10)
            at[i] = Character(ushort('0' + value % 10));
        at += width;
        if (after)
            *at++ = Character(ushort(after));
    };
    write(year, 4, '-');
    write(month, 2, '-');
    write(day, 2, ' ');
    write(clock.hour(), 2, ':');
    write(clock.minute(), 2, ':');
    write(clock.second(), 2, withMilliseconds ? '.' : '\0');
    if (withMilliseconds)
        write(clock.msec(), 3, '\0');
    return int(at - to);
}

/// Reads times as the tables hold them. Most rows are of the same day as the row before, so the last day is kept.
class TimeReader
{
public:
    explicit TimeReader(bool withMilliseconds) : m_withMilliseconds(withMilliseconds) {}

    int length() const { return m_withMilliseconds ? 23 : 19; }
    /// Invalid for a text in any other form. `Character` is QChar, or char for UTF-8.
    template<typename Character>
    LocalTime read(const Character *text, qint64 size);

private:
    static int unit(QChar c) { return c.unicode(); }
    static int unit(char c) { return static_cast<unsigned char>(c); }
    /// The number that `width` digits make, or -1.
    template<typename Character>
    static int digits(const Character *text, int width);

    const bool m_withMilliseconds;
    ushort m_dayText[10] = {};
    QDate m_day;
};

template<typename Character>
int TimeReader::digits(const Character *text, int width)
{
    int value = 0;
    for (int i = 0; i < width; ++i) {
        const int digit = unit(text[i]) - '0';
        if (digit < 0 || digit > 9)
            return -1;
        value = value * 10 + digit;
    }
    return value;
}

template<typename Character>
LocalTime TimeReader::read(const Character *text, qint64 size)
{
    if (size != length() || unit(text[10]) != ' ' || unit(text[13]) != ':' || unit(text[16]) != ':' ||
        (m_withMilliseconds && unit(text[19]) != '.'))
        return LocalTime();
    bool sameDay = true;
    for (int i = 0; i < 10; ++i)
        sameDay &= unit(text[i]) == m_dayText[i];
    if (!sameDay) {
        for (int i = 0; i < 10; ++i)
            m_dayText[i] = ushort(unit(text[i]));
        const int year = digits(text, 4); // QDate knows years before the first, too
        m_day = year > 0 && unit(text[4]) == '-' && unit(text[7]) == '-'
                    ? QDate(year, digits(text + 5, 2), digits(text + 8, 2))
                    : QDate();
    }
    return LocalTime(m_day, QTime(digits(text + 11, 2), digits(text + 14, 2), digits(text + 17, 2),
                                  m_withMilliseconds ? digits(text + 20, 3) : 0));
}

} // namespace device

#endif
