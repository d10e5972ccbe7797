// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_PROGRAM_H
#define DEVICE_DB_PROGRAM_H

#include "storefile/error.h"

#include <CLI/CLI.hpp>

#include <functional>

namespace device_db
{

/// What the program ends with.
enum ExitCode {
    Done = 0,
    Failed = 1,       ///< The file, the medium or the data stood in the way.
    Usage = 2,        ///< The arguments make no sense.
    Attention = 3,    ///< Done, and something needs a look: refused rows, findings that are not damage.
    Damaged = 4,      ///< The file is damaged.
    Interrupted = 130 ///< By Ctrl-C.
};

/// The exit code of a command, or why it failed.
using Outcome = Result<int>;

/// The command line: commands are added to it, the man page and the completion are made from it.
class Program
{
public:
    Program();

    /// A new command. `details`: some sentences for the help and the man page; lines are broken where they fit.
    CLI::App *add(const char *name, const char *summary, const char *details = "");
    /// What the command does, when it is the one that was asked for.
    void onRun(CLI::App *command, std::function<Outcome()> body);

    /// Parses, runs the command and says what went wrong. Returns the exit code.
    int run(int argc, char **argv);

private:
    int execute(int argc, char **argv);

    CLI::App m_commandLine;
    std::function<Outcome()> m_body;
};

} // namespace device_db

#endif
