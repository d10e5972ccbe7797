// SPDX-License-Identifier: MIT
#pragma once

#include "kind_test.h"

#include <QFile>

#include <random>

/// A number from the environment, by which a test is run for longer than in a slice of seconds.
inline qint64 numberFrom(const char *variable, qint64 otherwise)
{
    return qEnvironmentVariableIsSet(variable) ? qgetenv(variable).toLongLong() : otherwise;
}

/// The seed that the variable names, or any.
inline quint64 seedFrom(const char *variable)
{
    return quint64(numberFrom(variable, qint64(std::random_device()())));
}

/// A test of very many steps. Not a StoreTest, which writes down each statement; the folder is in memory where the
/// system has such a place.
template<typename Parameter>
class LongTest : public ::testing::TestWithParam<Parameter>
{
protected:
    LongTest()
        : m_memoryBefore(sqlite3_memory_used()),
          m_folder(QFile::exists("/dev/shm"_q) ? "/dev/shm/device-test-XXXXXX"_q : "/tmp/device-test-XXXXXX"_q)
    {
    }
    ~LongTest() override { EXPECT_EQ(sqlite3_memory_used(), m_memoryBefore) << "SQLite memory that nobody freed"; }

    QString path(const char *name = "store.db") const { return m_folder.filePath(QString::fromLatin1(name)); }

    DebugLog log;

private:
    sqlite3_int64 m_memoryBefore;
    QTemporaryDir m_folder;
};
