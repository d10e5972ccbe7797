// SPDX-License-Identifier: MIT
#include "plausible_time.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr qint64 jump = 86400;

} // namespace

void PlausibleTime::seen(qint64 time, qint64 running)
{
    if (!m_believed) {
        m_believed = m_since = time;
        m_running = running;
        return;
    }
    const qint64 passed = std::max<qint64>(0, running - m_running);
    if (time >= *m_believed - jump && time <= *m_believed + passed + jump) {
        m_doubtful.reset();
        if (time >= *m_believed) {
            m_believed = time;
            m_running = running;
        }
        return;
    }
    const bool goesOn = m_doubtful && time >= m_doubtful->first - jump &&
                        time <= m_doubtful->last + jump + (running - m_doubtful->since);
    if (!goesOn)
        m_doubtful = Doubtful{time, time, running};
    m_doubtful->last = std::max(m_doubtful->last, time);
    if (m_doubtful->last - m_doubtful->first < jump && running - m_doubtful->since < jump)
        return;
    m_believed = m_since = m_doubtful->last;
    m_running = running;
    m_doubtful.reset();
}

} // namespace device
