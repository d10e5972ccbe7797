// SPDX-License-Identifier: MIT
#include "program/program.h"

#include "program/help.h"
#include "program/manual.h"
#include "storefile/system_error.h"
#include "storefile/texts.h"
#include "terminal/output.h"

#include <algorithm>
#include <sstream>

namespace device_db
{

namespace
{

int print(const std::string &text)
{
    OutputOptions straight;
    straight.noPager = true;
    return Output(straight).write(QByteArray::fromStdString(text)) ? Done : Failed;
}

} // namespace

Program::Program() : m_commandLine("The bench tool for the files of the device's store library.", "device-db")
{
    m_commandLine.formatter(std::make_shared<HelpFormatter>());
    m_commandLine.set_version_flag("--version", DEVICE_DB_VERSION, "Print the version");
    m_commandLine.require_subcommand(1);
    m_commandLine.footer("\"device-db COMMAND --help\" says more. Exit codes: 0 done, 1 failed, 2 wrong arguments,\n"
                         "3 done but something needs a look, 4 the file is damaged, 130 interrupted.");
}

CLI::App *Program::add(const char *name, const char *summary, const char *details)
{
    CLI::App *const command = m_commandLine.add_subcommand(name, summary);
    command->footer(details);
    return command;
}

void Program::onRun(CLI::App *command, std::function<Outcome()> body)
{
    command->callback([this, body = std::move(body)] { m_body = body; });
}

int Program::run(int argc, char **argv)
{
    const int code = execute(argc, argv);
    if (outputIsComplete())
        return code;
    complain(QStringLiteral("standard output: %1; not all of it was taken").arg(systemError()));
    return Failed;
}

int Program::execute(int argc, char **argv)
{
    // For the build alone: these two are not shown.
    if (argc == 2 && qstrcmp(argv[1], "--man") == 0)
        return print(manualPage(m_commandLine));
    if (argc == 2 && qstrcmp(argv[1], "--completion") == 0)
        return print(bashCompletion(m_commandLine));
    for (int i = 1; i < argc; ++i) {
        if (const QByteArray given(argv[i]); !isUtf8(given)) {
            complain(
                QStringLiteral("\"%1\" is not UTF-8. Rename a file of such a name, or a copy of it; go into a folder "
                               "of such a name first")
                    .arg(fromUtf8(given)));
            return Usage;
        }
    }
    if (argc > 1 && qstrcmp(argv[1], "help") == 0) {
        QByteArray help("--help");
        std::vector<char *> words{argv[0], argc > 2 ? argv[2] : help.data(), help.data()};
        return execute(argc > 2 ? 3 : 2, words.data());
    }
    // CLI11 would only say that a command is missing.
    const std::vector<CLI::App *> commands = m_commandLine.get_subcommands({});
    if (argc > 1 && argv[1][0] != '-' && std::none_of(commands.begin(), commands.end(), [&](const CLI::App *command) {
            return command->get_name() == argv[1];
        })) {
        complain(QStringLiteral("there is no command \"%1\". \"device-db --help\" lists them")
                     .arg(QString::fromUtf8(argv[1])));
        return Usage;
    }
    try {
        m_commandLine.parse(argc, argv);
    } catch (const CLI::Success &asked) {
        std::ostringstream text; // --help, --version
        m_commandLine.exit(asked, text, text);
        return print(text.str());
    } catch (const CLI::ParseError &wrong) {
        QString command;
        for (const CLI::App *given : m_commandLine.get_subcommands())
            command = QString::fromStdString(given->get_name()) + QLatin1Char(' ');
        complain(QStringLiteral("%1. \"device-db %2--help\" shows its usage")
                     .arg(QString::fromStdString(wrong.what()).replace(QLatin1Char('\n'), QLatin1Char(' ')), command));
        return Usage;
    }
    const Outcome outcome = m_body();
    if (outcome)
        return *outcome;
    complain(oneLine(outcome.error()));
    return Failed;
}

} // namespace device_db
