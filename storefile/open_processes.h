// SPDX-License-Identifier: MIT
#ifndef STOREFILE_OPEN_PROCESSES_H
#define STOREFILE_OPEN_PROCESSES_H

#include <QList>
#include <QString>

namespace device_db
{

struct OpenProcess {
    qint64 id;
    QString name;
};

/// The other processes that have the file open, as far as this user may see them: a process of another user
/// stays unseen unless this one is root.
QList<OpenProcess> processesThatHave(const QString &path);

/// "process 123 (device), process 124 (reader)"
QString listed(const QList<OpenProcess> &processes);

} // namespace device_db

#endif
