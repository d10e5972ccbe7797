// SPDX-License-Identifier: MIT
#ifndef DEVICE_ROW_TEXT_H
#define DEVICE_ROW_TEXT_H

#include "device/records.h"
#include "device/result.h"

namespace device
{

/// A text as an SQL literal: between single quotes, each quote inside doubled.
QString quoted(const QString &text);

/// Why a text would not come back from the file as it went in; null when it would.
const char *unstorable(const QString &text);

/// Writes a time as the tables hold it. `withMilliseconds`: the log's form. False for a time they cannot hold.
bool appendTime(QString &to, LocalTime time, bool withMilliseconds);

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

/// One record on its way into a table, as a text that a statement can take over: a term of VALUES, "(NULL,'...',...)",
/// or, for a sample, preferably a member of a JSON object, "\"time\":\"value\"" (see insertsOf()). Quotes are doubled
/// in both. Remembers the first cell that cannot be held.
class RowText
{
public:
    void number(int value);
    void time(LocalTime time, bool withMilliseconds);
    /// Two cells, the date and the clock; both empty without a time.
    void dateAndClock(const std::optional<LocalTime> &time);
    void text(const char *column, const QString &text);
    /// Both cells of a sample, in place of all of the above.
    void sample(LocalTime time, const char *column, const QString &value);

    /// The whole text, or the Error for the operation and table.
    Result<QString> take(const QString &operation, const QString &table);

    static bool isMember(const QString &row) { return row.startsWith(QLatin1Char('"')); }
    /// The term of VALUES for a row in either form.
    static QString values(const QString &row);

private:
    void openCell();
    void appendOrRefuse(LocalTime time, bool withMilliseconds);
    void refuseUnstorable(const char *column, const QString &text);
    void refuse(Error::Code code, const QString &cause);

    QString m_text;
    bool m_refused = false;
    Error::Code m_code = Error::Failed;
    QString m_cause;
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
        m_day = unit(text[4]) == '-' && unit(text[7]) == '-'
                    ? QDate(digits(text, 4), digits(text + 5, 2), digits(text + 8, 2))
                    : QDate();
    }
    return LocalTime(m_day, QTime(digits(text + 11, 2), digits(text + 14, 2), digits(text + 17, 2),
                                  m_withMilliseconds ? digits(text + 20, 3) : 0));
}

} // namespace device

#endif
