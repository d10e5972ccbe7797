// SPDX-License-Identifier: MIT
//
// The archive is asked in SQL of its own tables: a reader's role is enough, and an archive of any version will do.
#include "fleet/fleet.h"

#include "archive/archive_connection.h"
#include "storefile/texts.h"
#include "storefile/times.h"

#include "device/number.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QRegularExpression>

#include <algorithm>
#include <optional>

namespace device_db
{

namespace
{

struct Device {
    int number = 0;
    QString label; ///< Its name, or its number where the name says less.
    QString zoneName;
    QTimeZone zone;
};

// One table of one device.
struct Stream {
    Device device;
    int number = 0;
    QString file;
    QString name;
    Kind kind = Kind::Foreign;

    QString fullName() const { return file + QLatin1Char('/') + name; }
    bool isNamed(const QString &wanted) const
    {
        return name.compare(wanted, Qt::CaseInsensitive) == 0 || fullName().compare(wanted, Qt::CaseInsensitive) == 0;
    }
};

// The table of the archive for a kind, and its columns in the order of columnsOf().
struct Relation {
    QByteArray name;
    QList<QByteArray> columns;
};

Relation relationOf(Kind kind)
{
    switch (kind) {
    case Kind::Samples:
        return {"sample", {"dt", "val"}};
    case Kind::Alarms:
        return {"alarm",
                {"level", "dt", "object", "type", "value", "\"limit\"", "description", "end_date", "end_time"}};
    default:
        return {"log", {"dt", "user_name", "log_name", "message"}};
    }
}

QByteArray timeForm(Kind kind)
{
    return hasMilliseconds(kind) ? "'YYYY-MM-DD HH24:MI:SS.MS'" : "'YYYY-MM-DD HH24:MI:SS'";
}

const char *oddOf(Kind kind, int column)
{
    return kind == Kind::Alarms && (column == AlarmEndDate || column == AlarmEndTime) ? "end_odd" : "odd";
}

// A cell as the text that it is in the file. What is no text there comes with the column "odd".
QByteArray textOf(Kind kind, int column)
{
    const QByteArray own = "r." + relationOf(kind).columns.at(column - 1);
    const QByteArray text =
        column == timeColumnOf(kind) ? "to_char(" + own + "," + timeForm(kind) + ")" : own + "::text";
    const QByteArray odd =
        QByteArray("r.") + oddOf(kind, column) + "->'" + columnsOf(kind).at(column - 1).name + "'->>";
    return "coalesce(" + text + "," + odd + "'text'," + odd + "'integer'," + odd + "'real')";
}

// A statement and what its places are filled with.
struct Question {
    QByteArray sql;
    QList<QByteArray> parameters;

