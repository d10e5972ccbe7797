// SPDX-License-Identifier: MIT
#include "verify.h"

#include "device_archive.h"
#include "store_reader.h"
#include "storefile/texts.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace device_ship
{

using device_db::Database;
using device_db::Kind;

namespace
{

constexpr int rowsPerRange = 2000;
constexpr qint64 bytesPerRange = 2 * 1024 * 1024;

struct Range {
    qint64 lastId = 0; ///< As Head::lastId.
    QList<RowMark> rows;
    QList<RowMark> rests;
    qint64 digest = 0;
    QMap<qint64, QByteArray> lines; ///< Of the wanted rows, for COPY, by the IDs.
    QList<RowMark> later;           ///< Some rows after it, the newest among them, if any are wanted.
};

struct Found {
    qint64 rows = 0;
    QList<qint64> different;
    QList<qint64> missing;
    qint64 repaired = 0;
    QString trouble;          ///< Why others are not.
    qint64 dropped = 0;       ///< The archive no longer keeps their month.
    qint64 refused = 0;       ///< By the archive, which has them without their cells.
    qint64 waiting = 0;       ///< To be shipped.
    bool anotherLife = false; ///< The file is not, or no longer, in the archive's generation.
};

// The next rows after an ID, all as they are at one moment.
Result<Range> readRange(StoreReader &file, const Stream &stream, qint64 after, const QSet<qint64> &wanted)
{
    Range range;
    const Status read = file.read([&](const Database &database) -> Status {
        range = Range();
        const auto head = readHead(database, stream);
        if (!head)
            return head.error();
        range.lastId = head->lastId;
        qint64 bytes = 0;
        QByteArray line;
        const auto done = readRows(database, stream, after, stream.watermark, [&](const RowEncoder &row) {
            range.rows.append({row.id(), row.digest()});
            range.digest ^= range.rows.last().digest;
            if (stream.kind != Kind::Log)
                range.rests.append({row.id(), row.rest()});
            line.resize(0);
            row.appendTo(line, stream.number, stream.generation);
            bytes += line.size();
            if (wanted.contains(row.id()))
                range.lines.insert(row.id(), line);
            return range.rows.size() < rowsPerRange && bytes < bytesPerRange;
        });
        if (!done)
            return done.error();
        if (wanted.isEmpty() || range.rows.isEmpty())
            return {};
        const auto later = sampleRows(database, stream, range.rows.last().id, stream.watermark);
        if (!later)
            return later.error();
        range.later = *later;
        return {};
    });
    if (!read)
        return read.error();
    return range;
}

Status repair(ArchiveConnection &owner, int device, const Stream &stream, const QByteArray &lines)
{
    const QByteArray kind = RowEncoder::tableOf(stream.kind);
    const QByteArray columns = RowEncoder::columnsOf(stream.kind);
    return owner.copy("begin; create temporary table repair on commit drop as select " + columns + " from fleet." +
                          kind + " with no data; copy repair from stdin; select fleet.repair(" +
                          QByteArray::number(device) + ", '" + kind + "'); commit",
                      {lines});
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

struct Doubts {
    QList<qint64> different;
    QList<qint64> missing;
    qint64 dropped = 0;
    qint64 refused = 0;
    QList<qint64> all() const { return different + missing; }
};

// Whether IDs start again, or the newest row up to the watermark that both have is another one: as the shipper judges,
// which is to begin a generation first. Rows of another life must not take the place of the archive's. File and archive
// part once, so where the newest row is the same, an older one that differs was changed in the archive; or the newest
// is equal by chance, and then the archive has the others as they were sent, and leaves them.
Result<bool> isAnotherLife(DeviceArchive &archive, const Stream &stream, const Range &range)
{
    if (range.lastId < stream.watermark)
        return true;
    const auto same = archive.judge(stream, stream.generation, range.rows + range.later);
    return same ? Result<bool>(!same->isEmpty() && !same->last()) : same.error();
}

Result<Doubts> judgeRange(DeviceArchive &archive, const Stream &stream, const Range &range, qint64 droppedTo)
{
    Doubts doubts;
    if (range.rows.isEmpty())
        return doubts;
    const auto archived = archive.rangeDigest(stream, stream.generation, range.rows.first().id, range.rows.last().id);
    if (!archived)
        return archived.error();
    const auto rest = archive.judgeRest(stream, range.rests);
    if (!rest)
        return rest.error();
    if (*archived == QPair<qint64, qint64>(range.rows.size(), range.digest) && rest->isEmpty())
        return doubts;
    const auto same = archive.judge(stream, stream.generation, range.rows);
    if (!same)
        return same.error();
    for (const RowMark &row : range.rows) {
        if (same->value(row.id, false) && !rest->contains(row.id))
            continue;
        if (same->contains(row.id)) {
            doubts.different << row.id;
            continue;
        }
        if (row.id <= droppedTo) {
            ++doubts.dropped;
            continue;
        }
        const auto there = archive.rangeDigest(stream, stream.generation, row.id, row.id);
        if (!there)
            return there.error();
        if (there->first > 0)
            ++doubts.refused;
        else
            doubts.missing << row.id;
    }
    return doubts;
}

// Until the rows in the file are those that were put: where an end came in between, a shipper has brought it, and it
// was overwritten.
Status repairRows(DeviceArchive &archive, ArchiveConnection &owner, int device, StoreReader &file, const Stream &stream,
                  qint64 after, Range range)
{
    while (!range.lines.isEmpty()) {
        QByteArray lines;
        for (const QByteArray &line : std::as_const(range.lines))
            lines += line;
        if (const Status put = repair(owner, device, stream, lines); !put)
            return put;
        auto now = readRange(file, stream, after, {range.lines.keyBegin(), range.lines.keyEnd()});
        if (!now)
            return now.error();
        const auto another = isAnotherLife(archive, stream, *now);
        if (!another)
            return another.error();
        if (*another)
            return {};
        QMap<qint64, QByteArray> changed;
        for (const RowMark &row : std::as_const(now->rows)) {
            const QByteArray line = now->lines.value(row.id);
            if (!line.isEmpty() && line != range.lines.value(row.id) && range.rows.contains(row))
                changed.insert(row.id, line);
        }
        range = std::move(*now);
        range.lines = changed;
    }
    return {};
}

Result<Found> compare(DeviceArchive &archive, StoreReader &file, const Stream &stream, int device,
                      ArchiveConnection *owner)
{
    Found found;
    const auto droppedTo = archive.droppedTo(stream);
    if (!droppedTo)
        return droppedTo.error();
    for (qint64 after = 0;;) {
        auto range = readRange(file, stream, after, {});
        if (!range)
            return range.error();
        auto doubts = judgeRange(archive, stream, *range, *droppedTo);
        if (!doubts)
            return doubts.error();
        found.anotherLife = range->lastId < stream.watermark;
        const QList<qint64> suspected = doubts->all();
        if (!suspected.isEmpty()) {
            // An end may have come between the two looks at the same row: what is wrong stays so.
            const QSet<qint64> wanted(suspected.begin(), suspected.end());
            range = readRange(file, stream, after, wanted);
            if (!range)
                return range.error();
            doubts = judgeRange(archive, stream, *range, *droppedTo);
            if (!doubts)
                return doubts.error();
            const auto another = isAnotherLife(archive, stream, *range);
            if (!another)
                return another.error();
            found.anotherLife = *another;
            const auto isNew = [&](qint64 id) { return !wanted.contains(id); };
            for (QList<qint64> *const ids : {&doubts->different, &doubts->missing})
                ids->erase(std::remove_if(ids->begin(), ids->end(), isNew), ids->end());
        }
        if (found.anotherLife)
            return found;
        if (range->rows.isEmpty())
            break;
        found.rows += range->rows.size();
        found.different += doubts->different;
        found.missing += doubts->missing;
        found.dropped += doubts->dropped;
        found.refused += doubts->refused;
        if (owner && !doubts->all().isEmpty()) {
            const QMap<qint64, QByteArray> lines = std::exchange(range->lines, {});
            for (const qint64 id : doubts->all())
                range->lines.insert(id, lines.value(id));
            if (const Status done = repairRows(archive, *owner, device, file, stream, after, *range); !done)
                found.trouble = device_db::oneLine(done.error());
            // As the device sees it: what has the archive's name may be a copy of it.
            const auto now = readRange(file, stream, after, {});
            if (!now)
                return now.error();
            const auto still = judgeRange(archive, stream, *now, *droppedTo);
            if (!still)
                return still.error();
            const QList<qint64> wrong = still->all();
            found.repaired += std::count_if(range->lines.keyBegin(), range->lines.keyEnd(),
                                            [&](qint64 id) { return !wrong.contains(id); });
        }
        after = range->rows.last().id;
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
    if (owner) {
        const auto verified = archive->identity();
        if (!verified)
            return verified.error();
        const auto repaired = owner->identity();
        if (!repaired)
            return repaired.error();
        if (*verified != *repaired)
            return device_db::failure(QStringLiteral("archive"),
                                      QStringLiteral("--repair-as names another archive than the configuration; "
                                                     "nothing was verified"));
    }
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
                continue;
            }
            if (named->kind != stream.kind)
                continue; // another kind of table has its name: another stream
            const auto found = compare(*archive, file, stream, configuration.device, owner);
            if (!found)
                return found.error();
            if (found->anotherLife) {
                std::printf("%s %s: the file is in another life of the table than the archive; let the shipper run "
                            "first\n",
                            configured.name.toUtf8().constData(), stream.table.toUtf8().constData());
                equal = false;
                continue;
            }
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
            if (owner && wrong != found->repaired)
                std::printf(", %lld not put right", static_cast<long long>(wrong - found->repaired));
            if (found->refused)
                std::printf(", %s recorded as refused", counted(found->refused, "is", "are").constData());
            if (!wrong)
                std::printf(found->refused ? ", all others equal" : ", all equal");
            if (found->waiting)
                std::printf(", %s to be shipped", counted(found->waiting, "waits", "wait").constData());
            if (found->dropped)
                std::printf("; %s the archive no longer keeps",
                            device_db::rowsText(found->dropped).toUtf8().constData());
            if (!found->trouble.isEmpty())
                std::printf("; %s", device_db::visible(found->trouble).toUtf8().constData());
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
