// SPDX-License-Identifier: MIT
#ifndef PRIVATE_CELLS_H
#define PRIVATE_CELLS_H

#include <QDate>
#include <QDateTime>
#include <QString>

#include <cstddef>

namespace detail
{

// What a cell means, from SQLite's UTF-8 text. Each of these answers as the Qt calls that it replaces, and calls them
// for everything but the plain case. DayReader and RecurringTexts keep pointers to cells, so they must not outlive the
// query.

QString toText(const char *cell);  ///< QString::fromUtf8(); a null text for NULL.
int toInt(const char *cell);       ///< QString::toInt(); 0 if it is not a number.
double toDouble(const char *cell); ///< QString::toDouble(); 0 if it is not a number or out of range.

/// QDateTime::fromString() with the format "yyyy-MM-dd hh:mm:ss", or that and ".zzz". One per query: it remembers the
/// last day.
class TimeReader
{
public:
    enum Form { Seconds, Milliseconds };
    explicit TimeReader(Form form);

    void read(const char *cell, QDateTime &time); ///< `time` is a new one: invalid, and of local time.

private:
    Q_DISABLE_COPY(TimeReader)
    void startDay(const char *text);

    Form m_form;
    char m_dayText[10]; ///< "yyyy-MM-dd", or whatever the cell has there.
    QDate m_day;
    bool m_dayIsPlain;
    qint64 m_dayStart; ///< Of a plain day: midnight, in milliseconds since 1970 in UTC.
};

/// QString::split() at the one blank of "date time". One per query: consecutive samples share the text of their date.
class DayReader
{
public:
    DayReader();
    bool read(const char *cell, QString &date, QString &time); ///< False if there are not exactly two pieces.

private:
    Q_DISABLE_COPY(DayReader)
    const char *m_day; ///< The cell that begins with the date and its blank.
    size_t m_daySize;  ///< The size of both; 0 if the last cell did not begin so.
    QString m_date;
};

/// toText() for a column whose texts recur: equal cells share one text. One per column and query.
class RecurringTexts
{
public:
    RecurringTexts();
    QString read(const char *cell);

private:
    Q_DISABLE_COPY(RecurringTexts)
    enum { SlotBits = 6, Slots = 1 << SlotBits };
    const char *m_cells[Slots];
    size_t m_sizes[Slots];
    QString m_texts[Slots];
};

} // namespace detail

#endif
