// SPDX-License-Identifier: MIT
#pragma once

/// SQLite's allocator, which can be told to fail. It is installed before main() runs; one thread.
namespace failing_memory
{

/// Counts allocations from now on. Number `nth` (from 1) fails, and all that follow it when `forEver`; none with 0.
void failAt(int nth, bool forEver);
/// Nothing fails and nothing is counted any more.
void heal();
/// The allocations between the two.
int allocations();

} // namespace failing_memory
