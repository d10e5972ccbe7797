// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_PROGRAM_H
#define DEVICE_DB_PROGRAM_H

#include "error.h"
#include "live_file.h"

#include <CLI/CLI.hpp>

#include <QString>
#include <QStringList>

#include <functional>

namespace device_db
{

/// The command line: the commands register themselves here, the man page and the completion are made from it.
class Program
{
public:
    Program();

    /// Parses, runs the command and says what went wrong. Returns the exit code.
    int run(int argc, char **argv);

    /// A new command. `details`: some sentences for the help and the man page; lines are broken where they fit.
    CLI::App *add(const char *name, const char *summary, const char *details = "");
    /// What the command does, when it is the one that was asked for.
    void onRun(CLI::App *command, std::function<Outcome()> body);

    CLI::App &commandLine() { return m_commandLine; }

private:
    CLI::App m_commandLine;
    std::function<Outcome()> m_body;
};

/// Options and arguments with Qt's types. The returned option can be made required and the like.
CLI::Option *addText(CLI::App *command, const std::string &name, QString &value, const std::string &description);
CLI::Option *addTexts(CLI::App *command, const std::string &name, QStringList &value, const std::string &description);

/// Takes 0 and more.
CLI::Validator wholeNumber();

/// --separator of CSV: one character, or the word tab.
void addSeparator(CLI::App *command, char &separator);

/// FILE and --lock of a command that reads.
CLI::Option *addFile(CLI::App *command, QString &path, ReadOptions &options);

/// FILE of a command that writes, --library, --lock.
struct WriteOptions {
    QString path;
    QString library;
    bool lock = false; ///< Also when another process has the file open.
};
void addWritableFile(CLI::App *command, WriteOptions &options);

} // namespace device_db

#endif
