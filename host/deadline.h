// SPDX-License-Identifier: MIT
#ifndef DEVICE_DEADLINE_H
#define DEVICE_DEADLINE_H

#include <QtGlobal>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace device
{

using Clock = std::chrono::steady_clock;

/// How much the next slice of a long work takes on, after one of this size: half of it if that took too long, else
/// twice as much.
inline qint64 nextSlice(qint64 size, Clock::duration took, Clock::duration atMost, qint64 least, qint64 most)
{
    return took > atMost ? std::max(least, size / 2) : std::min(most, size * 2);
}

/// The moment at which waiting ends. A negative time, and one too long to be counted, mean for ever: hosts write both
/// to say so, and neither may turn into "now" by overflowing.
class Deadline
{
public:
    explicit Deadline(std::chrono::milliseconds after, Clock::time_point from = Clock::now())
        : m_at(after < after.zero() || after > longest ? never() : from + after)
    {
    }
    explicit Deadline(Clock::time_point at) : m_at(at) {}

    /// The earlier of the two.
    Deadline orAt(Clock::time_point at) const { return Deadline(std::min(m_at, at)); }

    bool isForever() const { return m_at == never(); }
    bool isOver() const { return !isForever() && Clock::now() >= m_at; }

    /// Waits until `done` or until the deadline; whether it is done.
    template<typename Done>
    bool wait(std::condition_variable &changed, std::unique_lock<std::mutex> &lock, const Done &done) const
    {
        if (!isForever())
            return changed.wait_until(lock, m_at, done);
        changed.wait(lock, done); // the last moment of the clock does not fit into the system's type everywhere
        return true;
    }

    /// Waits until woken or until the deadline.
    void waitForNews(std::condition_variable &changed, std::unique_lock<std::mutex> &lock) const
    {
        if (isForever())
            changed.wait(lock);
        else
            changed.wait_until(lock, m_at);
    }

private:
    static constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 36500);
    static constexpr Clock::time_point never() { return Clock::time_point::max(); }

    Clock::time_point m_at;
};

} // namespace device

#endif
