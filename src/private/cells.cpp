// SPDX-License-Identifier: MIT
#include "cells.h"

#include "qt_versions.h"

#include <QStringList>

#include <cfloat>
#include <cstring>

namespace
{

quint64 eightAt(const char *bytes)
{
    quint64 eight;
    std::memcpy(&eight, bytes, sizeof eight);
    return eight;
}

bool isAscii(const char *bytes, size_t size)
{
    quint64 seen = 0;
    if (size >= 8) {
        const char *const last = bytes + size - 8; // overlaps the one before it
        for (; bytes < last; bytes += 8)
            seen |= eightAt(bytes);
        seen |= eightAt(last);
    } else {
        for (; size > 0; ++bytes, --size)
            seen |= uchar(*bytes);
    }
    return (seen & Q_UINT64_C(0x8080808080808080)) == 0;
}

QString sizedText(const char *cell, size_t size)
{
    return isAscii(cell, size) ? QString::fromLatin1(cell, int(size)) : QString::fromUtf8(cell, int(size));
}

bool isDigit(char byte)
{
    return byte >= '0' && byte <= '9';
}

// The value of `count` digits; -1 if one of them is something else.
int digits(const char *bytes, int count)
{
    int value = 0;
    for (int i = 0; i < count; ++i) {
        if (!isDigit(bytes[i]))
            return -1;
        value = 10 * value + (bytes[i] - '0');
    }
    return value;
}

// The number of bytes up to a blank, the end or the first that is not ASCII.
size_t wordSize(const char *text)
{
    const char *byte = text;
    while (*byte && *byte != ' ' && uchar(*byte) < 0x80)
        ++byte;
    return size_t(byte - text);
}

// The seconds by which local time is ahead of UTC when a day starts in UTC.
int offsetAt(const QDate &day)
{
    const QDateTime local = QDateTime(day, QTime(0, 0), Qt::UTC).toLocalTime();
    return int(86400 * day.daysTo(local.date())) + QTime(0, 0).secsTo(local.time());
}

// All of the text counts, because descriptions may differ anywhere.
int hashed(const char *text, size_t size, int bits)
{
    const quint64 factor = Q_UINT64_C(0x9e3779b97f4a7c15);
    quint64 hash = size;
    for (; size >= 8; text += 8, size -= 8)
        hash = (hash ^ eightAt(text)) * factor;
    for (; size > 0; ++text, --size)
        hash = (hash ^ uchar(*text)) * factor;
    return int(hash >> (64 - bits));
}

} // namespace

