// SPDX-License-Identifier: MIT
#include "serve/followed_file.h"

#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace device_db
{

namespace
{

using namespace std::chrono_literals;

constexpr auto pauseAfterFailure = 1s;
constexpr auto patience = 5s;               // with a device that writes without a pause
constexpr qint64 largestChecked = 20000000; // bytes

qint64 versionOf(const Database &database)
{
    return database.number("pragma data_version").valueOr(-1);
}

// Of a log that SQLite has open; 0 without one.
quint64 logOf(const QString &path)
{
    struct stat status {
    };
    return stat((QFile::encodeName(path) + "-wal").constData(), &status) == 0 ? status.st_ino : 0;
}

} // namespace

// Closing the file would drop the locks of this process on it, so it is opened only as long as a copy is read.
FollowedFile::Mark FollowedFile::markOf(const QString &path, bool mayOpen)
{
    Mark mark;
    const QByteArray name = QFile::encodeName(path);
    for (const char *ending : {"", "-wal", "-journal"}) {
        struct stat status {
        };
        const bool exists = stat((name + ending).constData(), &status) == 0;
        if (*ending == '\0') {
            mark.exists = exists;
            mark.device = status.st_dev;
            mark.inode = status.st_ino;
        }
        for (const qint64 number :
             {qint64(exists), qint64(status.st_size), qint64(status.st_mtim.tv_sec), qint64(status.st_mtim.tv_nsec)})
            mark.rest += QByteArray::number(number) + ' ';
    }
    if (mark.exists && mayOpen) {
        // The clock of time stamps is coarse; the header counts transactions.
        char header[100] = {};
        const int file = open(name.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // a pipe has its name, perhaps
        if (file >= 0 && pread(file, header, sizeof header, 0) > 0)
            mark.rest.append(header, sizeof header);
        if (file >= 0)
            close(file);
    }
    return mark;
}

bool FollowedFile::isOtherThan(const Mark &mark) const
{
    return mark.inode != m_mark.inode || mark.device != m_mark.device;
}

FollowedFile::FollowedFile(QString path) : m_path(std::move(path))
{
    m_markOfOpening = markOf(m_path, true);
    (void)take(opened(m_path, true));
}

FollowedFile::Opened FollowedFile::opened(const QString &path, bool isOther)
{
    const auto began = Clock::now();
    auto file = openFile(path, {});
    const auto took = Clock::now() - began;
    if (!file || !isOther)
        return {std::move(file), took, std::nullopt};
    auto found = QFileInfo(path).size() <= largestChecked ? integrityFindings(file->database) : QList<Finding>();
    if (!found)
        return {found.error(), took, std::nullopt};
    return {std::move(file), took, std::move(found).value()};
}

FollowedFile::~FollowedFile() = default; // waits for a copy that is being made

void FollowedFile::startOpening()
{
    m_markOfOpening = markOf(m_path, true);
    const bool isOther = !m_open || isOtherThan(m_markOfOpening);
    m_opening = std::async(std::launch::async, [path = m_path, isOther] { return opened(path, isOther); });
}

FollowedFile::News FollowedFile::take(Opened opened)
{
    const auto now = Clock::now();
    const bool isOther = isOtherThan(m_markOfOpening);
    m_nextOpening = now + 4 * opened.took;
    if (!opened.file) {
        m_nextOpening = std::max(m_nextOpening, now + pauseAfterFailure);
        if (m_open && !isOther && m_markOfOpening.exists && now < m_current + patience)
            return News::None; // what is known stays for a while
        m_open.reset();
        const bool isNew = m_error != opened.file.error().cause();
        m_error = opened.file.error().cause();
        return isNew ? News::Changed : News::None;
    }
    const bool wasGone = m_mark.exists && !m_open; // it may be another one under the number of the first
    m_open.reset();                                // before the new one is in its place: it may tidy up
    m_open.emplace(std::move(opened.file).value());
    m_error.clear();
    if (opened.integrity)
        m_integrity = *opened.integrity;
    const bool hadFile = m_mark.exists;
    m_mark = m_markOfOpening;
    m_version = versionOf(m_open->database);
    m_log = logOf(m_path);
    m_current = now;
    return wasGone || (isOther && hadFile) ? News::Replaced : News::Changed;
}

FollowedFile::News FollowedFile::look()
{
    if (m_opening.valid()) {
        if (m_opening.wait_for(0s) != std::future_status::ready)
            return News::None;
        return take(m_opening.get());
    }
    if (!m_open || isCopy())
        return lookAtCopy();
    const Mark mark = markOf(m_path, false);
    // Its log stays while it is read, unless somebody puts another file into its place by writing over it.
    if (!mark.exists || isOtherThan(mark) || logOf(m_path) != m_log) {
        m_open.reset();
        m_error = QStringLiteral("it was taken away or replaced");
        m_nextOpening = Clock::now();
        return News::Changed;
    }
    const qint64 version = versionOf(m_open->database);
    if (version == m_version)
        return News::None;
    m_version = version;
    return News::Changed;
}

FollowedFile::News FollowedFile::lookAtCopy()
{
    if (Clock::now() < m_nextOpening)
        return News::None;
    const Mark mark = markOf(m_path, true);
    if (m_open && mark.exists && !isOtherThan(mark) && mark.rest == m_mark.rest) {
        m_current = Clock::now();
        return News::None;
    }
    if (!mark.exists && m_error.isEmpty()) {
        m_open.reset();
        m_error = QStringLiteral("there is no such file; check the name");
        return News::Changed;
    }
    if (mark.exists)
        startOpening();
    return News::None;
}

} // namespace device_db
