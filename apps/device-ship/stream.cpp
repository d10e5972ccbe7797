// SPDX-License-Identifier: MIT
#include "stream.h"

#include "device/number.h"

#include <algorithm>
#include <limits>

#include <sqlite3.h>

namespace device_ship
{

using device::Result;
using device_db::Database;
using device_db::identifier;
using device_db::Kind;
using device_db::Statement;

namespace
{

constexpr int mostSamples = 32;
constexpr int mostEnds = 2000;

QByteArray selectRows(const Stream &stream)
{
    return "select " + device_db::columnList(stream.kind) + " from " + identifier(stream.table) + ' ';
}

// IDs never come again below the counter, and the counter never falls below a row: a reset of a table with rows
// changes nothing. The counter alone is 0 then; the highest ID alone, after all rows were removed. A counter that
// somebody made a text is the integer from which SQLite goes on. A file in which no table has one has no list of them.
// Rows below 1, which no device gives, are not shipped.
Result<qint64> lastIdOf(const Database &database, const Stream &stream)
{
    const QByteArray highest = "max(0,ifnull((select max(ID) from " + identifier(stream.table) + "),0))";
    auto counter = database.prepare("select max(ifnull((select max(cast(seq as integer)) from sqlite_sequence "
                                    "where name=?1),0)," +
                                    highest + ')');
    if (!counter) {
        const auto lists = database.number("select count(*) from sqlite_master where name='sqlite_sequence'");
        if (!lists)
            return lists;
        return *lists == 0 ? database.number("select " + highest) : counter.error();
    }
    counter->bind(1, stream.table.toUtf8());
    if (counter->step())
        return counter->number(0);
    return counter->status().error(); // it has one row
}

// 0 for none.
Result<qint64> nextId(const Database &database, const Stream &stream, qint64 after)
{
    return database.number("select ifnull(min(ID),0) from " + identifier(stream.table) + " where ID>" +
                           QByteArray::number(after));
}

QByteArray tooLarge()
{
    return "larger than " + QByteArray::number(largestCell) + " bytes";
}

// A cell that is too large, or refused, is given by its size.
Result<RowEncoder::Cell> readCell(const Database &database, const Stream &stream, const char *column, qint64 id,
                                  const QByteArray &refusal)
{
    auto row = database.prepare(QByteArray("select ") + column + " from " + identifier(stream.table) +
                                " where ID=" + QByteArray::number(id));
    if (!row)
        return row.error();
    if (row->step()) {
        const int type = row->type(0);
        const QByteArray cell = type == SQLITE_FLOAT ? device::numberText(row->real(0)).toUtf8() : row->cell(0);
        return RowEncoder::Cell{type, cell, refusal.isEmpty() ? -1 : qint64(cell.size()), refusal};
    }
    if (const auto status = row->status(); !status && !row->wasTooBig())
        return status.error();
    sqlite3_blob *blob = nullptr;
    const int code =
        sqlite3_blob_open(database.handle(), "main", stream.table.toUtf8().constData(), column, id, 0, &blob);
    const qint64 size = code == SQLITE_OK ? sqlite3_blob_bytes(blob) : 0;
    sqlite3_blob_close(blob);
    return RowEncoder::Cell{0, {}, size, tooLarge()};
}

// The next row, of which not all cells are read: those that are too large, or with a refusal none.
Result<qint64> readByCells(const Database &database, const Stream &stream, qint64 after, const QByteArray &refusal,
                           RowEncoder &encoder)
{
    const auto id = nextId(database, stream, after);
    if (!id)
        return id;
    QList<RowEncoder::Cell> cells;
    qint64 room = largestCell;
    for (const device_db::KnownColumn &column : device_db::columnsOf(stream.kind)) {
        auto cell = readCell(database, stream, column.name, *id, refusal);
        if (!cell)
            return cell.error();
        if (cell->refused < 0 && cell->bytes.size() > room)
            *cell = {0, {}, qint64(cell->bytes.size()), tooLarge() + " with the cells before it"};
        else if (cell->refused < 0)
            room -= cell->bytes.size();
        cells << *cell;
    }
    encoder.read(*id, std::move(cells));
    return id;
}

Result<std::optional<RowMark>> newestUpTo(const Database &database, const Stream &stream, qint64 id)
{
    RowEncoder encoder(stream.kind);
    auto rows = database.prepare(selectRows(stream) + "where ID<=?1 order by ID desc limit 1");
    if (!rows)
        return rows.error();
    rows->bind(1, id);
    const bool isThere = rows->step();
    if (isThere ? !encoder.read(*rows) : rows->wasTooBig()) {
        const auto newest =
            database.number("select max(ID) from " + identifier(stream.table) + " where ID<=" + QByteArray::number(id));
        if (!newest)
            return newest.error();
        if (const auto read = readByCells(database, stream, *newest - 1, {}, encoder); !read)
            return read.error();
    } else if (const auto status = rows->status(); !isThere && !status) {
        return status.error();
    } else if (!isThere) {
        return std::optional<RowMark>();
    }
    return std::optional<RowMark>(RowMark{encoder.id(), encoder.digest()});
}

device::Status readNew(const Database &database, Piece &piece, Budget &budget)
{
    const Stream &stream = *piece.stream;
    const Refusal &refusal = stream.refusal;
    qint64 last = stream.watermark;
    const qint64 room = budget.bytes;
    const auto take = [&](const RowEncoder &row) {
        row.appendTo(piece.lines, stream.number, stream.generation);
        last = row.id();
        if (row.isActive())
            piece.active << last;
        ++piece.rows;
        --budget.rows;
        return budget.rows > 0 && piece.rows < refusal.mostRows && piece.lines.size() < room;
    };
    if (budget.rows <= 0 || room <= 0) {
        piece.more = piece.lastId > last;
        return {};
    }
    const auto next = refusal.id > 0 ? nextId(database, stream, last) : Result<qint64>(0);
    if (!next)
        return next.error();
    if (refusal.id > 0 && *next == refusal.id) {
        RowEncoder encoder(stream.kind);
        if (const auto id = readByCells(database, stream, last, refusal.why, encoder); !id)
            return id.error();
        take(encoder);
        piece.more = true;
    } else {
        const auto stopped = readRows(database, stream, last, std::numeric_limits<qint64>::max(), take);
        if (!stopped)
            return stopped.error();
        piece.more = *stopped || (piece.rows > 0 && last < piece.lastId); // the rest is gone, as the next look finds
    }
    budget.bytes -= piece.lines.size();
    if (piece.rows == 0)
        return {};
    const auto mark = newestUpTo(database, stream, last);
    if (!mark)
        return mark.error();
    piece.last = *mark;
    return {};
}

Result<RowEncoder::End> readEndByCells(const Database &database, const Stream &stream, qint64 id)
{
    const auto date = readCell(database, stream, "EndDate", id, {});
    if (!date)
        return date.error();
    const auto time = readCell(database, stream, "EndTime", id, {});
    if (!time)
        return time.error();
    return RowEncoder::readEnd(*date, *time);
}

device::Status readActive(const Database &database, Piece &piece)
{
    const Stream &stream = *piece.stream;
    auto row = database.prepare("select EndDate,EndTime from " + identifier(stream.table) + " where ID=?1");
    if (!row)
        return row.error();
    qint64 size = 0;
    for (const qint64 id : stream.active) {
        row->reset();
        row->bind(1, id);
        RowEncoder::End end;
        if (row->step()) {
            end = RowEncoder::readEnd(*row, 0, 1);
        } else if (row->wasTooBig()) {
            const auto read = readEndByCells(database, stream, id);
            if (!read)
                return read.error();
            end = *read;
        } else if (const auto status = row->status(); !status) {
            return status;
        } else {
            piece.gone << id;
            continue;
        }
        if (end == RowEncoder::End{"", "", {}})
            continue;
        piece.ends.append({id, end});
        size += end.size();
        if (size > largestCell)
            break; // the others at another look
    }
    return {};
}

} // namespace

Result<bool> readRows(const Database &database, const Stream &stream, qint64 after, qint64 upTo,
                      const std::function<bool(const RowEncoder &)> &take)
{
    auto rows = database.prepare(selectRows(stream) + "where ID>?1 and ID<=?2 order by ID");
    if (!rows)
        return rows.error();
    RowEncoder encoder(stream.kind);
    for (;;) {
        rows->reset();
        rows->bind(1, after);
        rows->bind(2, upTo);
        bool isWhole = true;
        while (rows->step()) {
            isWhole = encoder.read(*rows);
            if (!isWhole)
                break;
            after = encoder.id();
            if (!take(encoder))
                return true;
        }
        if (isWhole && !rows->wasTooBig()) {
            const auto status = rows->status();
            return status ? Result<bool>(false) : status.error();
        }
        const auto id = readByCells(database, stream, after, {}, encoder);
        if (!id)
            return id.error();
        after = *id;
        if (!take(encoder))
            return true;
    }
}

Result<Head> readHead(const Database &database, const Stream &stream)
{
    const auto lastId = lastIdOf(database, stream);
    if (!lastId)
        return lastId.error();
    const auto newest = newestUpTo(database, stream, stream.watermark);
    if (!newest)
        return newest.error();
    return Head{*lastId, *newest};
}

Result<Piece> readPiece(const Database &database, Stream &stream, Budget &budget)
{
    const auto head = readHead(database, stream);
    if (!head)
        return head.error();
    Piece piece;
    piece.lastId = head->lastId;
    piece.newest = head->newest;
    piece.stream = &stream;
    if (piece.lastId < stream.watermark)
        return piece; // another generation, to be judged first
    if (stream.kind == Kind::Alarms) {
        if (const auto status = readActive(database, piece); !status)
            return status.error();
    }
    if (const auto status = readNew(database, piece, budget); !status)
        return status.error();
    return piece;
}

Result<QList<RowMark>> sampleRows(const Database &database, const Stream &stream, qint64 after, qint64 upTo)
{
    QList<RowMark> marks;
    const qint64 step = (upTo - after) / mostSamples + 1;
    qint64 below = upTo;
    qint64 spaced = upTo;
    while (below > after) {
        const auto mark = newestUpTo(database, stream, below);
        if (!mark)
            return mark.error();
        if (!*mark || (*mark)->id <= after)
            break;
        marks.prepend(**mark);
        spaced = std::max(after, spaced - step);
        below = std::min((*mark)->id - 1, spaced);
    }
    return marks;
}

Result<std::optional<QList<AlarmEnd>>> readEnds(const Database &database, const Stream &stream, qint64 after)
{
    const auto head = readHead(database, stream);
    if (!head)
        return head.error();
    if (head->lastId < stream.watermark || (head->newest && head->newest != stream.known))
        return std::optional<QList<AlarmEnd>>();
    auto rows = database.prepare("select ID,EndDate,EndTime from " + identifier(stream.table) +
                                 " where ID>?1 and ID<=?2 order by ID limit ?3");
    if (!rows)
        return rows.error();
    QList<AlarmEnd> ends;
    qint64 size = 0;
    const auto take = [&](qint64 id, const RowEncoder::End &end) {
        ends.append({id, end});
        size += end.size();
    };
    for (;;) {
        rows->reset();
        rows->bind(1, after);
        rows->bind(2, stream.watermark);
        rows->bind(3, qint64(mostEnds));
        while (size <= largestCell && rows->step())
            take(rows->number(0), RowEncoder::readEnd(*rows, 1, 2));
        if (size > largestCell)
            return std::optional(ends);
        if (!rows->wasTooBig()) {
            if (const auto status = rows->status(); !status)
                return status.error();
            return std::optional(ends);
        }
        const auto id = nextId(database, stream, ends.isEmpty() ? after : ends.last().id);
        if (!id)
            return id.error();
        const auto end = readEndByCells(database, stream, *id);
        if (!end)
            return end.error();
        take(*id, *end);
        after = *id;
        if (ends.size() >= mostEnds)
            return std::optional(ends);
    }
}

} // namespace device_ship
