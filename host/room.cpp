// SPDX-License-Identifier: MIT
#include "room.h"

#include "log_readers.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>

#include <sys/stat.h>
#include <sys/vfs.h>

namespace device
{

namespace
{

constexpr qint64 pagesOfEveryBatch = 600; // interior pages, the list of free ones, sums of trends
constexpr qint64 pagesOfARow = 2;         // of the table and of the index
constexpr qint64 pagesOfAFile = 256;      // below that a ceiling is a mistake
constexpr qint64 lastPages = 128;
constexpr qint64 memoryOfALog = 32768; // for every 4,096 pages of it, about
constexpr qint64 bytesOfAByte = 2;     // in memory two for a character, in the file one to three

qint64 pagesOfABatch(qint64 rows)
{
    return rows * (pagesOfARow + Room::removedPerRow) + pagesOfEveryBatch;
}

// In front of a batch the log may have what leads to a checkpoint, and one batch more.
qint64 pagesOfTheLog(int batchRows, int checkpointPages)
{
    return checkpointPages + pagesOfABatch(batchRows) + batchRows;
}

qint64 bytesOfTheLog(qint64 pages, qint64 pageSize)
{
    return pages * (pageSize + 24) + (pages / 4000 + 1) * memoryOfALog;
}

qint64 sizeOf(const QString &path)
{
    struct stat found;
    return ::stat(QFile::encodeName(path).constData(), &found) == 0 ? qint64(found.st_size) : 0;
}

bool overwritesInPlace(const QString &path)
{
    constexpr quint32 known[] = {0xEF53 /* ext2 to ext4 */, 0x58465342 /* XFS */, 0x4d44 /* FAT */,
                                 0x2011BAB0 /* exFAT */, 0x01021994 /* tmpfs */};
    struct statfs found;
    return ::statfs(QFile::encodeName(path).constData(), &found) == 0 &&
           std::find(std::begin(known), std::end(known), quint32(found.f_type)) != std::end(known);
}

} // namespace

qint64 Room::leastCeiling(int batchRows, int checkpointPages, qint64 pageSize)
{
    return bytesOfTheLog(pagesOfTheLog(batchRows, checkpointPages), pageSize) + pagesOfAFile * pageSize;
}

Status Room::check(const Site &site, const RecorderOptions &options, const QString &path)
{
    const RetentionOptions &retention = options.retention;
    const auto refused = [&](const QString &why) {
        return site.error(Error::OptionRefused, QLatin1String("retention.") + why);
    };
    if (retention.reportHold.count() < 1)
        return refused(QStringLiteral("reportHold is %1 h; the least is 1").arg(retention.reportHold.count()));
    const int checkpointPages = options.file.profile == Profile::AsIs ? 0 : options.file.checkpointPages;
    if (const qint64 least = leastCeiling(options.batchRows, checkpointPages);
        retention.ceiling < 0 || (retention.ceiling > 0 && retention.ceiling < least))
        return refused(QStringLiteral("ceiling is %1; the least with this batchRows and checkpointPages is %2")
                           .arg(retention.ceiling)
                           .arg(least));
    if (!retention.reserve)
        return {};
    if (retention.ceiling == 0)
        return refused(QStringLiteral("reserve needs a ceiling"));
    if (options.file.profile == Profile::AsIs)
        return refused(QStringLiteral("reserve needs a write-ahead log: the profile Durable or Flash"));
    if (!overwritesInPlace(QFileInfo(path).absolutePath()))
        return refused(QStringLiteral("reserve needs a file system that overwrites in place: ext2 to ext4, XFS, FAT, "
                                      "exFAT or tmpfs"));
    return {};
}

Status Room::open(Connection &connection, const std::function<bool()> &cancelled)
{
    m_path = QFileInfo(connection.path()).canonicalFilePath();
    m_logPath = m_path + QLatin1String(connection.writesAhead() ? "-wal" : "-journal");
    if (!isLimited())
        return {};
    const Site site{QStringLiteral("prepare %1").arg(connection.path()), QString()};
    const auto pageSize = connection.number(site, QStringLiteral("pragma page_size"));
    if (!pageSize)
        return pageSize.error();
    m_pageSize = *pageSize;
    const int checkpointPages = connection.writesAhead() ? connection.options().checkpointPages : 0;
    if (const qint64 least = leastCeiling(m_batchRows, checkpointPages, m_pageSize); m_options.ceiling < least)
        return site.error(Error::OptionRefused,
                          QStringLiteral("retention.ceiling is %1; the least with batchRows, checkpointPages and the "
                                         "pages of this file is %2")
                              .arg(m_options.ceiling)
                              .arg(least));
    const qint64 logPages = pagesOfTheLog(m_batchRows, checkpointPages);
    m_logLimit = logPages * pageInLog();
    m_filePages = (m_options.ceiling - bytesOfTheLog(logPages, m_pageSize)) / m_pageSize - lastPages;
    if (const Status limited = limit(connection, m_filePages); !limited)
        return limited;
    // The log keeps the place of a checkpoint: where the disk is full, giving it back would be the end.
    for (const QString &pragma :
         {QStringLiteral("pragma wal_autocheckpoint=%1").arg(connection.options().checkpointPages),
          // Else what is removed would be written once more, with zeros.
          QStringLiteral("pragma secure_delete=fast"),
          QStringLiteral("pragma journal_size_limit=%1").arg(checkpointPages * pageInLog())}) {
        if (const auto set = connection.query(site, pragma); !set)
            return set.error();
    }
    look();
    if (!fits(m_batchRows))
        (void)startLogAnew(connection);
    if (m_options.reserve) {
        if (const Status whole = makeWhole(connection, cancelled); !whole)
            return whole;
    }
    const auto pages = connection.pageCounts();
    if (!pages)
        return pages.error();
    measure(*pages);
    return {};
}

Status Room::limit(Connection &connection, qint64 pages) const
{
    const auto set =
        connection.query({QStringLiteral("limit"), QString()}, QStringLiteral("pragma max_page_count=%1").arg(pages));
    return set ? Status() : set.error();
}

Room::LastPages::LastPages(const Room &room, Connection &connection) : m_room(room), m_connection(connection)
{
    if (m_room.isLimited())
        (void)m_room.limit(m_connection, m_room.m_filePages + lastPages);
}

Room::LastPages::~LastPages()
{
    if (m_room.isLimited())
        (void)m_room.limit(m_connection, m_room.m_filePages);
}

// Pages are taken by a table of their own until the file has all of them, and become free again.
Status Room::makeWhole(Connection &connection, const std::function<bool()> &cancelled)
{
    const Site site{QStringLiteral("reserve %1").arg(connection.path()), QString()};
    const QString table = QStringLiteral("\"device reserve\"");
    // Zeros are no secret: without this every page would be written a second time.
    const auto secure = connection.query(site, QStringLiteral("pragma secure_delete"));
    if (!secure)
        return secure.error();
    (void)connection.query(site, QStringLiteral("pragma secure_delete=off"));
    const qint64 pagesAtOnce = std::max<qint64>(16, connection.options().checkpointPages / 2);
    const auto step = [&](const QStringList &statements) -> Status {
        if (cancelled())
            return site.error(Error::Cancelled, QStringLiteral("cancelled"));
        const auto done = connection.change(site, statements);
        look();
        if (!done)
            return done.error();
        return fits(0) ? Status() : startLogAnew(connection);
    };
    const auto pages = [&]() -> Result<qint64> {
        const auto counts = connection.pageCounts();
        if (!counts)
            return counts.error();
        return m_filePages + lastPages - counts->pages;
    };
    auto missing = pages();
    const auto leftOver =
        connection.number(site, QStringLiteral("select count(*) from sqlite_master where name='device reserve'"));
    Status done = !missing ? missing.error() : !leftOver ? leftOver.error() : Status();
    const LastPages last(*this, connection);
    if (done && (*missing > pagesAtOnce || *leftOver > 0)) {
        done = step({QStringLiteral("create table if not exists %1(filling)").arg(table)});
        while (done && missing && *missing > 8) {
            const qint64 now = std::min(pagesAtOnce, *missing - 4);
            done =
                step({QStringLiteral("insert into %1 values (zeroblob(%2))").arg(table).arg(now * (m_pageSize - 8))});
            missing = pages();
        }
        while (done) {
            const auto rows = connection.number(site, QLatin1String("select count(*) from ") + table);
            done = !rows ? rows.error()
                         : step({QStringLiteral("delete from %1 where rowid=(select max(rowid) from %1)").arg(table)});
            if (!rows || *rows == 0)
                break;
        }
        if (done)
            done = step({QLatin1String("drop table ") + table});
    }
    if (done)
        done = makeLogWhole(connection);
    (void)connection.query(site, QLatin1String("pragma secure_delete=") + secure->first().value(0));
    if (done && !missing)
        return missing.error();
    return done;
}

// Pages that the log alone has are not in the file yet, and a log that is empty has no place on a full disk: page 1 is
// written until it has the place of a checkpoint. It says the same as before, so that no sync is needed.
Status Room::makeLogWhole(Connection &connection)
{
    const Site site{QStringLiteral("reserve the log of %1").arg(connection.path()), QString()};
    if (const Status begun = startLogAnew(connection); !begun)
        return begun;
    const auto version = connection.number(site, QStringLiteral("pragma user_version"));
    const auto syncs = connection.number(site, QStringLiteral("pragma synchronous"));
    if (!version || !syncs)
        return !version ? version.error() : syncs.error();
    Status done = connection.alone(site, QStringLiteral("pragma synchronous=off"));
    const int pages = connection.options().checkpointPages - 1; // the next one would be a checkpoint
    for (int i = 0; done && i < pages && sizeOf(m_logPath) < (pages - 1) * pageInLog(); ++i)
        done = connection.alone(site, QStringLiteral("pragma user_version=%1").arg(*version));
    const Status again = connection.alone(site, QStringLiteral("pragma synchronous=%1").arg(*syncs));
    look();
    return done ? again : done;
}

void Room::look()
{
    m_fileBytes = sizeOf(m_path);
    m_logBytes = sizeOf(m_logPath);
}

void Room::measure(const PageCounts &pages)
{
    look();
    m_freePages = m_filePages - pages.pages + pages.free;
    // Two batches as large as they usually are, and something for the sums of trends.
    m_wantedPages = std::min<qint64>(m_filePages / 4, 2 * m_batchRows / 20 + 100);
}

bool Room::fits(qint64 rows, qint64 bytes) const
{
    return m_logBytes + (pagesOfABatch(rows) + bytes * bytesOfAByte / m_pageSize) * pageInLog() <= m_logLimit;
}

void Room::need(qint64 rows, qint64 bytes)
{
    m_wantedPages = std::max(m_wantedPages, rows + bytes * bytesOfAByte / m_pageSize + 50);
}

Status Room::prepare(Connection &connection, qint64 rows, qint64 bytes)
{
    if (!isLimited())
        return {};
    look();
    return fits(rows, bytes) ? Status() : startLogAnew(connection);
}

Status Room::startLogAnew(Connection &connection)
{
    const Site site{QStringLiteral("checkpoint"), QString()};
    if (!connection.writesAhead())
        return {};
    const auto answer = connection.ask(site, QStringLiteral("pragma wal_checkpoint(restart)"));
    if (!answer)
        return answer.error();
    if (answer->first().value(0) == QLatin1String("0")) {
        m_logBytes = 0; // it is overwritten from its beginning
        return {};
    }
    const QString readers = readersOfLog(connection.path());
    return site.error(Error::StorageFailed,
                      QStringLiteral("the write-ahead log has reached its part of the ceiling while %1 reads from it")
                          .arg(readers.isEmpty() ? QStringLiteral("somebody") : readers));
}

} // namespace device
