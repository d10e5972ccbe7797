// SPDX-License-Identifier: MIT
#ifndef DEVICE_PLAUSIBLE_TIME_H
#define DEVICE_PLAUSIBLE_TIME_H

#include <QtGlobal>

#include <optional>

namespace device
{

/// The device's time as far as the times of rows can be believed, in seconds of local time.
///
/// Clocks jump: a battery is empty, somebody types the wrong year. What counts age by such a clock deletes years of
/// rows. So a time more than a day away from the last one believed is believed only after a day at the new time, a day
/// of recorded time or of running. Where such a day is interrupted by rows near the old time, it begins anew.
class PlausibleTime
{
public:
    /// What was believed when the file was written last, and since when the time had gone on evenly.
    explicit PlausibleTime(std::optional<qint64> believed = {}, std::optional<qint64> since = {})
        : m_believed(believed), m_since(since.value_or(believed.value_or(0)))
    {
    }

    /// The time of a row, and the seconds that this program has been running.
    void seen(qint64 time, qint64 running);
    std::optional<qint64> believed() const { return m_believed; }
    /// The time from which it has gone on without a jump.
    qint64 since() const { return m_since; }

private:
    struct Doubtful {
        qint64 first;
        qint64 last;
        qint64 since; ///< In seconds of running.
    };

    std::optional<qint64> m_believed;
    qint64 m_since = 0;
    qint64 m_running = 0; ///< When it was believed. A clock that keeps its pace moves on with it.
    std::optional<Doubtful> m_doubtful;
};

} // namespace device

#endif
