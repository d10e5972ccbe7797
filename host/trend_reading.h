// SPDX-License-Identifier: MIT
#ifndef DEVICE_TREND_READING_H
#define DEVICE_TREND_READING_H

#include "rollup_file.h"

namespace device
{

/// What HistoryStore::trend() answers.
Result<Trend> readTrend(SqlChannel &connection, const Site &site, const TrendQuery &query);

/// Puts the rows of a span into columns: by the buckets that lie within one column, and one by one elsewhere. Rows that
/// are deleted are in the columns, too, as far as buckets have them.
Status readColumns(SqlChannel &connection, const Site &site, const RollupState &rollups, TimeSpan span,
                   TrendColumns &columns);

} // namespace device

#endif
