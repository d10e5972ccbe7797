// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_ERROR_H
#define DEVICE_DB_ERROR_H

#include "device/result.h"

namespace device_db
{

using device::Error;
using device::Result;
using device::Status;

/// What the program ends with.
enum ExitCode {
    Done = 0,
    Failed = 1,       ///< The file, the medium or the data stood in the way.
    Usage = 2,        ///< The arguments make no sense.
    Attention = 3,    ///< Done, and something needs a look: refused rows, findings that are no damage.
    Damaged = 4,      ///< The file is damaged.
    Interrupted = 130 ///< By Ctrl-C.
};

/// The exit code of a command, or why it failed.
using Outcome = Result<int>;

/// A failure in this tool's own words. `input`: what it is about, mostly a file; `cause` ends with the remedy.
Error failure(const QString &input, const QString &cause);

/// One line for people: the input, the cause and the remedy.
QString oneLine(const Error &error);

} // namespace device_db

#endif
