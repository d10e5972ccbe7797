// SPDX-License-Identifier: MIT
#ifndef DEVICE_ROOM_H
#define DEVICE_ROOM_H

#include "connection.h"
#include "device/recorder.h"

#include <functional>

namespace device
{

/// Keeps a file and its log under a ceiling, together and at every moment.
///
/// The file has SQLite's own limit of pages. What is left of the ceiling is the log's: before a transaction its worst
/// case is added to what the log takes, and when that is too much the log begins anew in its place, or, where a reader
/// pins it, the rows wait. The worst case of a row is its text, a page of the table and one of its index; a row that is
/// removed costs as much as that of its index.
class Room
{
public:
    static constexpr qint64 removedPerRow = 2; ///< So that a file that is too full becomes emptier.

    Room(const RetentionOptions &options, int batchRows) : m_options(options), m_batchRows(batchRows) {}

    bool isLimited() const { return m_options.ceiling > 0; }
    /// Of the ceiling with these options, in bytes, for a file with pages of this size.
    static qint64 leastCeiling(int batchRows, int checkpointPages, qint64 pageSize = 4096);

    /// Whether a recorder can work with these; the Error names the option that cannot.
    static Status check(const Site &site, const RecorderOptions &options, const QString &path);

    /// Sets the limits of the connection. With a reserve, makes the file whole, until `cancelled`.
    Status open(Connection &connection, const std::function<bool()> &cancelled);
    /// After a transaction: looks how large everything is now.
    void measure(const PageCounts &pages);

    qint64 fileBytes() const { return m_fileBytes; }
    qint64 logBytes() const { return m_logBytes; }
    /// Rows have to go before the next batch has room in the file.
    bool isShort() const { return isLimited() && m_freePages < m_wantedPages; }
    /// Whether the log has room for a batch of so many rows, with so many bytes of text.
    bool fits(qint64 rows, qint64 bytes = 0) const;
    /// Whether so many bytes of text are much for the file as a whole.
    bool isMuch(qint64 bytes) const { return bytes > m_filePages * m_pageSize / 4; }
    /// What the next batch needs, if that is more than usual: until the next measure().
    void need(qint64 rows, qint64 bytes);
    /// Makes sure that it has, or says who stands in the way.
    Status prepare(Connection &connection, qint64 rows, qint64 bytes = 0);
    /// While it lives, the file may take some pages more: sums have to be written before their rows can go.
    class LastPages
    {
    public:
        LastPages(const Room &room, Connection &connection);
        ~LastPages();

    private:
        Q_DISABLE_COPY(LastPages)
        const Room &m_room;
        Connection &m_connection;
    };
    /// After the disk or the file was full: the log begins anew.
    Status startLogAnew(Connection &connection);

private:
    qint64 pageInLog() const { return m_pageSize + 24; }
    Status limit(Connection &connection, qint64 pages) const;
    Status makeLogWhole(Connection &connection);
    Status makeWhole(Connection &connection, const std::function<bool()> &cancelled);
    void look();

    const RetentionOptions m_options;
    const int m_batchRows;
    QString m_path; ///< Of the file itself, where the log has its name from when the path is a symbolic link.
    QString m_logPath;
    qint64 m_pageSize = 4096;
    qint64 m_filePages = 0; ///< The limit.
    qint64 m_logLimit = 0;
    qint64 m_fileBytes = 0;
    qint64 m_logBytes = 0;
    qint64 m_freePages = 0; ///< What the file may take still.
    qint64 m_wantedPages = 0;
};

} // namespace device

#endif
