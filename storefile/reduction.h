// SPDX-License-Identifier: MIT
#ifndef STOREFILE_REDUCTION_H
#define STOREFILE_REDUCTION_H

#include <QtGlobal>

#include <array>
#include <vector>

namespace device_db
{

struct Point {
    qint64 time = 0; ///< Milliseconds.
    double value = 0;
};

/// Reduces any number of points to at most four in each column of a picture: the first, the lowest, the highest
/// and the last. A line through them covers the very same pixels as one through all, so no spike is lost.
/// The points may come in any order.
class Reduction
{
public:
    /// `columns` of equal width from the time `first` to `last`; points outside belong to the outermost columns.
    Reduction(qint64 first, qint64 last, int columns);

    void add(Point point);
    /// The first, the lowest, the highest and the last of so many points of one column.
    void add(const std::array<Point, 4> &points, qint64 count);
    /// What another reduction of the same columns holds.
    void add(const Reduction &other);
    qint64 count() const { return m_count; }
    int columnOf(qint64 time) const;

    /// In the order of time.
    std::vector<Point> points() const;
    /// As drawn: a new line begins where there is a pause of at least ten times the mean distance and three columns.
    std::vector<std::vector<Point>> lines() const { return lines(m_count); }
    /// `count`: of all points of the picture, if these are only some of them.
    std::vector<std::vector<Point>> lines(qint64 count) const;

private:
    struct Column {
        Point first;
        Point lowest;
        Point highest;
        Point last;
        bool used = false;
    };

    void take(Point point);

    qint64 m_first;
    qint64 m_last;
    qint64 m_count = 0;
    std::vector<Column> m_columns;
};

} // namespace device_db

#endif
