// SPDX-License-Identifier: MIT
#include "kind.h"

namespace device
{

namespace
{

constexpr int longestRow = 900000; // bytes of UTF-8; SQLite takes a statement of a million

void appendDigits(QString &to, int value, int width)
{
    QChar digits[4];
    for (int i = width; i-- > 0; value /= 10)
        digits[i] = QLatin1Char(char('0' + value % 10));
    to.append(digits, width);
}

// The number in `width` digits, or -1.
int digitsAt(const QChar *at, int width)
{
    int value = 0;
    for (int i = 0; i < width; ++i) {
        const int digit = at[i].unicode() - '0';
        if (digit < 0 || digit > 9)
            return -1;
        value = value * 10 + digit;
    }
    return value;
}

int toInt(const QString &text)
{
    const int value = text.size() >= 1 && text.size() <= 9 ? digitsAt(text.constData(), int(text.size())) : -1;
    return value >= 0 ? value : text.toInt();
}

QDate parseDate(const QChar *at)
{
    if (at[4] != QLatin1Char('-') || at[7] != QLatin1Char('-'))
        return QDate();
    return QDate(digitsAt(at, 4), digitsAt(at + 5, 2), digitsAt(at + 8, 2));
}

QTime parseClock(const QChar *at, bool withMilliseconds)
{
    if (at[2] != QLatin1Char(':') || at[5] != QLatin1Char(':') || (withMilliseconds && at[8] != QLatin1Char('.')))
        return QTime();
    return QTime(digitsAt(at, 2), digitsAt(at + 3, 2), digitsAt(at + 6, 2), withMilliseconds ? digitsAt(at + 9, 3) : 0);
}

} // namespace

QString quoted(const QString &text)
{
    QString inside = text;
    inside.replace(QLatin1Char('\''), QLatin1String("''"));
    return QLatin1Char('\'') + inside + QLatin1Char('\'');
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
                                          : "it holds half of a surrogate pair, which is no character";
}

bool appendTime(QString &to, LocalTime time, bool withMilliseconds)
{
    const QDate date = time.date();
    const QTime clock = time.time();
    if (!time.isValid() || date.year() < 1 || date.year() > 9999)
        return false;
    appendDigits(to, date.year(), 4);
    to += QLatin1Char('-');
    appendDigits(to, date.month(), 2);
    to += QLatin1Char('-');
    appendDigits(to, date.day(), 2);
    to += QLatin1Char(' ');
    appendDigits(to, clock.hour(), 2);
    to += QLatin1Char(':');
    appendDigits(to, clock.minute(), 2);
    to += QLatin1Char(':');
    appendDigits(to, clock.second(), 2);
    if (withMilliseconds) {
        to += QLatin1Char('.');
        appendDigits(to, clock.msec(), 3);
    }
    return true;
}

LocalTime parseTime(const QString &text, bool withMilliseconds)
{
    if (text.size() != (withMilliseconds ? 23 : 19) || text.at(10) != QLatin1Char(' '))
        return LocalTime();
    const QDate date = parseDate(text.constData());
    const QTime clock = parseClock(text.constData() + 11, withMilliseconds);
    return LocalTime(date, clock);
}

void RowText::number(int value)
{
    m_sql += QLatin1String(",'") + QString::number(value) + QLatin1Char('\'');
}

void RowText::time(LocalTime time, bool withMilliseconds)
{
    m_sql += QLatin1String(",'");
    if (!appendTime(m_sql, time, withMilliseconds))
        refuse(Error::TimeRefused, time.isValid() ? QStringLiteral("the year %1 cannot be held").arg(time.date().year())
                                                  : QStringLiteral("the time is invalid"));
    m_sql += QLatin1Char('\'');
}

void RowText::dateAndClock(const std::optional<LocalTime> &time)
{
    if (!time) {
        m_sql += QLatin1String(",'',''");
        return;
    }
    const int blank = m_sql.size() + 2 + 10; // behind ,' and yyyy-MM-dd
    this->time(*time, false);
    if (!m_refused)
        m_sql.replace(blank, 1, QLatin1String("','"));
}

void RowText::text(const char *column, const QString &text)
{
    if (const char *why = unstorable(text)) {
        QString shown = text.left(80);
        shown.replace(QChar(0), QLatin1String("\\0"));
        refuse(
            Error::TextRefused,
            QStringLiteral("%1 cannot hold the text \"%2\": %3").arg(QLatin1String(column), shown, QLatin1String(why)));
    }
    m_sql += QLatin1Char(',') + quoted(text);
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
    if (!m_refused && m_sql.size() > longestRow / 3 && m_sql.toUtf8().size() > longestRow)
        refuse(Error::TextRefused, QStringLiteral("the row that begins %1 is longer than %2 bytes")
                                       .arg(m_sql.left(80), QString::number(longestRow)));
    if (m_refused)
        return Error(m_code, operation, table, m_cause);
    m_sql += QLatin1Char(')');
    return std::move(m_sql);
}

const QVector<Column> &Kind<Sample>::columns()
{
    static const QVector<Column> columns{{"DATETIME", "dateTime", "Time"}, {"Value", "text", "Value"}};
    return columns;
}

void Kind<Sample>::encode(const Sample &sample, RowText &row)
{
    row.time(sample.time, milliseconds);
    row.text("Value", sample.value);
}

Sample Kind<Sample>::decode(QStringList row)
{
    return {parseTime(row.at(0), milliseconds), std::move(row[1])};
}

QVector<QVariant> Kind<Sample>::cells(const Sample &sample)
{
    return {sample.time.toDateTime(), sample.value};
}

QString Kind<Sample>::condition(const Filter<Sample> &filter)
{
    return filter.containing.isEmpty() ? QString() : QStringLiteral("instr(Value,%1)>0").arg(quoted(filter.containing));
}

const QVector<Column> &Kind<Alarm>::columns()
{
    static const QVector<Column> columns{{"LevelID", "INTEGER", "Level"},
                                         {"DATETIME", "dateTime", "Start"},
                                         {"AlarmObject", "text", "Object"},
                                         {"AlarmType", "text", "Type"},
                                         {"CurrentValue", "text", "Value"},
                                         {"LimitValue", "text", "Limit"},
                                         {"AlarmDescription", "text", "Description"},
                                         {"EndDate", "text", "End date"},
                                         {"EndTime", "text", "End time"}};
    return columns;
}

void Kind<Alarm>::encode(const Alarm &alarm, RowText &row)
{
    row.number(alarm.level);
    row.time(alarm.start, milliseconds);
    row.text("AlarmObject", alarm.object);
    row.text("AlarmType", alarm.type);
    row.text("CurrentValue", alarm.value);
    row.text("LimitValue", alarm.limit);
    row.text("AlarmDescription", alarm.description);
    row.dateAndClock(alarm.end);
}

Alarm Kind<Alarm>::decode(QStringList row)
{
    Alarm alarm;
    alarm.level = toInt(row.at(0));
    alarm.start = parseTime(row.at(1), milliseconds);
    alarm.object = std::move(row[2]);
    alarm.type = std::move(row[3]);
    alarm.value = std::move(row[4]);
    alarm.limit = std::move(row[5]);
    alarm.description = std::move(row[6]);
    if (!row.at(7).isEmpty() || !row.at(8).isEmpty())
        alarm.end = parseTime(row.at(7) + QLatin1Char(' ') + row.at(8), milliseconds);
    return alarm;
}

QVector<QVariant> Kind<Alarm>::cells(const Alarm &alarm)
{
    return {alarm.level,
            alarm.start.toDateTime(),
            alarm.object,
            alarm.type,
            alarm.value,
            alarm.limit,
            alarm.description,
            alarm.end ? alarm.end->date() : QVariant(),
            alarm.end ? alarm.end->time() : QVariant()};
}

QString Kind<Alarm>::condition(const Filter<Alarm> &filter)
{
    switch (filter.state) {
    case Filter<Alarm>::Active:
        return QStringLiteral("EndDate='' and EndTime=''");
    case Filter<Alarm>::Ended:
        return QStringLiteral("EndDate!='' and EndTime!=''");
    case Filter<Alarm>::All:
        break;
    }
    return QString();
}

const QVector<Column> &Kind<LogEntry>::columns()
{
    static const QVector<Column> columns{{"DATETIME", "dateTime NOT NULL", "Time"},
                                         {"userName", "text", "User"},
                                         {"logName", "text", "Log"},
                                         {"message", "text", "Message"}};
    return columns;
}

void Kind<LogEntry>::encode(const LogEntry &entry, RowText &row)
{
    row.time(entry.time, milliseconds);
    row.text("userName", entry.user);
    row.text("logName", entry.name);
    row.text("message", entry.message);
}

LogEntry Kind<LogEntry>::decode(QStringList row)
{
    return {parseTime(row.at(0), milliseconds), std::move(row[1]), std::move(row[2]), std::move(row[3])};
}

QVector<QVariant> Kind<LogEntry>::cells(const LogEntry &entry)
{
    return {entry.time.toDateTime(), entry.user, entry.name, entry.message};
}

QString Kind<LogEntry>::condition(const Filter<LogEntry> &filter)
{
    return filter.user ? QStringLiteral("userName=%1").arg(quoted(*filter.user)) : QString();
}

namespace
{

QString isActive(const QString &object, const QString &type)
{
    return QLatin1String("AlarmObject=") + quoted(object) + QLatin1String(" and AlarmType=") + quoted(type) +
           QLatin1String(" and EndDate='' and EndTime=''");
}

} // namespace

Result<QString> endingStatement(const QString &operation, const QString &table, const QString &object,
                                const QString &type, LocalTime when)
{
    QString time;
    if (!appendTime(time, when, false))
        return Error(Error::TimeRefused, operation, table, QStringLiteral("the time is no time of the tables"));
    for (const QString &text : {object, type}) {
        if (const char *why = unstorable(text))
            return Error(Error::TextRefused, operation, table,
                         QStringLiteral("no alarm can have the object or type: ") + QLatin1String(why));
    }
    return QLatin1String("update ") + table + QLatin1String(" set EndDate='") + time.left(10) +
           QLatin1String("',EndTime='") + time.mid(11) + QLatin1String("' where ") + isActive(object, type);
}

Result<QString> raisingStatement(const QString &operation, const QString &table, const Alarm &alarm)
{
    RowText row;
    Kind<Alarm>::encode(alarm, row);
    const auto values = row.take(operation, table);
    if (!values)
        return values.error();
    return QLatin1String("insert into ") + table + QLatin1String(" select * from (values") + *values +
           QLatin1String(") where not exists(select 1 from ") + table + QLatin1String(" where ") +
           isActive(alarm.object, alarm.type) + QLatin1Char(')');
}

} // namespace device
