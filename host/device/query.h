// SPDX-License-Identifier: MIT
#ifndef DEVICE_QUERY_H
#define DEVICE_QUERY_H

#include "records.h"

#include <optional>

namespace device
{

/// What a query asks of a record beside its time.
template<typename Record>
struct Filter;

template<>
struct Filter<Sample> {
    QString containing; ///< A part of the value, exactly; no wildcards.
};

template<>
struct Filter<Alarm> {
    enum State { All, Active, Ended };
    State state = All;
};

template<>
struct Filter<LogEntry> {
    std::optional<QString> user; ///< This user's entries, exactly.
};

/// Which records, in which order, and which page of them. As it stands: all records, newest first.
///
///     Query<Sample>().between(yesterday, now).oldestFirst().page(0, 100)
template<typename Record>
struct Query {
    std::optional<LocalTime> from; ///< Both ends belong to the range; without one it is open at that end.
    std::optional<LocalTime> to;
    bool newestAtTop = true; ///< Equal times: in the order of recording, reversed when newest first.
    qint64 offset = 0;       ///< Records left out in front.
    qint64 limit = -1;       ///< Records at most; negative: all.
    qint64 throughId = -1;   ///< Only what was recorded up to a Snapshot; negative: all.
    Filter<Record> filter;

    Query &between(LocalTime first, LocalTime last)
    {
        from = first;
        to = last;
        return *this;
    }
    Query &newestFirst()
    {
        newestAtTop = true;
        return *this;
    }
    Query &oldestFirst()
    {
        newestAtTop = false;
        return *this;
    }
    Query &page(qint64 first, qint64 count)
    {
        offset = first;
        limit = count;
        return *this;
    }
    Query &through(qint64 id)
    {
        throughId = id;
        return *this;
    }
    Query &where(const Filter<Record> &wanted)
    {
        filter = wanted;
        return *this;
    }
};

} // namespace device

#endif
