// SPDX-License-Identifier: MIT
#include "device_archive.h"

#include "schema.h"
#include "storefile/texts.h"

#include <algorithm>
#include <utility>

namespace device_ship
{

using device_db::arrayText;

using device_db::failure;
using device_db::Kind;

namespace
{

QByteArray text(qint64 number)
{
    return QByteArray::number(number);
}

Kind kindOf(const QByteArray &name)
{
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log}) {
        if (name == RowEncoder::tableOf(kind))
            return kind;
    }
    return Kind::Foreign;
}

} // namespace

Result<DeviceArchive> DeviceArchive::open(const QMap<QByteArray, QByteArray> &settings, const QString &zone)
{
    auto connection = ArchiveConnection::open(settings);
    if (!connection)
        return connection.error();
    DeviceArchive archive(std::move(connection).value());
    const auto version = archive.m_connection.query("select fleet.hello($1)", {zone.toUtf8()});
    if (!version)
        return version.error();
    if (version->first().first().toInt() < schemaVersion())
        return failure(QStringLiteral("archive"), QStringLiteral("it is of an earlier version; \"device-ship init\" of "
                                                                 "this version brings it up to date"));
    return archive;
}

// The key speaks before the fence, where a row is of the same month. A month that has ended takes no rows. Of two that
// wait for each other, one was quicker.
bool DeviceArchive::wasBehind() const
{
    const QByteArray state = m_connection.sqlState();
    return state == "FL001" || state == "23505" || state == "40P01" ||
           (state == "23514" && m_connection.constraint().isEmpty());
}

// A cell that is too large for an index of the owner's is of the limits of the program, as is a table's name. A device
// may have so many tables.
bool DeviceArchive::refusedRow() const
{
    const QByteArray state = m_connection.sqlState();
    return !wasBehind() && (state.startsWith("22") || state.startsWith("23") || state == "54000" || state == "FL003");
}

Status DeviceArchive::call(const QByteArray &function, const QList<QByteArray> &parameters)
{
    QByteArray sql = "select fleet." + function + '(';
    for (int i = 1; i <= int(parameters.size()); ++i)
        sql += (i > 1 ? ",$" : "$") + text(i);
    const auto answer = m_connection.query(sql + ')', parameters);
    return answer ? Status() : answer.error();
}

Result<QList<Stream>> DeviceArchive::streams()
{
    const auto part = m_connection.query("select fleet.part()");
    if (!part)
        return part.error();
    m_part = part->first().first();
    const auto rows = m_connection.query("select tbl, file, name, kind, gen, wm, after from fleet.state()");
    if (!rows)
        return rows.error();
    QList<Stream> streams;
    for (const QList<QByteArray> &row : *rows) {
        Stream stream;
        stream.number = row.at(0).toInt();
        stream.file = device_db::fromUtf8(row.at(1));
        stream.table = device_db::fromUtf8(row.at(2));
        stream.kind = kindOf(row.at(3));
        stream.generation = row.at(4).toInt();
        stream.watermark = row.at(5).toLongLong();
        stream.after = row.at(6).toLongLong();
        streams << stream;
    }
    return streams;
}

Status DeviceArchive::enrol(const Stream &stream)
{
    return call("enrol", {stream.file.toUtf8(), stream.table.toUtf8(), RowEncoder::tableOf(stream.kind)});
}

Status DeviceArchive::describe(const Stream &stream, const QByteArray &title, const QByteArray &unit,
                               const QByteArray &description)
{
    // A null array would be NULL.
    const auto orEmpty = [](const QByteArray &cell) {
        return !isText({cell.constData(), size_t(cell.size())}) || cell.isNull() ? QByteArray("") : cell;
    };
    return call("describe", {text(stream.number), orEmpty(title), orEmpty(unit), orEmpty(description)});
}

Status DeviceArchive::ship(const QList<Piece> &pieces)
{
    // In the order of their numbers, so that two shippers do not wait for each other's keys.
    QList<const Piece *> sorted;
    for (const Piece &piece : pieces)
        sorted << &piece;
    std::sort(sorted.begin(), sorted.end(),
              [](const Piece *a, const Piece *b) { return a->stream->number < b->stream->number; });
    QByteArray sql("begin;");
    QList<QByteArray> data;
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log}) {
        QByteArray lines;
        for (const Piece *piece : std::as_const(sorted)) {
            if (piece->stream->kind == kind)
                lines += piece->lines;
        }
        if (lines.isEmpty())
            continue;
        sql += QByteArray("copy fleet.") + RowEncoder::tableOf(kind) + m_part + '(' + RowEncoder::columnsOf(kind) +
               ") from stdin;";
        data << lines;
    }
    return m_connection.copy(sql + "commit", data);
}

Status DeviceArchive::skip(const Stream &stream, qint64 upTo)
{
    return call("skip", {text(stream.number), text(stream.generation), text(stream.watermark), text(upTo)});
}

