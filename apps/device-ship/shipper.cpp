// SPDX-License-Identifier: MIT
#include "shipper.h"

#include "shipped_statement.h"
#include "storefile/texts.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace device_ship
{

using device_db::Database;
using device_db::Kind;

namespace
{

// Of all files: fewer have the archive wait for its disk more often, and two such transactions must fit into memory.
constexpr int mostRows = 20000;
constexpr qint64 mostBytes = 2 * 1024 * 1024;
constexpr int leastRead = 50;
constexpr int mostTimesBehind = 100; // without a batch in between
constexpr int mostTimesRefused = 3;  // at one watermark, which a quicker shipper moves, and a month ends once
constexpr std::chrono::minutes asideFor(1);
// After what announces it a commit is nearly always seen within this time. Where the device's disk takes longer for a
// write-ahead log that is synchronised with each commit, the row waits for the next look at all files.
constexpr std::chrono::milliseconds announced(300);
constexpr qint64 highestInJson = qint64(1) << 53;

QStringList namesOf(const QList<device_db::Table> &tables)
{
    QStringList names;
    for (const device_db::Table &table : tables)
        names << table.name;
    return names;
}

} // namespace

Shipper::Shipper(Configuration configuration) : m_configuration(std::move(configuration))
{
    for (const ConfiguredFile &file : m_configuration.files)
        m_files.push_back(std::make_unique<File>(file));
}

QString Shipper::trouble() const
{
    QStringList all;
    for (const auto &file : m_files) {
        for (const QString &trouble : {file->trouble, file->tablesTrouble, file->statementTrouble}) {
            if (!trouble.isEmpty())
                all << trouble;
        }
        for (const Aside &each : file->aside)
            all << each.trouble;
        all << file->endTroubles.values();
    }
    return all.join(QLatin1String("; "));
}

bool Shipper::wasDisturbed() const
{
    return std::any_of(m_files.begin(), m_files.end(), [](const auto &file) { return file->again; });
}

// After any failure the archive is asked again where it is. That it has moved on is none, unless it is said for ever.
Status Shipper::failed(const device::Error &error)
{
    const bool behind = m_archive && m_archive->isOpen() && m_archive->wasBehind() && ++m_timesBehind < mostTimesBehind;
    m_haveStreams = false;
    if (m_archive && !m_archive->isOpen())
        m_archive.reset();
    return behind ? Status() : error;
}

// Connects if need be, and asks where the archive is if that is not known.
Status Shipper::haveStreams()
{
    if (!m_archive) {
        auto archive = DeviceArchive::open(m_configuration.archive, m_configuration.zone);
        if (!archive)
            return archive.error();
        m_archive = std::move(archive).value();
        m_haveStreams = false;
    }
    if (m_haveStreams)
        return {};
    const auto streams = m_archive->streams();
    if (!streams)
        return streams.error();
    const auto former = std::exchange(m_streams, {});
    for (const Stream &each : *streams) {
        m_streams.push_back(std::make_unique<Stream>(each));
        // A row that was found to be the generation's stays so. A table that is put aside is not judged anew.
        const auto same = std::find_if(former.begin(), former.end(), [&](const auto &stream) {
            return stream->number == each.number && stream->generation == each.generation;
        });
        if (same != former.end()) {
            m_streams.back()->known = (*same)->known;
            m_streams.back()->isOwn = (*same)->isOwn;
            if ((*same)->watermark == each.watermark)
                m_streams.back()->refusal = (*same)->refusal;
        }
        if (each.kind != Kind::Alarms)
            continue;
        const auto active = m_archive->activeAlarms(each);
        if (!active)
            return active.error();
        m_streams.back()->active = *active;
    }
    m_haveStreams = true;
    ++m_timesRead;
    lookAgain();
    return {};
}

// Null where none is configured by that name any more.
Shipper::File *Shipper::fileOf(const QString &name)
{
    const auto found =
        std::find_if(m_files.begin(), m_files.end(), [&](const auto &file) { return file->reader.name() == name; });
    return found == m_files.end() ? nullptr : found->get();
}

Stream *Shipper::streamOf(const File &file, const device_db::Table &table)
{
    const auto found = std::find_if(m_streams.begin(), m_streams.end(), [&](const auto &stream) {
        return stream->file == file.reader.name() && stream->table == table.name && stream->kind == table.kind;
    });
    return found == m_streams.end() ? nullptr : found->get();
}

QString Shipper::troubleOfTables(const File &file) const
{
    QStringList all;
    if (!file.reader.keyless().isEmpty())
        all << QStringLiteral("%1: not shipped, because ID is no INTEGER PRIMARY KEY there: %2")
                   .arg(file.reader.path(), device_db::someOf(file.reader.keyless()));
    if (!file.reader.misnamed().isEmpty())
        all << QStringLiteral("%1: not shipped, because their names are not UTF-8: %2")
                   .arg(file.reader.path(), device_db::someOf(file.reader.misnamed()));
    if (!file.refused.isEmpty())
        all << QStringLiteral("%1: not shipped, because the archive refuses them (%2): %3")
                   .arg(file.reader.path(), file.refused.first(), device_db::someOf(file.refused.keys()));
    const QStringList there = file.reader.keyless() + namesOf(file.reader.tables());
    const QSet<QString> known(there.begin(), there.end());
    QStringList gone;
    for (const auto &stream : m_streams) {
        if (stream->file == file.reader.name() && !known.contains(stream->table))
            gone << stream->table;
    }
    if (!gone.isEmpty())
        all << QStringLiteral("%1: shipped until now, and gone or with other columns: %2")
                   .arg(file.reader.path(), device_db::someOf(gone));
    return all.join(QLatin1String("; "));
}

Status Shipper::enrolNew(File &file)
{
    bool any = false;
    for (const device_db::Table &table : file.reader.tables()) {
        if (streamOf(file, table) || file.refused.contains(table.name))
            continue;
        Stream stream;
        stream.file = file.reader.name();
        stream.table = table.name;
        stream.kind = table.kind;
        const Status done = m_archive->enrol(stream);
        if (!done && m_archive->isOpen() && m_archive->refusedRow())
            file.refused.insert(table.name, done.error().cause());
        else if (!done)
            return done;
        else
            any = true;
    }
    if (!any)
        return {};
    file.named = false;
    m_haveStreams = false;
    return haveStreams();
}

Status Shipper::describe(File &file)
{
    QMap<QString, Title> titles;
    const Status read = file.reader.read([&](const Database &database) -> Status {
        auto found = file.reader.titles(database);
        if (!found)
            return found.error();
        titles = *found;
        return {};
    });
    if (!read) {
        file.trouble = device_db::oneLine(read.error());
        return {};
    }
    for (const device_db::Table &table : file.reader.tables()) {
        const Title title = titles.value(table.name.toLower());
        if (const Stream *const stream = streamOf(file, table)) {
            if (const Status done = m_archive->describe(*stream, title.title, title.unit, title.description); !done)
                return done;
        }
    }
    file.named = true;
    return {};
}

// The path of a file before this one that is the same: a link, or one to a file that was made since the start. Null if
// there is none. The order is that of the configuration, so that it is the same one after each start.
QString Shipper::sameBefore(const File &file) const
{
    const auto place = [](const File &each) {
        return std::filesystem::path(QFile::encodeName(each.reader.path()).data());
    };
    for (const auto &other : m_files) {
        std::error_code notThere;
        if (other.get() == &file)
            break;
        if (std::filesystem::equivalent(place(*other), place(file), notThere))
            return other->reader.path();
    }
    return {};
}

// What is new in a file. A file's own failure is its trouble and no Error.
Result<QList<Piece>> Shipper::look(File &file, Budget &budget)
{
    QList<Piece> pieces;
    if (const QString other = sameBefore(file); !other.isEmpty()) {
        file.trouble =
            QStringLiteral("%1: not shipped, because it is one file with %2, and its rows would be stored twice")
                .arg(file.reader.path(), other);
        file.again = false;
        return pieces;
    }
    Budget left = budget;
    bool changed = false;
    const auto done = file.reader.tryRead([&](const Database &database) -> Status {
        const auto tables = file.reader.tablesChanged(database);
        if (!tables)
            return tables.error();
        changed = *tables;
        left.rows = std::min(left.rows, file.rows);
        for (const device_db::Table &table : file.reader.tables()) {
            Stream *const stream = streamOf(file, table);
            if (!stream || Clock::now() < file.aside.value(table.name).until)
                continue;
            auto piece = readPiece(database, *stream, left);
            if (!piece)
                return piece.error();
            pieces << std::move(piece).value();
        }
        return {};
    });
    if (!file.again)
        file.still = Clock::now();
    file.again = !done || !*done;
    if (!done) {
        file.trouble = device_db::oneLine(done.error());
        file.again = false;
        return QList<Piece>();
    }
    if (!*done) {
        file.rows = std::max(leastRead, file.rows / 2);
        if (Clock::now() - file.still >= StoreReader::patience)
            file.trouble = device_db::oneLine(file.reader.neverStill());
        return QList<Piece>();
    }
    file.trouble.clear();
    budget.rows -= std::min(budget.rows, file.rows) - left.rows;
    budget.bytes = left.bytes;
    if (left.rows == 0)
        file.rows = std::min(mostRowsOfFile, file.rows * 2);
    file.named &= !changed;
    const bool judgeTables = changed || file.judged != m_timesRead;
    if (judgeTables)
        file.refused.clear();
    if (const Status enrolled = enrolNew(file); !enrolled)
        return enrolled.error();
    if (judgeTables) {
        file.tablesTrouble = troubleOfTables(file);
        const QStringList there = namesOf(file.reader.tables());
        for (const QString &table : file.aside.keys() + file.endTroubles.keys()) {
            if (there.contains(table))
                continue;
            file.aside.remove(table);
            file.endTroubles.remove(table);
        }
        file.judged = m_timesRead;
    }
    if (!file.named) {
        if (const Status named = describe(file); !named)
            return named.error();
    }
    return pieces;
}

// What is new in the files, until a transaction is full. Nothing if the streams are others now.
Result<std::optional<Shipper::Round>> Shipper::lookAtAll()
{
    Round round;
    Budget budget{mostRows, mostBytes};
    for (std::size_t i = 0; i < m_files.size(); ++i) {
        if (budget.rows <= 0 || budget.bytes <= 0) {
            round.more = true; // the next transaction begins with another file
            break;
        }
        File &file = *m_files[(m_first + i) % m_files.size()];
        if (file.isQuiet)
            continue;
        const Clock::time_point began = Clock::now();
        const quint64 before = m_timesRead;
        const Budget whole = budget;
        const auto pieces = look(file, budget);
        if (!pieces)
            return pieces.error();
        if (m_timesRead != before)
            return std::optional<Round>();
        bool more = file.again && file.trouble.isEmpty();
        QList<Piece> judged;
        for (const Piece &piece : *pieces) {
            const auto goesOn = continues(file, piece);
            if (!goesOn)
                return goesOn.error();
            if (!*goesOn) { // nothing of this file is shipped, and the others are
                judged.clear();
                budget = whole;
                more = file.trouble.isEmpty();
                break;
            }
            if (!**goesOn) {
                m_haveStreams = false;
                return std::optional<Round>();
            }
            more |= piece.more;
            judged << piece;
        }
        round.pieces << judged;
        round.more |= more;
        file.isQuiet = m_isTold && !more && file.trouble.isEmpty() && began - file.written >= announced;
    }
    return std::optional<Round>(std::move(round));
}

Result<bool> Shipper::shipRound()
{
    if (const Status have = haveStreams(); !have)
        return have.error();
    auto round = lookAtAll();
    if (!round)
        return round.error();
    if (!*round)
        return true;
    QList<Piece> &pieces = (*round)->pieces;
    if (const Status done = carryOut(pieces); !done)
        return done.error();
    return (*round)->more || std::any_of(pieces.begin(), pieces.end(), [](const Piece &piece) { return piece.more; });
}

Result<bool> Shipper::ship()
{
    const auto more = shipRound();
    if (more) {
        m_timesBehind = 0;
        ++m_first;
        return more;
    }
    const Status status = failed(more.error());
    return status ? Result<bool>(true) : status.error();
}

// One row must not hold up the others: it is found by halving, and recorded without its cells. Where the archive does
// not take that either, or has rows above the watermark, the table is put aside.
void Shipper::refuse(Piece &piece, const device::Error &error)
{
    Stream &stream = *piece.stream;
    Refusal &refusal = stream.refusal;
    File &file = *fileOf(stream.file);
    bool isAside = false;
    if (m_archive->wasBehind()) {
        isAside = ++refusal.timesBehind >= mostTimesRefused;
        m_haveStreams = false;
    } else if (piece.rows > 1) {
        refusal.mostRows = piece.rows / 2;
    } else {
        isAside = refusal.id == piece.last->id;
        refusal = {1, isAside ? 0 : piece.last->id, error.cause().toUtf8(), 0};
    }
    if (isAside) {
        const QString trouble =
            QStringLiteral("%1: the archive does not take the rows of the table %2 after ID %3: %4")
                .arg(file.reader.path(), stream.table, QString::number(stream.watermark), error.cause());
        file.aside.insert(stream.table, {trouble, Clock::now() + asideFor});
    }
    file.isQuiet = false;
    piece.rows = 0;
    piece.more = true;
}

// All in one transaction. If the archive refuses that, the rows of each table in one of their own, and from then on
// those of the table of which it refuses some: no table holds up another.
Status Shipper::shipRows(QList<Piece> &pieces)
{
    QList<Piece> together;
    for (const Piece &piece : std::as_const(pieces)) {
        if (piece.rows > 0 && !piece.stream->refusal.isAny())
            together << piece;
    }
    const auto isRefused = [&] { return m_archive->isOpen() && (m_archive->refusedRow() || m_archive->wasBehind()); };
    const Status all = together.isEmpty() ? Status() : m_archive->ship(together);
    if (!all && !isRefused())
        return all;
    for (Piece &piece : pieces) {
        Refusal &refusal = piece.stream->refusal;
        if (piece.rows == 0 || (all && !refusal.isAny()))
            continue;
        if (const Status done = m_archive->ship({piece}); done)
            refusal = {std::min(mostRowsOfFile, refusal.mostRows * 2), 0, {}, 0};
        else if (isRefused())
            refuse(piece, done.error());
        else
            return done;
    }
    return {};
}

Status Shipper::carryOut(QList<Piece> &pieces)
{
    // First, because the archive takes it that they were there when the last rows came.
    for (const Piece &piece : pieces) {
        if (piece.gone.isEmpty())
            continue;
        Stream &stream = *piece.stream;
        std::optional<double> ago;
        if (stream.seen != Clock::time_point())
            ago = std::chrono::duration<double>(Clock::now() - stream.seen).count();
        if (const Status done = m_archive->alarmsGone(stream, piece.gone, ago); !done)
            return done;
        for (const qint64 id : piece.gone)
            stream.active.remove(id);
    }
    if (const Status done = shipRows(pieces); !done)
        return done;
    for (const Piece &piece : pieces) {
        Stream &stream = *piece.stream;
        if (piece.rows > 0 || !piece.more)
            fileOf(stream.file)->aside.remove(stream.table);
        stream.lastId = piece.lastId;
        m_moved |= piece.rows > 0 || piece.lastId > stream.watermark;
        if (piece.rows > 0) {
            stream.watermark = piece.last->id;
            stream.known = piece.last;
            stream.isOwn = true;
            for (const qint64 id : piece.active)
                stream.active.insert(id);
        } else if (!piece.more && piece.lastId > stream.watermark) {
            if (const Status done = m_archive->skip(stream, piece.lastId); !done)
                return done;
            stream.watermark = piece.lastId;
        }
        if (!piece.ends.isEmpty()) {
            if (const Status done = endAlarms(*fileOf(stream.file), stream, piece.ends); !done)
                return done;
            for (const AlarmEnd &each : piece.ends)
                stream.active.remove(each.id);
        }
        stream.seen = Clock::now();
    }
    for (const auto &file : m_files) {
        if (file->again || !file->trouble.isEmpty())
            continue;
        for (const device_db::Table &table : file->reader.tables()) {
            Stream *const stream = streamOf(*file, table);
            if (stream && stream->kind == Kind::Alarms && !stream->endsCompared) {
                if (const Status done = compareEnds(*file, *stream); !done)
                    return done;
            }
        }
    }
    return {};
}

// One end must not hold up the others: it is found by halving, and tried again when all are compared.
Status Shipper::endAlarms(File &file, Stream &stream, const QList<AlarmEnd> &ends)
{
    const Status done = m_archive->endAlarms(stream, ends);
    if (done || !m_archive->isOpen() || !m_archive->refusedRow())
        return done;
    if (ends.size() > 1) {
        const auto half = ends.size() / 2;
        const Status first = endAlarms(file, stream, ends.mid(0, half));
        return first ? endAlarms(file, stream, ends.mid(half)) : first;
    }
    stream.refusedEnds << ends.first().id;
    file.endTroubles.insert(stream.table,
                            QStringLiteral("%1: the archive does not take the end of the alarm %2 of the table %3: %4")
                                .arg(file.reader.path())
                                .arg(ends.first().id)
                                .arg(stream.table, done.error().cause()));
    return {};
}

// An end that was corrected, or that came while nobody looked.
Status Shipper::compareEnds(File &file, Stream &stream)
{
    stream.refusedEnds.clear();
    file.endTroubles.remove(stream.table);
    qint64 after = 0;
    for (;;) {
        std::optional<QList<AlarmEnd>> ends;
        const Status read = file.reader.read([&](const Database &database) -> Status {
            auto found = readEnds(database, stream, after);
            if (!found)
                return found.error();
            ends = *found;
            return {};
        });
        if (!read) {
            file.trouble = device_db::oneLine(read.error());
            return {};
        }
        if (!ends)
            return {}; // once the file was looked at again
        if (ends->isEmpty())
            break;
        if (const Status done = endAlarms(file, stream, *ends); !done)
            return done;
        after = ends->last().id;
    }
    const auto active = m_archive->activeAlarms(stream);
    if (!active)
        return active.error();
    stream.active = *active - stream.refusedEnds;
    stream.endsCompared = true;
    return {};
}

void Shipper::wereWritten(const QStringList &paths)
{
    m_isTold = true;
    for (const auto &file : m_files) {
        if (!paths.contains(file->reader.path()))
            continue;
        file->written = Clock::now();
        file->isQuiet = false;
    }
}

void Shipper::lookAgain()
{
    for (const auto &file : m_files)
        file->isQuiet = false;
}

void Shipper::refresh()
{
    lookAgain();
    for (const auto &file : m_files)
        file->named = false;
    for (const auto &stream : m_streams)
        stream->endsCompared = false;
}

Status Shipper::report(const QString &failure)
{
    m_moved = false;
    QList<Stream *> read;
    for (const auto &file : m_files) {
        QMap<QString, qint64> shipped;
        for (const auto &stream : m_streams) {
            if (stream->file != file->reader.name())
                continue;
            // A table that had been of another kind has a stream of each.
            const auto tables = file->reader.tables();
            const bool isFormer = std::any_of(tables.begin(), tables.end(), [&](const device_db::Table &table) {
                return table.name == stream->table && table.kind != stream->kind;
            });
            const qint64 upTo = std::min(stream->watermark, highestInJson);
            if (!isFormer)
                shipped.insert(stream->table, std::min(upTo, shipped.value(stream->table, upTo)));
            if (file->trouble.isEmpty() && stream->seen != Clock::time_point())
                read << stream.get();
        }
        if (!m_haveStreams || shipped == file->stated || !QFileInfo::exists(file->reader.path()))
            continue;
        const Status done = stateShipped(file->reader.path(), shipped);
        file->statementTrouble = done ? QString() : device_db::oneLine(done.error());
        if (done)
            file->stated = shipped;
    }
    if (!m_archive)
        return {};
    const QString all = trouble();
    const QString now = failure.isEmpty() || all.isEmpty() ? failure + all : failure + QStringLiteral("; ") + all;
    if (const Status done = m_archive->report(read, now); !done)
        return failed(done.error());
    m_reportedTrouble = now;
    return {};
}

} // namespace device_ship
