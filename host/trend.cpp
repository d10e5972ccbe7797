// SPDX-License-Identifier: MIT
#include "connection.h"
#include "trend_reading.h"

namespace device
{

namespace
{

Site site(const char *operation, const TableName &table)
{
    return {QLatin1String(operation), table.text()};
}

} // namespace

Result<Trend> HistoryStore::trend(const TableName &table, const TrendQuery &query)
{
    return readTrend(*m_connection, site("read the trend of", table), query);
}

Result<bool> HistoryStore::keepTrend(const TableName &table, const TrendOptions &options)
{
    bool begun = false;
    const Status done = m_connection->transaction(site("keep the trend of", table), [&]() -> Status {
        const auto tried = beginRollups(*m_connection, table, options);
        begun = tried.valueOr(false);
        return tried ? Status() : tried.error();
    });
    if (!done)
        return done.error();
    return begun;
}

Result<bool> HistoryStore::dropTrend(const TableName &table)
{
    bool dropped = false;
    const Status done = m_connection->transaction(site("drop the trend of", table), [&]() -> Status {
        const auto tried = endRollups(*m_connection, table);
        dropped = tried.valueOr(false);
        return tried ? Status() : tried.error();
    });
    if (!done)
        return done.error();
    return dropped;
}

} // namespace device
