// SPDX-License-Identifier: MIT
//
// Every operation with every call to the disk failing: what the store answers and logs is what its contract says, and
// the file holds what was acknowledged.
//
// DEVICE_FAULTS_EVERY=1 runs every point; without it each 60th is.
#include "fault_test.h"

namespace
{

class IoFaults : public FaultTest
{
protected:
    std::vector<Failing> ways()
    {
        std::vector<Failing> all;
        for (const DiskFault &fault : {
                 DiskFault{"open", DiskCall::Open, SQLITE_CANTOPEN},
                 DiskFault{"delete", DiskCall::Delete, SQLITE_IOERR_DELETE},
                 DiskFault{"delete that was done", DiskCall::Delete, SQLITE_IOERR_DELETE, true},
                 DiskFault{"access", DiskCall::Access, SQLITE_IOERR_ACCESS},
                 DiskFault{"read", DiskCall::Read, SQLITE_IOERR_READ},
                 DiskFault{"write", DiskCall::Write, SQLITE_IOERR_WRITE},
                 DiskFault{"write that was done", DiskCall::Write, SQLITE_IOERR_WRITE, true},
                 DiskFault{"write to a full disk", DiskCall::Write, SQLITE_FULL},
                 DiskFault{"truncate", DiskCall::Truncate, SQLITE_IOERR_TRUNCATE},
                 DiskFault{"sync", DiskCall::Sync, SQLITE_IOERR_FSYNC},
                 DiskFault{"sync that was done", DiskCall::Sync, SQLITE_IOERR_FSYNC, true},
                 DiskFault{"size", DiskCall::Size, SQLITE_IOERR_FSTAT},
                 DiskFault{"lock", DiskCall::Lock, SQLITE_IOERR_LOCK},
                 DiskFault{"lock held by another", DiskCall::Lock, SQLITE_BUSY},
                 DiskFault{"shared memory", DiskCall::MapShared, SQLITE_IOERR_SHMMAP},
                 DiskFault{"shared lock", DiskCall::LockShared, SQLITE_IOERR_SHMLOCK},
                 DiskFault{"shared lock held by another", DiskCall::LockShared, SQLITE_BUSY},
             })
            all.push_back({fault.name, [=](int nth, bool forEver) { disk.failAt(fault, nth, forEver); },
                           [=] { disk.heal(); }, [=] { return disk.calls(fault.call); }});
        return all;
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, IoFaults, everyKind(), nameOfKind);

TEST_P(IoFaults, WithARollbackJournal)
{
    sweep(ways(), Journal::Delete, every(60));
}

TEST_P(IoFaults, WithAWriteAheadLog)
{
    sweep(ways(), Journal::WriteAhead, every(60));
}

TEST_P(IoFaults, OnAReadOnlyDisk)
{
    const Failing readOnly{"read-only disk", [=](int, bool) { disk.setReadOnly(true); },
                           [=] { disk.setReadOnly(false); }, nullptr};
    for (const Journal journal : {Journal::Delete, Journal::WriteAhead})
        for (const Operation &operation : operationsOf(GetParam())) {
            SCOPED_TRACE(::testing::Message() << operation.call.name << ", journal " << nameOf(journal));
            live(operation, journal, readOnly, 1, true, false);
        }
}

// What reads answers as ever, and a batch is lost without a word: each row fails, and an empty transaction commits. A
// file with a write-ahead log cannot even be read, because its index cannot be made.
TEST_P(IoFaults, OnAReadOnlyDiskABatchIsLostWithoutAWord)
{
    for (const Journal journal : {Journal::Delete, Journal::WriteAhead}) {
        SCOPED_TRACE(nameOf(journal));
        prepare(journal);
        disk.setReadOnly(true);
        const library::StorePtr store = library::store(keyOf(GetParam()));
        EXPECT_EQ(store->openDB(storePath), SQLITE_OK);
        log.take();
        Outcome batch(GetParam());
        store->insertManyDatas(batch.input, "AlarmData"_q);
        EXPECT_EQ(log.take(), QStringList());
        const bool reads = journal == Journal::Delete;
        EXPECT_EQ(store->getDataCountOfTable("AlarmData"_q), reads ? 1 : 0);
        EXPECT_EQ(log.take(), reads ? QStringList()
                                    : QStringList{streamed("database getDataCountOfTable failed;",
                                                           "unable to open database file")});
        disk.setReadOnly(false);
    }
}

// The operator log's execSQL does nothing: that store cannot choose this journal.
class IoFaultsTruncate : public IoFaults
{
};

INSTANTIATE_TEST_SUITE_P(Kinds, IoFaultsTruncate, ::testing::Values(History, Alarm), nameOfKind);

TEST_P(IoFaultsTruncate, WithATruncatedJournal)
{
    sweep(ways(), Journal::Truncate, every(60));
}

} // namespace
