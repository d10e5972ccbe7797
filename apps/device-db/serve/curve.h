// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_CURVE_H
#define DEVICE_DB_CURVE_H

#include "serve/blocks.h"
#include "storefile/trend_points.h"

#include <map>

namespace device_db
{

/// Which part of a table, in milliseconds, both ends included; and into how many columns.
struct PictureRange {
    qint64 from = 0;
    qint64 to = 0;
    int columns = 1;
};

/// What samples have in common, added up in any order.
class SampleTotal
{
public:
    qint64 rows = 0;
    qint64 numbers = 0;
    Point lowest; ///< Of equal ones the earliest; of equally early ones the one that was added first.
    Point highest;
    Point first;
    Point last; ///< Of equally late ones the one that was added last.

    void add(qint64 time, std::optional<double> value);
    /// `points`: the first, the lowest, the highest and the last.
    void add(qint64 moreRows, qint64 moreNumbers, double sum, const std::array<Point, 4> &points);
    double mean() const { return numbers > 0 ? (m_sum + m_rest) / double(numbers) : 0; }

private:
    void addToSum(double value);

    double m_sum = 0;
    double m_rest = 0; ///< What rounding took from the sum.
};

/// The rows of one range, as a picture and figures. Rows come in the order of recording.
class Curve
{
public:
    explicit Curve(const PictureRange &range)
        : m_range(range), m_columns(range.from, range.to, range.columns), m_others(size_t(range.columns))
    {
    }

    /// A row with a time; those outside the range are left out.
    void add(int run, qint64 time, std::optional<double> value);
    /// Whether all of a block is within the range and one column; it was added then.
    bool addWhole(const Block &block);
    /// As far as the block says it: what of its four points is in the range. Its rows tell more.
    void addRoughly(const Block &block);
    void add(const SummedColumn &column);

    const SampleTotal &total() const { return m_total; }
    std::vector<Point> points() const;
    /// In the order of recording: where the clock went back, a line of its own begins.
    std::vector<std::vector<Point>> lines() const;
    /// The middle of each column with values that are not numbers.
    std::vector<double> otherTimes() const;

private:
    Reduction &reductionOf(int run);

    PictureRange m_range;
    Reduction m_columns; ///< Says which column a time belongs to; stays empty.
    SampleTotal m_total;
    std::map<int, Reduction> m_runs;
    std::vector<bool> m_others; ///< Columns with values that are not numbers.
};

} // namespace device_db

#endif
