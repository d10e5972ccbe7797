// SPDX-License-Identifier: MIT
#include "fault_test.h"

#include <algorithm>

namespace
{

/// The part of the choice that the file itself keeps.
Journal inTheFile(Journal journal)
{
    return journal == Journal::WriteAhead ? journal : Journal::Delete;
}

} // namespace

int every(int slice)
{
    const int chosen = qEnvironmentVariableIntValue("DEVICE_FAULTS_EVERY");
    return chosen > 0 ? chosen : slice;
}

FaultTest::FaultTest()
{
    for (const Journal journal : {Journal::Delete, Journal::WriteAhead}) {
        disk.setFiles({});
        prepareFile(storePath, GetParam());
        if (journal == Journal::WriteAhead)
            PlainConnection(storePath).run("PRAGMA journal_mode=wal"_q);
        m_prepared[journal] = disk.files();
    }
    m_replay = std::make_unique<Replay>(disk, m_prepared.at(Journal::Delete), storePath);
}

FaultTest::~FaultTest()
{
    if (m_points > 0)
        std::printf("%s: %d fault points, felt by %d operations\n", keyOf(GetParam()), m_points, m_felt);
}

void FaultTest::sweep(const std::vector<Failing> &ways, Journal journal, int every)
{
    int nth = 1; // counted on from one way to the next, so that a slice is spread over all
    for (const Operation &operation : operationsOf(GetParam())) {
        for (const bool healBeforeClosing : {true, false}) {
            const int feltBefore = m_felt;
            live(operation, journal, ways.front(), 0, false, healBeforeClosing); // counts the calls of every way
            ASSERT_EQ(m_felt, feltBefore) << operation.call.name << " fails also when nothing does";
            std::vector<int> calls;
            for (const Failing &way : ways)
                calls.push_back(way.calls());
            for (size_t i = 0; i < ways.size(); ++i) {
                for (; nth <= calls[i]; nth += every) {
                    for (const bool forEver : {false, true}) {
                        ++m_points;
                        SCOPED_TRACE(::testing::Message()
                                     << operation.call.name << ", journal " << nameOf(journal) << ", " << ways[i].name
                                     << " number " << nth << (forEver ? " and all behind it" : "") << ", healed "
                                     << (healBeforeClosing ? "before" : "after") << " closing");
                        live(operation, journal, ways[i], nth, forEver, healBeforeClosing);
                        EXPECT_GE(ways[i].calls(), nth) << "the call was never made";
                        if (HasFailure())
                            return; // one point says it all
                    }
                }
                nth -= calls[i];
            }
        }
    }
}

void FaultTest::prepare(Journal journal)
{
    disk.setFiles(m_prepared.at(inTheFile(journal)));
}

void FaultTest::live(const Operation &operation, Journal journal, const Failing &failing, int nth, bool forEver,
                     bool healBeforeClosing)
{
    prepare(journal);
    const sqlite3_int64 memoryBefore = sqlite3_memory_used();
    Acknowledged acknowledged;
    {
        const library::StorePtr store = library::store(keyOf(GetParam()));
        int opened = SQLITE_OK;
        if (journal == Journal::Truncate) { // a property of the connection
            EXPECT_EQ(store->openDB(storePath), SQLITE_OK);
            Rows rows;
            EXPECT_TRUE(store->execSQL({"PRAGMA journal_mode=truncate"_q}, rows, 1));
            EXPECT_EQ(rows, (Rows{{"truncate"_q}}));
            failing.failAt(nth, forEver);
        } else {
            failing.failAt(nth, forEver);
            opened = store->openDB(storePath);
        }
        m_calls.takeCalls();
        log.take();

        Outcome outcome(GetParam());
        operation.call.on(*store, outcome);
        const std::vector<SqliteCall> heard = m_calls.takeCalls();
        expectConduct(operation, opened, outcome, heard);
        acknowledged.add(heard);
        if (opened != SQLITE_OK || std::any_of(heard.begin(), heard.end(), [](auto &call) { return call.code; }))
            ++m_felt;

        if (!healBeforeClosing || opened != SQLITE_OK) {
            EXPECT_EQ(store->closeDB(), SQLITE_OK);
            acknowledged.close();
            failing.heal();
            EXPECT_EQ(store->openDB(storePath), SQLITE_OK);
        } else {
            failing.heal();
        }
        expectUsable(*store, acknowledged);
    }
    EXPECT_EQ(sqlite3_memory_used(), memoryBefore) << "SQLite memory that nobody freed";
    EXPECT_EQ(disk.openFiles(), 0);
    expectFile(acknowledged);
}

void FaultTest::expectConduct(const Operation &operation, int opened, const Outcome &outcome,
                              const std::vector<SqliteCall> &heard)
{
    Conduct conduct = conductOf(operation, GetParam(), heard);
    // Without memory for a connection SQLite gives none, and the store stays closed.
    if (opened == SQLITE_NOMEM && heard.empty())
        conduct = {{}, {}, operation.call.refusal};
    QStringList texts;
    for (const SqliteCall &call : heard)
        texts.append(call.text);
    EXPECT_EQ(texts, conduct.runs);
    EXPECT_EQ(log.take(), conduct.log);
    EXPECT_EQ(outcome.answer(), conduct.answer);
}

void FaultTest::expectUsable(interface_data_base &store, Acknowledged &acknowledged)
{
    log.take();
    m_calls.takeCalls();
    Outcome next(GetParam());
    store.insertManyDatas(next.input, "AlarmData"_q);
    EXPECT_EQ(log.take(), QStringList());
    const std::vector<SqliteCall> heard = m_calls.takeCalls();
    ASSERT_EQ(heard.size(), 3u);
    EXPECT_EQ(heard[1].code, SQLITE_OK);
    EXPECT_EQ(heard[2].code, SQLITE_OK);
    acknowledged.add(heard);
}

void FaultTest::expectFile(const Acknowledged &acknowledged)
{
    const QString content = contentOf(storePath);
    for (const QStringList &statements : acknowledged.possible())
        if (content == m_replay->contentAfter(statements))
            return;
    EXPECT_EQ(content, m_replay->contentAfter(acknowledged.possible().front()))
        << "and of " << acknowledged.possible().size() << " possible contents none";
}
