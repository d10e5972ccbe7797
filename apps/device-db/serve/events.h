// SPDX-License-Identifier: MIT
//
// Alarms and entries of the log as they lie in time.
#ifndef DEVICE_DB_EVENTS_H
#define DEVICE_DB_EVENTS_H

#include "serve/curve.h"

#include <functional>
#include <limits>
#include <map>

namespace device_db
{

struct Lane {
    qint64 level = 0;
    qint64 alarms = 0;
    std::vector<std::pair<qint64, qint64>> spans; ///< Begin and end, joined where a column could not show the gap.
};

/// 2,000 alarms one over the other show nothing: each level has a lane, in which those that overlap are one.
class Lanes
{
public:
    /// Times in milliseconds; an alarm without a time is left out. `end`: negative while it lasts, and where the end is
    /// in a form of its own.
    void add(qint64 level, std::optional<qint64> begin, qint64 end);

    /// When the last one ends that has an end, or the last one begins.
    std::optional<qint64> last() const { return m_last; }
    /// The highest level first.
    std::vector<Lane> between(const PictureRange &range);

private:
    struct Level {
        std::vector<std::pair<qint64, qint64>> alarms; ///< Begin and end.
        bool isSorted = true;                          ///< By their begins, as they come from a clock that goes on.
    };

    std::map<qint64, Level, std::greater<>> m_levels;
    std::optional<qint64> m_last;
};

/// Entries of one column.
struct Mark {
    qint64 time = 0;
    qint64 entries = 0;
    qint64 firstId = 0;
};

/// The moments of a log, and which entry is where.
class Marks
{
public:
    void add(qint64 id, std::optional<qint64> time);
    /// One for each column that has some.
    std::vector<Mark> between(const PictureRange &range);

private:
    std::vector<std::pair<qint64, qint64>> m_entries; ///< Time and ID.
    bool m_isSorted = true;
};

} // namespace device_db

#endif
