// SPDX-License-Identifier: MIT
#ifndef STOREFILE_UNLOCKED_READ_H
#define STOREFILE_UNLOCKED_READ_H

#include "storefile/sqlite.h"

#include <functional>

namespace device_db
{

/// Has `read` read one committed state of the file, for a moment and without a lock that the device could meet; nothing
/// is written, into the file or beside it.
///
/// In write-ahead mode that is a transaction. In rollback-journal mode a reader's lock makes the device's commits fail,
/// so the file is read as it is, and afterwards it is known whether somebody changed it meanwhile. A file that a dead
/// process left with a journal or a log is read from a copy.
///
/// True: done. False: disturbed, so that what `read` has found must be thrown away; try again. An Error is that of
/// `read`, or of a file that cannot be opened. Opens and closes the file: not for a process that holds locks on it.
Result<bool> readUnlocked(const QString &path, const std::function<Status(const Database &)> &read);

} // namespace device_db

#endif
