// SPDX-License-Identifier: MIT
#include "schema.h"
#include "service.h"
#include "status.h"
#include "verify.h"

#include "storefile/temporary_file.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>

#include <clocale>
#include <csignal>

namespace
{

using device::Result;
using namespace device_ship;

constexpr int failed = 1;
constexpr int attention = 3;

Result<ArchiveConnection> archiveOf(const std::string &conninfo)
{
    return ArchiveConnection::openTyped(QByteArray::fromStdString(conninfo));
}

struct Options {
    std::string archive;
    std::string configuration;
    bool once = false;
    std::string device;
    std::string name;
    std::string passwordFile;
    std::string repairAs;
};

Result<int> runInit(const Options &options)
{
    auto archive = archiveOf(options.archive);
    if (!archive)
        return archive.error();
    const auto done = initialise(*archive);
    if (!done)
        return done.error();
    if (!done->toRevoke.isEmpty())
        complain(QStringLiteral("a device can fill the disk with large objects until a superuser runs in this "
                                "database: ") +
                 QString::fromLatin1(done->toRevoke));
    std::printf("the archive is of version %d%s\n", schemaVersion(),
                done->former == schemaVersion() ? ", as it was"
                : done->former                  ? ", brought up to date"
                                                : ", made");
    return 0;
}

Result<int> runAddDevice(const Options &options)
{
    QByteArray password;
    if (!options.passwordFile.empty()) {
        const auto read = passwordFrom(QString::fromStdString(options.passwordFile));
        if (!read)
            return read.error();
        password = *read;
    }
    auto archive = archiveOf(options.archive);
    if (!archive)
        return archive.error();
    const int number = *deviceNumber(QString::fromStdString(options.device));
    const auto done = addDevice(*archive, number, QString::fromStdString(options.name), password);
    if (!done)
        return done.error();
    std::printf("device %d connects as dev_%d\n", number, number);
    return 0;
}

Result<int> runRun(const Options &options)
{
    const auto configuration = readConfiguration(QString::fromStdString(options.configuration));
    if (!configuration)
        return configuration.error();
    if (!options.once)
        shipAlways(*configuration);
    const auto all = shipOnce(*configuration);
    if (!all)
        return all.error();
    return *all ? 0 : attention;
}

Result<int> runStatus(const Options &options)
{
    auto archive = archiveOf(options.archive);
    if (!archive)
        return archive.error();
    const auto shown = showStatus(*archive);
    return shown ? Result<int>(0) : shown.error();
}

Result<int> runVerify(const Options &options)
{
    const auto configuration = readConfiguration(QString::fromStdString(options.configuration));
    if (!configuration)
        return configuration.error();
    std::optional<ArchiveConnection> owner;
    if (!options.repairAs.empty()) {
        auto archive = archiveOf(options.repairAs);
        if (!archive)
            return archive.error();
        owner = std::move(archive).value();
    }
    const auto equal = verify(*configuration, owner ? &*owner : nullptr);
    if (!equal)
        return equal.error();
    return *equal ? 0 : attention;
}

} // namespace

int main(int argc, char **argv)
{
    std::setlocale(LC_CTYPE, "C.UTF-8"); // file names are UTF-8, whatever the service manager says
    std::signal(SIGPIPE, SIG_IGN);
    QCoreApplication application(argc, argv);
    device_db::removeTemporaryFilesOnSignals();

    CLI::App program("Carries the rows of the device's store files into a PostgreSQL archive, each once.",
                     "device-ship");
    program.set_version_flag("--version", DEVICE_SHIP_VERSION);
    program.require_subcommand(1);
    program.footer("Exit codes: 0 done, 1 failed, 2 wrong arguments, 3 done but something needs a look.");
    Options options;
    std::function<Result<int>()> body;
    const auto add = [&](const char *name, const char *summary, Result<int> (*run)(const Options &)) {
        CLI::App *const command = program.add_subcommand(name, summary);
        command->callback([&body, &options, run] { body = [&options, run] { return run(options); }; });
        return command;
    };
    const auto addArchive = [&](CLI::App *command) {
        command->add_option("--archive", options.archive, "libpq's connection string of the archive, as its owner")
            ->required();
    };
    const auto addConfiguration = [&](CLI::App *command) {
        command->add_option("CONFIGURATION", options.configuration, "The configuration file of one device")->required();
    };

    addArchive(add("init", "Make the archive in a database, or bring it up to date", runInit));
    CLI::App *const device = add("add-device", "Make a device and its role", runAddDevice);
    device->add_option("NUMBER", options.device, "The device's number")->required()->check([](const std::string &text) {
        return deviceNumber(QString::fromStdString(text)) ? std::string() : text + " is no number of a device";
    });
    device->add_option("--name", options.name, "What people call it; kept where it is left out");
    device->add_option("--password-file", options.passwordFile, "A file whose first line is the role's password");
    addArchive(device);
    CLI::App *const run = add("run", "Ship the rows of a device, for ever or once", runRun);
    addConfiguration(run);
    run->add_flag("--once", options.once, "Ship what there is, and end");
    addArchive(add("status", "Show how far each table of each device is", runStatus));
    CLI::App *const check = add("verify", "Compare the archive with a device's files", runVerify);
    addConfiguration(check);
    check->add_option("--repair-as", options.repairAs,
                      "libpq's connection string of the archive's owner: put rows right that differ");

    try {
        program.parse(argc, argv);
    } catch (const CLI::Success &asked) {
        return program.exit(asked);
    } catch (const CLI::ParseError &wrong) {
        complain(QString::fromStdString(wrong.what()) + QStringLiteral(". \"device-ship --help\" shows its usage"));
        return 2;
    }
    const auto code = body();
    if (code)
        return *code;
    complain(device_db::oneLine(code.error()));
    return failed;
}
