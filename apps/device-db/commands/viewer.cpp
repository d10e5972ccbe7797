// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "serve/page.h"
#include "storefile/new_file.h"
#include "storefile/system_error.h"
#include "storefile/texts.h"
#include "terminal/output.h"

#include <QFile>

namespace device_db
{

namespace
{

struct ViewerCommand {
    QString target;
    bool force = false;
};

Outcome run(const ViewerCommand &command)
{
    const QByteArray page = viewerPage();
    if (page.isEmpty())
        return failure(QStringLiteral("viewer"), QString::fromLatin1(noPage));
    if (command.target == QLatin1String("-")) {
        OutputOptions straight;
        straight.noPager = true;
        return Output(straight).write(page) ? Done : Failed;
    }
    auto target = NewFile::make(command.target, command.force);
    if (!target)
        return target.error();
    QFile file(target->part());
    if (!file.open(QIODevice::WriteOnly) || file.write(page) != page.size() || !file.flush())
        return failure(command.target, systemError() + QStringLiteral("; check the free space"));
    if (const Status placed = target->putInPlace(); !placed)
        return placed.error();
    say(QStringLiteral("%1: %2. Open it in a browser and drop a database file into it")
            .arg(command.target, bytesText(page.size())));
    return Done;
}

} // namespace

void addViewer(Program &program)
{
    CLI::App *const command = program.add(
        "viewer", "Write out the page that shows files in any browser",
        "The page is one HTML file. It needs no server, no network and no installation: put it on the stick "
        "beside the database, open it, and drop the database into it.");
    const auto options = std::make_shared<ViewerCommand>();
    addPath(command, "-o,--output", options->target, "Where to write it; -: to standard output")->required();
    command->add_flag("--force", options->force, "Replace PATH when it is there");
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
