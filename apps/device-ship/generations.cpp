// SPDX-License-Identifier: MIT
//
// Where a table begins another life: it was emptied and its IDs start again, or an old file was put back.
#include "shipper.h"

namespace device_ship
{

using device_db::Database;

namespace
{

constexpr int mostRowsToJudge = 2000; // a read must be short

} // namespace

// Whether the archive's generation is still that of the file. That a row is gone proves nothing; that its cells differ
// which no device changes, that it is one which the archive passed over, or that the counter of the IDs fell, does.
// Only a row of its own proves that it is: before the first one arrives, or after the last one went, the rows that
// follow may be those of a former life. Nothing if the file cannot be read now, or has changed: a page may be damaged
// for ever that only this reads.
Result<std::optional<bool>> Shipper::continues(File &file, const Piece &piece)
{
    Stream &stream = *piece.stream;
    QByteArray reason;
    if (piece.lastId < stream.watermark) {
        reason = "the highest ID ever given is " + QByteArray::number(piece.lastId) + ", below " +
                 QByteArray::number(stream.watermark);
    } else if (piece.newest && piece.newest != stream.known) {
        std::optional<bool> same;
        const auto judged = judge(file, stream, *piece.newest, same);
        if (!judged)
            return judged.error();
        if (!*judged)
            return std::optional<bool>();
        if (same == false) {
            reason = "row " + QByteArray::number(piece.newest->id) + " is not the archive's";
        } else {
            stream.known = piece.newest;
            stream.isOwn = same.has_value() && piece.newest->id > stream.after;
        }
    }
    const bool isProven = piece.newest && stream.isOwn;
    if (reason.isEmpty() && (isProven || stream.generation == 1 || piece.lastId == stream.watermark))
        return std::optional(true);
    const auto shared = lastShared(file, piece);
    if (!shared)
        return shared.error();
    if (!*shared)
        return std::optional<bool>();
    if (reason.isEmpty()) {
        if ((*shared)->after <= stream.watermark)
            return std::optional(true);
        reason = "the rows after " + QByteArray::number(stream.watermark) + " are those of generation " +
                 QByteArray::number((*shared)->generation);
    }
    const Status begun = m_archive->beginGeneration(stream, (*shared)->generation, (*shared)->after, reason);
    if (!begun)
        return begun.error();
    return std::optional(false);
}

// Whether a row of the file is the archive's: nothing where neither the row says so nor, if the archive no longer keeps
// its month, the digest of its batch, of which the file must still have all. Where it refused the row's cells, or lost
// the row, the rows before it say. False if the file cannot be read now, or has changed.
Result<bool> Shipper::judge(File &file, const Stream &stream, const RowMark &row, std::optional<bool> &same)
{
    const auto judged = m_archive->judge(stream, stream.generation, {row});
    if (!judged)
        return judged.error();
    if (judged->contains(row.id)) {
        same = judged->value(row.id);
        return true;
    }
    const auto batch = m_archive->droppedBatch(stream, row.id);
    if (!batch)
        return batch.error();
    if (!*batch)
        return judgeByOthers(file, stream, row, same);
    qint64 rows = 0;
    qint64 digest = 0;
    bool isThere = false; // or the file is another one by now
    const Status read = file.reader.read([&](const Database &database) -> Status {
        rows = digest = 0;
        isThere = false;
        const auto done = readRows(database, stream, (*batch)->first - 1, (*batch)->last, [&](const RowEncoder &each) {
            ++rows;
            digest ^= each.digest();
            isThere |= RowMark{each.id(), each.digest()} == row;
            return true;
        });
        return done ? Status() : done.error();
    });
    if (!read) {
        file.trouble = device_db::oneLine(read.error());
        return false;
    }
    if (!isThere)
        return false;
    if (rows == (*batch)->rows)
        same = digest == (*batch)->digest;
    return true;
}

// Nothing if the file cannot be read now.
std::optional<QList<RowMark>> Shipper::nextRows(File &file, const Stream &stream, qint64 after, qint64 upTo)
{
    QList<RowMark> rows;
    const Status read = file.reader.read([&](const Database &database) -> Status {
        rows.clear();
        const auto done = readRows(database, stream, after, upTo, [&](const RowEncoder &row) {
            rows.append({row.id(), row.digest()});
            return rows.size() < mostRowsToJudge;
        });
        return done ? Status() : done.error();
    });
    if (read)
        return rows;
    file.trouble = device_db::oneLine(read.error());
    return std::nullopt;
}

// By the highest of some rows before it that both have: an older one that differs was changed in the archive. That one
// is equal does not prove that this one is.
Result<bool> Shipper::judgeByOthers(File &file, const Stream &stream, const RowMark &row, std::optional<bool> &same)
{
    QList<RowMark> rows;
    const Status read = file.reader.read([&](const Database &database) -> Status {
        const auto found = sampleRows(database, stream, 0, row.id - 1);
        if (!found)
            return found.error();
        rows = *found;
        return {};
    });
    if (!read) {
        file.trouble = device_db::oneLine(read.error());
        return false;
    }
    const auto judged = m_archive->judge(stream, stream.generation, rows);
    if (!judged)
        return judged.error();
    if (!judged->isEmpty() && !judged->last())
        same = false;
    return true;
}

// Where the file and the archive part. The file may be of any former life; one that does not share the next rows, too,
// is not compared from the first one on.
Result<std::optional<Shipper::Shared>> Shipper::lastShared(File &file, const Piece &piece)
{
    const Stream &stream = *piece.stream;
    Shared last{stream.generation, 0};
    for (int generation = stream.generation; generation > 0; --generation) {
        auto shared = lastSharedWith(file, stream, generation, last.after, piece.lastId);
        if (shared && *shared && last.after > 0 && **shared > last.after)
            shared = lastSharedWith(file, stream, generation, 0, piece.lastId);
        if (!shared)
            return shared.error();
        if (!*shared)
            return std::optional<Shared>();
        if (**shared > last.after)
            last = {generation, **shared};
    }
    return std::optional<Shared>(last);
}

// The highest ID up to which the rows of the file after `shared` are those of a generation. From below, because a row
// that is equal proves nothing of those below it: a device without a clock gives the same times in each life, and often
// the same values. What follows the first row that differs is stored, be it a second time. Where none differs, the rows
// after the last equal one may be those that the archive has refused: they are its own then.
Result<std::optional<qint64>> Shipper::lastSharedWith(File &file, const Stream &stream, int generation, qint64 shared,
                                                      qint64 upTo)
{
    for (qint64 after = shared;;) {
        const auto rows = nextRows(file, stream, after, upTo);
        if (!rows)
            return std::optional<qint64>();
        if (rows->isEmpty())
            break;
        after = rows->last().id;
        qint64 digest = 0;
        for (const RowMark &row : *rows)
            digest ^= row.digest;
        const auto archived = m_archive->rangeDigest(stream, generation, rows->first().id, after);
        if (!archived)
            return archived.error();
        if (*archived == QPair<qint64, qint64>(rows->size(), digest)) {
            shared = after;
            continue;
        }
        const auto same = m_archive->judge(stream, generation, *rows);
        if (!same)
            return same.error();
        for (auto each = same->constBegin(); each != same->constEnd(); ++each) {
            if (!each.value())
                return std::optional(shared);
            shared = each.key();
        }
    }
    const auto later = nextRows(file, stream, shared, upTo);
    if (!later)
        return std::optional<qint64>();
    for (const RowMark &row : *later) {
        const auto refused = m_archive->rangeDigest(stream, generation, row.id, row.id);
        if (!refused)
            return refused.error();
        if (refused->first == 0)
            break;
        shared = row.id;
    }
    return std::optional(shared);
}

} // namespace device_ship
