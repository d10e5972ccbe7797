// SPDX-License-Identifier: MIT
//
// The input is a damaged database file and, as its last byte, what else is so: below 64, its second half is the
// write-ahead log; odd, pages have 512 bytes. Rows that are said to be found stand in the new file.
#include "storefile/salvage/salvage.h"

#include <QBuffer>

#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::uint8_t what = data[size - 1];
    QByteArray bytes(reinterpret_cast<const char *>(data), int(size - 1));
    QByteArray logBytes;
    if (what < 64) {
        logBytes = bytes.mid(bytes.size() / 2);
        bytes.truncate(bytes.size() / 2);
    }
    QBuffer file(&bytes);
    QBuffer log(&logBytes);
    file.open(QIODevice::ReadOnly);
    log.open(QIODevice::ReadOnly);
    sqlite3 *target = nullptr;
    sqlite3_open(":memory:", &target);
    device_db::SalvageOptions options;
    options.pageSize = what % 2 ? 512 : 0;
    const auto report = device_db::salvage(file, what < 64 ? &log : nullptr, target, options);
    const qint64 rows = report ? report->rows() : 0;
    qint64 stored = 0;
    if (report) {
        for (const auto &table : report->tables) {
            sqlite3_stmt *count = nullptr;
            QByteArray name = table.name.toUtf8();
            name.replace('"', "\"\"");
            sqlite3_prepare_v2(target, ("select count(*) from \"" + name + '"').constData(), -1, &count, nullptr);
            if (sqlite3_step(count) == SQLITE_ROW)
                stored += sqlite3_column_int64(count, 0);
            sqlite3_finalize(count);
        }
    }
    sqlite3_close(target);
    if (stored != rows || sqlite3_memory_used() != 0)
        std::abort();
    return 0;
}
