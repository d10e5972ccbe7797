// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_INTERRUPTION_H
#define DEVICE_DB_INTERRUPTION_H

#include "storefile/sqlite.h"

namespace device_db
{

/// From its making on, Ctrl-C, a request to end and a closed session do not end the program but are remembered, so
/// that a command stops where the file is whole and says so. What the program was told to ignore stays ignored.
class Interruption
{
public:
    Interruption();
    /// While this lives, an interruption also ends the statement that runs on `database`, which SQLite then undoes, and
    /// any that is run after it.
    explicit Interruption(const Database &database);
    ~Interruption();
    Interruption(const Interruption &) = delete;
    Interruption &operator=(const Interruption &) = delete;

    static bool came();

private:
    sqlite3 *m_connection = nullptr;
};

} // namespace device_db

#endif
