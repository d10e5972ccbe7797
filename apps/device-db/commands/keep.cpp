// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "commands/writing.h"
#include "program/program.h"
#include "storefile/keeping.h"
#include "storefile/rollup_channel.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "storefile/trends.h"
#include "terminal/table_writer.h"

#include "device/table_name.h"

#include "host/time_text.h"

#include <algorithm>

namespace device_db
{

namespace
{

struct KeepCommand {
    WriteOptions writing;
    QStringList tables;
    QString age; ///< As given; empty to leave it as it is, as the following.
    QString rows;
    QString atLeast;
    QString sums;
    bool forEver = false;
    bool dryRun = false;
    OutputOptions output;

    bool changes() const
    {
        return forEver || !age.isEmpty() || !rows.isEmpty() || !atLeast.isEmpty() || !sums.isEmpty();
    }
};

const QString &none()
{
    static const QString word = QStringLiteral("none");
    return word;
}

QByteArray textOf(device::LocalTime time)
{
    QByteArray text(device::longestTime, '\0');
    text.truncate(device::writeTime(text.data(), time, false));
    return text;
}

QString share(qint64 part, qint64 all)
{
    const double percent = all > 0 ? 100.0 * double(part) / double(all) : 0;
    return part > 0 && percent < 0.1 ? QStringLiteral("less than 0.1 %")
                                     : QString::number(percent, 'f', 1) + QLatin1String(" %");
}

// What does not go although it is older or more than the rules say.
QStringList heldTexts(const Keeping &keeping, const QString &table, const KeepOutlook &outlook)
{
    QStringList held;
    if (outlook.heldAsTooMany > 0)
        held << QStringLiteral("%1 (%2) held, because more than a tenth of the table is too old at once, as after a "
                               "change of the clock; trimNow() of the recorder or \"device-db purge\" removes them")
                    .arg(rowsText(outlook.heldAsTooMany), share(outlook.heldAsTooMany, outlook.rows));
    const device::Hold *const hold = keeping.shipped.hold(table);
    if (outlook.heldForShipper > 0 && hold && keeping.shipped.problem().isEmpty())
        held << QStringLiteral("%1 (%2) held for %3, which has shipped up to ID %4")
                    .arg(rowsText(outlook.heldForShipper), share(outlook.heldForShipper, outlook.rows), hold->owner)
                    .arg(hold->throughId);
    return held;
}

// --- Show

void printForPeople(const KeepCommand &command, const Keeping &keeping, const QList<Table> &tables,
                    const QList<KeepOutlook> &outlooks, Output &output)
{
    const auto time = [&](const QByteArray &text) {
        return QString::fromUtf8(command.output.utc ? inUtc(text, false) : text);
    };
    const auto writer = rowWriter(Format::Table,
                                  {{"", QStringLiteral("Table")},
                                   {"", QStringLiteral("Age"), true, false, true},
                                   {"", QStringLiteral("Rows"), true, false, true},
                                   {"", QStringLiteral("At least"), true, false, true},
                                   {"", QStringLiteral("Sums")},
                                   {"", QStringLiteral("Removed"), true, false, true},
                                   {"", QStringLiteral("Goes now"), true, false, true},
                                   {"", QStringLiteral("Share"), true, false, true}},
                                  output);
    QStringList lines;
    for (int i = 0; i < tables.size(); ++i) {
        const Table &table = tables.at(i);
        const device::Kept *const entry = keeping.entryOf(table.name);
        const device::Kept kept = entry ? *entry : device::Kept();
        const KeepOutlook &outlook = outlooks.at(i);
        const auto least = leastOf(table.kind, kept.keep);
        const QByteArray sums = sumsText(kept.keep).toLatin1();
        writer->row({table.name.toUtf8(), kept.keep.age ? spanText(*kept.keep.age).toLatin1() : "",
                     kept.keep.rows < 0 ? "" : grouped(kept.keep.rows).toLatin1(),
                     least.count() == 0 ? "" : spanText(least).toLatin1(), sums.isEmpty() ? "" : sums,
                     grouped(kept.trimmed).toLatin1(), grouped(outlook.going).toLatin1(),
                     outlook.going > 0 ? share(outlook.going, outlook.rows).toLatin1() : ""},
                    outlook.heldAsTooMany > 0 ? Tone::Warning : Tone::Plain);
        const auto line = [&](const QString &text) { lines << table.name + QLatin1String(": ") + text; };
        if (kept.trimmed > 0)
            line(QStringLiteral("removed so far, through ID %1%2: %3%4")
                     .arg(kept.throughId)
                     .arg(kept.through.isValid() ? QLatin1String(" of ") + time(textOf(kept.through)) : QString(),
                          rowsText(kept.trimmed),
                          kept.unshipped > 0 ? QStringLiteral(", %1 of them not shipped").arg(grouped(kept.unshipped))
                                             : QString()));
        const device::Hold *const hold = keeping.shipped.hold(table.name);
        if (hold && keeping.shipped.problem().isEmpty())
            line(QStringLiteral("%1 has shipped up to ID %2 and not moved on since %3; later rows are held")
                     .arg(hold->owner)
                     .arg(hold->throughId)
                     .arg(time(textOf(hold->since))));
        for (const QString &held : heldTexts(keeping, table.name, outlook))
            line(held);
    }
    writer->settle();
    for (int i = 0; i < lines.size(); ++i)
        output.write((i == 0 ? "\n" : "") + visible(lines.at(i)).toUtf8() + '\n');
    if (tables.isEmpty())
        output.write("no tables of records\n");
}

void printForPrograms(const KeepCommand &command, const Keeping &keeping, const QList<Table> &tables,
                      const QList<KeepOutlook> &outlooks, Output &output)
{
    const auto time = [&](device::LocalTime value) {
        const QByteArray text = textOf(value);
        return text.isEmpty() ? QByteArray() : command.output.utc ? inUtc(text, false) : text;
    };
    const auto span = [](std::optional<std::chrono::hours> value) {
        return value ? spanText(*value).toLatin1() : QByteArray();
    };
    const auto writer = rowWriter(command.output.format,
                                  {{"table", QStringLiteral("Table")},
                                   {"age", QStringLiteral("Age")},
                                   {"rows", QStringLiteral("Rows"), true, true},
                                   {"at_least", QStringLiteral("At least")},
                                   {"sums", QStringLiteral("Sums")},
                                   {"removed", QStringLiteral("Removed"), true, true},
                                   {"removed_unshipped", QStringLiteral("Not shipped"), true, true},
                                   {"removed_through_id", QStringLiteral("Through ID"), true, true},
                                   {"removed_through", QStringLiteral("Through")},
                                   {"shipper", QStringLiteral("Shipper")},
                                   {"shipped_through_id", QStringLiteral("Shipped ID"), true, true},
                                   {"shipped_since", QStringLiteral("Since")},
                                   {"rows_in_table", QStringLiteral("Rows in it"), true, true},
                                   {"goes_now", QStringLiteral("Goes now"), true, true},
                                   {"held_as_too_many", QStringLiteral("Held, too many"), true, true},
                                   {"held_for_shipper", QStringLiteral("Held for shipper"), true, true}},
                                  output);
    for (int i = 0; i < tables.size(); ++i) {
        const Table &table = tables.at(i);
        const device::Kept *const entry = keeping.entryOf(table.name);
        const device::Kept kept = entry ? *entry : device::Kept();
        const device::Hold *const hold = keeping.shipped.hold(table.name);
        const KeepOutlook &outlook = outlooks.at(i);
        const auto least = leastOf(table.kind, kept.keep);
        writer->row({table.name.toUtf8(), span(kept.keep.age),
                     kept.keep.rows < 0 ? QByteArray() : QByteArray::number(kept.keep.rows),
                     least.count() == 0 ? QByteArray() : span(least), sumsText(kept.keep).toLatin1(),
                     QByteArray::number(kept.trimmed), QByteArray::number(kept.unshipped),
                     QByteArray::number(kept.throughId), time(kept.through), hold ? hold->owner.toUtf8() : QByteArray(),
                     hold ? QByteArray::number(hold->throughId) : QByteArray(), hold ? time(hold->since) : QByteArray(),
                     QByteArray::number(outlook.rows), QByteArray::number(outlook.going),
                     QByteArray::number(outlook.heldAsTooMany), QByteArray::number(outlook.heldForShipper)},
                    Tone::Plain);
    }
    writer->settle();
}

Result<Keeping> keepingOfFile(const KeepCommand &command, const Database &database)
{
    auto keeping = keepingOf(database, command.writing.path);
    if (!keeping && keeping.error().code() == Error::TableLayout)
        return failure(command.writing.path, QStringLiteral("how long its rows are kept cannot be read: %1; %2")
                                                 .arg(keeping.error().cause(), QLatin1String(keepRemedy)));
    return keeping;
}

// The named tables, all for none. A recorder removes rows of no others.
Result<QList<Table>> tablesNamed(const KeepCommand &command, const Database &database, const Keeping &keeping)
{
    if (command.tables.isEmpty())
        return keeping.tables;
    const auto all = tablesOf(database);
    if (!all)
        return all.error();
    QList<Table> tables;
    for (const QString &given : command.tables) {
        const auto isGiven = [&](const Table &each) { return each.name.compare(given, Qt::CaseInsensitive) == 0; };
        const auto found = std::find_if(all->begin(), all->end(), isGiven);
        if (found == all->end() || holdsRecords(found->kind)) {
            const auto table = chooseTable(database, given);
            if (!table)
                return table.error();
        } else {
            return failure(command.writing.path,
                           QStringLiteral("%1 is not a table of records, and a recorder removes nothing from it")
                               .arg(found->name));
        }
        if (!device::TableName::from(found->name))
            return failure(command.writing.path, QStringLiteral("a recorder leaves %1 alone, because its name needs "
                                                                "quotes; \"device-db trim\" and \"purge\" do not")
                                                     .arg(found->name));
        if (std::none_of(tables.begin(), tables.end(), isGiven))
            tables << *found;
    }
    return tables;
}

Outcome show(const KeepCommand &command)
{
    const auto file = openForDryRun(command.writing);
    if (!file)
        return file.error();
    const auto keeping = keepingOfFile(command, file->database);
    if (!keeping)
        return keeping.error();
    const auto tables = tablesNamed(command, file->database, *keeping);
    if (!tables)
        return tables.error();
    QList<KeepOutlook> outlooks;
    for (const Table &table : *tables) {
        const device::Kept *const entry = keeping->entryOf(table.name);
        const auto outlook = outlookOf(file->database, *keeping, table, entry ? entry->keep : device::Keep());
        if (!outlook)
            return outlook.error();
        outlooks << *outlook;
    }
    Output output(command.output);
    if (command.output.format == Format::Table)
        printForPeople(command, *keeping, *tables, outlooks, output);
    else
        printForPrograms(command, *keeping, *tables, outlooks, output);
    if (keeping->shipped.problem().isEmpty())
        return Done;
    complain(keeping->shipped.problem());
    return Attention;
}

// --- Set

Error refused(const char *option, const QString &value, const QString &why)
{
    return failure(QLatin1String(option) + QLatin1Char(' ') + value, why);
}

Status setSpan(const char *option, const QString &given, std::optional<std::chrono::hours> &span)
{
    if (given.isEmpty())
        return {};
    span.reset();
    if (given == none())
        return {};
    const auto hours = spanOf(given);
    if (!hours)
        return refused(option, given, hours.error().cause() + QStringLiteral("; or none"));
    span = *hours;
    return {};
}

Status setRows(const QString &given, device::Keep &keep)
{
    if (given.isEmpty())
        return {};
    bool isNumber = given == none();
    const qint64 rows = isNumber ? -1 : given.toLongLong(&isNumber);
    if (!isNumber || rows == 0 || rows < -1 || (rows == -1 && given != none()))
        return refused("--rows", given, QStringLiteral("give a whole number from 1 on, or none"));
    keep.rows = rows;
    return {};
}

Status setSums(const QString &given, device::Keep &keep)
{
    if (given == none())
        keep.sums.clear();
    if (given.isEmpty() || given == none())
        return {};
    for (const QString &each : given.split(QLatin1Char(','))) {
        const auto levels = levelsNamed(each.section(QLatin1Char('='), 0, 0));
        const QString value = each.section(QLatin1Char('='), 1).trimmed();
        if (!levels || value.isEmpty())
            return refused("--sums", given,
                           QStringLiteral("\"%1\" is not a level and its age; give some such as "
                                          "1min=90d,10min=2y, of the levels 10s,1min,10min,1h,1d")
                               .arg(each));
        std::optional<std::chrono::hours> age;
        if (const Status set = setSpan("--sums", value, age); !set)
            return set;
        keep.sums.remove(levels->first());
        if (age)
            keep.sums.insert(levels->first(), *age);
    }
    return {};
}

/// The rules of a table with what was given in place of what is there.
Result<device::Keep> changed(const KeepCommand &command, device::Keep keep)
{
    if (command.forEver)
        return device::Keep();
    for (const Status &set : {setSpan("--age", command.age, keep.age), setRows(command.rows, keep),
                              setSpan("--at-least", command.atLeast, keep.atLeast), setSums(command.sums, keep)}) {
        if (!set)
            return set.error();
    }
    return keep;
}

Status check(const KeepCommand &command, const Table &table, const device::Keep &keep)
{
    const auto refuse = [&](const QString &why) {
        return failure(command.writing.path, table.name + QLatin1String(": ") + why);
    };
    if (keep.age && keep.atLeast && *keep.age < *keep.atLeast)
        return refuse(QStringLiteral("the age %1 is shorter than the %2 that its rows are kept at least; give a longer "
                                     "--age or a shorter --at-least")
                          .arg(spanText(*keep.age), spanText(*keep.atLeast)));
    if (!keep.sums.isEmpty() && table.kind != Kind::Samples)
        return refuse(QStringLiteral("only tables of samples have sums; leave out --sums"));
    for (auto each = keep.sums.begin(); each != keep.sums.end(); ++each) {
        if (each == keep.sums.begin() || *each >= *std::prev(each))
            continue;
        return refuse(QStringLiteral("the sums of %1 are kept for %2, shorter than the finer ones of %3 (%4); give the "
                                     "wider level the longer age")
                          .arg(levelName(device::widthOf(each.key())), spanText(*each),
                               levelName(device::widthOf(std::prev(each).key())), spanText(*std::prev(each))));
    }
    if (const Status may = device::checkKeep(device::Site(), keep); !may)
        return refuse(may.error().cause() + QStringLiteral("; give a span within these"));
    return {};
}

QString plan(const KeepCommand &command, const Keeping &keeping, const Table &table, const device::Keep &keep,
             const KeepOutlook &outlook)
{
    QStringList texts{keepText(keep)};
    if (table.kind == Kind::Log && !keep.atLeast && (keep.age || keep.rows >= 0))
        texts << QStringLiteral("of a log nothing younger than %1 goes unless --at-least says so")
                     .arg(spanText(leastOf(table.kind, keep)));
    if (outlook.going > 0)
        texts << QStringLiteral("a recorder %1 %2 of %3 (%4) with its next rows")
                     .arg(command.dryRun ? QStringLiteral("would remove") : QStringLiteral("removes"),
                          grouped(outlook.going), rowsText(outlook.rows), share(outlook.going, outlook.rows));
    texts << heldTexts(keeping, table.name, outlook);
    if (texts.size() == 1)
        texts << QStringLiteral("nothing goes now");
    return texts.join(QLatin1String("; "));
}

Outcome set(const KeepCommand &command, const Database &database)
{
    const auto keeping = keepingOfFile(command, database);
    if (!keeping)
        return keeping.error();
    const auto tables = tablesNamed(command, database, *keeping);
    if (!tables)
        return tables.error();
    std::vector<std::pair<device::TableName, device::Keep>> rules;
    QStringList lines;
    for (const Table &table : *tables) {
        const device::Kept *const entry = keeping->entryOf(table.name);
        const device::Keep before = entry ? entry->keep : device::Keep();
        const auto keep = changed(command, before);
        if (!keep)
            return keep.error();
        if (const Status may = check(command, table, *keep); !may)
            return may.error();
        const auto outlook = outlookOf(database, *keeping, table, *keep);
        if (!outlook)
            return outlook.error();
        const bool isNew = !(*keep == before);
        if (isNew)
            rules.emplace_back(*device::TableName::from(table.name), *keep);
        lines << QStringLiteral("%1: %2 %3: %4")
                     .arg(command.writing.path, table.name,
                          !isNew           ? QStringLiteral("is kept already")
                          : command.dryRun ? QStringLiteral("would be kept")
                                           : QStringLiteral("is kept from now on"),
                          plan(command, *keeping, table, *keep, *outlook));
    }
    if (!command.dryRun && !rules.empty()) {
        RollupChannel channel(database);
        const Status done = channel.transaction({command.writing.path, QString()}, [&]() -> Status {
            for (const auto &[table, keep] : rules) {
                if (const auto each = device::setKeep(channel, table, keep); !each)
                    return each.error();
            }
            return {};
        });
        if (!done)
            return done.error();
    }
    for (const QString &line : std::as_const(lines))
        say(line);
    if (keeping->shipped.problem().isEmpty())
        return Done;
    complain(keeping->shipped.problem());
    return Attention;
}

// What cannot be read is of no use to a recorder, so nothing but the counts of what was removed is lost with it.
Outcome removeUnreadable(const KeepCommand &command, const Database &database, const Error &why)
{
    if (!command.dryRun) {
        if (const Status dropped = database.run("drop table \"device keep\""); !dropped)
            return dropped.error();
    }
    say(QStringLiteral("%1: what it says of how long rows are kept %2: %3")
            .arg(command.writing.path,
                 command.dryRun ? QStringLiteral("would be removed") : QStringLiteral("is removed"), why.cause()));
    return Done;
}

Outcome change(const KeepCommand &command, const Database &database)
{
    if (command.forEver && command.tables.isEmpty()) {
        if (const auto file = keepFileOf(database); !file && file.error().code() == Error::TableLayout)
            return removeUnreadable(command, database, file.error());
    }
    return set(command, database);
}

Outcome run(const KeepCommand &command)
{
    if (!command.changes() && !command.dryRun)
        return show(command);
    if (!command.changes())
        return failure(QStringLiteral("--dry-run"), QStringLiteral("give the rules to try, such as --age 90d"));
    if (command.tables.isEmpty() && !command.forEver)
        return failure(command.writing.path, QStringLiteral("name the tables that the rules are for"));
    if (const auto keep = changed(command, device::Keep()); !keep) // before the file is touched
        return keep.error();
    if (command.dryRun) {
        const auto file = openForDryRun(command.writing);
        return file ? change(command, file->database) : Outcome(file.error());
    }
    const auto database = openForWriting(command.writing);
    return database ? change(command, *database) : Outcome(database.error());
}

} // namespace

void addKeep(Program &program)
{
    CLI::App *const command = program.add(
        "keep", "Show or set how long the rows of tables are kept",
        "A recorder of the host layer removes what is beyond these rules in the transactions in which it stores rows; "
        "this command itself removes nothing. Without rules it shows those of all tables or of the ones named: what "
        "they have removed so far, what FILE.shipped holds, and what would go now. With rules it sets them, and leaves "
        "the others of the table as they are; the word none takes one away. A SPAN is a whole number and h, d, w or y, "
        "a year of 365 days, such as 90d. Age counts from the newest row whose time is plausible.");
    const auto options = std::make_shared<KeepCommand>();
    addPath(command, "FILE", options->writing.path, "The database file")->type_name("")->required();
    addTexts(command, "TABLE", options->tables, "The tables; to show, or with --for-ever, all by default")
        ->type_name("");
    const std::vector<CLI::Option *> rules{
        addText(command, "--age", options->age, "Rows older than this are removed")->type_name("SPAN"),
        addText(command, "--rows", options->rows, "This many of the newest rows are kept")->type_name("N"),
        addText(command, "--at-least", options->atLeast,
                "Rows younger than this stay, whatever the other rules say; default: 365d for a log")
            ->type_name("SPAN"),
        addText(command, "--sums", options->sums, "How long sums of trends are kept, such as 1min=90d,10min=2y")
            ->type_name("LEVEL=SPAN,...")};
    CLI::Option *const forEver = command->add_flag("--for-ever", options->forEver, "Take all rules away");
    for (CLI::Option *const rule : rules)
        forEver->excludes(rule);
    command->add_flag("--dry-run", options->dryRun, "Set nothing; only say what would go");
    addWriting(command, options->writing);
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
