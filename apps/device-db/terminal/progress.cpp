// SPDX-License-Identifier: MIT
#include "terminal/progress.h"

#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/output.h"

#include <cstdio>

namespace device_db
{

Progress::Progress(const QString &unit) : m_unit(unit), m_seen(errorsAreSeen())
{
    m_timer.start();
}

Progress::~Progress()
{
    wipe();
}

void Progress::show(qint64 done, qint64 total, qint64 count, qint64 before)
{
    if (!m_seen || m_timer.elapsed() < m_next)
        return;
    const double seconds = double(m_timer.elapsed()) / 1000;
    m_next = m_timer.elapsed() + 200;
    QString line;
    if (total > 0) {
        constexpr int cells = 24;
        const int full = int(done * cells / total);
        line = QLatin1Char('[') + QString(full, QLatin1Char('#')) + QString(cells - full, QLatin1Char(' ')) +
               QStringLiteral("] %1 %  ").arg(done * 100 / total, 3);
    }
    line += QStringLiteral("%1 %2, %3 a second").arg(grouped(count), m_unit, grouped(qint64(double(count) / seconds)));
    if (total > 0 && done > before)
        line += QStringLiteral(", %1 left")
                    .arg(duration(qint64(seconds * double(total - done) / double(done - before)) * 1000 + 1000));
    std::fprintf(stderr, "\r\033[K%s", line.toUtf8().constData());
    std::fflush(stderr);
    m_shown = true;
}

void Progress::wipe()
{
    if (m_shown)
        std::fputs("\r\033[K", stderr);
    m_shown = false;
}

} // namespace device_db
