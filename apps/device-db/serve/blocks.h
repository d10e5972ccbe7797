// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_BLOCKS_H
#define DEVICE_DB_BLOCKS_H

#include "storefile/reduction.h"

#include <array>
#include <deque>
#include <optional>

namespace device_db
{

/// Rows that follow each other in a table: what all of them have in common.
struct Block {
    qint64 firstId = 0;
    qint64 lastId = 0;
    qint64 place = 0; ///< How many rows are before it.
    qint64 rows = 0;
    qint64 timed = 0; ///< Of the rows, those with a time from 1970 on; the rest is of these.
    qint64 numbers = 0;
    qint64 earliest = 0;
    qint64 latest = 0;
    int run = 0; ///< Which stretch without a step back of the clock they belong to.
    double sum = 0;
    std::array<Point, 4> points; ///< Of the numbers: the first, the lowest, the highest and the last.
};

/// Sums of every 128 rows of a table in the order of recording, made while all of them are read once: any picture after
/// that needs only the rows of blocks that lie across the edge of a column. Grows as rows come.
class Blocks
{
public:
    /// `time`: nothing, or before 1970: none that a picture has.
    void add(qint64 id, std::optional<qint64> time, std::optional<double> value);

    /// No vector: to grow, that would copy all of them at once.
    const std::deque<Block> &all() const { return m_blocks; }

private:
    std::deque<Block> m_blocks;
    qint64 m_before = -1; ///< The time of the row before.
    int m_runs = 0;
};

} // namespace device_db

#endif
