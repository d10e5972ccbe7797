// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_HELP_H
#define DEVICE_DB_HELP_H

#include <CLI/CLI.hpp>

namespace device_db
{

/// Help that fits a terminal of 80 columns.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_usage(const CLI::App *app, std::string name) const override;
    std::string make_option(const CLI::Option *option, bool positional) const override;
    std::string make_option_opts(const CLI::Option *option) const override;
    std::string make_subcommand(const CLI::App *command) const override;
    std::string make_description(const CLI::App *app) const override;
    std::string make_footer(const CLI::App *app) const override;
};

/// What an option takes, as `N` or `TEXT`; empty for a flag.
std::string valueOf(const CLI::Option *option);

} // namespace device_db

#endif
