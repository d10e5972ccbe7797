// SPDX-License-Identifier: MIT
#include "storefile/keeping.h"

#include "storefile/rollup_channel.h"
#include "storefile/texts.h"
#include "storefile/trends.h"

#include "device/table_name.h"

#include "host/bucket.h"
#include "host/old_rows.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace device_db
{

namespace
{

struct Unit {
    char letter;
    qint64 hours;
};
constexpr Unit units[] = {{'h', 1}, {'d', 24}, {'w', 24 * 7}, {'y', 24 * 365}};

constexpr qint64 highest = std::numeric_limits<qint64>::max();

qint64 secondsIn(std::chrono::hours span)
{
    return std::chrono::seconds(span).count();
}

// As a recorder begins.
Status believe(RollupChannel &channel, Keeping &keeping)
{
    keeping.believed = keeping.file.believed;
    if (keeping.believed)
        return {};
    QStringList tables;
    for (const Table &table : std::as_const(keeping.tables))
        tables << table.name;
    const auto most = device::timeOfMost(channel, tables);
    if (!most)
        return most.error();
    keeping.believed = *most;
    return {};
}

// The rows that a recorder removes, in the end: by the same conditions as its slices.
class Outlook
{
public:
    Outlook(const Database &database, const Keeping &keeping, const Table &table, const device::Keep &keep)
        : m_database(database),
          m_channel(database),
          m_table{table.name, table.kind == Kind::Alarms, keeping.believed},
          m_name(identifier(table.name)),
          m_mayGo(device::mayGo(m_table).toUtf8()),
          m_keep(keep)
    {
        const auto least = leastOf(table.kind, keep);
        const qint64 believed = keeping.believed.value_or(0);
        m_stayFrom = least.count() == 0 ? device::lastSecond + 1 : believed - secondsIn(least);
        m_mayBeMuch = device::isEven(believed, keeping.file.since.value_or(believed));
        if (keep.age && keeping.believed)
            m_cutoff = believed - secondsIn(*keep.age);
    }

    Status look();
    qint64 rows() const { return m_rows; }
    Result<bool> isTooMuch();
    /// The rows up to an ID that go.
    Result<qint64> going(qint64 through, bool byAge) const;

private:
    Result<qint64> lastBefore(qint64 second, qint64 through) const;
    QByteArray goesBefore(qint64 second) const { return device::goesBefore(m_table, second).toUtf8(); }

    const Database &m_database;
    RollupChannel m_channel;
    const device::AgingTable m_table;
    const QByteArray m_name;
    const QByteArray m_mayGo;
    const device::Keep &m_keep;
    qint64 m_stayFrom = 0; ///< Rows from this second on stay.
    bool m_mayBeMuch = false;
    std::optional<qint64> m_cutoff;
    qint64 m_rows = 0;
    device::TableEnds m_ends;
};

Status Outlook::look()
{
    const auto rows = m_database.number("select count(*) from " + m_name);
    const auto ends = device::endsOf(m_channel, m_table);
    if (!rows || !ends)
        return !rows ? rows.error() : ends.error();
    m_rows = *rows;
    m_ends = *ends;
    return {};
}

Result<bool> Outlook::isTooMuch()
{
    if (!m_cutoff || m_ends.first == 0 || m_ends.firstSeconds >= *m_cutoff || m_mayBeMuch)
        return false;
    return device::isTooMuch(m_channel, m_table, m_ends, *m_cutoff, 0);
}

Result<qint64> Outlook::lastBefore(qint64 second, qint64 through) const
{
    return m_database.number("select ifnull(max(ID),0) from " + m_name + " not indexed where ID between " +
                             QByteArray::number(m_ends.first) + " and " + QByteArray::number(through) + m_mayGo +
                             " and DATETIME>='0' and DATETIME<" + device::timeLiteral(second).toUtf8());
}

Result<qint64> Outlook::going(qint64 through, bool byAge) const
{
    if (m_ends.first == 0)
        return 0;
    QByteArray condition;
    const auto add = [&](qint64 last, const QByteArray &also) {
        condition += (condition.isEmpty() ? "(ID<=" : " or (ID<=") + QByteArray::number(last) + also + ')';
    };
    if (byAge && m_cutoff && m_ends.firstSeconds < *m_cutoff) {
        const qint64 before = std::min(*m_cutoff, m_stayFrom);
        const auto last = lastBefore(before, through);
        if (!last)
            return last;
        add(*last, goesBefore(before));
    }
    if (m_keep.rows >= 0 && m_ends.first <= m_ends.last - m_keep.rows && m_ends.firstSeconds < m_stayFrom) {
        const qint64 surplus = std::min(through, m_ends.last - m_keep.rows);
        if (m_stayFrom > device::lastSecond) {
            add(surplus, QByteArray());
        } else {
            const auto last = lastBefore(m_stayFrom, surplus);
            if (!last)
                return last;
            add(*last, goesBefore(m_stayFrom));
        }
    }
    if (condition.isEmpty())
        return 0;
    return m_database.number("select count(*) from " + m_name + " not indexed where ID>=" +
                             QByteArray::number(m_ends.first) + m_mayGo + " and (" + condition + ')');
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
    return device::atLeastOf(keep, kind == Kind::Log);
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
    RollupChannel channel(database);
    if (const Status believed = believe(channel, keeping); !believed)
        return believed.error();
    return keeping;
}

Result<KeepOutlook> outlookOf(const Database &database, const Keeping &keeping, const Table &table,
                              const device::Keep &keep)
{
    Outlook outlook(database, keeping, table, keep);
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
