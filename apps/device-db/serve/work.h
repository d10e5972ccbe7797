// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_WORK_H
#define DEVICE_DB_WORK_H

#include "serve/served_files.h"

#include <functional>

namespace device_db
{

/// An answer that is made in slices: what is known so far as often as there is something new to see, and once all of
/// it. Both are JSON.
class Work
{
public:
    using Seen = std::function<void(const QByteArray &)>;

    virtual ~Work() = default;
    /// Goes on for a slice. The answer when it is exact; an empty text before.
    virtual Result<QByteArray> run(SliceEnd until, const Seen &seen) = 0;
};

/// Says now and then how far a long answer has come.
class Pace
{
public:
    bool isTime()
    {
        const auto now = std::chrono::steady_clock::now();
        if (now < m_next)
            return false;
        m_next = now + every;
        return true;
    }

private:
    static constexpr auto every = std::chrono::milliseconds(400);

    std::chrono::steady_clock::time_point m_next = std::chrono::steady_clock::now() + every;
};

/// What to read a table from, which has a pass then; the Error says why it or its file cannot be read at the moment.
inline Result<const Database *> databaseOf(const ServedTable &table)
{
    const Database *const database = table.file->followed.database();
    if (!database)
        return failure(table.file->followed.path(), table.file->followed.error());
    if (!table.pass)
        return failure(table.table.name, table.error);
    return database;
}

} // namespace device_db

#endif
