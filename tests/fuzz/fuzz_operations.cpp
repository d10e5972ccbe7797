// SPDX-License-Identifier: MIT
//
// Sequences of operations of a store with any arguments, on a file in memory. The input's bytes choose the kind of
// store, the operations and what they are given.
#include "operation.h"

#include <sqlite3.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    sandbox::enter();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const long long before = sandbox::startInput();
    Input input(bytes, size);
    const auto kind = Kind(input.choose(2));
    library::StorePtr store = makeStore(kind);
    if (input.choose(9) < 9) {
        sandbox::require(store->openDB(QStringLiteral(":memory:")) == 0, "a file in memory opens");
        const char *const tables[] = {"T1", "AlarmData", "OperatorLog"};
        store->createTable(QString::fromLatin1(tables[int(kind)]), QStringLiteral("Boiler 1"));
    }
    for (int i = 0; i < 40 && !input.isAtEnd(); ++i)
        call(input.choose(OperationCount - 1), *store, kind, input);
    sandbox::require(store->closeDB() == 0, "closeDB failed");
    store.reset();
    sandbox::require(sqlite3_memory_used() == before, "SQLite memory that nobody freed");
    return 0;
}
