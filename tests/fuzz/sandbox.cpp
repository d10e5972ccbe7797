// SPDX-License-Identifier: MIT
#include "sandbox.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

const int StepsBetweenCalls = 1000;
int callsLeft = 0;

int mayGoOn(void *)
{
    return --callsLeft < 0;
}

bool isOneOf(const char *name, std::initializer_list<const char *> names)
{
    for (const char *each : names) {
        if (name && sqlite3_stricmp(name, each) == 0)
            return true;
    }
    return false;
}

// Nothing that outlives the connection, touches other files or is dangerous by design. VACUUM attaches the file "".
int authorize(void *, int action, const char *first, const char *second, const char *, const char *)
{
    if (action == SQLITE_ATTACH && (!first || *first))
        return SQLITE_DENY;
    if (action == SQLITE_FUNCTION && isOneOf(second, {"load_extension", "fts3_tokenizer"}))
        return SQLITE_DENY;
    if (action == SQLITE_PRAGMA && isOneOf(first, {"temp_store_directory", "data_store_directory", "hard_heap_limit",
                                                   "soft_heap_limit", "mmap_size", "busy_timeout"}))
        return SQLITE_DENY;
    return SQLITE_OK;
}

int confine(sqlite3 *connection, const char **, const void *)
{
    sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, 300'000);
    sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_set_authorizer(connection, authorize, nullptr);
    sqlite3_progress_handler(connection, StepsBetweenCalls, mayGoOn, nullptr);
    return SQLITE_OK;
}

void drop(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtFatalMsg)
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

} // namespace

// SQLite and Qt allocate much; the usual depths of memory would take most of the time.
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options()
{
    return "malloc_context_size=6:quarantine_size_mb=16:detect_stack_use_after_return=0";
}

void sandbox::enter()
{
    qputenv("TZ", "UTC");
    qInstallMessageHandler(drop);
    library::supportList(); // loads it: libFuzzer then counts its coverage from the first input on
    sqlite3_initialize();
    sqlite3_hard_heap_limit64(64 << 20);
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(confine));
}

long long sandbox::startInput()
{
    callsLeft = 300;
    return sqlite3_memory_used();
}

void sandbox::require(bool holds, const char *what)
{
    if (holds)
        return;
    std::fprintf(stderr, "broken promise: %s\n", what);
    std::abort();
}
