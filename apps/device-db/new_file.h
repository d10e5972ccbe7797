// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_NEW_FILE_H
#define DEVICE_DB_NEW_FILE_H

#include "error.h"

namespace device_db
{

/// A file that is there in full or not at all: written under another name beside its place, and removed again unless
/// it was put there.
class NewFile
{
public:
    /// An Error when there is a file already (and not `force`), or one beside it that SQLite would take for its own.
    static Result<NewFile> make(const QString &path, bool force);
    NewFile(NewFile &&other) noexcept;
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile();

    /// Where to write; an empty file stands there.
    QString part() const { return m_part; }
    /// What was written is on the disk, under its name, when this is done.
    Status putInPlace();

private:
    NewFile(QString path, QString part, bool force);

    QString m_path;
    QString m_part; ///< Empty when nothing is to be removed.
    bool m_force;
};

} // namespace device_db

#endif
