// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TEMPORARY_FILE_H
#define STOREFILE_TEMPORARY_FILE_H

#include <QByteArray>
#include <QString>

#include <memory>

namespace device_db
{

struct RegisteredFile;

/// A file of a database, and what SQLite puts beside it, that is removed when this object goes.
class TemporaryFile
{
public:
    /// `path` is there, or will be. `folder`: removed after it, when it is empty then; may be empty.
    explicit TemporaryFile(QByteArray path, QByteArray folder = QByteArray());
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;

    /// "" is the file itself; "-journal" and the like are beside it.
    QByteArray path(const char *ending = "") const { return m_path + ending; }
    /// The file stays: it was given its name.
    void keep();

private:
    QByteArray m_path;
    QByteArray m_folder;
    RegisteredFile *m_registered = nullptr;
};

/// A place for one database in a new folder of $TMPDIR; null when no folder can be made, errno says why.
std::unique_ptr<TemporaryFile> makeTemporaryFile();
/// The folder that makeTemporaryFile() makes its own in.
QString temporaryPlace();

/// Ctrl-C and the other signals that end a program remove all TemporaryFiles before they do. For main(); signals that
/// somebody handles or ignores already are left alone.
void removeTemporaryFilesOnSignals();

} // namespace device_db

#endif
