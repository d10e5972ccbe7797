// SPDX-License-Identifier: MIT
#include "storefile/keeping.h"

#include "storefile/rollup_channel.h"
#include "storefile/texts.h"
#include "storefile/trends.h"

#include "device/table_name.h"

#include "host/bucket.h"
#include "host/time_text.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace device_db
{

namespace
{

struct Unit {
    char letter;
    qint64 hours;
};
constexpr Unit units[] = {{'h', 1}, {'d', 24}, {'w', 24 * 7}, {'y', 24 * 365}};

constexpr std::chrono::hours leastOfLogs{24 * 365};
constexpr qint64 highest = std::numeric_limits<qint64>::max();

qint64 secondsIn(std::chrono::hours span)
{
    return std::chrono::seconds(span).count();
}

// In seconds; negative for what is not a time.
qint64 secondsOf(const QByteArray &cell)
{
    device::TimeReader times(false);
    if (cell.size() < times.length())
        return -1;
    const device::LocalTime time = times.read(cell.constData(), times.length());
    return time.isValid() ? device::secondsOf(time) : -1;
}

QByteArray literal(qint64 seconds)
{
    return '\'' + timeOfTrend(std::clamp<qint64>(seconds, 0, device::lastSecond)) + '\'';
}

// As a recorder begins: what the file says, or the time of most tables, because most are right.
Status believe(const Database &database, Keeping &keeping)
{
    keeping.believed = keeping.file.believed;
    if (keeping.believed)
        return {};
    std::vector<qint64> newest;
    for (const Table &table : std::as_const(keeping.tables)) {
        const auto last = database.text("select DATETIME from " + identifier(table.name) + " order by ID desc limit 1");
        if (!last)
            return last.error();
        if (const qint64 seconds = secondsOf(*last); seconds >= 0)
            newest.push_back(seconds);
    }
    if (newest.empty())
        return {};
    std::nth_element(newest.begin(), newest.begin() + std::ptrdiff_t(newest.size() / 2), newest.end());
    keeping.believed = newest[newest.size() / 2];
    return {};
}

// The rows that a recorder removes, in the end: by the same conditions as its slices.
class Outlook
{
public:
    Outlook(const Database &database, const Table &table, const device::Keep &keep, std::optional<qint64> believed)
        : m_database(database),
          m_name(identifier(table.name)),
          m_ended(table.kind == Kind::Alarms ? " and EndDate!='' and EndTime!=''" : ""),
          m_keep(keep),
          m_believed(believed)
    {
        const auto least = leastOf(table.kind, keep);
        m_stayFrom = least.count() == 0 ? device::lastSecond + 1 : believed.value_or(0) - secondsIn(least);
        if (keep.age && believed)
            m_cutoff = *believed - secondsIn(*keep.age);
    }

    Status look();
    qint64 rows() const { return m_rows; }
    Result<bool> isTooMuch() const;
    /// The rows up to an ID that go.
    Result<qint64> going(qint64 through, bool byAge) const;

private:
    Result<qint64> lastBefore(qint64 second, qint64 through) const;
    QByteArray notYounger(qint64 than) const;

    const Database &m_database;
    const QByteArray m_name;
    const QByteArray m_ended;
    const device::Keep &m_keep;
    const std::optional<qint64> m_believed;
    qint64 m_stayFrom = 0; ///< Rows from this second on stay.
    std::optional<qint64> m_cutoff;
    qint64 m_rows = 0;
    qint64 m_first = 0; ///< The lowest ID that may go, 0 for none.
    qint64 m_firstSeconds = -1;
    qint64 m_last = 0;
};

Status Outlook::look()
{
    const auto rows = m_database.number("select count(*) from " + m_name);
    const auto last = m_database.number("select max(ID) from " + m_name);
    auto first =
        m_database.prepare("select ID,DATETIME from " + m_name + " where ID>0" + m_ended + " order by ID limit 1");
    if (!rows || !last || !first)
        return !rows ? rows.error() : !last ? last.error() : first.error();
    m_rows = *rows;
    m_last = *last;
    if (first->step()) {
        m_first = first->number(0);
        m_firstSeconds = secondsOf(first->cell(1));
    }
    return first->status();
}

// Asked at one place, as the recorder does, and not counted.
Result<bool> Outlook::isTooMuch() const
{
    if (!m_cutoff || m_first == 0 || m_firstSeconds >= *m_cutoff)
        return false;
    const qint64 tenth = std::min(std::max<qint64>(1, (m_last - m_first + 1) / 10), highest - m_first);
    return m_database
        .number("select ifnull(sum(DATETIME>='0' and DATETIME<" + literal(*m_cutoff) +
                "),0)*2>count(*) from (select DATETIME from " + m_name +
                " where ID>=" + QByteArray::number(m_first + tenth) + m_ended + " order by ID limit 3)")
        .map([](qint64 isSo) { return isSo != 0; });
}

Result<qint64> Outlook::lastBefore(qint64 second, qint64 through) const
{
    return m_database.number("select ifnull(max(ID),0) from " + m_name + " not indexed where ID between " +
                             QByteArray::number(m_first) + " and " + QByteArray::number(through) + m_ended +
                             " and DATETIME>='0' and DATETIME<" + literal(second));
}

// Rows whose times cannot be believed go with those around them.
QByteArray Outlook::notYounger(qint64 than) const
{
    return " and not (+DATETIME>=" + literal(than) + " and +DATETIME<" +
           literal(m_believed.value_or(device::lastSecond) + 1) + ')';
}

Result<qint64> Outlook::going(qint64 through, bool byAge) const
{
    if (m_first == 0)
        return 0;
    QByteArray condition;
    const auto add = [&](qint64 last, const QByteArray &also) {
        condition += (condition.isEmpty() ? "(ID<=" : " or (ID<=") + QByteArray::number(last) + also + ')';
    };
    if (byAge && m_cutoff && m_firstSeconds < *m_cutoff) {
        const qint64 before = std::min(*m_cutoff, m_stayFrom);
        const auto last = lastBefore(before, through);
        if (!last)
            return last;
        add(*last, notYounger(before));
    }
    if (m_keep.rows >= 0 && m_first <= m_last - m_keep.rows && m_firstSeconds < m_stayFrom) {
        const qint64 surplus = std::min(through, m_last - m_keep.rows);
        if (m_stayFrom > device::lastSecond) {
            add(surplus, QByteArray());
        } else {
            const auto last = lastBefore(m_stayFrom, surplus);
            if (!last)
                return last;
            add(*last, notYounger(m_stayFrom));
        }
    }
    if (condition.isEmpty())
        return 0;
    return m_database.number("select count(*) from " + m_name + " not indexed where ID>=" +
                             QByteArray::number(m_first) + m_ended + " and (" + condition + ')');
}

} // namespace

QString spanText(std::chrono::hours span)
{
    const qint64 hours = span.count();
    const auto text = [&](const Unit &unit) { return QString::number(hours / unit.hours) + QLatin1Char(unit.letter); };
    if (hours % units[3].hours == 0 && hours > units[3].hours) // one year is said in days
        return text(units[3]);
    return text(hours % units[1].hours == 0 ? units[1] : units[0]);
}

Result<std::chrono::hours> spanOf(const QString &text)
{
    bool isNumber = false;
    const QString digits = text.left(text.size() - 1);
    const qint64 number = digits.toInt(&isNumber);
    if (isNumber && digits.at(0).isDigit()) {
        for (const Unit &unit : units) {
            if (text.endsWith(QLatin1Char(unit.letter)))
                return std::chrono::hours(number * unit.hours);
        }
    }
    return failure(text, QStringLiteral("this is not a span; give a whole number and h, d, w or y (365 days), such as "
                                        "36h or 90d"));
}

QString sumsText(const device::Keep &keep)
{
    QStringList sums;
    for (auto each = keep.sums.begin(); each != keep.sums.end(); ++each)
        sums << levelName(device::widthOf(each.key())) + QLatin1Char('=') + spanText(*each);
    return sums.join(QLatin1Char(','));
}

QString keepText(const device::Keep &keep)
{
    QStringList rules;
    if (keep.age)
        rules << QLatin1String("age ") + spanText(*keep.age);
    if (keep.rows >= 0)
        rules << QLatin1String("rows ") + grouped(keep.rows);
    if (keep.atLeast)
        rules << QLatin1String("at least ") + spanText(*keep.atLeast);
    if (!keep.sums.isEmpty())
        rules << QLatin1String("sums ") + sumsText(keep);
    return rules.isEmpty() ? QStringLiteral("for ever") : rules.join(QLatin1String(", "));
}

std::chrono::hours leastOf(Kind kind, const device::Keep &keep)
{
    return keep.atLeast.value_or(kind == Kind::Log ? leastOfLogs : std::chrono::hours(0));
}

Result<device::KeepFile> keepFileOf(const Database &database)
{
    const auto modules = database.number("select count(*) from sqlite_master where name='device keep' and "
                                         "type='table' and rootpage=0");
    if (!modules)
        return modules.error();
    const auto unreadable = [&](const QString &why) {
        return Error(Error::TableLayout, database.name(), QString(), why);
    };
    if (*modules > 0) // asking for its columns would run its module
        return unreadable(QStringLiteral("the table \"device keep\" is a virtual one"));
    RollupChannel channel(database);
    const auto file = device::keepFile(channel);
    if (!file && file.error().code() == Error::TableLayout) {
        const QString &table = file.error().table();
        const bool isOfOne = !table.isEmpty() && !table.contains(QLatin1Char(' '));
        return unreadable(isOfOne ? table + QLatin1String(": ") + file.error().cause() : file.error().cause());
    }
    return file;
}

const device::Kept *Keeping::entryOf(const QString &table) const
{
    const auto found = file.tables.constFind(table.toLower());
    return found == file.tables.constEnd() ? nullptr : &*found;
}

Result<Keeping> keepingOf(const Database &database, const QString &path)
{
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    auto file = keepFileOf(database);
    if (!file)
        return file.error();
    Keeping keeping{{}, *file, device::ShippedFile(path), {}};
    for (const Table &table : *tables) {
        if (holdsRecords(table.kind) && device::TableName::from(table.name)) // a recorder leaves others alone
            keeping.tables << table;
    }
    keeping.shipped.look();
    if (const Status believed = believe(database, keeping); !believed)
        return believed.error();
    return keeping;
}

Result<KeepOutlook> outlookOf(const Database &database, const Keeping &keeping, const Table &table,
                              const device::Keep &keep)
{
    Outlook outlook(database, table, keep, keeping.believed);
    if (const Status looked = outlook.look(); !looked)
        return looked.error();
    const auto tooMuch = outlook.isTooMuch();
    if (!tooMuch)
        return tooMuch.error();
    const device::Hold *const hold = keeping.shipped.hold(table.name);
    const qint64 shipped = hold ? hold->throughId : highest;
    const auto going = outlook.going(shipped, !*tooMuch);
    const auto allowed = *tooMuch ? outlook.going(shipped, true) : going;
    const auto all = hold ? outlook.going(highest, true) : allowed;
    if (!going || !allowed || !all)
        return !going ? going.error() : !allowed ? allowed.error() : all.error();
    return KeepOutlook{outlook.rows(), *going, *allowed - *going, *all - *allowed};
}

} // namespace device_db
