// SPDX-License-Identifier: MIT
//
// trim, purge and clear: what deletes rows.
#include "commands/commands.h"

#include "commands/interruption.h"
#include "commands/options.h"
#include "commands/writing.h"
#include "program/program.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "storefile/trends.h"
#include "terminal/output.h"

#include <QFileInfo>

#include <algorithm>
#include <functional>
#include <limits>

namespace device_db
{

namespace
{

struct DeletionOptions {
    WriteOptions file;
    QString table;
    bool yes = false;
    qint64 keep = 0;
    QString before;
    bool ended = false;
    bool dryRun = false;
};

/// What a deletion takes: its rows, and the first and last of their times.
struct Doomed {
    Table table;
    QByteArray condition; ///< Of an SQL statement, in which ?1 is `value`.
    QByteArray value;
    qint64 rows = 0;
    qint64 left = 0;
    qint64 unread = 0; ///< Of these, kept because nobody can say how old they are.
    QByteArray first;
    QByteArray last;
};

// Times are compared as texts. What is not one, such as "2024" or "06.05.2024 07:00", would come before all of them.
constexpr const char *hasTime = "coalesce(DATETIME glob '[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] "
                                "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]*' and julianday(DATETIME) is not null,0)";

/// Of a deletion: the tables it is for, and what goes. In the condition %table is the table's name, and ?1 the value.
struct Deletion {
    QVector<Kind> kinds; ///< Empty: any.
    QByteArray condition;
    std::function<Result<QByteArray>(Kind)> value;
    bool isByTime = false;
    bool isOfAll = false;
};

Result<Doomed> doomed(const Database &database, const DeletionOptions &options, const Deletion &deletion)
{
    const auto table = chooseTable(database, options.table, deletion.kinds);
    if (!table)
        return table.error();
    const QByteArray name = identifier(table->name);
    const QByteArray condition = QByteArray(deletion.condition).replace("%table", name);
    const QByteArray unread =
        deletion.isByTime ? "(select count(*) from " + name + " where not (" + hasTime + " or " + condition + "))"
                          : "0";
    auto rows = database.prepare("select count(*),min(DATETIME),max(DATETIME),(select count(*) from " + name + ")," +
                                 unread + " from " + name + " where " + condition);
    if (!rows)
        return rows.error();
    const auto value = deletion.value(table->kind);
    if (!value)
        return value.error();
    rows->bind(1, *value);
    if (!rows->step())
        return rows->status() ? failure(options.file.path, QStringLiteral("counting gave no row"))
                              : rows->status().error();
    return Doomed{*table,          condition,     *value,       rows->number(0), rows->number(3) - rows->number(0),
                  rows->number(4), rows->cell(1), rows->cell(2)};
}

constexpr int rowsOfSlice = 5000;

/// Why a deletion did not go on. Rows are often deleted because a disk is full, and that takes some room first.
Error stopped(const Database &database, const Error &why, const Doomed &rows, qint64 deleted)
{
    QString cause = why.cause();
    if (database.isDiskFull()) {
        // The journal takes the pages of a slice, and those of its indexes.
        const qint64 size = QFileInfo(database.name()).size();
        const qint64 room = std::min(size, size / (rows.rows + rows.left) * rowsOfSlice * 2);
        cause = QStringLiteral("the disk is full; deleting needs about %1 for a journal beside the file. Make that "
                               "room, or work on a copy on another disk (\"device-db backup\")")
                    .arg(bytesText(std::max<qint64>(room, 1 << 16)));
    }
    return failure(database.name(),
                   cause + QStringLiteral(". Deleted until then: %1 of %2").arg(rowsText(deleted), rows.table.name));
}

// Not by the stores of the host layer: they take only names that need no quotes, and a table that is there is to be
// tidied whatever it is called. Slice after slice, so that nobody waits long for the lock.
Result<qint64> deleteRows(const Database &database, const Doomed &rows)
{
    const QByteArray name = identifier(rows.table.name);
    auto end = database.prepare("select ID from " + name + " where ID>=?1 order by ID limit 1 offset " +
                                QByteArray::number(rowsOfSlice - 1));
    auto slice = database.prepare("delete from " + name + " not indexed where ID between ?2 and ?3 and (" +
                                  rows.condition + ')');
    const auto lowest = database.number("select min(ID) from " + name);
    if (!end || !slice || !lowest)
        return !end ? end.error() : !slice ? slice.error() : lowest.error();
    qint64 deleted = 0;
    qint64 first = *lowest;
    for (bool isLast = false; !isLast && !Interruption::came();) {
        end->bind(1, first);
        isLast = !end->step() || end->number(0) == std::numeric_limits<qint64>::max();
        const qint64 last = isLast ? std::numeric_limits<qint64>::max() : end->number(0);
        if (const Status found = end->status(); !found)
            return found.error();
        end->reset();
        slice->bind(1, rows.value);
        slice->bind(2, first);
        slice->bind(3, last);
        slice->step();
        if (const Status done = slice->status(); !done && Interruption::came())
            break; // this slice is undone
        else if (!done)
            return stopped(database, done.error(), rows, deleted);
        slice->reset();
        deleted += database.changes();
        if (!isLast)
            first = last + 1;
    }
    return deleted;
}

// Rows that are in no sum yet could never be in one again. A trend that cannot be kept is no reason to keep rows.
void sumUpBefore(const Database &database, const Table &table)
{
    if (table.kind != Kind::Samples)
        return;
    const auto trend = trendOf(database, table.name);
    Status done = trend ? Status() : Status(trend.error());
    if (trend && *trend)
        done = catchUpTrend(database, table.name, [](qint64) { return !Interruption::came(); });
    if (!done && !Interruption::came())
        complain(QStringLiteral("%1: rows are missing from the trend of %2: %3")
                     .arg(database.name(), table.name, done.error().cause()));
}

QString unreadText(const Doomed &rows, const QString &before)
{
    return rows.unread == 0 ? QString()
                            : QStringLiteral("; %1%2 whose time cannot be read").arg(before, rowsText(rows.unread));
}

/// Shows what goes, asks, deletes, says how many went and does `finish`.
Outcome remove(const DeletionOptions &options, const Deletion &deletion,
               const std::function<Status(const Database &, const Table &)> &finish = {})
{
    const auto plan = [&](const Doomed &rows) {
        return QStringLiteral("%1 of %2, from %3 to %4, would be deleted; %5 would stay%6")
            .arg(rowsText(rows.rows), rows.table.name, QString::fromUtf8(rows.first), QString::fromUtf8(rows.last),
                 grouped(rows.left), unreadText(rows, QStringLiteral("among them ")));
    };
    const auto nothing = [&](const Doomed &rows) {
        say(QStringLiteral("%1: no rows of %2 to delete%3")
                .arg(options.file.path, rows.table.name, unreadText(rows, QStringLiteral("it keeps "))));
        return Done;
    };
    if (options.dryRun) {
        const auto file = openForDryRun(options.file);
        if (!file)
            return file.error();
        const auto rows = doomed(file->database, options, deletion);
        if (!rows)
            return rows.error();
        if (rows->rows == 0)
            return nothing(*rows);
        say(options.file.path + QLatin1String(": ") + plan(*rows));
        return Done;
    }
    const auto database = openForWriting(options.file);
    if (!database)
        return database.error();
    const auto rows = doomed(*database, options, deletion);
    if (!rows)
        return rows.error();
    if (rows->rows == 0)
        return nothing(*rows);
    if (const Status may = confirmed(options.file.path, plan(*rows), options.yes); !may)
        return may.error();
    const Interruption guard(*database);
    if (!deletion.isOfAll)
        sumUpBefore(*database, rows->table);
    const auto deleted = deleteRows(*database, *rows);
    if (!deleted)
        return deleted.error();
    if (guard.came()) {
        complain(QStringLiteral("%1: interrupted; %2 of %3 deleted, the others are left")
                     .arg(options.file.path, rowsText(*deleted), rows->table.name));
        return Interrupted;
    }
    if (finish) {
        if (const Status finished = finish(*database, rows->table); !finished)
            return finished.error();
    }
    const qint64 spared = std::max<qint64>(0, rows->rows - *deleted); // more went when a recorder stored some meanwhile
    say(QStringLiteral("%1: %2 of %3 deleted, from %4 to %5; %6 left%7")
            .arg(options.file.path, rowsText(*deleted), rows->table.name, QString::fromUtf8(rows->first),
                 QString::fromUtf8(rows->last), grouped(rows->left + spared),
                 unreadText(*rows, QStringLiteral("among them "))));
    if (spared == 0)
        return Done;
    complain(QStringLiteral("%1: %2 of %3 could not be deleted; a trigger keeps them")
                 .arg(options.file.path, rowsText(spared), rows->table.name));
    return Attention;
}

Outcome trim(const DeletionOptions &options)
{
    return remove(options, {{},
                            "ID<=(select ID from %table order by ID desc limit 1 offset cast(?1 as integer))",
                            [&](Kind) { return Result<QByteArray>(QByteArray::number(options.keep)); }});
}

Outcome purge(const DeletionOptions &options)
{
    return remove(options,
                  {options.ended ? QVector<Kind>{Kind::Alarms} : QVector<Kind>{},
                   QByteArray("(DATETIME<?1 and ") + hasTime + ')' +
                       (options.ended ? " or coalesce(EndDate!='' and EndTime!='',0)" : ""),
                   [&](Kind kind) { return boundText(options.before, Bound::First, hasMilliseconds(kind), false); },
                   true});
}

Outcome clear(const DeletionOptions &options)
{
    const auto anew = [](const Database &database, const Table &table) -> Status {
        auto sequence = database.prepare("delete from sqlite_sequence where name=?");
        if (!sequence)
            return sequence.error();
        sequence->bind(1, table.name.toUtf8());
        sequence->step();
        return sequence->status();
    };
    return remove(options, {{}, "1", [](Kind) { return Result<QByteArray>(QByteArray("")); }, false, true}, anew);
}

} // namespace

void addDeletion(Program &program)
{
    const auto add = [&](const char *name, const char *summary, const char *details,
                         Outcome (*body)(const DeletionOptions &)) {
        CLI::App *const command = program.add(name, summary, details);
        const auto options = std::make_shared<DeletionOptions>();
        addWritableFile(command, options->file);
        addText(command, "TABLE", options->table, "The table")->type_name("")->required();
        command->add_flag("-y,--yes", options->yes, "Do not ask");
        command->add_flag("--dry-run", options->dryRun, "Only say what would be deleted");
        program.onRun(command, [options, body] { return body(*options); });
        return std::pair{command, options.get()};
    };
    {
        const auto [command, options] =
            add("trim", "Delete the oldest rows beyond a number", "Oldest by the order of recording.", trim);
        command->add_option("--keep", options->keep, "Keep this many of the newest rows")
            ->type_name("N")
            ->required()
            ->check(wholeNumber());
    }
    {
        const auto [command, options] =
            add("purge", "Delete the rows before a time",
                "A TIME is a day, a day and a time, or a span back from now such as 90d.", purge);
        addText(command, "--before", options->before,
                "Rows of this time and later stay, and those whose time cannot be read")
            ->type_name("TIME")
            ->required();
        command->add_flag("--ended", options->ended, "Of alarms also every ended one, as the device's own purge does");
    }
    add("clear", "Delete all rows of a table", "The table stays; its IDs begin at 1 again.", clear);
}

} // namespace device_db
