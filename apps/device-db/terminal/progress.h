// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_PROGRESS_H
#define DEVICE_DB_PROGRESS_H

#include <QElapsedTimer>
#include <QString>

namespace device_db
{

/// A line on the terminal (standard error) that says how far long work is; nothing when there is no terminal.
/// It first shows after half a second, so short work shows none, and is wiped away at the end.
class Progress
{
public:
    explicit Progress(const QString &unit);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    /// `done` of `total` (0: unknown) in any measure; `count` of the unit so far. `before`: what an earlier run did.
    void show(qint64 done, qint64 total, qint64 count, qint64 before = 0);

    /// Takes the line away, before something else is printed. It comes again with the next show().
    void wipe();

private:
    QString m_unit;
    bool m_seen;
    bool m_shown = false;
    QElapsedTimer m_timer;
    qint64 m_next = 500; // ms
};

} // namespace device_db

#endif