    QByteArray place(const QByteArray &value, const char *type)
    {
        parameters << value;
        return '$' + QByteArray::number(parameters.size()) + "::" + type;
    }
    QByteArray places(const QStringList &values)
    {
        QList<QByteArray> texts;
        for (const QString &value : values)
            texts << value.toUtf8();
        return "any(" + place(arrayText(texts), "text[]") + ')';
    }
};

// Whether the times of a filter leave out anything, and what.
struct Bounds {
    QList<QByteArray> first; ///< For each stream.
    QList<QByteArray> last;
    bool areOpen = true;
};

Result<Bounds> boundsOf(const QList<Stream> &streams, const RowFilter &filter, bool utc)
{
    Bounds bounds;
    bounds.areOpen = filter.from.isEmpty() && filter.to.isEmpty();
    for (const Stream &stream : streams) {
        if ((utc || !bounds.areOpen) && !stream.device.zone.isValid())
            return failure(stream.device.label,
                           QStringLiteral("its time zone, %1, is not known to this computer; leave the device out, or "
                                          "ask for neither a time nor UTC")
                               .arg(stream.device.zoneName));
        const bool milliseconds = hasMilliseconds(stream.kind);
        const auto text = [&](const QString &given, Bound bound, const char *open) {
            return given.isEmpty() ? Result<QByteArray>(QByteArray(open))
                                   : boundText(given, bound, milliseconds, utc, stream.device.zone);
        };
        const auto first = text(filter.from, Bound::First, "-infinity");
        if (!first)
            return first.error();
        const auto last = text(filter.to, Bound::Last, "infinity");
        if (!last)
            return last.error();
        bounds.first << *first;
        bounds.last << *last;
    }
    return bounds;
}

Result<QList<QByteArray>> conditionsOf(Kind kind, const RowFilter &filter, Question &question)
{
    QList<QByteArray> conditions;
    if (filter.active)
        conditions << "r.end_date='' and r.end_time='' and r.gone is null";
    if (filter.ended)
        conditions << "r.end_date!='' and r.end_time!=''";
    if (!filter.levels.empty()) {
        QList<qint64> levels(filter.levels.begin(), filter.levels.end());
        conditions << "r.level=any(" + question.place(arrayText(levels), "bigint[]") + ')';
    }
    for (const auto &[column, wanted] : {std::pair{"r.object", filter.objects}, std::pair{"r.type", filter.types},
                                         std::pair{"r.user_name", filter.users}}) {
        if (!wanted.isEmpty())
            conditions << column + ('=' + question.places(wanted));
    }
    for (const QString &given : filter.values) {
        const auto comparison = comparisonIn(given);
        if (!comparison)
            return comparison.error();
        conditions << (comparison->number
                           ? "r.num" + comparison->operation +
                                 question.place(device::numberText(*comparison->number).toLatin1(), "double precision")
                           : "r.val" + comparison->operation + question.place(comparison->text, "text"));
    }
    if (!filter.containing.isEmpty()) {
        // The database's own collation may know the case of ASCII letters alone.
        QList<QByteArray> cells;
        for (int column = 1; column <= columnsOf(kind).size(); ++column)
            cells << textOf(kind, column);
        conditions << "strpos(lower(concat_ws(chr(31)," + cells.join(',') + ") collate \"und-x-icu\"),lower(" +
                          question.place(filter.containing.toUtf8(), "text") + " collate \"und-x-icu\"))>0";
    }
    return conditions;
}

// FROM and WHERE: the streams as s, their rows as r. Times are looked for by way of the batches, which PostgreSQL does
// not find by itself: no index on time is needed, however late a row was received. OFFSET 0 keeps the two apart.
Result<Question> questionOf(const QList<Stream> &streams, const Bounds &bounds, const RowFilter &filter)
{
    Question question;
    QList<qint64> devices;
    QList<qint64> numbers;
    QList<QByteArray> zones;
    for (const Stream &stream : streams) {
        devices << stream.device.number;
        numbers << stream.number;
        zones << stream.device.zoneName.toUtf8();
    }
    const Kind kind = streams.first().kind;
    const QByteArray relation = "fleet." + relationOf(kind).name;
    question.sql = " from unnest(" + question.place(arrayText(devices), "integer[]") + ',' +
                   question.place(arrayText(numbers), "smallint[]") + ',' + question.place(arrayText(zones), "text[]");
    if (bounds.areOpen)
        question.sql += ") s(device,tbl,zone) join " + relation + " r on r.device=s.device and r.tbl=s.tbl";
    else
        question.sql += ',' + question.place(arrayText(bounds.first), "timestamp[]") + ',' +
                        question.place(arrayText(bounds.last), "timestamp[]") +
                        ") s(device,tbl,zone,first,last)"
                        " join fleet.batch b on b.device=s.device and b.tbl=s.tbl"
                        " and b.latest>=s.first and b.earliest<=s.last"
                        " cross join lateral (select * from " +
                        relation +
                        " r where r.device=b.device and r.tbl=b.tbl and r.gen=b.gen"
                        " and r.id between b.id_from and b.id_to"
                        " and r.day between (b.received at time zone 'UTC')::date"
                        " and (b.received_to at time zone 'UTC')::date"
                        " and r.dt>=s.first and r.dt<=s.last offset 0) r";
    const auto conditions = conditionsOf(kind, filter, question);
    if (!conditions)
        return conditions.error();
    question.sql += " where true";
    for (const QByteArray &condition : *conditions)
        question.sql += " and " + condition;
    return question;
}

bool asksForAll(const RowFilter &filter)
{
    return filter.kinds().size() == 3 && filter.containing.isEmpty() && filter.from.isEmpty() && filter.to.isEmpty();
}

class ArchiveRows : public FleetRows
{
public:
    ArchiveRows(ArchiveConnection &archive, const QList<Stream> &streams, QList<Question> questions, qint64 limit)
        : m_archive(archive), m_kind(streams.first().kind), m_questions(std::move(questions)), m_left(limit)
    {
        for (const Stream &stream : streams)
            m_devices.insert(stream.device.number, stream.device);
    }

