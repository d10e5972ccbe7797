// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_MANUAL_H
#define DEVICE_DB_MANUAL_H

#include <CLI/CLI.hpp>

namespace device_db
{

/// The man page of a command line, in the language of man(7).
std::string manualPage(const CLI::App &commandLine);

/// A completion script for bash: commands, options, and files where a value is one.
std::string bashCompletion(const CLI::App &commandLine);

} // namespace device_db

#endif
