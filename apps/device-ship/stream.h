// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_STREAM_H
#define DEVICE_SHIP_STREAM_H

#include "row_encoder.h"

#include <QList>
#include <QSet>

#include <chrono>
#include <functional>
#include <optional>

namespace device_ship
{

using Clock = std::chrono::steady_clock;

constexpr int mostRowsOfFile = 5000; // a read must be short

/// Which row this is: that of a file is that of the archive when both are equal.
struct RowMark {
    qint64 id = 0;
    qint64 digest = 0;
    friend bool operator==(const RowMark &a, const RowMark &b) { return a.id == b.id && a.digest == b.digest; }
    friend bool operator!=(const RowMark &a, const RowMark &b) { return !(a == b); }
};

/// What the archive refuses of a stream, which then has a transaction of its own.
struct Refusal {
    int mostRows = mostRowsOfFile; ///< Fewer while one of the rows is refused, and not known.
    qint64 id = 0;                 ///< The row, once it is known: it is sent without its cells.
    QByteArray why;
    int timesBehind = 0; ///< Refused one after the other at this watermark, as if another shipper were quicker.
    bool isAny() const { return mostRows < mostRowsOfFile || timesBehind > 0; }
};

/// One table of the device's files: how far the archive has it, and what is known of the file.
struct Stream {
    int number = 0; ///< "tbl" in the archive.
    QString file;   ///< By its name in the configuration.
    QString table;
    device_db::Kind kind = device_db::Kind::Foreign;
    int generation = 0;
    qint64 after = 0; ///< Up to this ID its rows are those of a former one.
    qint64 watermark = 0;

    std::optional<RowMark> known; ///< The newest row up to the watermark, if it was found to be the archive's.
    bool isOwn = false;           ///< ... and of this generation alone.
    qint64 lastId = 0;            ///< The highest that the device has given.
    Refusal refusal;

    QSet<qint64> active;       ///< Alarms that have not ended as far as the archive knows.
    QSet<qint64> refusedEnds;  ///< Alarms whose ends the archive does not take.
    bool endsCompared = false; ///< All ends were, in this run of the program or this hour.
    Clock::time_point seen{};  ///< When the active alarms were looked at last.
};

/// An alarm and its end in the file.
struct AlarmEnd {
    qint64 id = 0;
    RowEncoder::End end;
};

/// What says whether a table still is in the archive's generation: its life is judged by this.
struct Head {
    qint64 lastId = 0;             ///< The next row gets a higher ID.
    std::optional<RowMark> newest; ///< The newest row up to the watermark.
};

/// What one look at a stream's table has found.
struct Piece : Head {
    Stream *stream = nullptr;

    QByteArray lines; ///< New rows, for COPY.
    int rows = 0;
    std::optional<RowMark> last; ///< The last of them.
    bool more = false;           ///< There are others after it.
    QList<qint64> active;        ///< Those that are alarms without an end.

    QList<AlarmEnd> ends; ///< Of alarms that were active so far.
    QList<qint64> gone;   ///< Those of them that are not in the file any more.
};

/// How much one look may read: as long as it takes, a device in rollback-journal mode must not write.
struct Budget {
    int rows = 0;
    qint64 bytes = 0;
};

/// Gives the rows with IDs above `after` and up to `upTo` to `take`, until that returns false; whether it did. Of a
/// cell that is too large its size is given.
device::Result<bool> readRows(const device_db::Database &database, const Stream &stream, qint64 after, qint64 upTo,
                              const std::function<bool(const RowEncoder &)> &take);

device::Result<Head> readHead(const device_db::Database &database, const Stream &stream);

/// Reads what is new in a stream's table. The budget becomes smaller.
device::Result<Piece> readPiece(const device_db::Database &database, Stream &stream, Budget &budget);

/// The rows of a stream with IDs above `after` and up to `upTo`: some of them, spread evenly, the newest among them.
device::Result<QList<RowMark>> sampleRows(const device_db::Database &database, const Stream &stream, qint64 after,
                                          qint64 upTo);

/// The ends of the next alarms after `after`, up to the watermark. Nothing if the table may be in another life than
/// when it was judged: the ends are not those of the archive's rows then.
device::Result<std::optional<QList<AlarmEnd>>> readEnds(const device_db::Database &database, const Stream &stream,
                                                        qint64 after);

} // namespace device_ship

#endif
