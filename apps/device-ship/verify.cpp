// SPDX-License-Identifier: MIT
#include "verify.h"

#include "device_archive.h"
#include "store_reader.h"
#include "storefile/texts.h"

#include <algorithm>
#include <cstdio>

namespace device_ship
{

using device_db::Database;
using device_db::Kind;

namespace
{

constexpr int rowsPerRange = 2000;

struct Range {
    QList<RowMark> rows;
    QList<RowMark> rests;
    QMap<qint64, QByteArray> lines; ///< For COPY, by the IDs.
    qint64 digest = 0;
};

struct Found {
    qint64 rows = 0;
    QList<qint64> different;
    QList<qint64> missing;
    qint64 repaired = 0;
    qint64 dropped = 0; ///< The archive no longer keeps their month.
    qint64 refused = 0; ///< By the archive, which has them without their cells.
    qint64 waiting = 0; ///< To be shipped.
};

Result<Range> readRange(StoreReader &file, const Stream &stream, qint64 after)
{
    Range range;
    const Status read = file.read([&](const Database &database) -> Status {
        range = Range();
        const auto done = readRows(database, stream, after, stream.watermark, [&](const RowEncoder &row) {
            range.rows.append({row.id(), row.digest()});
            range.digest ^= range.rows.last().digest;
            if (stream.kind != Kind::Log)
                range.rests.append({row.id(), row.rest()});
            row.appendTo(range.lines[row.id()], stream.number, stream.generation);
            return range.rows.size() < rowsPerRange;
        });
        return done ? Status() : done.error();
    });
    if (!read)
        return read.error();
    return range;
}

Result<qint64> repair(ArchiveConnection &owner, int device, const Stream &stream, const QByteArray &lines)
{
    const QByteArray kind = RowEncoder::tableOf(stream.kind);
    const QByteArray columns = RowEncoder::columnsOf(stream.kind);
    const Status put =
        owner.copy("begin; create temporary table repair on commit drop as select " + columns + " from fleet." + kind +
                       " with no data; copy repair from stdin; select "
                       "fleet.repair(" +
                       QByteArray::number(device) + ", '" + kind + "'); commit",
                   {lines});
    if (!put)
        return put.error();
    return qint64(lines.count('\n'));
}

Result<qint64> waitingRows(StoreReader &file, const QString &table, qint64 watermark)
{
    qint64 rows = 0;
    const Status read = file.read([&](const Database &database) -> Status {
        const auto found = database.number("select count(*) from " + device_db::identifier(table) + " where ID>" +
                                           QByteArray::number(watermark));
        if (!found)
            return found.error();
        rows = *found;
        return {};
    });
    return read ? Result<qint64>(rows) : read.error();
}

Result<Found> compare(DeviceArchive &archive, StoreReader &file, const Stream &stream, int device,
                      ArchiveConnection *owner)
{
    Found found;
    const auto droppedTo = archive.droppedTo(stream);
    if (!droppedTo)
        return droppedTo.error();
    qint64 after = 0;
    for (;;) {
        const auto range = readRange(file, stream, after);
        if (!range)
            return range.error();
        if (range->rows.isEmpty())
            break;
        found.rows += range->rows.size();
        after = range->rows.last().id;
        const auto archived = archive.rangeDigest(stream, range->rows.first().id, after);
        if (!archived)
            return archived.error();
        const auto rest = archive.judgeRest(stream, range->rests);
        if (!rest)
            return rest.error();
        const bool isEqual = *archived == QPair<qint64, qint64>(range->rows.size(), range->digest);
        if (isEqual && rest->isEmpty())
            continue;
        const auto same = archive.judge(stream, stream.generation, range->rows);
        if (!same)
            return same.error();
        QByteArray wrong;
        for (const RowMark &row : range->rows) {
            if (same->value(row.id, false) && !rest->contains(row.id))
                continue;
            if (row.id <= *droppedTo && !same->contains(row.id)) {
                ++found.dropped;
                continue;
            }
            if (!same->contains(row.id)) {
                const auto there = archive.rangeDigest(stream, row.id, row.id);
                if (!there)
                    return there.error();
                if (there->first > 0) {
                    ++found.refused;
                    continue;
                }
            }
            (same->contains(row.id) ? found.different : found.missing) << row.id;
            wrong += range->lines.value(row.id);
        }
        if (!owner || wrong.isEmpty())
            continue;
        const auto repaired = repair(*owner, device, stream, wrong);
        if (!repaired)
            return repaired.error();
        found.repaired += *repaired;
    }
    const auto waiting = waitingRows(file, stream.table, stream.watermark);
    if (!waiting)
        return waiting.error();
    found.waiting = *waiting;
    return found;
}

QByteArray counted(qint64 rows, const char *one, const char *more)
{
    return device_db::rowsText(rows).toUtf8() + ' ' + (rows == 1 ? one : more);
}

QByteArray listed(const QList<qint64> &ids)
{
    QByteArray text;
    for (int i = 0; i < int(ids.size()) && i < 5; ++i)
        text += (i ? ", " : "") + QByteArray::number(ids.at(i));
    return ids.size() > 5 ? text + " ..." : text;
}

} // namespace

Result<bool> verify(const Configuration &configuration, ArchiveConnection *owner)
{
    auto archive = DeviceArchive::open(configuration.archive, configuration.zone);
    if (!archive)
        return archive.error();
    const auto streams = archive->streams();
    if (!streams)
        return streams.error();
    bool equal = true;
    for (const ConfiguredFile &configured : configuration.files) {
        StoreReader file(configured);
        const Status looked = file.read([&](const Database &database) -> Status {
            const auto changed = file.tablesChanged(database);
            return changed ? Status() : changed.error();
        });
        if (!looked)
            return looked.error();
        for (const Stream &stream : *streams) {
            if (stream.file != configured.name)
                continue;
            const auto named = std::find_if(file.tables().begin(), file.tables().end(),
                                            [&](const device_db::Table &table) { return table.name == stream.table; });
            if (named == file.tables().end()) {
                std::printf("%s %s: gone from the file, or with other columns there\n",
                            configured.name.toUtf8().constData(), stream.table.toUtf8().constData());
                equal = false;
            }
            if (named == file.tables().end() || named->kind != stream.kind)
                continue; // another kind of table has its name: another stream
            const auto found = compare(*archive, file, stream, configuration.device, owner);
            if (!found)
                return found.error();
            const qint64 wrong = found->different.size() + found->missing.size();
            equal &= wrong == found->repaired;
            std::printf("%s %s: %s compared", configured.name.toUtf8().constData(), stream.table.toUtf8().constData(),
                        device_db::rowsText(found->rows - found->dropped).toUtf8().constData());
            if (!found->different.isEmpty())
                std::printf(", %s (ID %s)", counted(found->different.size(), "differs", "differ").constData(),
                            listed(found->different).constData());
            if (!found->missing.isEmpty())
                std::printf(", %s (ID %s)", counted(found->missing.size(), "missing", "missing").constData(),
                            listed(found->missing).constData());
            if (found->repaired)
                std::printf(", %lld put right", static_cast<long long>(found->repaired));
            if (found->refused)
                std::printf(", %s recorded as refused", counted(found->refused, "is", "are").constData());
            if (!wrong)
                std::printf(found->refused ? ", all others equal" : ", all equal");
            if (found->waiting)
                std::printf(", %s to be shipped", counted(found->waiting, "waits", "wait").constData());
            if (found->dropped)
                std::printf("; %s the archive no longer keeps",
                            device_db::rowsText(found->dropped).toUtf8().constData());
            std::printf("\n");
        }
        for (const device_db::Table &table : file.tables()) {
            const bool isKnown = std::any_of(streams->begin(), streams->end(), [&](const Stream &stream) {
                return stream.file == configured.name && stream.table == table.name && stream.kind == table.kind;
            });
            if (isKnown)
                continue;
            const auto waiting = waitingRows(file, table.name, 0);
            if (!waiting)
                return waiting.error();
            std::printf("%s %s: not known to the archive, %s to be shipped\n", configured.name.toUtf8().constData(),
                        table.name.toUtf8().constData(), counted(*waiting, "waits", "wait").constData());
        }
    }
    return equal;
}

} // namespace device_ship
