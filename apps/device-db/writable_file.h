// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_WRITABLE_FILE_H
#define DEVICE_DB_WRITABLE_FILE_H

#include "program.h"
#include "sqlite.h"

#include "device/library.h"

namespace device_db
{

/// Whether the file may be written: it is there, and no other process has it open. A store has no patience: rows
/// that it writes while someone else holds the lock are lost without a word, in every journal mode.
Status mayBeWritten(const WriteOptions &options);

/// mayBeWritten(), and then a plain connection to it.
Result<Database> openForWriting(const WriteOptions &options);

Result<device::Library> storeLibrary(const WriteOptions &options);

/// Asks on the terminal, "yes" goes on. Without a terminal it is an Error that names --yes.
Status confirmed(const QString &input, const QString &question, bool yes);

} // namespace device_db

#endif
