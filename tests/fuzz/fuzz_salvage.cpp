// SPDX-License-Identifier: MIT
//
// The input is a damaged database file and, as its last byte, what else is so: below 64, its second half is the
// write-ahead log, below 128 the rollback journal; odd, pages have 512 bytes. Rows that are said to be found are in the
// new file.
#include "storefile/salvage/salvage.h"
#include "storefile/sqlite.h"

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
    if (what < 128) {
        logBytes = bytes.mid(bytes.size() / 2);
        bytes.truncate(bytes.size() / 2);
    }
    QBuffer file(&bytes);
    QBuffer log(&logBytes);
    file.open(QIODevice::ReadOnly);
    log.open(QIODevice::ReadOnly);
    device_db::DamagedFiles files{file};
    if (what < 64)
        files.writeAheadLog = &log;
    else if (what < 128)
        files.rollbackJournal = &log;
    {
        const auto target = device_db::Database::inMemory();
        device_db::SalvageOptions options;
        options.pageSize = what % 2 ? 512 : 0;
        const auto report = device_db::salvage(files, *target, options);
        qint64 stored = 0;
        if (report) {
            for (const auto &table : report->tables)
                stored += *target->number("select count(*) from " + device_db::identifier(table.name));
        }
        if (stored != (report ? report->rows() : 0))
            std::abort();
    }
    if (sqlite3_memory_used() != 0)
        std::abort();
    return 0;
}
