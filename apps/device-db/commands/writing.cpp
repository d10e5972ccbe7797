// SPDX-License-Identifier: MIT
#include "commands/writing.h"

#include "commands/options.h"
#include "storefile/open_processes.h"
#include "storefile/tables.h"
#include "storefile/texts.h"

#include <QFileInfo>

#include <cstdio>

#include <unistd.h>

namespace device_db
{

void addWritableFile(CLI::App *command, WriteOptions &options)
{
    addPath(command, "FILE", options.path, "The database file")->type_name("")->required();
    addWriting(command, options);
}

void addWriting(CLI::App *command, WriteOptions &options)
{
    command->add_flag("--lock", options.lock,
                      "Write even if another process has the file open, whose own commits may then fail");
    command->add_flag(
        "--run-triggers", options.runTriggers,
        "Write even if the file has triggers, which then run; without it they are named and you are asked");
    addText(command, "--library", options.library,
            "The store library; default: $DEVICE_DATABASE_LIBRARY, or the first in the usual places")
        ->type_name("PATH");
}

Status mayBeWritten(const WriteOptions &options)
{
    const QFileInfo file(options.path);
    if (!file.exists())
        return failure(options.path, QStringLiteral("there is no such file; check the name"));
    if (!file.isFile())
        return failure(options.path, QStringLiteral("this is not a file; name a database file"));
    if (!file.isWritable())
        return failure(options.path, QStringLiteral("it may not be written; check its rights, or work on a copy"));
    if (options.lock)
        return {};
    if (const auto others = processesThatHave(options.path); !others.isEmpty())
        return failure(options.path,
                       QStringLiteral("%1 has it open, and what it writes at the same time could be lost; "
                                      "stop it, or accept that with --lock")
                           .arg(listed(others)));
    return {};
}

Result<Database> openForWriting(const WriteOptions &options)
{
    if (const Status may = mayBeWritten(options); !may)
        return may.error();
    auto database = Database::open(options.path, Database::ReadWrite);
    if (!database || options.runTriggers)
        return database;
    const auto triggers = triggersOf(*database);
    if (!triggers)
        return triggers.error();
    if (triggers->isEmpty())
        return database;
    const QString names = someOf(*triggers);
    if (!isatty(STDIN_FILENO))
        return failure(options.path, QStringLiteral("it has triggers, which would run when it is written: %1. "
                                                    "--run-triggers lets them")
                                         .arg(names));
    const QString question = QStringLiteral("it has triggers, which run when it is written: %1");
    if (const Status may = confirmed(options.path, question.arg(names), false); !may)
        return may.error();
    return database;
}

Result<OpenFile> openForDryRun(const WriteOptions &options)
{
    ReadOptions reading;
    reading.lock = options.lock;
    return openFile(options.path, reading);
}

Result<device::Library> storeLibrary(const WriteOptions &options)
{
    auto library = device::Library::load(options.library);
    if (library)
        return library;
    return failure(library.error().operation(),
                   library.error().cause() + QStringLiteral("; name the file of the store library with --library or in "
                                                            "$DEVICE_DATABASE_LIBRARY"));
}

Status confirmed(const QString &input, const QString &plan, bool yes)
{
    if (yes)
        return {};
    if (!isatty(STDIN_FILENO))
        return failure(input, plan + QStringLiteral("; not a terminal, use --yes to go ahead"));
    std::fprintf(stderr, "%s: %s. Go on? [yes/no] ", visible(input).toUtf8().constData(),
                 visible(plan).toUtf8().constData());
    std::fflush(stderr);
    char answer[16] = "";
    if (!std::fgets(answer, sizeof answer, stdin) || (qstricmp(answer, "yes\n") != 0 && qstricmp(answer, "y\n") != 0))
        return failure(input, QStringLiteral("left as it is"));
    return {};
}

} // namespace device_db