Result<QMap<qint64, bool>> DeviceArchive::judge(const Stream &stream, int generation, const QList<RowMark> &rows)
{
    QList<qint64> ids;
    QList<qint64> digests;
    for (const RowMark &row : rows) {
        ids << row.id;
        digests << row.digest;
    }
    const auto answer = m_connection.query("select id, same from fleet.judge($1, $2, $3, $4) where same is not null",
                                           {text(stream.number), text(generation), arrayText(ids), arrayText(digests)});
    if (!answer)
        return answer.error();
    QMap<qint64, bool> same;
    for (const QList<QByteArray> &row : *answer)
        same.insert(row.at(0).toLongLong(), row.at(1) == "t");
    if (same.size() == rows.size())
        return same;
    const auto passedOver = m_connection.query("select id from fleet.passed_over($1, $2, $3)",
                                               {text(stream.number), text(generation), arrayText(ids)});
    if (!passedOver)
        return passedOver.error();
    for (const QList<QByteArray> &row : *passedOver)
        same.insert(row.first().toLongLong(), false);
    return same;
}

Result<std::optional<DeviceArchive::DroppedBatch>> DeviceArchive::droppedBatch(const Stream &stream, qint64 id)
{
    const auto answer = m_connection.query("select id_from, id_to, n, digest from fleet.dropped_batch($1, $2, $3)",
                                           {text(stream.number), text(stream.generation), text(id)});
    if (!answer)
        return answer.error();
    if (answer->isEmpty())
        return std::optional<DroppedBatch>();
    const QList<QByteArray> &row = answer->first();
    return std::optional<DroppedBatch>(
        {row.at(0).toLongLong(), row.at(1).toLongLong(), row.at(2).toLongLong(), row.at(3).toLongLong()});
}

Result<qint64> DeviceArchive::droppedTo(const Stream &stream)
{
    const auto answer =
        m_connection.query("select fleet.dropped_to($1, $2)", {text(stream.number), text(stream.generation)});
    if (!answer)
        return answer.error();
    return answer->first().first().toLongLong();
}

Result<QList<qint64>> DeviceArchive::judgeRest(const Stream &stream, const QList<RowMark> &rows)
{
    QList<qint64> ids;
    QList<qint64> digests;
    qint64 digest = 0;
    for (const RowMark &row : rows) {
        ids << row.id;
        digests << row.digest;
        digest ^= row.digest;
    }
    if (rows.isEmpty())
        return ids;
    const auto range =
        m_connection.query("select fleet.range_rest($1, $2, $3, $4)",
                           {text(stream.number), text(stream.generation), text(ids.first()), text(ids.last())});
    if (!range)
        return range.error();
    if (range->first().first().toLongLong() == digest)
        return QList<qint64>();
    const auto answer =
        m_connection.query("select id from fleet.judge_rest($1, $2, $3, $4) order by id",
                           {text(stream.number), text(stream.generation), arrayText(ids), arrayText(digests)});
    if (!answer)
        return answer.error();
    QList<qint64> other;
    for (const QList<QByteArray> &row : *answer)
        other << row.first().toLongLong();
    return other;
}

Status DeviceArchive::beginGeneration(const Stream &stream, int parent, qint64 after, const QByteArray &reason)
{
    return call("new_generation", {text(stream.number), text(stream.generation), text(stream.watermark), text(parent),
                                   text(after), reason});
}

Result<QPair<qint64, qint64>> DeviceArchive::rangeDigest(const Stream &stream, int generation, qint64 first,
                                                         qint64 last)
{
    const auto answer = m_connection.query("select n, digest from fleet.range_digest($1, $2, $3, $4)",
                                           {text(stream.number), text(generation), text(first), text(last)});
    if (!answer)
        return answer.error();
    return QPair<qint64, qint64>(answer->first().at(0).toLongLong(), answer->first().at(1).toLongLong());
}

Result<QSet<qint64>> DeviceArchive::activeAlarms(const Stream &stream)
{
    const auto answer =
        m_connection.query("select id from fleet.open_alarms($1, $2)", {text(stream.number), text(stream.generation)});
    if (!answer)
        return answer.error();
    QSet<qint64> ids;
    for (const QList<QByteArray> &row : *answer)
        ids.insert(row.first().toLongLong());
    return ids;
}

Status DeviceArchive::endAlarms(const Stream &stream, const QList<AlarmEnd> &ends)
{
    QList<qint64> ids;
    QList<QByteArray> dates;
    QList<QByteArray> times;
    QList<QByteArray> odds;
    for (const AlarmEnd &each : ends) {
        ids << each.id;
        dates << each.end.date;
        times << each.end.time;
        odds << each.end.odd;
    }
    return call("end_alarms", {text(stream.number), text(stream.generation), arrayText(ids), arrayText(dates),
                               arrayText(times), arrayText(odds)});
}

Status DeviceArchive::alarmsGone(const Stream &stream, const QList<qint64> &ids, std::optional<double> secondsAgo)
{
    return call("gone_alarms", {text(stream.number), text(stream.generation), arrayText(ids),
                                secondsAgo ? QByteArray::number(*secondsAgo, 'f', 3) : QByteArray()});
}

Status DeviceArchive::report(const QList<Stream *> &streams, const QString &trouble)
{
    QList<qint64> numbers;
    QList<qint64> lastIds;
    for (const Stream *stream : streams) {
        numbers << stream->number;
        lastIds << stream->lastId;
    }
    const QByteArray words = trouble.toUtf8();
    return call("report", {arrayText(numbers), arrayText(lastIds), words.isNull() ? QByteArray("") : words});
}

} // namespace device_ship
