// SPDX-License-Identifier: MIT
//
// What runs under a store's mutex: looked at from inside SQLite, whenever it is entered, starts a statement, or frees
// memory, as that of an operation's results.
#include "operations.h"

#include <QFile>

#include <chrono>
#include <functional>
#include <future>

namespace
{

using Store = interface_data_base;

/// A store's fields, whose order is part of the contract.
struct Fields {
    void **virtualFunctions;
    sqlite3 *connection;
    QMutex mutex;
};

bool isLocked(Store &store)
{
    QMutex &mutex = reinterpret_cast<Fields *>(&store)->mutex;
    if (!mutex.tryLock())
        return true;
    mutex.unlock();
    return false;
}

sqlite3_mem_methods memory;
sqlite3_mutex_methods mutexes;
/// Called before this thread frees SQLite's memory, or enters SQLite.
thread_local std::function<void()> onFree;
thread_local std::function<void()> onEnter;

void freeMemory(void *address)
{
    if (onFree)
        onFree();
    memory.xFree(address);
}

void enterMutex(sqlite3_mutex *mutex)
{
    if (onEnter)
        onEnter();
    mutexes.xMutexEnter(mutex);
}

Store *opening = nullptr;
bool openingWasLocked = false;

int lookAtOpening(sqlite3 *, const char **, const void *)
{
    if (opening)
        openingWasLocked = isLocked(*opening);
    return SQLITE_OK;
}

/// Before SQLite is used.
const bool hookedIn = [] {
    sqlite3_initialize(); // chooses its mutexes
    sqlite3_shutdown();   // and only now tells which
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &memory);
    sqlite3_config(SQLITE_CONFIG_GETMUTEX, &mutexes);
    sqlite3_mem_methods hookedMemory = memory;
    hookedMemory.xFree = freeMemory;
    sqlite3_mutex_methods hookedMutexes = mutexes;
    hookedMutexes.xMutexEnter = enterMutex;
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &hookedMemory) == SQLITE_OK &&
           sqlite3_config(SQLITE_CONFIG_MUTEX, &hookedMutexes) == SQLITE_OK &&
           sqlite3_auto_extension(reinterpret_cast<void (*)()>(lookAtOpening)) == SQLITE_OK;
}();

class Locking : public KindTest
{
protected:
    void SetUp() override { ASSERT_TRUE(hookedIn); }
    void TearDown() override
    {
        onFree = nullptr;
        onEnter = nullptr;
        opening = nullptr;
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, Locking, everyKind(), nameOfKind);

TEST_P(Locking, EveryOperationHoldsTheStoreDuringItsStatements)
{
    for (const Call<Store> &call : calls<Store>()) {
        SCOPED_TRACE(call.name);
        QFile::remove(path());
        prepareFile(path(), GetParam());
        Store &store = open();
        trace.onStart([&store](sqlite3 *, const QString &statement) {
            // createTable alone runs its statement without the lock: the operations that it calls take it.
            EXPECT_EQ(isLocked(store), !statement.startsWith("create table"_q)) << qPrintable(statement);
        });
        Outcome outcome(GetParam());
        call.on(store, outcome);
        EXPECT_FALSE(isLocked(store));
        trace.onStart(nullptr);
        closeStore();
    }
}

TEST_P(Locking, EveryOperationHoldsTheStoreUntilItsResultsAreFreed)
{
    const auto noDatabase = path("no database");
    QFile file(noDatabase);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(4096, 'x'));
    file.close();
    for (const Call<Store> &call : calls<Store>()) {
        if (!meaningOf(call.name, GetParam()) || call.slot == 3)
            continue;
        for (const bool succeeds : {true, false}) {
            SCOPED_TRACE(std::string(call.name) + (succeeds ? " succeeds" : " fails"));
            const QString other = path("other.db");
            QFile::remove(other);
            prepareFile(other, GetParam());
            const library::StorePtr store = library::store(key());
            ASSERT_EQ(store->openDB(succeeds ? other : noDatabase), 0);
            int locked = 0;
            int unlocked = 0;
            Outcome outcome(GetParam());
            onFree = [&] { ++(isLocked(*store) ? locked : unlocked); };
            call.on(*store, outcome);
            onFree = nullptr;
            EXPECT_FALSE(isLocked(*store));
            EXPECT_EQ(unlocked, 0);
            EXPECT_GT(locked, 0);
        }
    }
}

