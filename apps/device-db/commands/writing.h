// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_WRITING_H
#define DEVICE_DB_WRITING_H

#include "storefile/live_file.h"

#include "device/library.h"

#include <CLI/CLI.hpp>

namespace device_db
{

/// FILE of a command that writes, --library, --lock, --run-triggers.
struct WriteOptions {
    QString path;
    QString library;
    bool lock = false;        ///< Even when another process has the file open.
    bool runTriggers = false; ///< Even when the file has triggers, which then run.
};
void addWritableFile(CLI::App *command, WriteOptions &options);
/// All of them but FILE.
void addWriting(CLI::App *command, WriteOptions &options);

/// Whether the file may be written: it is there, and no other process has it open. A store has no patience: rows
/// that it writes while someone else holds the lock are lost silently, in every journal mode.
Status mayBeWritten(const WriteOptions &options);

/// mayBeWritten(), and then a plain connection to it. A file that has triggers is somebody else's program: they are
/// named, and run only when a person says so.
Result<Database> openForWriting(const WriteOptions &options);

/// Looks at the file without changing it, even when somebody else has it open.
Result<OpenFile> openForDryRun(const WriteOptions &options);

Result<device::Library> storeLibrary(const WriteOptions &options);

/// Says what would be done to `input` and asks on the terminal; "yes" goes on. Without a terminal it is an Error that
/// says the same and names --yes.
Status confirmed(const QString &input, const QString &plan, bool yes);

} // namespace device_db

#endif