    bool step() override
    {
        while (m_status) {
            if (m_isAsked) {
                const auto next = m_archive.next(m_cells);
                if (!next)
                    m_status = next.error();
                else if (*next)
                    return m_left < 0 || m_left-- > 0;
                else
                    m_isAsked = false;
                continue;
            }
            if (m_questions.isEmpty() || m_left == 0)
                return false;
            Question question = m_questions.takeFirst();
            if (m_left >= 0)
                question.sql += " limit " + QByteArray::number(m_left);
            m_status = m_archive.ask(question.sql, question.parameters);
            m_isAsked = true;
        }
        return false;
    }
    Status status() const override { return m_status; }
    Kind kind() const override { return m_kind; }
    int columns() const override { return m_cells.size() - firstCell; }
    QByteArray device() const override { return source().label.toUtf8(); }
    QTimeZone zone() const override { return source().zone; }

    QByteArray cell(int column) const override
    {
        const QByteArray text = m_cells.at(firstCell + column);
        if (!text.isNull() || column == 0)
            return text;
        const QByteArray odd = m_cells.at(oddOf(m_kind, column) == QByteArray("odd") ? Odd : EndOdd);
        if (odd.isNull())
            return text;
        const QJsonObject what = QJsonDocument::fromJson(odd)
                                     .object()
                                     .value(QLatin1String(columnsOf(m_kind).at(column - 1).name))
                                     .toObject();
        for (const char *form : {"bytes", "blob"}) {
            if (what.contains(QLatin1String(form)))
                return QByteArray::fromHex(what.value(QLatin1String(form)).toString().toLatin1());
        }
        return what.contains(QLatin1String("refused"))
                   ? QStringLiteral("(not shipped: %1)").arg(what.value(QLatin1String("refused")).toString()).toUtf8()
                   : text;
    }

    /// What to select.
    static QByteArray columnsFor(Kind kind)
    {
        QByteArray columns =
            "select r.device,r.odd," + QByteArray(kind == Kind::Alarms ? "r.end_odd" : "null") + ",r.id";
        for (int column = 1; column <= columnsOf(kind).size(); ++column)
            columns += ',' + textOf(kind, column);
        return columns;
    }

private:
    enum { Number, Odd, EndOdd, firstCell };

    const Device &source() const { return *m_devices.constFind(m_cells.at(Number).toInt()); }

    ArchiveConnection &m_archive;
    Kind m_kind;
    QMap<int, Device> m_devices;
    QList<Question> m_questions; ///< Those that are still to be asked.
    qint64 m_left;               ///< Negative: without limit.
    bool m_isAsked = false;
    QList<QByteArray> m_cells;
    Status m_status;
};

class ArchiveFleet : public Fleet
{
public:
    ArchiveFleet(ArchiveConnection archive, const QString &address, QList<Stream> streams)
        : m_archive(std::move(archive)), m_address(address), m_streams(std::move(streams))
    {
    }

