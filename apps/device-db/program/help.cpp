// SPDX-License-Identifier: MIT
#include "program/help.h"

#include "terminal/text.h"

namespace device_db
{

namespace
{

constexpr std::size_t width = 79;
constexpr std::size_t nameWidth = 24;

// A name, and its text beside it or, when the name is long, below it.
std::string entry(const std::string &name, const std::string &text)
{
    const std::string indent(nameWidth, ' ');
    std::string head = "  " + name;
    head += head.size() + 2 > nameWidth ? "\n" + indent : std::string(nameWidth - head.size(), ' ');
    return head + wrapped(text, width - nameWidth, indent) + "\n";
}

} // namespace

std::string valueOf(const CLI::Option *option)
{
    // After a colon come the names of its checks.
    const std::string type = option->get_type_name();
    return option->get_items_expected_max() == 0 ? std::string() : type.substr(0, type.find(':'));
}

std::string HelpFormatter::make_usage(const CLI::App *app, std::string name) const
{
    std::string line = "Usage: ";
    line += name.empty() ? app->get_display_name() : name;
    if (!app->get_subcommands({}).empty())
        line += " COMMAND";
    for (const CLI::Option *option : app->get_options()) {
        if (!option->get_positional())
            continue;
        const std::string each = option->get_name(true) + (option->get_items_expected_max() > 1 ? "..." : "");
        line += option->get_required() ? " " + each : " [" + each + "]";
    }
    return line + " [OPTION...]\n";
}

std::string HelpFormatter::make_option(const CLI::Option *option, bool positional) const
{
    std::string name = positional ? option->get_name(true) : option->get_name(false, true);
    if (const std::size_t comma = name.find(','); comma != std::string::npos)
        name.insert(comma + 1, " ");
    const std::string value = positional ? std::string() : valueOf(option);
    // What must be given is seen in the usage line only for what has no name.
    const char *const required = !positional && option->get_required() ? "; required" : "";
    return entry(name + (value.empty() ? "" : " " + value), option->get_description() + required);
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const
{
    return valueOf(option);
}

std::string HelpFormatter::make_subcommand(const CLI::App *command) const
{
    return entry(command->get_name(), command->get_description());
}

std::string HelpFormatter::make_description(const CLI::App *app) const
{
    // The details of a command are in its footer: CLI11 lists the description as the summary.
    std::string text = wrapped(app->get_description(), width, "");
    if (app->get_parent() && !app->get_footer().empty())
        text += "\n\n" + wrapped(app->get_footer(), width, "");
    return text + "\n";
}

std::string HelpFormatter::make_footer(const CLI::App *app) const
{
    return app->get_parent() ? std::string() : "\n" + app->get_footer() + "\n";
}

} // namespace device_db
