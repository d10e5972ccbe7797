// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/interruption.h"
#include "commands/options.h"
#include "program/program.h"
#include "serve/page.h"
#include "serve/server.h"
#include "storefile/new_file.h"
#include "terminal/output.h"

#include <QCoreApplication>

#include <sys/resource.h>

namespace device_db
{

namespace
{

struct ServeCommand {
    QStringList paths;
    QString address = QStringLiteral("127.0.0.1");
    quint16 port = 0;
};

// Each connection is an open file, and the usual limit is just above their number.
void allowOpenFiles()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 2 * Server::mostConnections));
    setrlimit(RLIMIT_NOFILE, &limit);
}

Outcome run(const ServeCommand &command)
{
    if (viewerPage().isEmpty())
        return failure(QStringLiteral("serve"), QString::fromLatin1(noPage));
    const QHostAddress address(command.address);
    if (address.isNull())
        return failure(command.address, QStringLiteral("this is not an address of this computer; give one such as "
                                                       "192.168.1.20, or 0.0.0.0 for all of them"));
    for (int i = 0; i < command.paths.size(); ++i) {
        // To close the file for one of them would drop the locks of the other.
        for (int k = 0; k < i; ++k) {
            if (isSameFile(command.paths.at(i), command.paths.at(k)))
                return failure(command.paths.at(i), QStringLiteral("it is named twice; name each file once"));
        }
    }
    const Interruption interruption;
    allowOpenFiles();
    auto files = ServedFiles::of(command.paths);
    if (!files)
        return files.error();
    for (const Error &error : (*files)->errors())
        complain(oneLine(error)); // it is shown as soon as it can be read
    const auto server = Server::listen(std::move(files).value(), address, command.port);
    if (!server)
        return server.error();
    say(QString::fromLatin1((*server)->url()));
    say(QStringLiteral("Open this address in a browser; Ctrl-C ends it."));
    if (!outputIsComplete()) // and somebody may read the address from a pipe
        return Done;         // nobody would ever have it, which is reported at the end
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &timer, [] {
        if (Interruption::came())
            QCoreApplication::quit();
    });
    timer.start(100);
    QCoreApplication::exec();
    return Done;
}

} // namespace

void addServe(Program &program)
{
    CLI::App *const command = program.add(
        "serve", "Show files, and what a device writes into them, in a browser",
        "Prints an address, with a token that nobody else knows; open it in a browser on this computer, or through "
        "\"ssh -L\". The page is that of the command viewer; new rows appear by themselves. The device is not disturbed: "
        "in write-ahead mode the file itself is read, otherwise it is copied whenever it has changed, so that a large "
        "one is not live. Ctrl-C ends it.");
    const auto options = std::make_shared<ServeCommand>();
    command
        ->add_option_function<std::vector<std::string>>(
            "FILE",
            [options = options.get()](const std::vector<std::string> &given) {
                for (const std::string &each : given)
                    options->paths << pathOf(QString::fromStdString(each));
            },
            "The database files")
        ->type_name("")
        ->required();
    addText(
        command, "--listen", options->address,
        "Listen on this address instead of this computer alone; whoever has the printed address can read the files, "
        "and it is not encrypted")
        ->type_name("ADDRESS");
    command->add_option("--port", options->port, "Default: a free one")->type_name("N")->check(CLI::Range(1, 65535));
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
