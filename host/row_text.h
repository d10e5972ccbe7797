// SPDX-License-Identifier: MIT
#ifndef DEVICE_ROW_TEXT_H
#define DEVICE_ROW_TEXT_H

#include "device/result.h"
#include "time_text.h"

namespace device
{

/// A text as an SQL literal: between single quotes, each quote inside doubled.
QString quoted(const QString &text);

/// Why a text would not come back from the file as it went in; null when it would.
const char *unstorable(const QString &text);

/// The names in the configuration table and the descriptions of alarms are UTF-8 that the store library takes for
/// Latin-1 and encodes once more. Its hosts expect them so; a text that is ASCII stays as it is.
QString encodedTwice(const QString &text);

/// The text that was meant. One that was not encoded twice, because another program wrote it, is returned as it is.
QString decodedTwice(const QString &text);

/// Writes a time as the tables hold it. `withMilliseconds`: the log's form. False for a time they cannot hold.
bool appendTime(QString &to, LocalTime time, bool withMilliseconds);

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
    /// text() for a cell that is encodedTwice().
    void twiceEncoded(const char *column, const QString &text);
    /// Both cells of a sample, in place of all of the above.
    void sample(LocalTime time, const char *column, const QString &value);

    /// The whole text, or the Error for the operation and table.
    Result<QString> take(const QString &operation, const QString &table);

    static bool isMember(const QString &row) { return row.startsWith(QLatin1Char('"')); }
    /// The term of VALUES for a row in either form.
    static QString values(const QString &row);
    /// What sample() wrote, from a row in either form; quotes inside the value stay doubled.
    struct SampleCells {
        const QChar *time; ///< As long as TimeReader takes them.
        const QChar *value;
        qint64 valueSize;
    };
    static SampleCells sampleCells(const QString &row);

private:
    void openCell();
    void literal(const QString &text);
    void appendOrRefuse(LocalTime time, bool withMilliseconds);
    void refuseUnstorable(const char *column, const QString &text);
    void refuse(Error::Code code, const QString &cause);

    QString m_text;
    bool m_refused = false;
    Error::Code m_code = Error::Failed;
    QString m_cause;
};

} // namespace device

#endif
