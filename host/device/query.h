// SPDX-License-Identifier: MIT
#ifndef DEVICE_QUERY_H
#define DEVICE_QUERY_H

#include "records.h"

#include <optional>
#include <type_traits>

namespace device
{

/// What a query asks of a record besides its time.
template<typename Record>
struct Filter;

template<>
struct Filter<Sample> {
    QString containing; ///< See Query::containing(); empty: any value.
};

template<>
struct Filter<Alarm> {
    enum State { All, Active, Ended };
    State state = All;
};

template<>
struct Filter<LogEntry> {
    std::optional<QString> user; ///< See Query::byUser().
};

enum class Order {
    NewestFirst, ///< Latest time first; equal times in the reverse order of recording.
    OldestFirst  ///< Earliest time first; equal times in the order of recording.
};

/// Which records, in which order, and which page of them. A default query: all records, newest first.
///
///     Query<Sample>().between(yesterday, now).oldestFirst().page(0, 100)
///     Query<Alarm>().active().since(yesterday).limit(10)
template<typename Record>
struct Query {
    std::optional<LocalTime> from; ///< Both ends belong to the range; without one it is open at that end.
    std::optional<LocalTime> to;
    Order order = Order::NewestFirst;
    qint64 offset = 0;     ///< The number of records to leave out before the first one.
    qint64 count = -1;     ///< The greatest number of records; negative: all.
    qint64 throughId = -1; ///< Only what was recorded up to a Snapshot; negative: all.
    Filter<Record> filter;

    Query &between(LocalTime first, LocalTime last)
    {
        from = first;
        to = last;
        return *this;
    }
    /// From this time on.
    Query &since(LocalTime first)
    {
        from = first;
        return *this;
    }
    Query &newestFirst()
    {
        order = Order::NewestFirst;
        return *this;
    }
    Query &oldestFirst()
    {
        order = Order::OldestFirst;
        return *this;
    }
    Query &page(qint64 first, qint64 most)
    {
        offset = first;
        count = most;
        return *this;
    }
    /// At most this many records: the first ones in the order of the query.
    Query &limit(qint64 most)
    {
        count = most;
        return *this;
    }
    Query &through(qint64 id)
    {
        throughId = id;
        return *this;
    }

    /// Samples whose value contains this text, exactly; no wildcards.
    Query &containing(const QString &part)
    {
        static_assert(std::is_same_v<Record, Sample>, "only samples are searched by a part of their value");
        filter.containing = part;
        return *this;
    }
    /// Alarms that have not ended.
    Query &active()
    {
        static_assert(std::is_same_v<Record, Alarm>, "only alarms are active or ended");
        filter.state = Filter<Record>::Active;
        return *this;
    }
    Query &ended()
    {
        static_assert(std::is_same_v<Record, Alarm>, "only alarms are active or ended");
        filter.state = Filter<Record>::Ended;
        return *this;
    }
    /// This user's log entries; the name must match exactly.
    Query &byUser(const QString &name)
    {
        static_assert(std::is_same_v<Record, LogEntry>, "only log entries have a user");
        filter.user = name;
        return *this;
    }
};

} // namespace device

#endif
