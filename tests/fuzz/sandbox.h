// SPDX-License-Identifier: MIT
#pragma once

#include "loaded_library.h"

/// What every fuzz target runs in. Inputs can become SQL, so each connection that opens in this process gets a
/// bound on its work and memory and may not reach outside of its file; Qt's debug output is formatted and dropped.
namespace sandbox
{

/// Once, before the first input.
void enter();

/// Gives the statements of the next input their work to spend. Returns what SQLite has allocated now.
long long startInput();

/// Ends the program with `what` when a promise is broken.
void require(bool holds, const char *what);

} // namespace sandbox

enum class Kind { History, Alarm, OperatorLog };

inline library::StorePtr makeStore(Kind kind)
{
    return library::store(kind == Kind::History ? "historyDB" : kind == Kind::Alarm ? "alarmDB" : "operatorLogDB");
}
