// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/live_file.h"
#include "storefile/new_file.h"
#include "storefile/texts.h"
#include "terminal/progress.h"

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

Outcome run(const BackupCommand &command)
{
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    auto target = NewFile::make(command.target, command.force, {command.path});
    if (!target)
        return target.error();
    qint64 pages = 0;
    {
        const auto to = Database::open(target->part(), Database::ReadWrite, command.target);
        if (!to)
            return to.error();
        Progress progress(QStringLiteral("pages"));
        const auto copied =
            copyPages(file->database, *to, [&](qint64 done, qint64 all) { progress.show(done, all, done); });
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
    addPath(command, "NEW", options->target, "The copy to make")->type_name("")->required();
    command->add_flag("--force", options->force, "Replace NEW when it is there");
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