namespace detail
{

QString toText(const char *cell)
{
    return cell ? sizedText(cell, std::strlen(cell)) : QString();
}

int toInt(const char *cell)
{
    if (cell) {
        const bool negative = *cell == '-';
        const char *const first = cell + negative;
        const size_t size = std::strlen(first);
        const int value = size >= 1 && size <= 9 ? digits(first, int(size)) : -1;
        if (value >= 0)
            return negative ? -value : value;
    }
    return QString::fromUtf8(cell).toInt();
}

double toDouble(const char *cell)
{
    // Up to 15 digits and a power of ten of up to 22 are exact doubles, so one division rounds correctly,
    // unless the machine calculates with more bits than a double has.
    if (cell && FLT_EVAL_METHOD == 0) {
        const bool negative = *cell == '-';
        const char *byte = cell + negative;
        double value = 0;
        double scale = 1;
        int count = 0;
        for (; isDigit(*byte) && count <= 15; ++byte, ++count)
            value = 10 * value + (*byte - '0');
        const bool plain = count > 0;
        if (*byte == '.') {
            for (++byte; isDigit(*byte) && count <= 15; ++byte, ++count) {
                value = 10 * value + (*byte - '0');
                scale *= 10;
            }
        }
        if (plain && count <= 15 && *byte == '\0')
            return negative ? -(value / scale) : value / scale;
    }
    bool isNumber = false;
    const double value = QString::fromUtf8(cell).toDouble(&isNumber);
    return isNumber ? value : 0; // out of range: 0 with every Qt
}

TimeReader::TimeReader(Form form) : m_form(form), m_dayIsPlain(false), m_dayStart(0)
{
    std::memset(m_dayText, 0, sizeof m_dayText);
}

void TimeReader::read(const char *cell, QDateTime &time)
{
    const size_t size = m_form == Seconds ? 19 : 23;
    if (cell && std::strlen(cell) == size && cell[10] == ' ' && cell[13] == ':' && cell[16] == ':' &&
        (m_form == Seconds || cell[19] == '.')) {
        if (std::memcmp(cell, m_dayText, sizeof m_dayText) != 0)
            startDay(cell);
        const int hour = digits(cell + 11, 2);
        const int minute = digits(cell + 14, 2);
        const int second = digits(cell + 17, 2);
        const int milliseconds = m_form == Seconds ? 0 : digits(cell + 20, 3);
        if (m_dayIsPlain && QTime::isValid(hour, minute, second, milliseconds)) {
            const int sinceMidnight = 1000 * (60 * (60 * hour + minute) + second) + milliseconds;
            setLocalTime(time, m_day, QTime(hour, minute, second, milliseconds), m_dayStart + sinceMidnight);
            return;
        }
    }
    time = QDateTime::fromString(QString::fromUtf8(cell),
                                 QLatin1String(m_form == Seconds ? "yyyy-MM-dd hh:mm:ss" : "yyyy-MM-dd hh:mm:ss.zzz"));
}

// Near a change of the zone's offset a local time may not exist, or exist twice; which one it is then only
// fromString() knows. The years are those for which every Qt asks the system.
void TimeReader::startDay(const char *text)
{
    std::memcpy(m_dayText, text, sizeof m_dayText);
    m_day = QDate(digits(text, 4), digits(text + 5, 2), digits(text + 8, 2));
    m_dayIsPlain = text[4] == '-' && text[7] == '-' && m_day.isValid() && m_day.year() > 1970 && m_day.year() < 2037;
    if (!m_dayIsPlain)
        return;
    const int offset = offsetAt(m_day.addDays(-1));
    m_dayIsPlain = offset == offsetAt(m_day.addDays(2));
    m_dayStart = QDateTime(m_day, QTime(0, 0), Qt::UTC).toMSecsSinceEpoch() - Q_INT64_C(1000) * offset;
}

DayReader::DayReader() : m_day(nullptr), m_daySize(0) {}

bool DayReader::read(const char *cell, QString &date, QString &time)
{
    if (!cell)
        return false;
    if (m_daySize == 0 || std::strncmp(cell, m_day, m_daySize) != 0) {
        const size_t size = wordSize(cell);
        m_day = cell;
        m_daySize = size > 0 && cell[size] == ' ' ? size + 1 : 0;
        m_date = QString::fromLatin1(cell, int(size));
    }
    const char *const rest = cell + m_daySize;
    const size_t size = m_daySize > 0 ? wordSize(rest) : 0;
    if (size > 0 && rest[size] == '\0') {
        date = m_date;
        time = QString::fromLatin1(rest, int(size));
        return true;
    }
    const QStringList pieces = QString::fromUtf8(cell).split(QLatin1String(" "));
    if (pieces.size() != 2)
        return false;
    date = pieces.at(0);
    time = pieces.at(1);
    return true;
}

RecurringTexts::RecurringTexts()
{
    for (int i = 0; i < Slots; ++i)
        m_cells[i] = nullptr;
}

QString RecurringTexts::read(const char *cell)
{
    if (!cell)
        return QString();
    const size_t size = std::strlen(cell);
    const int slot = hashed(cell, size, SlotBits);
    if (!m_cells[slot] || m_sizes[slot] != size || std::memcmp(m_cells[slot], cell, size) != 0) {
        m_cells[slot] = cell;
        m_sizes[slot] = size;
        m_texts[slot] = sizedText(cell, size);
    }
    return m_texts[slot];
}

} // namespace detail
