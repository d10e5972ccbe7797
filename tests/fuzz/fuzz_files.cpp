// SPDX-License-Identifier: MIT
//
// Files that the library did not write: damaged ones, foreign ones, with a damaged journal beside them. Every
// operation of a store is called on one. The last bytes of an input say what the bytes in front of them are.
#include "operation.h"

#include <sqlite3.h>

#include <QFile>

#include <algorithm>
#include <random>
#include <vector>

#include <unistd.h>

namespace
{

QString path;

void write(const QString &name, const std::string &bytes)
{
    QFile file(name);
    sandbox::require(file.open(QIODevice::WriteOnly) && file.write(bytes.data(), qint64(bytes.size())) >= 0,
                     "the file system takes the file");
}

void removeAll()
{
    for (const char *suffix : {"", "-journal", "-wal", "-shm"})
        QFile::remove(path + QLatin1String(suffix));
}

void run(sqlite3 *connection, const std::string &sql)
{
    sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, nullptr);
}

void bind(sqlite3_stmt *statement, int place, Input &input)
{
    switch (input.choose(6)) {
    case 0:
        sqlite3_bind_null(statement, place);
        break;
    case 1:
        sqlite3_bind_int64(statement, place, input.number());
        break;
    case 2:
        sqlite3_bind_double(statement, place, input.number() / 3.0);
        break;
    case 3: {
        const std::string bytes = input.bytes(20);
        sqlite3_bind_blob(statement, place, bytes.data(), int(bytes.size()), SQLITE_TRANSIENT);
        break;
    }
    case 4:
        sqlite3_bind_zeroblob(statement, place, input.choose(100'000));
        break;
    case 5: { // any bytes as text, which need not be UTF-8
        const std::string bytes = input.bytes(30);
        sqlite3_bind_text(statement, place, bytes.data(), int(bytes.size()), SQLITE_TRANSIENT);
        break;
    }
    default:
        const QByteArray text = input.text().toUtf8();
        sqlite3_bind_text(statement, place, text.constData(), int(text.size()), SQLITE_TRANSIENT);
    }
}

// A table under the name that a store looks for, with other columns and any cells.
void writeForeign(Input &input)
{
    const char *const names[] = {"ID",        "DATETIME",     "Value",      "LevelID",          "AlarmObject",
                                 "AlarmType", "CurrentValue", "LimitValue", "AlarmDescription", "EndDate",
                                 "EndTime",   "userName",     "logName",    "message",          "COLLECTOR",
                                 "NAME"};
    const char *const types[] = {"",
                                 " text",
                                 " INTEGER",
                                 " dateTime",
                                 " blob",
                                 " real",
                                 " INTEGER PRIMARY KEY",
                                 " text NOT NULL",
                                 " text unique",
                                 " text default 'x'"};
    sqlite3 *connection = nullptr;
    sandbox::require(sqlite3_open(path.toUtf8().constData(), &connection) == SQLITE_OK, "a new file opens");
    run(connection, "PRAGMA page_size=512; PRAGMA synchronous=off; PRAGMA journal_mode=memory");
    if (input.flag())
        run(connection, "PRAGMA encoding='UTF-16'");
    for (const char *table : {"T1", "AlarmData", "OperatorLog", "tb_config"}) {
        const int columns = input.choose(12);
        std::string create = std::string("create table ") + table + "(";
        std::string marks;
        for (int i = 0; i < columns; ++i) {
            create += std::string(i ? "," : "") + names[input.choose(15)] + types[input.choose(9)];
            marks += i ? ",?" : "?";
        }
        if (input.choose(9) == 9) // not a table at all
            create = std::string("create view ") + table + " as select * from sqlite_master --";
        run(connection, create + ")");
        sqlite3_stmt *insert = nullptr;
        if (sqlite3_prepare_v2(connection, (std::string("insert into ") + table + " values(" + marks + ")").c_str(), -1,
                               &insert, nullptr) != SQLITE_OK)
            continue;
        const int rows = input.choose(4);
        for (int row = 0; row < rows; ++row) {
            for (int column = 1; column <= columns; ++column)
                bind(insert, column, input);
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
    }
    sqlite3_close(connection);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    sandbox::enter();
    // In memory where the system has such a folder; one process, one file.
    path = QStringLiteral("%1/device-fuzz-%2.db")
               .arg(QFile::exists(QStringLiteral("/dev/shm")) ? QStringLiteral("/dev/shm") : QStringLiteral("/tmp"))
               .arg(getpid());
    std::atexit(removeAll);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const long long before = sandbox::startInput();
    removeAll();
    Input input(bytes, size);
    const auto kind = Kind(input.choose(2));
    // A file's bytes leave none for the arguments; those come from a number then.
    std::vector<uint8_t> numbers(2000);
    std::generate(numbers.begin(), numbers.end(), std::minstd_rand(unsigned(input.choose(255) + 1)));
    Input others(numbers.data(), numbers.size());
    Input *arguments = &others;
    switch (input.choose(3)) {
    case 0:
        writeForeign(input);
        arguments = &input;
        break;
    case 1: { // a database and what stands beside it, split at a place that the input names
        const size_t besideSize = size_t(input.choose(16383));
        const bool wal = input.flag();
        const std::string file = input.rest();
        const size_t split = file.size() - std::min(besideSize, file.size());
        write(path + QLatin1String(wal ? "-wal" : "-journal"), file.substr(split));
        write(path, file.substr(0, split));
        break;
    }
    default:
        write(path, input.rest());
    }

    library::StorePtr store = makeStore(kind);
    store->openDB(path);
    const char *const tables[] = {"T1", "AlarmData", "OperatorLog"};
    const QString table = QString::fromLatin1(tables[int(kind)]);
    readEverything(*store, kind, table);
    for (int which = 0; which < OperationCount; ++which) {
        if (which != 16 && which != 17) // it stays with this file
            call(which, *store, kind, *arguments);
    }
    store->createTable(table, QStringLiteral("Boiler 1"));
    store->deleteDataForMax(1, table);
    QList<QStringList> rows;
    store->execSQL({QStringLiteral("PRAGMA quick_check")}, rows, 1);
    store->vacuumSqliteDB();
    readEverything(*store, kind, table);
    sandbox::require(store->closeDB() == 0, "closeDB failed");
    store.reset();
    sandbox::require(sqlite3_memory_used() == before, "SQLite memory that nobody freed");
    return 0;
}
