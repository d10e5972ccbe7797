// SPDX-License-Identifier: MIT
#include "program.h"

#include "commands.h"
#include "help.h"
#include "manual.h"

#include <cstdio>
#include <cstring>

namespace device_db
{

namespace
{

void complain(const QString &line)
{
    std::fprintf(stderr, "device-db: %s\n", line.toUtf8().constData());
}

} // namespace

Program::Program() : m_commandLine("The bench tool for the files of the device's store library.", "device-db")
{
    m_commandLine.formatter(std::make_shared<HelpFormatter>());
    m_commandLine.set_version_flag("--version", DEVICE_DB_VERSION, "Print the version");
    m_commandLine.require_subcommand(1);
    m_commandLine.footer("\"device-db COMMAND --help\" tells more. Exit codes: 0 done, 1 failed, 2 wrong arguments,\n"
                         "3 done but something needs a look, 4 the file is damaged, 130 interrupted.");
    addCommands(*this);
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
    // For the build alone: these two are not shown.
    if (argc == 2 && qstrcmp(argv[1], "--man") == 0)
        return std::fputs(manualPage(m_commandLine).c_str(), stdout) < 0 ? Failed : Done;
    if (argc == 2 && qstrcmp(argv[1], "--completion") == 0)
        return std::fputs(bashCompletion(m_commandLine).c_str(), stdout) < 0 ? Failed : Done;
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
        return m_commandLine.exit(asked); // --help, --version
    } catch (const CLI::ParseError &wrong) {
        QString command;
        for (const CLI::App *given : m_commandLine.get_subcommands())
            command = QString::fromStdString(given->get_name()) + QLatin1Char(' ');
        complain(QStringLiteral("%1. \"device-db %2--help\" tells how it goes")
                     .arg(QString::fromStdString(wrong.what()).replace(QLatin1Char('\n'), QLatin1Char(' ')), command));
        return Usage;
    }
    const Outcome outcome = m_body();
    if (outcome)
        return *outcome;
    complain(oneLine(outcome.error()));
    return Failed;
}

CLI::Option *addText(CLI::App *command, const std::string &name, QString &value, const std::string &description)
{
    return command
        ->add_option_function<std::string>(
            name, [&value](const std::string &given) { value = QString::fromStdString(given); }, description)
        ->type_name("TEXT");
}

CLI::Option *addTexts(CLI::App *command, const std::string &name, QStringList &value, const std::string &description)
{
    return command
        ->add_option_function<std::vector<std::string>>(
            name,
            [&value](const std::vector<std::string> &given) {
                for (const std::string &each : given)
                    value << QString::fromStdString(each);
            },
            description)
        ->type_name("TEXT");
}

CLI::Validator wholeNumber()
{
    return CLI::Validator(
        [](const std::string &given) {
            const bool fits =
                !given.empty() && given.size() < 19 && given.find_first_not_of("0123456789") == std::string::npos;
            return fits ? std::string() : "\"" + given + "\" is no whole number";
        },
        "");
}

void addSeparator(CLI::App *command, char &separator)
{
    const CLI::Validator oneCharacter(
        [](const std::string &given) {
            const bool fits = given == "tab" || (given.size() == 1 && given[0] > 0 && !std::strchr("\"\r\n", given[0]));
            return fits ? std::string() : "one character, or the word tab";
        },
        "");
    command
        ->add_option_function<std::string>(
            "--separator", [&separator](const std::string &given) { separator = given == "tab" ? '\t' : given[0]; },
            "Between the cells of CSV: one character, or tab; default: a comma")
        ->type_name("CHAR")
        ->check(oneCharacter);
}

CLI::Option *addFile(CLI::App *command, QString &path, ReadOptions &options)
{
    CLI::Option *const file = addText(command, "FILE", path, "The database file")->type_name("")->required();
    command->add_flag("--lock", options.lock,
                      "Read the file itself, with locks: a device that writes it at that moment may lose a commit");
    return file;
}

void addWritableFile(CLI::App *command, WriteOptions &options)
{
    addText(command, "FILE", options.path, "The database file")->type_name("")->required();
    command->add_flag("--lock", options.lock,
                      "Write although another process has the file open, whose own commits may fail meanwhile");
    addText(command, "--library", options.library,
            "The store library; default: $DEVICE_DATABASE_LIBRARY, or the first in the usual places")
        ->type_name("PATH");
}

} // namespace device_db
