// SPDX-License-Identifier: MIT
//
// Every operation with every allocation of SQLite failing, and what was said above.
//
// DEVICE_FAULTS_EVERY=1 runs every point; without it each 300th is.
#include "failing_memory.h"
#include "fault_test.h"

namespace
{

class MemoryFaults : public FaultTest
{
protected:
    const std::vector<Failing> allocation{
        {"allocation", failing_memory::failAt, failing_memory::heal, failing_memory::allocations}};
};

INSTANTIATE_TEST_SUITE_P(Kinds, MemoryFaults, everyKind(), nameOfKind);

TEST_P(MemoryFaults, WithARollbackJournal)
{
    sweep(allocation, Journal::Delete, every(300));
}

TEST_P(MemoryFaults, WithAWriteAheadLog)
{
    sweep(allocation, Journal::WriteAhead, every(300));
}

TEST_P(MemoryFaults, WithoutMemoryForAConnectionTheStoreStaysClosed)
{
    prepare(Journal::Delete);
    const library::StorePtr store = library::store(keyOf(GetParam()));
    failing_memory::failAt(1, true);
    EXPECT_EQ(store->openDB(storePath), SQLITE_NOMEM);
    failing_memory::heal();
    log.take();
    EXPECT_EQ(store->getDataCountOfTable("AlarmData"_q), 0);
    EXPECT_FALSE(store->createTable("Other"_q, ""_q));
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(store->openDB(storePath), SQLITE_OK);
    EXPECT_EQ(store->getDataCountOfTable("AlarmData"_q), 1);
}

} // namespace
