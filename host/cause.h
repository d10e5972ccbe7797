// SPDX-License-Identifier: MIT
#ifndef DEVICE_CAUSE_H
#define DEVICE_CAUSE_H

#include "device/result.h"

namespace device
{

/// What an Error says was done, and on which table.
struct Site {
    QString operation;
    QString table;

    Error error(Error::Code code, const QString &cause) const { return Error(code, operation, table, cause); }
};

/// The Error for what the store library wrote. SQLite's own texts are compared whole, so that a text of the
/// application's (a trigger says "the tank is full") is never taken for one of them.
Error failure(const Site &site, const QString &words);

/// The file or the medium is in the way, not the statement: the same statement may go through later.
bool isOfTheFile(Error::Code code);

/// It passes by itself, or ends what is being done.
bool isPassing(Error::Code code);

/// The disk, or the file's part of a ceiling, has no room.
bool isFull(const Error &why);

} // namespace device

#endif
