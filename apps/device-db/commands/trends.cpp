// SPDX-License-Identifier: MIT
#include "storefile/trends.h"

#include "commands/commands.h"
#include "commands/interruption.h"
#include "commands/options.h"
#include "commands/writing.h"
#include "program/program.h"
#include "storefile/rollup_channel.h"
#include "storefile/tables.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "storefile/trend_review.h"
#include "terminal/progress.h"
#include "terminal/table_writer.h"

#include "device/table_name.h"

#include <algorithm>

namespace device_db
{

namespace
{

struct TrendsCommand {
    QString first; ///< on, off, rebuild or the file.
    QStringList others;
    WriteOptions writing;
    QString levels;
    bool forgetRemoved = false;
    OutputOptions output;
};

// The table of a series by its name in the file, if the device can keep a trend of it.
Result<device::TableName> seriesNamed(const Database &database, const QString &given)
{
    const auto table = chooseTable(database, given, {Kind::Samples});
    if (!table)
        return table.error();
    const auto name = device::TableName::from(table->name);
    if (!name)
        return failure(database.name(),
                       QStringLiteral("no trend can be kept of a table whose name needs quotes: %1").arg(table->name));
    return name;
}

Outcome show(const TrendsCommand &command)
{
    ReadOptions reading;
    reading.lock = command.writing.lock;
    const auto file = openFile(command.writing.path, reading);
    if (!file)
        return file.error();
    const auto trends = trendsOf(file->database, true);
    if (!trends)
        return trends.error();
    QString only;
    if (!command.others.isEmpty()) {
        const auto table = chooseTable(file->database, command.others.first(), {Kind::Samples});
        if (!table)
            return table.error();
        only = table->name;
    }
    const bool forPeople = isForPeople(command.output.format);
    const auto number = [&](qint64 value) { return forPeople ? grouped(value).toLatin1() : QByteArray::number(value); };
    const auto time = [&](const QByteArray &text) {
        return text.isNull() ? QByteArray("") : command.output.utc ? inUtc(text, false) : text;
    };
    Output output(command.output);
    const auto writer = rowWriter(command.output.format,
                                  {{"table", QStringLiteral("Table")},
                                   {"level", QStringLiteral("Level")},
                                   {"sums", QStringLiteral("Sums"), true, true},
                                   {"first", QStringLiteral("First")},
                                   {"last", QStringLiteral("Last")},
                                   {"bytes", QStringLiteral("Size"), true, true},
                                   {"through_id", QStringLiteral("Through ID"), true, true},
                                   {"through", QStringLiteral("Through")},
                                   {"behind", QStringLiteral("Behind"), true, true}},
                                  output);
    bool isShown = false;
    int code = Done;
    for (const TrendFacts &trend : *trends) {
        if (!only.isEmpty() && trend.table.compare(only, Qt::CaseInsensitive) != 0)
            continue;
        isShown = true;
        if (!trend.trouble.isEmpty()) {
            complain(QStringLiteral("%1: the trend of %2: %3; \"device-db trends off\" removes it, \"on\" makes a new "
                                    "one")
                         .arg(command.writing.path, trend.table, trend.trouble));
            code = Attention;
        }
        for (const TrendLevelFacts &level : trend.levels)
            writer->row({trend.table.toUtf8(), levelName(level.width).toLatin1(), number(level.buckets),
                         time(level.first), time(level.last),
                         forPeople ? bytesText(level.bytes).toLatin1() : QByteArray::number(level.bytes),
                         number(trend.state.mark), time(trend.through), number(trend.behind)},
                        trend.state.isOfThisTable ? Tone::Plain : Tone::Warning);
        if (trend.trouble.isEmpty() && !trend.state.isOfThisTable)
            complain(QStringLiteral("%1: the trend of %2 is of rows before the table was emptied; a recorder begins it "
                                    "anew, and so does \"device-db trends rebuild\"")
                         .arg(command.writing.path, trend.table));
    }
    writer->settle();
    if (!isShown && forPeople)
        output.write(
            (only.isEmpty() ? QStringLiteral("no table keeps a trend") : QStringLiteral("%1 keeps no trend").arg(only))
                .toUtf8() +
            '\n');
    return code;
}

// Sums of rows that are no longer there can be had from nowhere else.
Status mayForget(const TrendsCommand &command, const Database &database, const device::TableName &table)
{
    if (command.forgetRemoved)
        return {};
    const auto state = trendOf(database, table.text());
    if (!state)
        return failure(command.writing.path,
                       state.error().cause() + QStringLiteral("; what it holds of rows that are removed would be lost, "
                                                              "accept that with --forget-removed"));
    if (!*state || !(*state)->isOfThisTable)
        return {};
    const QByteArray mark = QByteArray::number((*state)->mark);
    const auto there =
        database.number("select count(*) from " + identifier(table.text()) + " where ID>0 and ID<=" + mark);
    if (!there)
        return there.error();
    if (*there >= (*state)->mark)
        return {};
    return failure(command.writing.path, QStringLiteral("the trend of %1 has sums of %2 that are no longer there; "
                                                        "accept that they are lost with --forget-removed")
                                             .arg(table.text(), rowsText((*state)->mark - *there)));
}

Outcome interrupted(const TrendsCommand &command, const QString &what)
{
    complain(QStringLiteral("%1: interrupted; %2").arg(command.writing.path, what));
    return Interrupted;
}

/// Sums up what is above the mark and says so.
Outcome catchUp(const TrendsCommand &command, const Database &database, const QString &table, const QString &done)
{
    const auto state = trendOf(database, table);
    if (!state)
        return state.error();
    const auto all = database.number(
        "select count(*) from " + identifier(table) +
        (*state && (*state)->isOfThisTable ? " where ID>" + QByteArray::number((*state)->mark) : QByteArray()));
    if (!all)
        return all.error();
    const qint64 ids = *state ? (*state)->last - (*state)->mark : 0;
    Progress progress(QStringLiteral("rows summed up"));
    const Status caughtUp = catchUpTrend(database, table, [&](qint64 sofar) {
        progress.show(std::min(sofar, ids), ids, sofar);
        return !Interruption::came();
    });
    progress.wipe();
    if (!caughtUp && !Interruption::came())
        return caughtUp.error();
    if (Interruption::came())
        return interrupted(command, QStringLiteral("what is summed up of %1 stays; a recorder or \"device-db trends "
                                                   "rebuild\" goes on")
                                        .arg(table));
    say(QStringLiteral("%1: %2: %3, %4 summed up").arg(command.writing.path, table, done, rowsText(*all)));
    return Done;
}

Status removeLeft(const Database &database)
{
    return removeLeftBuckets(database, [] { return !Interruption::came(); });
}

Outcome switchOn(const TrendsCommand &command, const Database &database, const device::TableName &table)
{
    device::TrendOptions options;
    if (!command.levels.isEmpty()) {
        const auto levels = levelsNamed(command.levels);
        if (!levels)
            return levels.error();
        options.levels = *levels;
    }
    const auto before = trendOf(database, table.text());
    const bool isKept = before && *before;
    if (isKept && (command.levels.isEmpty() || (*before)->levels == widthsOf(options.levels)))
        return catchUp(command, database, table.text(), QStringLiteral("its trend is kept already"));
    if (const Status may = mayForget(command, database, table); !may)
        return may.error();
    RollupChannel channel(database);
    const Status begun = channel.transaction({command.writing.path, QString()}, [&]() -> Status {
        const auto ended = device::endRollups(channel, table); // it may be one that cannot be read
        if (!ended)
            return ended.error();
        const auto made = device::beginRollups(channel, table, options);
        return made ? Status() : made.error();
    });
    if (!begun)
        return begun.error();
    if (const Status removed = removeLeft(database); !removed)
        return removed.error();
    return catchUp(command, database, table.text(), QStringLiteral("its trend is kept from now on"));
}

Outcome switchOff(const TrendsCommand &command, const Database &database, const device::TableName &table)
{
    if (const Status may = mayForget(command, database, table); !may)
        return may.error();
    RollupChannel channel(database);
    bool wasKept = false;
    const Status done = channel.transaction({command.writing.path, QString()}, [&]() -> Status {
        const auto ended = device::endRollups(channel, table);
        wasKept = ended.valueOr(false);
        return ended ? Status() : ended.error();
    });
    if (!done)
        return done.error();
    if (const Status removed = removeLeft(database); !removed)
        return removed.error();
    if (Interruption::came())
        return interrupted(command, QStringLiteral("the trend of %1 is no longer kept; a recorder removes the rest of "
                                                   "its sums")
                                        .arg(table.text()));
    say(QStringLiteral("%1: %2: %3")
            .arg(command.writing.path, table.text(),
                 wasKept ? QStringLiteral("its trend is no longer kept") : QStringLiteral("it keeps no trend")));
    return Done;
}

Outcome rebuild(const TrendsCommand &command, const Database &database, const device::TableName &table)
{
    const auto state = trendOf(database, table.text());
    if (!state)
        return failure(command.writing.path,
                       QStringLiteral("the trend of %1: %2; \"device-db trends on\" makes a new one")
                           .arg(table.text(), state.error().cause()));
    if (!*state)
        return failure(command.writing.path,
                       QStringLiteral("%1 keeps no trend; \"device-db trends on\" begins one").arg(table.text()));
    RollupChannel channel(database);
    const device::Site site{command.writing.path, QString()};
    if (command.forgetRemoved || !(*state)->isOfThisTable) {
        const Status begun = channel.transaction(site, [&] { return device::beginAnew(channel, site, **state); });
        if (!begun)
            return begun.error();
        if (const Status removed = removeLeft(database); !removed)
            return removed.error();
        return catchUp(command, database, table.text(), QStringLiteral("its trend begins anew"));
    }
    TrendRepair repair;
    Progress progress(QStringLiteral("rows compared"));
    const Status done = channel.transaction(site, [&]() -> Status {
        const auto now = trendOf(database, table.text());
        if (!now || !*now || !(*now)->isOfThisTable)
            return now ? failure(command.writing.path,
                                 QStringLiteral("the trend of %1 was changed meanwhile; try again").arg(table.text()))
                       : now.error();
        const auto repaired = repairTrend(database, table.text(), **now,
                                          [&](qint64 rows, qint64 all) { progress.show(rows, all, rows); });
        if (!repaired)
            return repaired.error();
        repair = *repaired;
        return {};
    });
    progress.wipe();
    if (!done && Interruption::came())
        return interrupted(command, QStringLiteral("the trend of %1 is as it was").arg(table.text()));
    if (!done)
        return done.error();
    QString what =
        QStringLiteral("%1 sums made anew, %2 removed").arg(grouped(repair.written), grouped(repair.removed));
    if (repair.frozen > 0)
        what += QStringLiteral(", %1 kept whose rows are no longer there").arg(grouped(repair.frozen));
    return catchUp(command, database, table.text(), what);
}

using Action = Outcome (*)(const TrendsCommand &, const Database &, const device::TableName &);

Outcome change(TrendsCommand command, Action action)
{
    if (command.others.isEmpty())
        return failure(command.first, QStringLiteral("name the file and the tables"));
    command.writing.path = pathOf(command.others.takeFirst());
    if (command.others.isEmpty())
        return failure(command.writing.path, QStringLiteral("name the tables"));
    const auto database = openForWriting(command.writing);
    if (!database)
        return database.error();
    QList<device::TableName> tables;
    for (const QString &given : command.others) {
        auto table = seriesNamed(*database, given);
        if (!table && action == switchOff) { // of a table that is gone, too
            const auto kept = trendsOf(*database, false);
            if (kept && std::any_of(kept->begin(), kept->end(), [&](const TrendFacts &trend) {
                    return trend.table.compare(given, Qt::CaseInsensitive) == 0;
                }))
                table = device::TableName::from(given);
        }
        if (!table)
            return table.error();
        tables << *table;
    }
    const Interruption guard(*database);
    for (const device::TableName &table : tables) {
        const auto done = action(command, *database, table);
        if (!done && Interruption::came())
            return interrupted(command, QStringLiteral("what is done for the trend of %1 stays; a recorder or the same "
                                                       "command goes on")
                                            .arg(table.text()));
        if (!done || *done != Done)
            return done;
    }
    return Done;
}

Outcome run(TrendsCommand command)
{
    if (command.first == QLatin1String("on"))
        return change(command, switchOn);
    if (command.first == QLatin1String("off"))
        return change(command, switchOff);
    if (command.first == QLatin1String("rebuild"))
        return change(command, rebuild);
    command.writing.path = pathOf(command.first);
    if (command.others.size() > 1)
        return failure(command.others.at(1), QStringLiteral("one table can be shown, or all"));
    return show(command);
}

} // namespace

void addTrends(Program &program)
{
    CLI::App *const command = program.add(
        "trends", "Show or change which tables keep sums for trends",
        "A recorder of the host layer, plot and check --trends use sums by time spans, which are kept beside the rows. "
        "\"trends FILE\" shows them: through which row they go, and how many rows came since. \"trends on FILE "
        "TABLE...\" keeps them from now on and sums up what is there; \"off\" removes them; \"rebuild\" makes those "
        "anew that differ from the rows. Sums of rows that are deleted cannot be made again: rebuild keeps them, and "
        "what would lose them needs --forget-removed. When it is interrupted, what is summed up stays.");
    const auto options = std::make_shared<TrendsCommand>();
    addText(command, "FILE", options->first, "The database file; or one of the words on, off, rebuild before it")
        ->type_name("")
        ->required();
    addTexts(command, "TABLE", options->others, "The tables; to show, all or one")->type_name("");
    addText(command, "--levels", options->levels,
            "The time spans for on, some of 10s,1min,10min,1h,1d; default: all but 10s")
        ->type_name("LIST");
    command->add_flag("--forget-removed", options->forgetRemoved, "Even if sums of rows that are deleted are lost");
    addWriting(command, options->writing);
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
