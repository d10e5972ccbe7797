// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/live_file.h"
#include "storefile/new_file.h"
#include "storefile/texts.h"
#include "terminal/progress.h"

#include <sqlite3.h>

#include <QFileInfo>

namespace device_db
{

namespace
{

struct BackupCommand {
    QString path;
    ReadOptions reading;
    QString target;
    bool force = false;
};

// One read transaction holds from the first page to the last, so that a writer neither waits nor makes it begin anew.
Result<qint64> copyPages(const Database &from, const Database &to)
{
    constexpr int pagesAStep = 256;
    if (const Status begun = from.run("begin; select count(*) from sqlite_master"); !begun)
        return begun.error();
    sqlite3_backup *const backup = sqlite3_backup_init(to.handle(), "main", from.handle(), "main");
    if (!backup)
        return failure(to.name(), QString::fromUtf8(sqlite3_errmsg(to.handle())));
    Progress progress(QStringLiteral("pages"));
    int code = SQLITE_OK;
    while (code == SQLITE_OK) {
        code = sqlite3_backup_step(backup, pagesAStep);
        const qint64 all = sqlite3_backup_pagecount(backup);
        const qint64 done = all - sqlite3_backup_remaining(backup);
        progress.show(done, all, done);
    }
    const qint64 pages = sqlite3_backup_pagecount(backup);
    sqlite3_backup_finish(backup);
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
        return failure(
            from.name(),
            QStringLiteral("%1; \"device-db salvage\" gets rows out").arg(QString::fromUtf8(sqlite3_errstr(code))));
    if (code != SQLITE_DONE)
        return failure(to.name(), QString::fromUtf8(sqlite3_errstr(code)) +
                                      QStringLiteral("; check free space, rights and the medium"));
    return pages;
}

Outcome run(const BackupCommand &command)
{
    if (QFileInfo(command.path).exists() && QFileInfo(command.path) == QFileInfo(command.target))
        return failure(command.target, QStringLiteral("this is the file itself; take another name for the copy"));
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    auto target = NewFile::make(command.target, command.force);
    if (!target)
        return target.error();
    qint64 pages = 0;
    {
        const auto to = Database::open(target->part(), Database::ReadWrite, command.target);
        if (!to)
            return to.error();
        const auto copied = copyPages(file->database, *to);
        if (!copied)
            return copied.error();
        pages = *copied;
    }
    {
        const auto copy = Database::open(target->part(), Database::ReadWrite, command.target);
        if (!copy)
            return copy.error();
        const auto verdict = copy->text("pragma integrity_check(1)");
        if (!verdict)
            return verdict.error();
        if (*verdict != "ok")
            return failure(command.path,
                           QStringLiteral("its copy is damaged (%1), so the file is; \"device-db salvage\" "
                                          "gets rows out")
                               .arg(QString::fromUtf8(*verdict).remove(QLatin1String("*** in database main ***\n"))));
    }
    if (const Status placed = target->putInPlace(); !placed)
        return placed.error();
    say(QStringLiteral("%1: %2 pages, %3, verified")
            .arg(command.target, grouped(pages), bytesText(QFileInfo(command.target).size())));
    return Done;
}

} // namespace

void addBackup(Program &program)
{
    CLI::App *const command =
        program.add("backup", "Copy a file that may be in use, and verify the copy",
                    "The copy is one committed state of the file, on the disk when the command is done, and there in "
                    "full or not at all. The device is not disturbed.");
    const auto options = std::make_shared<BackupCommand>();
    addFile(command, options->path, options->reading);
    addText(command, "NEW", options->target, "The copy to make")->type_name("")->required();
    command->add_flag("--force", options->force, "Replace NEW when it is there");
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
