// SPDX-License-Identifier: MIT
#include "row_text.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr int longestRow = 900000; // bytes of UTF-8; SQLite takes a statement of a million
constexpr int usualRow = 160;      // characters
constexpr int timeLength = 19;     // of a sample: yyyy-MM-dd hh:mm:ss
constexpr int frame = 12;          // what surrounds a sample's two cells

// JSON would need an escape for one of its characters.
bool needsEscape(const QString &text)
{
    bool escape = false;
    for (const QChar c : text)
        escape |= c.unicode() < 0x20 || c == QLatin1Char('"') || c == QLatin1Char('\\');
    return escape;
}

bool isAscii(const QString &text)
{
    ushort all = 0;
    for (const QChar c : text)
        all |= c.unicode();
    return all < 0x80;
}

void appendDoublingQuotes(QString &to, const QString &text)
{
    if (!text.contains(QLatin1Char('\''))) {
        to += text;
        return;
    }
    QString inside = text;
    to += inside.replace(QLatin1Char('\''), QLatin1String("''"));
}

} // namespace

QString quoted(const QString &text)
{
    QString literal;
    literal.reserve(text.size() + 2);
    literal += QLatin1Char('\'');
    appendDoublingQuotes(literal, text);
    literal += QLatin1Char('\'');
    return literal;
}

const char *unstorable(const QString &text)
{
    bool plain = true;
    for (const QChar c : text) {
        if (c.isNull())
            return "it holds the character U+0000, which ends a text in the file";
        plain = plain && c.unicode() < 0x80;
    }
    // The very conversions that the text goes through on its way into the file and out again.
    if (plain || QString::fromUtf8(text.toUtf8()) == text)
        return nullptr;
    return text.startsWith(QChar(0xfeff)) ? "it begins with a byte order mark, which is taken away when it is read"
                                          : "it holds half of a surrogate pair, which is not a character";
}

QString encodedTwice(const QString &text)
{
    return isAscii(text) ? text : QString::fromLatin1(text.toUtf8());
}

QString decodedTwice(const QString &text)
{
    if (isAscii(text) || std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() > 0xff; }))
        return text;
    const QByteArray once = text.toLatin1();
    const QString decoded = QString::fromUtf8(once);
    return decoded.toUtf8() == once ? decoded : text;
}

bool appendTime(QString &to, LocalTime time, bool withMilliseconds)
{
    QChar text[longestTime];
    const int length = writeTime(text, time, withMilliseconds);
    to.append(text, length);
    return length > 0;
}

void RowText::openCell()
{
    if (m_text.isEmpty()) {
        m_text.reserve(usualRow);
        m_text += QLatin1String("(NULL");
    }
    m_text += QLatin1String(",'");
}

void RowText::number(int value)
{
    openCell();
    m_text += QString::number(value) + QLatin1Char('\'');
}

void RowText::time(LocalTime time, bool withMilliseconds)
{
    openCell();
    appendOrRefuse(time, withMilliseconds);
    m_text += QLatin1Char('\'');
}

void RowText::dateAndClock(const std::optional<LocalTime> &time)
{
    openCell();
    if (!time) {
        m_text += QLatin1String("',''");
        return;
    }
    const int blank = int(m_text.size()) + 10; // after yyyy-MM-dd
    appendOrRefuse(*time, false);
    m_text += QLatin1Char('\'');
    if (!m_refused)
        m_text.replace(blank, 1, QLatin1String("','"));
}

void RowText::text(const char *column, const QString &text)
{
    refuseUnstorable(column, text);
    literal(text);
}

void RowText::twiceEncoded(const char *column, const QString &text)
{
    refuseUnstorable(column, text);
    literal(encodedTwice(text));
}

void RowText::literal(const QString &text)
{
    openCell();
    appendDoublingQuotes(m_text, text);
    m_text += QLatin1Char('\'');
}

void RowText::sample(LocalTime time, const char *column, const QString &value)
{
    const bool member = !needsEscape(value);
    m_text.reserve(frame + timeLength + value.size());
    m_text += member ? QLatin1String("\"") : QLatin1String("(NULL,'");
    appendOrRefuse(time, false);
    m_text += member ? QLatin1String("\":\"") : QLatin1String("','");
    refuseUnstorable(column, value);
    appendDoublingQuotes(m_text, value);
    m_text += member ? QLatin1Char('"') : QLatin1Char('\'');
}

void RowText::appendOrRefuse(LocalTime time, bool withMilliseconds)
{
    if (!appendTime(m_text, time, withMilliseconds))
        refuse(Error::TimeRefused, time.isValid() ? QStringLiteral("the year %1 cannot be held").arg(time.date().year())
                                                  : QStringLiteral("the time is invalid"));
}

void RowText::refuseUnstorable(const char *column, const QString &text)
{
    const char *why = unstorable(text);
    if (!why)
        return;
    QString shown = text.left(80);
    shown.replace(QChar(0), QLatin1String("\\0"));
    refuse(Error::TextRefused,
           QStringLiteral("%1 cannot hold the text \"%2\": %3").arg(QLatin1String(column), shown, QLatin1String(why)));
}

void RowText::refuse(Error::Code code, const QString &cause)
{
    if (m_refused)
        return;
    m_refused = true;
    m_code = code;
    m_cause = cause;
}

Result<QString> RowText::take(const QString &operation, const QString &table)
{
    if (!m_refused && m_text.size() > longestRow / 3 && m_text.toUtf8().size() > longestRow)
        refuse(Error::TextRefused, QStringLiteral("the row that begins %1 is longer than %2 bytes")
                                       .arg(m_text.left(80), QString::number(longestRow)));
    if (m_refused)
        return Error(m_code, operation, table, m_cause);
    if (!isMember(m_text))
        m_text += QLatin1Char(')');
    return std::move(m_text);
}

QString RowText::values(const QString &row)
{
    if (!isMember(row))
        return row;
    const int value = 1 + timeLength + 3; // after "time":"
    return QLatin1String("(NULL,'") + row.mid(1, timeLength) + QLatin1String("','") +
           row.mid(value, row.size() - value - 1) + QLatin1String("')");
}

RowText::SampleCells RowText::sampleCells(const QString &row)
{
    const int time = isMember(row) ? 1 : 7;                           // after ": or (NULL,'
    const int value = time + timeLength + 3;                          // after ":" or ','
    const qint64 size = row.size() - (isMember(row) ? 1 : 2) - value; // " or ') ends it
    return {row.constData() + time, row.constData() + value, size};
}

} // namespace device
