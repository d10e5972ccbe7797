// SPDX-License-Identifier: MIT
//
// vacuum, checkpoint and tune: what changes a file and no row of it.
#include "commands/commands.h"

#include "commands/interruption.h"
#include "commands/options.h"
#include "commands/writing.h"
#include "program/program.h"
#include "storefile/tables.h"
#include "storefile/texts.h"
#include "terminal/output.h"

#include "device/store.h"

#include <QFileInfo>

namespace device_db
{

namespace
{

struct MaintainOptions {
    WriteOptions file;
    bool yes = false;
    bool undo = false;
    bool dryRun = false;
};

Outcome vacuum(const MaintainOptions &options)
{
    WriteOptions file = options.file;
    file.runTriggers = true; // it runs none
    const auto database = openForWriting(file);
    if (!database)
        return database.error();
    const auto freeBytes =
        database->number("select freelist_count*page_size from pragma_freelist_count,pragma_page_size");
    if (!freeBytes)
        return freeBytes.error();
    const qint64 before = QFileInfo(options.file.path).size();
    const QString question = QStringLiteral("the file would be written anew (%1, %2 of it free), which needs up to "
                                            "twice its size of room")
                                 .arg(bytesText(before), bytesText(*freeBytes));
    if (const Status may = confirmed(options.file.path, question, options.yes); !may)
        return may.error();
    const Interruption guard(*database);
    const Status written = database->run("vacuum");
    if (!written && guard.came()) {
        complain(QStringLiteral("%1: interrupted; the file is as it was").arg(options.file.path));
        return Interrupted;
    }
    if (!written && database->isDiskFull())
        return failure(
            options.file.path,
            QStringLiteral("a disk is full; this needs up to %1 for a copy in the folder for temporary files "
                           "($TMPDIR), and as much beside the file. Make room, or take a copy to another "
                           "disk (\"device-db backup\"). The file is as it was")
                .arg(bytesText(before)));
    if (!written)
        return written.error();
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
    const auto library = storeLibrary(options.file);
    if (!library)
        return library.error();
    device::OpenOptions opening;
    opening.create = false;
    auto store = device::HistoryStore::open(*library, options.file.path, opening);
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
        const auto file = openForDryRun(options.file);
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
        const Interruption guard(*database);
        const Status applied = apply(*tuning, *database);
        if (!applied && !guard.came())
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
                         Outcome (*body)(const MaintainOptions &)) {
        CLI::App *const command = program.add(name, summary, details);
        const auto options = std::make_shared<MaintainOptions>();
        addWritableFile(command, options->file);
        program.onRun(command, [options, body] { return body(*options); });
        return std::pair{command, options.get()};
    };
    {
        const auto [command, options] = add("vacuum", "Give free pages back to the file system", "", vacuum);
        command->add_flag("-y,--yes", options->yes, "Do not ask");
    }
    add("checkpoint", "Move the write-ahead log into the file", "", checkpoint);
    {
        const auto [command, options] = add(
            "tune", "Prepare a file for a device",
            "Sets the write-ahead journal, so that readers no longer make the device's commits fail (two files, -wal and "
            "-shm, are beside the file while it is open), and an index on time for each table of records, by which "
            "ranges and pages are found without reading the table (each row takes some more room). Says what changes.",
            tune);
        command->add_flag("--undo", options->undo, "Back to the rollback journal and no such index");
        command->add_flag("--dry-run", options->dryRun, "Only say what would change");
    }
}

} // namespace device_db
