// SPDX-License-Identifier: MIT
//
// trim, purge, clear, vacuum, checkpoint and tune: what changes an existing file.
#include "commands/commands.h"

#include "commands/options.h"
#include "commands/writing.h"
#include "program/program.h"
#include "storefile/live_file.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/output.h"

#include "device/store.h"

#include <QFileInfo>

#include <sqlite3.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <limits>

namespace device_db
{

namespace
{

struct MaintainOptions {
    WriteOptions file;
    QString table;
    bool yes = false;
    qint64 keep = 0;
    QString before;
    bool ended = false;
    bool undo = false;
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

std::atomic_bool interrupted{false};
std::atomic<sqlite3 *> busy{nullptr};

/// While this lives, Ctrl-C and the like stop a long statement, and the program goes on to roll back and to say so.
class Interruptible
{
public:
    explicit Interruptible(const Database &database)
    {
        busy = database.handle();
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            const auto stop = [](int) {
                interrupted = true;
                if (sqlite3 *const connection = busy)
                    sqlite3_interrupt(connection);
            };
            if (std::signal(signal, stop) == SIG_IGN)
                std::signal(signal, SIG_IGN);
        }
    }
    ~Interruptible() { busy = nullptr; }
    Q_DISABLE_COPY(Interruptible)
};

/// Looks at a file without changing it, even when somebody else has it open.
Result<OpenFile> openForDryRun(const MaintainOptions &options)
{
    ReadOptions reading;
    reading.lock = options.file.lock;
    return openFile(options.file.path, reading);
}

/// Of a deletion: the tables it is for, and what goes. In the condition %table is the table's name, and ?1 the value.
struct Deletion {
    QVector<Kind> kinds; ///< Empty: any.
    QByteArray condition;
    std::function<Result<QByteArray>(Kind)> value;
    bool isByTime = false;
};

Result<Doomed> doomed(const Database &database, const MaintainOptions &options, const Deletion &deletion)
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

// Not by the stores of the host layer: they take only names that need no quotes, and a table that is there is to be
// tidied whatever it is called. Slice after slice, so that nobody waits long for the lock.
Result<qint64> deleteRows(const Database &database, const Doomed &rows)
{
    const QByteArray name = identifier(rows.table.name);
    auto end = database.prepare("select ID from " + name + " where ID>=?1 order by ID limit 1 offset 4999");
    auto slice = database.prepare("delete from " + name + " not indexed where ID between ?2 and ?3 and (" +
                                  rows.condition + ')');
    const auto lowest = database.number("select min(ID) from " + name);
    if (!end || !slice || !lowest)
        return !end ? end.error() : !slice ? slice.error() : lowest.error();
    qint64 deleted = 0;
    qint64 first = *lowest;
    for (bool isLast = false; !isLast && !interrupted;) {
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
        if (const Status done = slice->status(); !done && interrupted)
            break; // this slice is undone
        else if (!done)
            return done.error();
        slice->reset();
        deleted += database.changes();
        if (!isLast)
            first = last + 1;
    }
    return deleted;
}

QString unreadText(const Doomed &rows, const QString &before)
{
    return rows.unread == 0 ? QString()
                            : QStringLiteral("; %1%2 whose time cannot be read").arg(before, rowsText(rows.unread));
}

/// Shows what goes, asks, deletes, says how many went and does `finish`.
Outcome remove(const MaintainOptions &options, const Deletion &deletion,
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
        const auto file = openForDryRun(options);
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
    const Interruptible guard(*database);
    const auto deleted = deleteRows(*database, *rows);
    if (!deleted)
        return deleted.error();
    if (interrupted) {
        complain(QStringLiteral("%1: interrupted; %2 of %3 deleted, the others are left")
                     .arg(options.file.path, rowsText(*deleted), rows->table.name));
        return Interrupted;
    }
    if (finish) {
        if (const Status finished = finish(*database, rows->table); !finished)
            return finished.error();
    }
    const qint64 spared = rows->rows - *deleted;
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

Outcome trim(const MaintainOptions &options)
{
    return remove(options, {{},
                            "ID<=(select ID from %table order by ID desc limit 1 offset cast(?1 as integer))",
                            [&](Kind) { return Result<QByteArray>(QByteArray::number(options.keep)); }});
}

Outcome purge(const MaintainOptions &options)
{
    return remove(options,
                  {options.ended ? QVector<Kind>{Kind::Alarms} : QVector<Kind>{},
                   QByteArray("(DATETIME<?1 and ") + hasTime + ')' +
                       (options.ended ? " or coalesce(EndDate!='' and EndTime!='',0)" : ""),
                   [&](Kind kind) { return boundText(options.before, Bound::First, hasMilliseconds(kind), false); },
                   true});
}

Outcome clear(const MaintainOptions &options)
{
    const auto anew = [](const Database &database, const Table &table) -> Status {
        auto sequence = database.prepare("delete from sqlite_sequence where name=?");
        if (!sequence)
            return sequence.error();
        sequence->bind(1, table.name.toUtf8());
        sequence->step();
        return sequence->status();
    };
    return remove(options, {{}, "1", [](Kind) { return Result<QByteArray>(QByteArray("")); }}, anew);
}

/// Opens the file with the store of `Store`, after whatever was looked at by other means was closed.
template<typename Store>
Result<Store> openStore(const WriteOptions &options)
{
    const auto library = storeLibrary(options);
    if (!library)
        return library.error();
    device::OpenOptions opening;
    opening.create = false;
    return Store::open(*library, options.path, opening);
}

Outcome vacuum(const MaintainOptions &options)
{
    qint64 freeBytes = 0;
    {
        WriteOptions file = options.file;
        file.runTriggers = true; // it runs none
        const auto database = openForWriting(file);
        if (!database)
            return database.error();
        const auto bytes =
            database->number("select freelist_count*page_size from pragma_freelist_count,pragma_page_size");
        if (!bytes)
            return bytes.error();
        freeBytes = *bytes;
    }
    const qint64 before = QFileInfo(options.file.path).size();
    const QString question = QStringLiteral("the file would be written anew (%1, %2 of it free), which needs up to "
                                            "twice its size of room")
                                 .arg(bytesText(before), bytesText(freeBytes));
    if (const Status may = confirmed(options.file.path, question, options.yes); !may)
        return may.error();
    {
        auto store = openStore<device::HistoryStore>(options.file);
        if (!store)
            return store.error();
        if (const Status done = store->compact(); !done)
            return done.error();
    }
    say(QStringLiteral("%1: %2, was %3")
            .arg(options.file.path, bytesText(QFileInfo(options.file.path).size()), bytesText(before)));
    return Done;
}

Outcome checkpoint(const MaintainOptions &options)
{
    {
        const auto database = openForWriting(options.file);
        if (!database)
            return database.error();
        const auto journal = database->text("pragma journal_mode");
        if (!journal)
            return journal.error();
        if (*journal != "wal") {
            say(QStringLiteral("%1: nothing to do, it keeps no write-ahead log").arg(options.file.path));
            return Done;
        }
    }
    auto store = openStore<device::HistoryStore>(options.file);
    if (!store)
        return store.error();
    const auto moved = store->checkpoint();
    if (!moved)
        return moved.error();
    say(QStringLiteral("%1: %2").arg(
        options.file.path, *moved
                               ? QStringLiteral("the write-ahead log is in the file")
                               : QStringLiteral("a part of the write-ahead log stays in it while the file is read; try "
                                                "again later")));
    return Done;
}

/// What tune does to a file.
struct Tuning {
    QList<QByteArray> indexes; ///< Statements.
    QByteArray journal;        ///< The mode to set; empty: it is set.
    QStringList changes;       ///< In words.
};

Result<Tuning> tuningOf(const Database &database, bool undo)
{
    Tuning tuning;
    const auto journal = database.text("pragma journal_mode");
    if (!journal)
        return journal.error();
    if ((*journal == "wal") == undo) {
        tuning.journal = undo ? "delete" : "wal";
        tuning.changes << (undo ? QStringLiteral("journal: rollback; readers can make the device's commits fail")
                                : QStringLiteral("journal: write-ahead; readers no longer disturb the device"));
    }
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    for (const Table &table : *tables) {
        if (!holdsRecords(table.kind))
            continue;
        const QString name = QLatin1String("device index ") + table.name; // as the host layer names it
        const QString formerName = table.name + QLatin1String("_time");
        auto index = database.prepare("select l.name from pragma_index_list(?1) l join pragma_index_info(l.name) i "
                                      "where l.partial=0 and i.seqno=0 and upper(i.name)='DATETIME'");
        if (!index)
            return index.error();
        index->bind(1, table.name.toUtf8());
        bool indexed = false;
        while (index->step()) {
            indexed = true;
            const QString found = QString::fromUtf8(index->cell(0));
            if (!undo ||
                (found.compare(name, Qt::CaseInsensitive) != 0 && found.compare(formerName, Qt::CaseInsensitive) != 0))
                continue;
            tuning.indexes << "drop index " + identifier(found);
            tuning.changes << QStringLiteral("%1: no index on time").arg(table.name);
        }
        if (const Status status = index->status(); !status)
            return status.error();
        if (!undo && !indexed) {
            tuning.indexes << "create index " + identifier(name) + " on " + identifier(table.name) + "(DATETIME)";
            tuning.changes << QStringLiteral("%1: an index on time").arg(table.name);
        }
    }
    return tuning;
}

// The indexes first and together: they are what a full disk or Ctrl-C meets, and are then undone. The journal, which
// cannot be set within a transaction, takes no time.
Status apply(const Tuning &tuning, const Database &database)
{
    QByteArray indexes("begin immediate;");
    for (const QByteArray &statement : tuning.indexes)
        indexes += statement + ';';
    if (const Status made = database.run(indexes + "commit"); !made) {
        (void)database.run("rollback"); // SQLite may have done so itself
        return failure(database.name(), made.error().cause() + QStringLiteral(". Nothing was changed"));
    }
    if (tuning.journal.isEmpty())
        return {};
    const auto now = database.text("pragma journal_mode=" + tuning.journal);
    if (now && *now == tuning.journal)
        return {};
    return failure(database.name(),
                   (now ? QStringLiteral("the journal stays as it is; the file system may take no write-ahead log")
                        : now.error().cause()) +
                       QStringLiteral(". The indexes on time were changed"));
}

Outcome tune(const MaintainOptions &options)
{
    const auto show = [&](const Tuning &tuning, const QString &what) {
        if (tuning.changes.isEmpty()) {
            say(QStringLiteral("%1: nothing to change").arg(options.file.path));
            return;
        }
        say(options.file.path + QLatin1String(": ") + what);
        for (const QString &change : tuning.changes)
            say(QLatin1String("  ") + change);
    };
    if (options.dryRun) {
        const auto file = openForDryRun(options);
        if (!file)
            return file.error();
        const auto tuning = tuningOf(file->database, options.undo);
        if (!tuning)
            return tuning.error();
        show(*tuning, QStringLiteral("would be changed"));
        return Done;
    }
    const auto database = openForWriting(options.file);
    if (!database)
        return database.error();
    const auto tuning = tuningOf(*database, options.undo);
    if (!tuning)
        return tuning.error();
    if (!tuning->changes.isEmpty()) {
        const Interruptible guard(*database);
        const Status applied = apply(*tuning, *database);
        if (!applied && !interrupted)
            return applied.error();
        if (!applied) {
            complain(oneLine(applied.error()));
            return Interrupted;
        }
    }
    show(*tuning, QStringLiteral("changed"));
    return Done;
}

} // namespace

void addMaintenance(Program &program)
{
    const auto add = [&](const char *name, const char *summary, const char *details,
                         Outcome (*body)(const MaintainOptions &), bool hasTable, bool asks) {
        CLI::App *const command = program.add(name, summary, details);
        const auto options = std::make_shared<MaintainOptions>();
        addWritableFile(command, options->file);
        if (hasTable)
            addText(command, "TABLE", options->table, "The table")->type_name("")->required();
        if (asks)
            command->add_flag("-y,--yes", options->yes, "Do not ask");
        if (hasTable)
            command->add_flag("--dry-run", options->dryRun, "Only say what would be deleted");
        program.onRun(command, [options, body] { return body(*options); });
        return std::pair{command, options.get()};
    };
    {
        const auto [command, options] = add("trim", "Delete the oldest rows beyond a number",
                                            "Oldest by the order of recording.", trim, true, true);
        command->add_option("--keep", options->keep, "Keep this many of the newest rows")
            ->type_name("N")
            ->required()
            ->check(wholeNumber());
    }
    {
        const auto [command, options] =
            add("purge", "Delete the rows before a time",
                "A TIME is a day, a day and a time, or a span back from now such as 90d.", purge, true, true);
        addText(command, "--before", options->before,
                "Rows of this time and later stay, and those whose time cannot be read")
            ->type_name("TIME")
            ->required();
        command->add_flag("--ended", options->ended, "Of alarms also every ended one, as the device's own purge does");
    }
    add("clear", "Delete all rows of a table", "The table stays; its IDs begin at 1 again.", clear, true, true);
    add("vacuum", "Give free pages back to the file system", "", vacuum, false, true);
    add("checkpoint", "Move the write-ahead log into the file", "", checkpoint, false, false);
    {
        const auto [command, options] = add(
            "tune", "Prepare a file for a device",
            "Sets the write-ahead journal, so that readers no longer make the device's commits fail (two files, -wal and "
            "-shm, are beside the file while it is open), and an index on time for each table of records, by which "
            "ranges and pages are found without reading the table (each row takes some more room). Says what changes.",
            tune, false, false);
        command->add_flag("--undo", options->undo, "Back to the rollback journal and no such index");
        command->add_flag("--dry-run", options->dryRun, "Only say what would change");
    }
}

} // namespace device_db