// Between its look for the table and its statement createTable holds nothing: another thread may make the table.
TEST_P(Locking, TwoThreadsMayBothMakeATableAndOneOfThemFails)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    bool made = false;
    onEnter = [&] {
        if (isLocked(store))
            return;
        onEnter = nullptr;
        made = std::async(std::launch::async, [&] { return store.createTable("T"_q, "second"_q); }).get();
    };
    EXPECT_FALSE(store.createTable("T"_q, "first"_q));
    EXPECT_TRUE(made);
    EXPECT_EQ(valueOf(path(), "select group_concat(NAME) from tb_config where COLLECTOR = 'T'"_q),
              GetParam() == History ? "second"_q : QString());

    QStringList expected;
    if (GetParam() == History)
        expected << "HisData Table create success!"_q
                 << streamed("HisData Table create fail!", "table T already exists");
    else if (GetParam() == Alarm)
        expected << "alarm Table create success!"_q
                 << "alarm Table create fail!"_q;
    else
        expected << "operatorlog Table create success!"_q
                 << "operatorlog Table create fail!"_q;
    EXPECT_EQ(log.take(), expected);
}

// Only selectConfigInfo asks for the mutex before it looks whether the store is open.
TEST_P(Locking, AClosedStoreAnswersWithoutTheMutexButForItsConfiguration)
{
    const library::StorePtr store = library::store(key());
    QMutex &mutex = reinterpret_cast<Fields *>(store.get())->mutex;
    mutex.lock();
    EXPECT_EQ(store->closeDB(), 0);
    std::future<void> waiting;
    for (const Call<Store> &call : calls<Store>()) {
        SCOPED_TRACE(call.name);
        if (call.slot != 25) {
            Outcome outcome(GetParam());
            call.on(*store, outcome);
            EXPECT_EQ(outcome.answer(), call.refusal);
            continue;
        }
        waiting = std::async(std::launch::async, [&] { EXPECT_EQ(store->selectConfigInfo(), QStringList()); });
        EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    }
    mutex.unlock();
    waiting.get();
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(Locking, WhatHasNoMeaningForTheKindAnswersWithoutTheMutex)
{
    prepareFile(path(), GetParam());
    Store &store = open();
    QMutex &mutex = reinterpret_cast<Fields *>(&store)->mutex;
    mutex.lock();
    for (const Call<Store> &call : calls<Store>()) {
        if (meaningOf(call.name, GetParam()))
            continue;
        SCOPED_TRACE(call.name);
        Outcome outcome(GetParam());
        call.on(store, outcome);
        EXPECT_EQ(outcome.answer(), call.refusal);
    }
    mutex.unlock();
}

/// What each message found: was the store held?
std::function<void(const QString &)> onMessage;

void look(QtMsgType, const QMessageLogContext &, const QString &text)
{
    onMessage(text);
}

// A message handler that calls the same store hangs, but in the messages of createTable.
TEST_P(Locking, FailureMessagesAreWrittenWhileTheStoreIsHeldAndThoseOfCreateTableAreNot)
{
    Store &store = open(); // an empty file, in which nothing can be asked
    QStringList held;
    QStringList free;
    onMessage = [&](const QString &text) { (isLocked(store) ? held : free).append(text); };
    const QtMessageHandler before = qInstallMessageHandler(look);
    for (const Call<Store> &call : calls<Store>()) {
        if (call.slot == 3)
            continue;
        Outcome outcome(GetParam());
        call.on(store, outcome);
    }
    EXPECT_FALSE(held.isEmpty());
    EXPECT_EQ(free, QStringList());
    held.clear();

    EXPECT_TRUE(store.createTable("T"_q, "N"_q));
    EXPECT_FALSE(store.createTable("no,table"_q, "N"_q));
    qInstallMessageHandler(before);
    EXPECT_EQ(held, QStringList());
    EXPECT_EQ(free.size(), GetParam() == History ? 3 : 2);
}

TEST_P(Locking, OpeningHoldsTheStore)
{
    const library::StorePtr store = library::store(key());
    opening = store.get();
    openingWasLocked = false;
    EXPECT_EQ(store->openDB(path()), 0);
    EXPECT_TRUE(openingWasLocked);
    EXPECT_FALSE(isLocked(*store));
}

TEST_P(Locking, ClosingHoldsTheStore)
{
    Store &store = open();
    int locked = 0;
    int unlocked = 0;
    onFree = [&] { ++(isLocked(store) ? locked : unlocked); };
    EXPECT_EQ(store.closeDB(), 0);
    onFree = nullptr;
    EXPECT_EQ(unlocked, 0);
    EXPECT_GT(locked, 0);
    EXPECT_FALSE(isLocked(store));
}

TEST_P(Locking, AnEmptyTableNameIsReportedAndTheStoreLetGo)
{
    Store &store = open();
    QList<QStringList> rows;
    store.selectDataOfDateRows(QString(), QString(), 0, 1, rows, true);
    EXPECT_FALSE(isLocked(store));
}

} // namespace
