// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_OPTIONS_H
#define DEVICE_DB_OPTIONS_H

#include "storefile/live_file.h"
#include "storefile/row_query.h"
#include "terminal/output.h"

#include <CLI/CLI.hpp>

#include <QStringList>

#include <optional>

namespace device_db
{

/// Options and arguments with Qt's types. The returned option can be made required and the like.
CLI::Option *addText(CLI::App *command, const std::string &name, QString &value, const std::string &description);
CLI::Option *addTexts(CLI::App *command, const std::string &name, QStringList &value, const std::string &description);

/// The name of a file. Names that begin as those that SQLite and Qt keep for themselves ("file:", ":memory:") become
/// those of files in the current folder.
QString pathOf(const QString &given);
CLI::Option *addPath(CLI::App *command, const std::string &name, QString &path, const std::string &description);

/// What a TIME may be, for the help.
constexpr const char *aboutTimes =
    "A TIME is a day (2024-05-06, 6.5.2024), a day and a time (\"2024-05-06 07:08\", with or without seconds and "
    "milliseconds), now, today, yesterday, or a span back from now (90m, 24h, 7d). Both ends belong to a range.";

/// Takes 0 and more.
CLI::Validator wholeNumber();

/// FILE and --lock of a command that reads.
CLI::Option *addFile(CLI::App *command, QString &path, ReadOptions &options);
/// The same, or the address of a fleet's archive, with --device.
void addSource(CLI::App *command, QString &path, ReadOptions &options, QStringList &devices);
/// --from and --to.
void addRange(CLI::App *command, RowFilter &filter);
/// --active, --ended, --level, --object, --type, --value, --user.
void addFilter(CLI::App *command, RowFilter &filter);

/// --separator of CSV: one character, or the word tab.
void addSeparator(CLI::App *command, std::optional<char> &separator);
/// --null: the text of CSV that stands for NULL.
void addNull(CLI::App *command, std::optional<QByteArray> &null, const std::string &description);

/// --csv, --json, --full, --utc, --width, --color, --no-pager.
void addOutput(CLI::App *command, OutputOptions &options);
/// Those that go with any form: --utc, --width, --color, --no-pager.
void addLook(CLI::App *command, OutputOptions &options);

} // namespace device_db

#endif
