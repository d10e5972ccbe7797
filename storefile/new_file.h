// SPDX-License-Identifier: MIT
#ifndef STOREFILE_NEW_FILE_H
#define STOREFILE_NEW_FILE_H

#include "storefile/error.h"
#include "storefile/temporary_file.h"

#include <QStringList>

#include <memory>

namespace device_db
{

/// Whether both names, which may be links, lead to one file.
bool isSameFile(const QString &a, const QString &b);

/// An Error when `wanted` is the name of one of these files, or of one that SQLite keeps beside it, there or not.
Status isNoPartOf(const QString &wanted, const QStringList &inputs);

/// A file that is there in full or not at all: written under another name beside its place, and removed again unless
/// it was put there.
class NewFile
{
public:
    /// An Error when there is a file already (and not `force`), or one beside it that SQLite would take for its own.
    /// `inputs`: what is read while it is written; neither these nor what SQLite keeps beside them are ever replaced,
    /// under whatever name. A symbolic link is followed. What is not a file, such as a device, is not replaced either.
    static Result<NewFile> make(const QString &path, bool force, const QStringList &inputs = {});

    /// Where to write; an empty file is there.
    QString part() const;
    /// What was written is on the disk, under its name, when this is done.
    Status putInPlace();

private:
    NewFile(QString path, std::unique_ptr<TemporaryFile> part, bool force);

    QString m_path;
    std::unique_ptr<TemporaryFile> m_part;
    bool m_force;
};

} // namespace device_db

#endif
