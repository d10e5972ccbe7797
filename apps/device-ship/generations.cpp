// SPDX-License-Identifier: MIT
//
// Where a table begins another life: it was emptied and its IDs start again, or an old file was put back.
#include "shipper.h"

namespace device_ship
{

using device_db::Database;

// Whether the archive's generation is still that of the file. That a row is gone proves nothing; that its cells differ
// which no device changes, or that the counter of the IDs fell, does.
Result<bool> Shipper::continues(File &file, const Piece &piece)
{
    Stream &stream = *piece.stream;
    QByteArray reason;
    if (piece.lastId < stream.watermark) {
        reason = "the highest ID ever given is " + QByteArray::number(piece.lastId) + ", below " +
                 QByteArray::number(stream.watermark);
    } else if (piece.newest && piece.newest != stream.known) {
        const auto same = m_archive->judge(stream, stream.generation, {*piece.newest});
        if (!same)
            return same.error();
        if (same->value(piece.newest->id, true)) {
            stream.known = piece.newest;
            return true;
        }
        reason = "row " + QByteArray::number(piece.newest->id) + " is another one";
    } else {
        return true;
    }
    if (const Status begun = beginGeneration(file, piece, reason); !begun)
        return begun.error();
    return false;
}

Status Shipper::beginGeneration(File &file, const Piece &piece, const QByteArray &reason)
{
    const Stream &stream = *piece.stream;
    // The file may be of any former life.
    qint64 after = 0;
    int parent = stream.generation;
    for (int generation = stream.generation; generation > 0; --generation) {
        const auto shared = lastShared(file, stream, generation, piece.lastId);
        if (!shared)
            return shared.error();
        if (!*shared)
            return {}; // the file cannot be read now
        if (**shared > after) {
            after = **shared;
            parent = generation;
        }
    }
    return m_archive->beginGeneration(stream, parent, after, reason);
}

// The highest ID up to which the rows of the file are those of a generation, 0 for none: the two have parted once, so
// some rows say between which of them to look on.
Result<std::optional<qint64>> Shipper::lastShared(File &file, const Stream &stream, int generation, qint64 upTo)
{
    qint64 shared = 0;
    for (;;) {
        QList<RowMark> rows;
        bool all = false;
        const Status read = file.reader.read([&](const Database &database) -> Status {
            auto found = sampleRows(database, stream, shared, upTo, all);
            if (!found)
                return found.error();
            rows = *found;
            return {};
        });
        if (!read) {
            file.trouble = device_db::oneLine(read.error());
            return std::optional<qint64>();
        }
        if (rows.isEmpty())
            return std::optional<qint64>(shared);
        const auto same = m_archive->judge(stream, generation, rows);
        if (!same)
            return same.error();
        for (const RowMark &row : rows) {
            if (same->value(row.id, false))
                shared = row.id;
        }
        for (const RowMark &row : rows) {
            if (row.id > shared) {
                upTo = row.id - 1;
                break;
            }
        }
        if (all || shared == rows.last().id)
            return std::optional<qint64>(shared);
    }
}

} // namespace device_ship
