// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_CHART_H
#define DEVICE_DB_CHART_H

#include "storefile/error.h"
#include "storefile/reduction.h"

#include <QByteArray>
#include <QString>

#include <vector>

namespace device_db
{

enum class Picture { Terminal, Png, Svg };

struct Series {
    QString table;
    QString title;
    bool right = false; ///< On the axis at the right.
    Reduction points;
    qint64 left = 0; ///< Values that are not numbers, or without a time.
};

/// An alarm, or several of one level that touch.
struct Band {
    qint64 begin;
    qint64 end;
    int level;
};

/// What is to be drawn. Times are milliseconds, as millisecondsOf() gives them. Without series the alarms are the
/// picture: a row per level.
struct Chart {
    QString title; ///< Empty: none.
    qint64 first = 0;
    qint64 last = 0;
    std::vector<Series> series;
    std::vector<Band> bands;
    qint64 alarms = 0;
    bool utc = false;
    int width = 0; ///< Pixels, or characters on a terminal.
    int height = 0;
};

/// Bands of one level that touch become one; where there are too many still, small gaps between them are closed.
void mergeBands(Chart &chart);

/// The picture, drawn by gnuplot. Texts of the chart may come from a file: none of them can steer gnuplot.
Result<QByteArray> drawn(const Chart &chart, Picture picture);

} // namespace device_db

#endif
