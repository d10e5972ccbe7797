// SPDX-License-Identifier: MIT
#include "failing_memory.h"

#include <sqlite3.h>

namespace
{

sqlite3_mem_methods real;
bool counting = false;
int count = 0;
int failing = 0; ///< Number of the allocation; 0 for none.
bool allBehind = false;

bool fails()
{
    if (!counting)
        return false;
    ++count;
    return failing > 0 && (allBehind ? count >= failing : count == failing);
}

// SQLite takes an allocator only before it starts, and the first connection starts it.
const bool installed = [] {
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real);
    sqlite3_mem_methods methods = real;
    methods.xMalloc = [](int size) { return fails() ? nullptr : real.xMalloc(size); };
    methods.xRealloc = [](void *memory, int size) { return fails() ? nullptr : real.xRealloc(memory, size); };
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &methods) == SQLITE_OK;
}();

} // namespace

void failing_memory::failAt(int nth, bool forEver)
{
    counting = true;
    count = 0;
    failing = nth;
    allBehind = forEver;
}

void failing_memory::heal()
{
    counting = false;
}

int failing_memory::allocations()
{
    return count;
}
