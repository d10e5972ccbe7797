// SPDX-License-Identifier: MIT
#include "machine.h"
#include "failure.h"

#include <QFile>

#include <sys/statvfs.h>

namespace
{

/// The words after `label` on its line in a file of /proc.
QList<QByteArray> words(const char *path, const QByteArray &label)
{
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> lines = file.readAll().split('\n');
        for (const QByteArray &line : lines) {
            QList<QByteArray> found = line.simplified().split(' ');
            if (found.takeFirst() == label)
                return found;
        }
    }
    throw Failure(QString("%1 has no line \"%2\"; this program needs a Linux with /proc").arg(path, QString(label)));
}

double memoryUsed()
{
    const double total = words("/proc/meminfo", "MemTotal:").value(0).toDouble();
    const double available = words("/proc/meminfo", "MemAvailable:").value(0).toDouble();
    return total > 0 ? 100 * (total - available) / total : 0;
}

} // namespace

Machine::Machine(const QString &folder) : m_last(readCounters()), m_folder(folder.toUtf8())
{
    m_sinceLast.start();
}

Machine::Counters Machine::readCounters()
{
    // user nice system idle iowait irq softirq steal; guest time after them is part of user time.
    const QList<QByteArray> ticks = words("/proc/stat", "cpu").mid(0, 8);
    Counters now;
    for (const QByteArray &each : ticks)
        now.allTicks += each.toDouble();
    now.busyTicks = now.allTicks - ticks.value(3).toDouble() - ticks.value(4).toDouble();
    now.contextSwitches = words("/proc/stat", "ctxt").value(0).toDouble();
    return now;
}

Values Machine::sample()
{
    const Counters now = readCounters();
    const double seconds = double(m_sinceLast.nsecsElapsed()) / 1e9;
    m_sinceLast.restart();

    // The kernel counts in ticks of some milliseconds: without a new one the load is as it was.
    if (now.allTicks > m_last.allTicks)
        m_cpuLoad = qBound(0.0, 100 * (now.busyTicks - m_last.busyTicks) / (now.allTicks - m_last.allTicks), 100.0);
    const double switches = (now.contextSwitches - m_last.contextSwitches) / seconds;
    m_last = now;

    struct statvfs disk = {}; // not QStorageInfo, which knows no volume inside a chroot
    statvfs(m_folder.constData(), &disk);
    const double diskFree = 100.0 * double(disk.f_bavail) / double(qMax<quint64>(disk.f_blocks, 1));
    return {m_cpuLoad, memoryUsed(), diskFree, switches};
}
