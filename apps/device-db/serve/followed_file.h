// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_FOLLOWED_FILE_H
#define DEVICE_DB_FOLLOWED_FILE_H

#include "storefile/findings.h"
#include "storefile/live_file.h"

#include <chrono>
#include <future>
#include <optional>

namespace device_db
{

/// A file that a device may be writing, read harmlessly: in write-ahead mode itself, otherwise in a copy that is made
/// anew when the file has changed. Copies are made beside the thread of their owner, and take a fifth of the time at
/// most. So is SQLite's check of a file that is another one, which cannot be interrupted.
class FollowedFile
{
public:
    explicit FollowedFile(QString path);
    ~FollowedFile();
    FollowedFile(const FollowedFile &) = delete;
    FollowedFile &operator=(const FollowedFile &) = delete;

    enum class News {
        None,
        Changed, ///< Or has an error now, or no longer.
        Replaced ///< It is another file now.
    };
    /// Looks whether the file has changed; connections and statements of before may be closed then.
    News look();

    QString path() const { return m_path; }
    /// Null while it cannot be read.
    const Database *database() const { return m_open ? &m_open->database : nullptr; }
    /// Why it cannot be read; empty otherwise.
    QString error() const { return m_error; }
    bool isCopy() const { return m_open && m_open->file.isSnapshot(); }
    /// Of the file when it was first read; none of a large one.
    const QList<Finding> &integrity() const { return m_integrity; }

private:
    using Clock = std::chrono::steady_clock;

    /// What shows that a file was written or replaced, without SQLite.
    struct Mark {
        bool exists = false;
        quint64 device = 0;
        quint64 inode = 0;
        QByteArray rest; ///< Sizes and times of it and of what is beside it, its change counter.
    };
    struct Opened {
        Result<OpenFile> file;
        Clock::duration took;
        std::optional<QList<Finding>> integrity; ///< Nothing: it was not asked for.
    };
    static Mark markOf(const QString &path, bool mayOpen);
    /// Whether the file that is read is not the one that was looked at.
    bool isOtherThan(const Mark &mark) const;
    static Opened opened(const QString &path, bool isOther);
    void startOpening();
    News take(Opened opened);
    News lookAtCopy();

    QString m_path;
    std::optional<OpenFile> m_open;
    QList<Finding> m_integrity;
    QString m_error;
    Mark m_mark;
    Mark m_markOfOpening;
    qint64 m_version = 0; ///< SQLite's, of the file that is read itself.
    quint64 m_log = 0;    ///< Of that file, as the file system numbers it.
    std::future<Opened> m_opening;
    Clock::time_point m_nextOpening;
    Clock::time_point m_current; ///< When what is read was last known to be all that there is.
};

} // namespace device_db

#endif
