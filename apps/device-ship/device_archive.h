// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_DEVICE_ARCHIVE_H
#define DEVICE_SHIP_DEVICE_ARCHIVE_H

#include "archive/archive_connection.h"
#include "stream.h"

namespace device_ship
{

using device::Result;
using device::Status;
using device_db::ArchiveConnection;

/// The archive as a device sees it: its own streams. After any Error ask for the streams again before anything else is
/// sent: what they say is the truth.
class DeviceArchive
{
public:
    /// Connects and says which device this is.
    static Result<DeviceArchive> open(const QMap<QByteArray, QByteArray> &settings, const QString &zone);

    bool isOpen() const { return m_connection.isOpen(); }
    Result<QByteArray> identity() { return m_connection.identity(); }
    /// The archive has moved on since the streams were read, by another shipper or by an answer that was lost.
    bool wasBehind() const;
    /// A row, an end or a table itself was refused.
    bool refusedRow() const;

    /// Number, file, table, kind, generation, where it began, and watermark of each; the rest is empty.
    Result<QList<Stream>> streams();
    Status enrol(const Stream &stream);
    Status describe(const Stream &stream, const QByteArray &title, const QByteArray &unit,
                    const QByteArray &description);

    /// The new rows of all pieces, in one transaction.
    Status ship(const QList<Piece> &pieces);
    /// Rows up to `upTo` are gone from the file.
    Status skip(const Stream &stream, qint64 upTo);
    /// For each row: whether it is that of the archive. One that the archive has only in a gap is not. Rows that it no
    /// longer has are left out, and those of which it has refused the cells.
    Result<QMap<qint64, bool>> judge(const Stream &stream, int generation, const QList<RowMark> &rows);
    /// What the archive has of a row whose month it no longer keeps.
    struct DroppedBatch {
        qint64 first = 0;
        qint64 last = 0;
        qint64 rows = 0;
        qint64 digest = 0;
    };
    Result<std::optional<DroppedBatch>> droppedBatch(const Stream &stream, qint64 id);
    /// Rows that it no longer keeps are those up to this ID.
    Result<qint64> droppedTo(const Stream &stream);
    /// The rows that the archive has with other cells than fleet.digest() is about.
    Result<QList<qint64>> judgeRest(const Stream &stream, const QList<RowMark> &rows);
    Status beginGeneration(const Stream &stream, int parent, qint64 after, const QByteArray &reason);
    /// Their number, and the digest of all of them.
    Result<QPair<qint64, qint64>> rangeDigest(const Stream &stream, int generation, qint64 first, qint64 last);

    Result<QSet<qint64>> activeAlarms(const Stream &stream);
    Status endAlarms(const Stream &stream, const QList<AlarmEnd> &ends);
    Status alarmsGone(const Stream &stream, const QList<qint64> &ids, std::optional<double> secondsAgo);

    Status report(const QList<Stream *> &streams, const QString &trouble);

private:
    explicit DeviceArchive(ArchiveConnection connection) : m_connection(std::move(connection)) {}
    Status call(const QByteArray &function, const QList<QByteArray> &parameters);

    ArchiveConnection m_connection;
    QByteArray m_part; ///< What the names of the tables end in that take rows now.
};

} // namespace device_ship

#endif