    Result<std::unique_ptr<FleetRows>> rows(const QString &table, const RowQuery &query) override
    {
        const auto streams = tableOf(table, query.filter.kinds());
        if (!streams)
            return streams.error();
        const auto bounds = boundsOf(*streams, query.filter, query.utc);
        if (!bounds)
            return bounds.error();
        auto all = questionOf(*streams, *bounds, query.filter);
        if (!all)
            return all.error();
        const bool manyZones = std::any_of(streams->begin(), streams->end(), [&](const Stream &stream) {
            return stream.device.zoneName != streams->first().device.zoneName;
        });
        // By the times that are printed.
        const bool byUtc = query.utc && manyZones;
        const QByteArray time = byUtc ? "r.dt at time zone s.zone" : "r.dt";
        const QByteArray order = query.order == Order::NewestFirst
                                     ? " order by " + time + " desc nulls last,r.device,r.tbl,r.gen desc,r.id desc"
                                     : " order by " + time + ",r.device,r.tbl,r.gen,r.id";
        const QByteArray columns = ArchiveRows::columnsFor(streams->first().kind);
        QList<Question> questions;
        if (query.order == Order::NewestFirst && query.limit >= 0 && asksForAll(query.filter) && !byUtc) {
            const auto since = sinceWhen(*streams, query.limit);
            if (!since)
                return since.error();
            if (!since->isNull()) {
                Bounds newest;
                newest.areOpen = false;
                for (int i = 0; i < streams->size(); ++i) {
                    newest.first << *since;
                    newest.last << "infinity";
                }
                questions << *questionOf(*streams, newest, query.filter);
                all->sql += " and (r.dt is null or r.dt<" + all->place(*since, "timestamp") + ')';
            }
        }
        questions << *all;
        for (Question &question : questions)
            question.sql = columns + question.sql + order;
        return std::unique_ptr<FleetRows>(new ArchiveRows(m_archive, *streams, std::move(questions), query.limit));
    }

    Result<QVector<FleetCount>> counts(const QString &table, const RowFilter &filter, bool utc, int period) override
    {
        QList<Stream> chosen = fitting(table, filter.kinds());
        if (!table.isEmpty() && chosen.isEmpty())
            return tableOf(table, filter.kinds()).error();
        std::stable_sort(chosen.begin(), chosen.end(), [](const Stream &one, const Stream &other) {
            return one.device.number != other.device.number ? one.device.number < other.device.number
                                                            : comesBefore(one.name, other.name);
        });
        // By the place in `chosen` and the beginning of the period.
        QMap<std::pair<int, QByteArray>, qint64> rows;
        for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log}) {
            QList<Stream> streams;
            QMap<std::pair<int, int>, int> places;
            for (int i = 0; i < chosen.size(); ++i) {
                if (chosen.at(i).kind != kind)
                    continue;
                streams << chosen.at(i);
                places.insert({chosen.at(i).device.number, chosen.at(i).number}, i);
                if (!period)
                    rows.insert({i, QByteArray()}, 0);
            }
            if (streams.isEmpty())
                continue;
            const auto bounds = boundsOf(streams, filter, utc);
            if (!bounds)
                return bounds.error();
            auto question = questionOf(streams, *bounds, filter);
            if (!question)
                return question.error();
            // Clocks are put forward or back between two quarters of an hour.
            const QByteArray time = textOf(kind, timeColumnOf(kind));
            const QByteArray begin = !period ? "null"
                                     : utc   ? "case when r.dt is null then " + time +
                                                 " else to_char(date_bin('15 minutes',r.dt,"
                                                 "'2000-01-01')," +
                                                 timeForm(kind) + ") end"
                                           : "left(" + time + ',' + QByteArray::number(period) + ')';
            question->sql = "select r.device,r.tbl," + begin + ",count(*)" + question->sql + " group by 1,2,3";
            const auto counted = m_archive.query(question->sql, question->parameters);
            if (!counted)
                return counted.error();
            for (const QList<QByteArray> &row : *counted) {
                const int place = places.value({row.at(0).toInt(), row.at(1).toInt()});
                const QByteArray local = row.at(2);
                const QByteArray shown =
                    utc ? inUtc(local, hasMilliseconds(kind), chosen.at(place).device.zone) : local;
                rows[{place, beginningOf(shown, period)}] += row.at(3).toLongLong();
            }
        }
        QVector<FleetCount> counts;
        for (auto row = rows.constBegin(); row != rows.constEnd(); ++row) {
            const Stream &stream = chosen.at(row.key().first);
            const bool isOnlyOne = std::count_if(chosen.begin(), chosen.end(), [&](const Stream &other) {
                                       return other.device.number == stream.device.number && other.name == stream.name;
                                   }) == 1;
            counts.append({stream.device.label.toUtf8(), (isOnlyOne ? stream.name : stream.fullName()).toUtf8(),
                           stream.kind, row.key().second, row.value()});
        }
        return counts;
    }

private:
    QList<Stream> fitting(const QString &table, const QVector<Kind> &kinds) const
    {
        QList<Stream> streams;
        for (const Stream &stream : m_streams) {
            if (kinds.contains(stream.kind) && (table.isEmpty() || stream.isNamed(table)))
                streams << stream;
        }
        return streams;
    }

