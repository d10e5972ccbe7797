// SPDX-License-Identifier: MIT
#pragma once

#include "contract.h"
#include "file_content.h"
#include "memory_disk.h"

#include <functional>
#include <map>

/// How the file is journaled. The library sets none of them; a host does by a statement.
enum class Journal { Delete, Truncate, WriteAhead };

inline const char *nameOf(Journal journal)
{
    return journal == Journal::Delete ? "delete" : journal == Journal::Truncate ? "truncate" : "wal";
}

/// A way in which something fails at its Nth call: counted from failAt() on, 0 for no call, until heal().
struct Failing {
    std::string name;
    std::function<void(int nth, bool forEver)> failAt;
    std::function<void()> heal;
    std::function<int()> calls;
};

/// Runs operations while something fails, and compares everything that can be seen with the contract: statements,
/// messages, answers, the file, SQLite's memory, open files.
class FaultTest : public ::testing::TestWithParam<Kind>
{
protected:
    FaultTest();
    ~FaultTest() override;

    /// Every operation of the kind with its Nth call failing, for every N until it gets by without the Nth, once and
    /// for ever, healed before and after the store is closed. Of all these points each `every`th is run.
    void sweep(const std::vector<Failing> &ways, Journal journal, int every);

    /// One store's life: opened, one operation, closed, all while `failing` does; then healed and used again.
    void live(const Operation &operation, Journal journal, const Failing &failing, int nth, bool forEver,
              bool healBeforeClosing);

    /// Puts the prepared file on the disk.
    void prepare(Journal journal);

    const QString storePath = "store.db"_q;
    MemoryDisk disk;
    DebugLog log;

private:
    void expectConduct(const Operation &operation, int opened, const Outcome &outcome,
                       const std::vector<SqliteCall> &heard);
    void expectUsable(interface_data_base &store, Acknowledged &acknowledged);
    void expectFile(const Acknowledged &acknowledged);

    SqliteCalls m_calls;
    std::map<Journal, MemoryDisk::Files> m_prepared;
    std::unique_ptr<Replay> m_replay;
    int m_points = 0;
    int m_felt = 0; ///< Operations with a statement that failed; SQLite gets by some faults alone.
};

/// Which points of a sweep are run: $DEVICE_FAULTS_EVERY, or `slice` when it is not set.
int every(int slice);
