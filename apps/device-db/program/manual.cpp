// SPDX-License-Identifier: MIT
#include "program/manual.h"

#include "program/help.h"

namespace device_db
{

namespace
{

// troff: a hyphen is not a minus, a backslash begins an escape, a dot or quote in front of a line a request.
std::string escaped(const std::string &text)
{
    std::string result;
    for (const char c : text) {
        if (c == '-')
            result += "\\-";
        else if (c == '\\')
            result += "\\e";
        else if ((c == '.' || c == '\'') && (result.empty() || result.back() == '\n'))
            (result += "\\&") += c;
        else
            result += c;
    }
    return result;
}

std::string optionEntry(const CLI::Option *option)
{
    std::string name = option->get_positional() ? option->get_name(true) : option->get_name(false, true);
    std::string entry = ".TP\n\\fB" + escaped(name) + "\\fR";
    if (const std::string value = option->get_positional() ? std::string() : valueOf(option); !value.empty())
        entry += " \\fI" + escaped(value) + "\\fR";
    const char *const required = !option->get_positional() && option->get_required() ? "; required" : "";
    return entry + "\n" + escaped(option->get_description() + required) + "\n";
}

// The words that a caller may type for an option: "--limit -n".
std::string optionWords(const CLI::App &app)
{
    std::string words;
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_snames())
            words += "-" + name + " ";
        for (const std::string &name : option->get_lnames())
            words += "--" + name + " ";
    }
    if (!words.empty())
        words.pop_back();
    return words;
}

} // namespace

std::string manualPage(const CLI::App &commandLine)
{
    const std::string program = commandLine.get_name();
    const HelpFormatter formatter;
    std::string page = ".TH DEVICE\\-DB 1 \"\" \"" + program + "\" \"User Commands\"\n.SH NAME\n" + escaped(program) +
                       " \\- look at, check, copy and tidy the files of the device's store library\n.SH SYNOPSIS\n.B " +
                       escaped(program) + "\n\\fICOMMAND\\fR [\\fIARGUMENT\\fR...]\n.SH DESCRIPTION\n" +
                       escaped(commandLine.get_description()) + "\n.SH COMMANDS\n";
    for (const CLI::App *command : commandLine.get_subcommands({})) {
        std::string usage = formatter.make_usage(command, program + " " + command->get_name());
        usage.erase(0, usage.find(' ') + 1);
        page += ".SS " + escaped(usage) + escaped(command->get_description()) + ".\n";
        if (!command->get_footer().empty())
            page += ".PP\n" + escaped(command->get_footer()) + "\n";
        for (const bool positional : {true, false}) {
            for (const CLI::Option *option : command->get_options()) {
                if (option->get_positional() == positional && option->get_lnames() != std::vector<std::string>{"help"})
                    page += optionEntry(option);
            }
        }
    }
    page += ".SH EXIT STATUS\n";
    for (const auto &[code, meaning] :
         {std::pair{"0", "Done."}, std::pair{"1", "Failed; a line on standard error names the input and the remedy."},
          std::pair{"2", "The arguments make no sense."},
          std::pair{"3", "Done, and something needs a look: refused rows, findings that are not damage."},
          std::pair{"4", "The file is damaged."}, std::pair{"130", "Interrupted."}})
        page += std::string(".TP\n.B ") + code + "\n" + meaning + "\n";
    page += ".SH ENVIRONMENT\n";
    for (const auto &[name, meaning] :
         {std::pair{"DEVICE_DATABASE_LIBRARY", "The store library, when \\-\\-library is not given."},
          std::pair{"PAGER", "Shows long output on a terminal; default: less. Empty or cat: none."},
          std::pair{"NO_COLOR", "When set and not empty: no colours."},
          std::pair{"TMPDIR", "The folder for snapshots of files that are in use."},
          std::pair{"TZ", "The zone of the device, for \\-\\-utc."}})
        page += std::string(".TP\n.B ") + name + "\n" + meaning + "\n";
    return page;
}

std::string bashCompletion(const CLI::App &commandLine)
{
    std::string commands;
    std::string cases;
    std::string valued; // options whose value is not a file: nothing to propose
    for (const CLI::App *command : commandLine.get_subcommands({})) {
        commands += command->get_name() + " ";
        cases += "    " + command->get_name() + ") options=\"" + optionWords(*command) + "\" ;;\n";
        for (const CLI::Option *option : command->get_options()) {
            const std::string value = option->get_positional() ? std::string() : valueOf(option);
            if (value.empty() || value == "PATH")
                continue;
            for (const std::string &name : option->get_lnames()) {
                if (("|" + valued).find("|--" + name + "|") == std::string::npos)
                    valued += "--" + name + "|";
            }
        }
    }
    if (!valued.empty())
        valued.pop_back();
    return "# bash completion for device-db, made by the program itself\n"
           "_device_db()\n{\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} options=\n"
           "    COMPREPLY=()\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"" +
           commands + optionWords(commandLine) +
           "\" -- \"$word\")\n"
           "        return\n"
           "    fi\n" +
           (valued.empty() ? std::string()
                           : "    case ${COMP_WORDS[COMP_CWORD - 1]} in\n    " + valued + ") return ;;\n    esac\n") +
           "    case ${COMP_WORDS[1]} in\n" + cases +
           "    esac\n"
           "    if [[ $word == -* ]]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n"
           "    else\n"
           "        compopt -o filenames\n"
           "        mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
           "    fi\n"
           "}\n"
           "complete -F _device_db device-db\n";
}

} // namespace device_db