    // Each device's table of one name and one kind.
    Result<QList<Stream>> tableOf(const QString &table, const QVector<Kind> &kinds) const
    {
        const QList<Stream> streams = fitting(table, kinds);
        const auto names = [](const QList<Stream> &of, bool full) {
            QStringList all;
            for (const Stream &stream : of)
                all << (full ? stream.fullName() : stream.name);
            std::sort(all.begin(), all.end(), comesBefore);
            all.removeDuplicates();
            return all;
        };
        const QStringList known = names(m_streams, false);
        if (known.isEmpty())
            return failure(m_address, QStringLiteral("nothing was shipped yet"));
        if (streams.isEmpty() && table.isEmpty())
            return failure(m_address, QStringLiteral("it has no table of the kind asked for; it has ") + someOf(known));
        if (streams.isEmpty() && fitting(table, RowFilter().kinds()).isEmpty())
            return failure(m_address,
                           QStringLiteral("there is no table %1; it has %2").arg(table, someOf(known, table)));
        if (streams.isEmpty())
            return failure(m_address, QStringLiteral("table %1 is of another kind").arg(table));
        if (names(streams, false).size() > 1)
            return failure(m_address,
                           QStringLiteral("name one of its tables: ") + someOf(names(streams, false), table));
        QMap<int, Stream> ofDevice;
        for (const Stream &stream : streams) {
            if (stream.kind != streams.first().kind)
                return failure(m_address, QStringLiteral("table %1 is of one kind on some devices and of another on "
                                                         "others; name the devices with --device")
                                              .arg(stream.name));
            if (ofDevice.contains(stream.device.number))
                return failure(m_address, QStringLiteral("several files have it; name one of ") +
                                              someOf(names(streams, true), table));
            ofDevice.insert(stream.device.number, stream);
        }
        return streams;
    }

    // A time from which on there are so many rows, if they have times; a null array if none is known.
    Result<QByteArray> sinceWhen(const QList<Stream> &streams, qint64 rows)
    {
        Question question;
        QList<qint64> devices;
        QList<qint64> numbers;
        for (const Stream &stream : streams) {
            devices << stream.device.number;
            numbers << stream.number;
        }
        question.sql = "select min(earliest) from (select earliest,sum(n) over (order by earliest desc"
                       " rows unbounded preceding)-n as before from unnest(" +
                       question.place(arrayText(devices), "integer[]") + ',' +
                       question.place(arrayText(numbers), "smallint[]") +
                       ") s(device,tbl) join fleet.batch b using (device,tbl) where earliest is not null) a"
                       " where before<" +
                       question.place(QByteArray::number(rows), "bigint");
        const auto answer = m_archive.query(question.sql, question.parameters);
        if (!answer)
            return answer.error();
        return answer->first().first();
    }

    ArchiveConnection m_archive;
    QString m_address;
    QList<Stream> m_streams;
};

