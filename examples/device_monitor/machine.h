// SPDX-License-Identifier: MIT
#pragma once

#include "series.h"

#include <QByteArray>
#include <QElapsedTimer>

/// Reads the figures of the machine it runs on.
class Machine
{
public:
    /// `folder` lies on the disk to watch.
    explicit Machine(const QString &folder);

    /// Loads and rates are those since the last call.
    Values sample();

private:
    struct Counters {
        double busyTicks = 0;
        double allTicks = 0;
        double contextSwitches = 0;
    };
    static Counters readCounters();

    Counters m_last;
    QElapsedTimer m_sinceLast;
    double m_cpuLoad = 0;
    QByteArray m_folder;
};
