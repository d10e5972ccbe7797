// SPDX-License-Identifier: MIT
#include "serve/blocks.h"

namespace device_db
{

void Blocks::add(qint64 id, std::optional<qint64> time, std::optional<double> value)
{
    constexpr qint64 rowsOfBlock = 128; // so few that the rows of a block are read again in well below a millisecond
    const bool isTimed = time && *time >= 0;
    const bool isBack = isTimed && *time < m_before;
    if (isBack)
        ++m_runs;
    if (isTimed)
        m_before = *time;
    if (m_blocks.empty() || m_blocks.back().rows >= rowsOfBlock || isBack) {
        const qint64 place = m_blocks.empty() ? 0 : m_blocks.back().place + m_blocks.back().rows;
        m_blocks.emplace_back();
        m_blocks.back().place = place;
        m_blocks.back().firstId = id;
        m_blocks.back().run = m_runs;
    }
    Block &block = m_blocks.back();
    block.lastId = id;
    ++block.rows;
    if (!isTimed)
        return;
    if (block.timed++ == 0)
        block.earliest = *time;
    block.latest = *time; // times within a block do not go back
    if (!value)
        return;
    const Point point{*time, *value};
    if (block.numbers++ == 0)
        block.points.fill(point);
    block.sum += *value;
    if (point.value < block.points[1].value)
        block.points[1] = point;
    if (point.value > block.points[2].value)
        block.points[2] = point;
    block.points[3] = point;
}

} // namespace device_db
