// SPDX-License-Identifier: MIT
#include "keep_file.h"

#include "rollup_file.h"
#include "row_text.h"

namespace device
{

namespace
{

// With a blank, as all that this layer adds to a file: see schema.cpp.
constexpr const char *table = "\"device keep\"";
constexpr int version = 1;
constexpr const char *columns = "COLLECTOR,AGE,NEWEST,ATLEAST,SUMS,FLOORS,TRIMMED,UNSHIPPED,THROUGHID,THROUGH,VERSION";

Result<bool> isThere(SqlChannel &connection, const Site &site)
{
    const auto found = connection.query(
        site, QStringLiteral("select (select group_concat(name) from pragma_table_info(m.name)) from sqlite_master m "
                             "where type='table' and name='device keep'"));
    if (!found)
        return found.error();
    if (found->isEmpty())
        return false;
    if (found->first().first() != QLatin1String(columns))
        return site.error(Error::TableLayout, QStringLiteral("the table \"device keep\" has other columns"));
    return true;
}

Status makeTable(SqlChannel &connection, const Site &site)
{
    const auto there = isThere(connection, site);
    if (!there)
        return there.error();
    if (*there)
        return {};
    return connection.run(site, creationOfKeep());
}

// An entry that says nothing, unless there is one.
Status makeEntry(SqlChannel &connection, const Site &site, const QString &name)
{
    return connection.run(site,
                          QStringLiteral("insert or ignore into %1 values (%2,NULL,NULL,NULL,'','',0,0,0,NULL,%3)")
                              .arg(QLatin1String(table), quoted(name), QString::number(version)));
}

QString numberOrNull(const std::optional<std::chrono::hours> &time)
{
    return time ? QString::number(time->count()) : QStringLiteral("NULL");
}

// "60:2160,600:17520": a width in seconds and a number for it.
QString listOf(const std::map<qint64, qint64> &pairs)
{
    QStringList list;
    for (const auto &[width, number] : pairs)
        list << QString::number(width) + QLatin1Char(':') + QString::number(number);
    return list.join(QLatin1Char(','));
}

// Only digits: "abc" is not 0, which would keep no row.
std::optional<qint64> numberOf(const QString &text)
{
    bool isNumber = false;
    const qint64 number = text.toLongLong(&isNumber);
    return isNumber && number >= 0 ? number : std::optional<qint64>();
}

std::optional<std::map<qint64, qint64>> pairsOf(const QString &list)
{
    std::map<qint64, qint64> pairs;
    if (list.isEmpty())
        return pairs;
    for (const QString &each : list.split(QLatin1Char(','))) {
        const qint64 colon = each.indexOf(QLatin1Char(':'));
        const auto width = numberOf(each.left(int(colon)));
        const auto number = numberOf(each.mid(int(colon) + 1));
        if (colon < 0 || !width || !number || !levelOf(*width))
            return {};
        pairs[*width] = *number;
    }
    return pairs;
}

std::map<qint64, qint64> hoursOf(const QMap<TrendLevel, std::chrono::hours> &sums)
{
    std::map<qint64, qint64> pairs;
    for (auto each = sums.begin(); each != sums.end(); ++each)
        pairs[widthOf(each.key())] = each->count();
    return pairs;
}

// Nothing for a row that this program did not write.
std::optional<Keep> keepOf(const QStringList &row)
{
    Keep keep;
    for (const auto &[column, time] : {std::pair{1, &keep.age}, std::pair{3, &keep.atLeast}}) {
        if (row.at(column).isEmpty())
            continue;
        const auto hours = numberOf(row.at(column));
        if (!hours)
            return {};
        *time = std::chrono::hours(*hours);
    }
    const auto rows = row.at(2).isEmpty() ? qint64(-1) : numberOf(row.at(2));
    const auto sums = pairsOf(row.at(4));
    if (!rows || !sums)
        return {};
    keep.rows = *rows;
    for (const auto &[width, age] : *sums)
        keep.sums.insert(*levelOf(width), std::chrono::hours(age));
    if (!checkKeep(Site(), keep))
        return {};
    return keep;
}

} // namespace

Site keepSite(const QString &name)
{
    return {QStringLiteral("keep the rows of"), name};
}

QString creationOfKeep()
{
    return QStringLiteral("create table %1(COLLECTOR text UNIQUE COLLATE NOCASE,AGE integer,NEWEST integer,ATLEAST "
                          "integer,SUMS text,FLOORS text,TRIMMED integer,UNSHIPPED integer,THROUGHID integer,THROUGH "
                          "text,VERSION integer)")
        .arg(QLatin1String(table));
}

Status checkKeep(const Site &site, const Keep &keep)
{
    constexpr std::chrono::hours longest(24LL * 366 * 9999);
    const auto refused = [&](const char *option, const std::chrono::hours &time, int least) {
        return site.error(Error::OptionRefused, QStringLiteral("%1 is %2 h; it can be %3 to %4 h")
                                                    .arg(QLatin1String(option), QString::number(time.count()),
                                                         QString::number(least), QString::number(longest.count())));
    };
    if (keep.age && (keep.age->count() < 1 || *keep.age > longest))
        return refused("age", *keep.age, 1);
    if (keep.atLeast && (keep.atLeast->count() < 0 || *keep.atLeast > longest))
        return refused("atLeast", *keep.atLeast, 0);
    if (keep.age && keep.atLeast && *keep.age < *keep.atLeast)
        return site.error(Error::OptionRefused,
                          QStringLiteral("age is %1 h, shorter than atLeast, which is %2 h")
                              .arg(QString::number(keep.age->count()), QString::number(keep.atLeast->count())));
    for (auto each = keep.sums.begin(); each != keep.sums.end(); ++each) {
        if (each.key() < TrendLevel::TenSeconds || each.key() > TrendLevel::Day)
            return site.error(Error::OptionRefused, QStringLiteral("a level of sums is none of TrendLevel"));
        if (each->count() < 1 || *each > longest)
            return refused("an age of sums", *each, 1);
        if (each != keep.sums.begin() && *each < *std::prev(each))
            return site.error(Error::OptionRefused,
                              QStringLiteral("the sums of a level are kept for %1 h, shorter than those of a finer one")
                                  .arg(each->count()));
    }
    return {};
}

Result<KeepFile> keepFile(SqlChannel &connection)
{
    const Site site = keepSite(QStringLiteral("all tables"));
    KeepFile file;
    const auto there = isThere(connection, site);
    if (!there)
        return there.error();
    if (!*there)
        return file;
    const auto rows =
        connection.query(site, QStringLiteral("select %1 from %2").arg(QLatin1String(columns), QLatin1String(table)));
    if (!rows)
        return rows.error();
    TimeReader samples(false);
    TimeReader log(true);
    for (const QStringList &row : *rows) {
        const auto time = [&](int column) {
            const QString &text = row.at(column);
            TimeReader &reader = text.size() == log.length() ? log : samples;
            return reader.read(text.constData(), text.size());
        };
        const auto keep = keepOf(row);
        const auto floors = pairsOf(row.at(5));
        if (row.at(10).toInt() != version || !keep || !floors)
            return keepSite(row.first())
                .error(Error::TableLayout,
                       QStringLiteral("what the file says is of version %1 or cannot be read; this program knows "
                                      "version %2")
                           .arg(row.at(10), QString::number(version)));
        if (row.first().isEmpty()) {
            if (const LocalTime believed = time(9); believed.isValid())
                file.believed = secondsOf(believed);
            if (const qint64 since = row.at(8).toLongLong(); since > 0)
                file.since = since;
            continue;
        }
        const QString name = row.first().toLower();
        file.tables.insert(name,
                           {*keep, row.at(6).toLongLong(), row.at(7).toLongLong(), row.at(8).toLongLong(), time(9)});
        file.floors.insert(name, *floors);
    }
    return file;
}

// Where the rules cannot be read, nothing is removed by them either.
Result<SumFloors> sumFloors(SqlChannel &connection, const QString &name)
{
    const Site site = keepSite(name);
    const auto there = isThere(connection, site);
    if (!there && there.error().code() != Error::TableLayout)
        return there.error();
    if (!there || !*there)
        return SumFloors();
    const auto rows = connection.query(site, QStringLiteral("select FLOORS from %1 where COLLECTOR=%2 and VERSION=%3")
                                                 .arg(QLatin1String(table), quoted(name), QString::number(version)));
    if (!rows)
        return rows.error();
    return pairsOf(rows->value(0).value(0)).value_or(SumFloors());
}

Result<bool> setKeep(SqlChannel &connection, const TableName &name, const Keep &keep)
{
    const Site site = keepSite(name.text());
    if (const Status checked = checkKeep(site, keep); !checked)
        return checked.error();
    const auto before = keepFile(connection);
    if (!before)
        return before.error();
    const auto now = before->tables.constFind(name.text().toLower());
    if (now != before->tables.constEnd() && now->keep == keep)
        return false;
    const auto layout = connection.ask(
        site, QStringLiteral("select group_concat(name) from pragma_table_info(%1)").arg(quoted(name.text())));
    if (!layout)
        return layout.error();
    const QString &found = layout->first().first();
    if (found.isEmpty())
        return site.error(Error::TableMissing, QStringLiteral("there is no such table"));
    if (!found.startsWith(QLatin1String("ID,")) || !found.contains(QLatin1String("DATETIME")))
        return site.error(Error::TableLayout, QLatin1String("it has the columns ") + found);
    if (const Status made = makeTable(connection, site); !made)
        return made.error();
    if (const Status made = makeEntry(connection, site, name.text()); !made)
        return made.error();
    const Status set =
        connection.run(site, QStringLiteral("update %1 set AGE=%2,NEWEST=%3,ATLEAST=%4,SUMS='%5' where COLLECTOR=%6")
                                 .arg(QLatin1String(table), numberOrNull(keep.age),
                                      keep.rows < 0 ? QStringLiteral("NULL") : QString::number(keep.rows),
                                      numberOrNull(keep.atLeast), listOf(hoursOf(keep.sums)), quoted(name.text())));
    if (!set)
        return set.error();
    return true;
}

Status countTrimmed(SqlChannel &connection, const Site &site, const TrimmedRows &trimmed)
{
    if (const Status made = makeTable(connection, site); !made)
        return made;
    if (const Status made = makeEntry(connection, site, trimmed.table); !made)
        return made;
    return connection.run(
        site, QStringLiteral("update %1 set TRIMMED=TRIMMED+%2,UNSHIPPED=UNSHIPPED+%3,THROUGHID=%4,THROUGH=%5 where "
                             "COLLECTOR=%6")
                  .arg(QLatin1String(table), QString::number(trimmed.rows), QString::number(trimmed.unshipped),
                       QString::number(trimmed.throughId), quoted(trimmed.through), quoted(trimmed.table)));
}

Status setSumFloors(SqlChannel &connection, const Site &site, const QString &name, const SumFloors &floors)
{
    for (const auto &[width, floor] : floors) {
        if (const Status removed = removeRollupsBefore(connection, site, name, width, floor); !removed)
            return removed;
    }
    return connection.run(site, QStringLiteral("update %1 set FLOORS='%2' where COLLECTOR=%3")
                                    .arg(QLatin1String(table), listOf(floors), quoted(name)));
}

Status noteBelieved(SqlChannel &connection, const Site &site, qint64 seconds, qint64 since)
{
    QString text;
    appendTime(text, timeOfSeconds(seconds), false);
    if (const Status made = makeTable(connection, site); !made)
        return made;
    if (const Status made = makeEntry(connection, site, QString()); !made)
        return made;
    return connection.run(site, QStringLiteral("update %1 set THROUGH=%2,THROUGHID=%3 where COLLECTOR=''")
                                    .arg(QLatin1String(table), quoted(text), QString::number(since)));
}

} // namespace device
