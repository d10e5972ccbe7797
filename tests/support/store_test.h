// SPDX-License-Identifier: MIT
#pragma once

#include "debug_log.h"
#include "loaded_library.h"
#include "plain_connection.h"
#include "qt_printers.h"
#include "statement_trace.h"
#include "text_literal.h"

#include "alarm_db.h"
#include "history_db.h"
#include "operatorlog_db.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>

/// A temporary folder, the debug output, the statements, and SQLite's memory, which must be the same
/// after the test as before it.
class StoreTest : public ::testing::Test
{
protected:
    StoreTest() : m_memoryBefore(sqlite3_memory_used()) {}
    ~StoreTest() override
    {
        m_store.reset();
        EXPECT_EQ(sqlite3_memory_used(), m_memoryBefore) << "SQLite memory that nobody freed";
    }

    /// Path of a file in this test's own folder.
    QString path(const char *name = "store.db") const { return m_folder.filePath(QString::fromLatin1(name)); }

    /// Makes the test's store, opens store.db with it and forgets what that logged and ran.
    interface_data_base &open(const char *key)
    {
        m_store = library::store(key);
        EXPECT_EQ(m_store->openDB(path()), 0);
        log.take();
        trace.take();
        return *m_store;
    }
    interface_data_base &store() { return *m_store; }
    void closeStore() { m_store.reset(); }

    DebugLog log;
    StatementTrace trace;

private:
    sqlite3_int64 m_memoryBefore;
    QTemporaryDir m_folder;
    library::StorePtr m_store;
};