// Names and numbers as a person types them.
Result<QList<Device>> chosenOf(const QMap<int, Device> &devices, const QMultiMap<QString, int> &byName,
                               const QStringList &wanted, const QString &address)
{
    if (wanted.isEmpty())
        return devices.values();
    QMap<int, Device> chosen;
    for (const QString &each : wanted) {
        bool isNumber = false;
        const int number = each.toInt(&isNumber);
        const QList<int> named =
            isNumber && devices.contains(number) ? QList<int>{number} : byName.values(each.toCaseFolded());
        if (named.size() > 1)
            return failure(address, QStringLiteral("several devices have the name %1; give the number").arg(each));
        if (named.isEmpty()) {
            QStringList labels;
            for (const Device &device : devices)
                labels << device.label;
            return failure(address,
                           labels.isEmpty()
                               ? QStringLiteral("it has no devices")
                               : QStringLiteral("there is no device %1; it has %2").arg(each, someOf(labels, each)));
        }
        chosen.insert(named.first(), devices.value(named.first()));
    }
    return chosen.values();
}

Kind kindNamed(const QByteArray &name)
{
    return name == "sample" ? Kind::Samples : name == "alarm" ? Kind::Alarms : Kind::Log;
}

// The address for people: a password, although refused, is in no message.
QString withoutPassword(QString address)
{
    static const QRegularExpression inFront(QStringLiteral("://([^:@/]*):[^@/]*@"));
    static const QRegularExpression behind(QStringLiteral("([?&]password=)[^&]*"));
    return address.replace(inFront, QStringLiteral("://\\1:***@")).replace(behind, QStringLiteral("\\1***"));
}

} // namespace

Result<std::unique_ptr<Fleet>> openFleet(const QString &given, const QStringList &wanted)
{
    const QString address = withoutPassword(given);
    auto archive = ArchiveConnection::openTyped(given.toUtf8(), address);
    if (!archive)
        return archive.error();
    const auto begun = archive->query("begin isolation level repeatable read read only");
    if (!begun)
        return begun.error();
    const auto found = archive->query("select device,name,zone from fleet.device order by device");
    if (!found) {
        const QByteArray state = archive->sqlState();
        return state == "42P01"   ? failure(address, QStringLiteral("it is no archive of a fleet; \"device-ship init\" "
                                                                      "makes one"))
               : state == "42501" ? failure(address, found.error().cause() +
                                                         QStringLiteral("; the role fleet_reader is for who looks"))
                                  : found.error();
    }
    QMultiMap<QString, int> byName;
    for (const QList<QByteArray> &row : *found)
        byName.insert(fromUtf8(row.at(1)).toCaseFolded(), row.at(0).toInt());
    QMap<int, Device> devices;
    QMap<QByteArray, QTimeZone> zones;
    for (const QList<QByteArray> &row : *found) {
        const QString name = fromUtf8(row.at(1));
        bool isNumber = false;
        (void)name.toInt(&isNumber);
        const bool tells = !name.isEmpty() && !isNumber && byName.count(name.toCaseFolded()) == 1;
        if (!zones.contains(row.at(2)))
            zones.insert(row.at(2), QTimeZone(row.at(2)));
        devices.insert(row.at(0).toInt(), {row.at(0).toInt(), tells ? name : fromUtf8(row.at(0)), fromUtf8(row.at(2)),
                                           zones.value(row.at(2))});
    }
    const auto chosen = chosenOf(devices, byName, wanted, address);
    if (!chosen)
        return chosen.error();
    QList<qint64> numbers;
    for (const Device &device : *chosen)
        numbers << device.number;
    const auto sources =
        archive->query("select device,tbl,file,name,kind from fleet.source where device=any($1::integer[])"
                       " order by device,tbl",
                       {arrayText(numbers)});
    if (!sources)
        return sources.error();
    QList<Stream> streams;
    for (const QList<QByteArray> &row : *sources)
        streams << Stream{devices.value(row.at(0).toInt()), row.at(1).toInt(), fromUtf8(row.at(2)), fromUtf8(row.at(3)),
                          kindNamed(row.at(4))};
    return std::unique_ptr<Fleet>(new ArchiveFleet(std::move(*archive), address, std::move(streams)));
}

} // namespace device_db
