// SPDX-License-Identifier: MIT
#include "serve/answers.h"

#include "serve/curve_work.h"
#include "storefile/times.h"

#include <algorithm>

namespace device_db
{

namespace
{

/// What the pass of a table says.
class PassWork : public Work
{
public:
    explicit PassWork(std::shared_ptr<ServedTable> table) : m_table(std::move(table)) {}

    Result<QByteArray> run(SliceEnd until, const Seen &seen) override
    {
        const auto database = databaseOf(*m_table);
        if (!database)
            return database.error();
        TablePass &pass = *m_table->pass;
        if (!pass.isDone()) {
            if (const Status read = pass.read(**database, until); !read)
                return read.error();
        }
        if (pass.isDone())
            return answer();
        if (m_pace.isTime())
            seen(answer());
        return QByteArray();
    }

protected:
    virtual QByteArray answer() const = 0;

    std::shared_ptr<ServedTable> m_table;

private:
    Pace m_pace;
};

class OverviewWork : public PassWork
{
public:
    using PassWork::PassWork;

    Result<QByteArray> run(SliceEnd until, const Seen &seen) override
    {
        const auto database = databaseOf(*m_table);
        if (!database)
            return database.error();
        const TablePass &pass = *m_table->pass;
        if (m_isShown || pass.isDone())
            return PassWork::run(until, seen);
        m_isShown = true;
        if (!pass.extent().from && m_table->table.kind == Kind::Samples && !m_table->hasDots) {
            if (const Status read = readDots(**database, *m_table); !read)
                return read.error();
        }
        if (pass.extent().from)
            seen(answer());
        return QByteArray();
    }

private:
    QByteArray answer() const override
    {
        const TablePass &pass = *m_table->pass;
        const TimeExtent extent = pass.extent();
        Json json;
        json.beginObject().key("exact").boolean(pass.isDone()).key("share").number(pass.share());
        json.key("rows").number(pass.expectedRows()).key("first").cell(pass.first()).key("last").cell(pass.last());
        for (const auto &[key, time] : {std::pair{"from", extent.from}, std::pair{"to", extent.to}})
            time ? json.key(key).number(std::max<qint64>(0, *time)) : json.key(key).null();
        json.key("findings").beginArray();
        for (const Finding &each : pass.findings())
            writeFinding(json, each);
        json.endArray().key("steps").beginArray();
        for (const ClockStep &step : pass.steps())
            json.beginObject()
                .key("id")
                .number(step.id)
                .key("before")
                .number(step.before)
                .key("after")
                .number(step.after)
                .endObject();
        const SeriesStatistics &figures = pass.statistics();
        json.endArray().key("numbers").number(figures.numbers).key("lowest").number(figures.lowest);
        json.key("highest").number(figures.highest).key("mean").number(figures.mean()).key("choices").beginArray();
        for (const auto &[text, rows] : pass.choices())
            json.beginArray().text(text).number(rows).endArray();
        return json.endArray().endObject().written();
    }

    bool m_isShown = false;
};

/// Alarms and logs.
class EventsWork : public PassWork
{
public:
    EventsWork(std::shared_ptr<ServedTable> table, const PictureRange &range)
        : PassWork(std::move(table)), m_range(range)
    {
    }

private:
    QByteArray answer() const override
    {
        TablePass &pass = *m_table->pass;
        const bool isAlarms = m_table->table.kind == Kind::Alarms;
        Json json;
        json.beginObject().key("kind").text(isAlarms ? "alarms" : "log");
        json.key("exact").boolean(pass.isDone()).key("share").number(pass.share());
        json.key(isAlarms ? "lanes" : "marks").beginArray();
        if (isAlarms) {
            for (const Lane &lane : pass.lanes().between(m_range)) {
                json.beginObject().key("level").number(lane.level).key("alarms").number(lane.alarms);
                json.key("spans").beginArray();
                for (const auto &[begin, end] : lane.spans)
                    json.number(begin).number(end);
                json.endArray().endObject();
            }
        } else {
            for (const Mark &mark : pass.marks().between(m_range))
                json.number(mark.time).number(mark.entries).number(mark.firstId);
        }
        return json.endArray().endObject().written();
    }

    PictureRange m_range;
};

struct RowsQuestion {
    QByteArray key; ///< The same for all pages of one selection.
    SelectionQuery query;
    qint64 offset = 0;
    qint64 limit = 0;
    std::optional<qint64> id;
    std::optional<qint64> at;
};

class RowsWork : public Work
{
public:
    RowsWork(ServedFiles &files, std::shared_ptr<ServedTable> table, RowsQuestion question)
        : m_files(files), m_table(std::move(table)), m_question(std::move(question))
    {
    }

    Result<QByteArray> run(SliceEnd until, const Seen &seen) override
    {
        const auto database = databaseOf(*m_table);
        if (!database)
            return database.error();
        // To its end, also if other rows come meanwhile: where an alarm ends each second it would begin for ever. Who
        // asked is told of them, and asks again.
        if (!m_selection)
            m_selection = m_files.selection(*m_table, m_question.key, m_question.query);
        if (!m_page && m_selection->needsMore()) {
            if (const Status found = m_selection->find(**database, until); !found)
                return found.error();
        }
        if (!m_page && m_selection->needsMore()) {
            if (!m_pace.isTime())
                return QByteArray();
            auto page = begun(**database);
            if (!page)
                return page.error();
            if (const Status added = addRows(**database, *page); !added)
                return added.error();
            seen(written(*page));
            return QByteArray();
        }
        if (!m_page) {
            auto page = begun(**database);
            if (!page)
                return page.error();
            m_page = std::move(page).value();
        }
        while (m_page->next < m_page->end) {
            if (const Status added = addRows(**database, *m_page); !added)
                return added.error();
            if (std::chrono::steady_clock::now() >= until)
                break;
        }
        return m_page->next < m_page->end ? QByteArray() : written(*m_page);
    }

private:
    /// Rows that are written as an answer, some at a time.
    struct Page {
        Json json;
        qint64 next = 0; ///< The row that is to be written next.
        qint64 end = 0;
        std::optional<qint64> before; ///< The ID of the one that was written last.
    };

    Result<Page> begun(const Database &database) const
    {
        Result<qint64> found = qint64(-1);
        if (m_question.id)
            found = m_selection->placeOfId(database, *m_question.id);
        else if (m_question.at)
            found = m_selection->placeOfTime(database, *m_question.at);
        if (!found)
            return found.error();
        const qint64 offset = *found < 0 ? m_question.offset : std::max<qint64>(0, *found - m_question.limit / 2);
        Page page;
        page.next = offset;
        page.end = std::min(offset + m_question.limit, m_selection->total());
        page.json.beginObject().key("exact").boolean(m_selection->isExact()).key("share").number(m_selection->share());
        page.json.key("total").number(m_selection->total()).key("offset").number(offset).key("found").number(*found);
        page.json.key("rows").beginArray();
        return page;
    }

    Status addRows(const Database &database, Page &page) const
    {
        constexpr qint64 rowsAtOnce = 500;
        const qint64 count = std::min(rowsAtOnce, page.end - page.next);
        const auto rows = m_selection->page(database, page.next, count, page.before);
        if (!rows)
            return rows.error();
        for (const auto &row : *rows) {
            page.json.beginArray();
            for (const QByteArray &cell : row)
                page.json.cell(cell);
            page.json.endArray();
            page.before = row.front().toLongLong();
        }
        page.next += count;
        return {};
    }

    static QByteArray written(Page &page) { return page.json.endArray().endObject().written(); }

    ServedFiles &m_files;
    std::shared_ptr<ServedTable> m_table;
    RowsQuestion m_question;
    std::shared_ptr<Selection> m_selection;
    std::optional<Page> m_page;
    Pace m_pace;
};

// Reads the parameters of one question; each may be there once, but for lists.
class Reader
{
public:
    explicit Reader(const Parameters &parameters) : m_left(parameters) {}

    std::optional<QByteArray> text(const char *name)
    {
        for (int i = 0; i < m_left.size(); ++i) {
            if (m_left.at(i).first == name)
                return m_left.takeAt(i).second;
        }
        return std::nullopt;
    }
    std::optional<qint64> number(const char *name)
    {
        const auto given = text(name);
        if (!given)
            return std::nullopt;
        bool isNumber = false;
        const qint64 value = given->toLongLong(&isNumber);
        m_isFine = m_isFine && isNumber;
        return value;
    }
    qint64 number(const char *name, qint64 least, qint64 most)
    {
        const auto given = number(name);
        m_isFine = m_isFine && given && *given >= least && *given <= most;
        return given.value_or(0);
    }
    void refuse(const QString &why = QString())
    {
        m_isFine = false;
        if (!why.isEmpty())
            m_why = why;
    }
    /// Everything made sense, and nothing is left.
    bool isFine() const { return m_isFine && m_left.isEmpty(); }
    /// What was wrong.
    QString why() const { return m_why; }

private:
    Parameters m_left;
    bool m_isFine = true;
    QString m_why = QStringLiteral("the parameters make no sense");
};

constexpr qint64 mostColumns = 100000;         // of a picture, as in the page
constexpr qint64 latestTime = 253402300799999; // of the year 9999

std::optional<PictureRange> rangeIn(Reader &reader)
{
    PictureRange range;
    range.from = reader.number("from", -62135596800000, latestTime);
    range.to = reader.number("to", range.from, latestTime);
    range.columns = int(reader.number("columns", 1, mostColumns));
    return reader.isFine() ? std::optional(range) : std::nullopt;
}

std::optional<RowsQuestion> rowsIn(Reader &reader, Kind kind)
{
    RowsQuestion question;
    RowFilter &filter = question.query.filter;
    const auto keep = [&](const char *name, const QByteArray &value) {
        question.key += name + QByteArray("=") + value.toPercentEncoding() + '&';
    };
    for (const auto &[name, text] : {std::pair{"from", &filter.from}, std::pair{"to", &filter.to}}) {
        if (const auto time = reader.number(name)) {
            *text = QString::fromLatin1(timeText(*time, true));
            keep(name, text->toLatin1());
        }
    }
    if (const auto wanted = reader.text("containing")) {
        filter.containing = QString::fromUtf8(*wanted);
        keep("containing", *wanted);
    }
    if (const auto state = reader.text("state")) {
        filter.active = *state == "active";
        filter.ended = *state == "ended";
        if (kind != Kind::Alarms || filter.active == filter.ended)
            reader.refuse();
        keep("state", *state);
    }
    while (const auto level = reader.text("level")) {
        bool isNumber = false;
        filter.levels.push_back(level->toLongLong(&isNumber));
        if (!isNumber)
            reader.refuse(
                QStringLiteral("a level is a whole number, which \"%1\" is not").arg(QString::fromUtf8(*level)));
        if (kind != Kind::Alarms)
            reader.refuse();
        keep("level", *level);
    }
    while (const auto user = reader.text("user")) {
        filter.users << QString::fromUtf8(*user);
        if (kind != Kind::Log)
            reader.refuse();
        keep("user", *user);
    }
    const QByteArray order = reader.text("order").value_or(QByteArray());
    question.query.descending = order == "newest" || reader.text("descending") == QByteArray("true");
    if (order == "oldest" || order == "newest")
        question.query.column = "DATETIME";
    for (const KnownColumn &column : columnsOf(kind)) {
        if (order == QByteArray("by-") + column.key)
            question.query.column = column.name; // of ours, whatever was sent
    }
    if (question.query.column.isEmpty() && order != "recorded")
        reader.refuse();
    keep("order", question.query.column + (question.query.descending ? " desc" : ""));
    question.offset = reader.number("offset", 0, std::numeric_limits<qint64>::max() / 4);
    question.limit = reader.number("limit", 0, 100000);
    question.id = reader.number("id");
    question.at = reader.number("at");
    return reader.isFine() ? std::optional(question) : std::nullopt;
}

} // namespace

Result<std::unique_ptr<Work>> workFor(ServedFiles &files, const QByteArray &question, const Parameters &parameters)
{
    Reader reader(parameters);
    const QByteArray key = reader.text("table").value_or(QByteArray());
    const auto table = files.table(key);
    if (!table)
        return failure(QString::fromUtf8(key), QStringLiteral("there is no such table; it may have been removed"));
    std::unique_ptr<Work> work;
    if (question == "overview" && reader.isFine()) {
        work = std::make_unique<OverviewWork>(table);
    } else if (question == "trend") {
        const auto range = rangeIn(reader);
        if (range && table->table.kind == Kind::Samples)
            work = curveWork(table, *range);
        else if (range)
            work = std::make_unique<EventsWork>(table, *range);
    } else if (question == "rows") {
        if (auto rows = rowsIn(reader, table->table.kind))
            work = std::make_unique<RowsWork>(files, table, std::move(*rows));
    }
    if (!work)
        return failure(QString::fromLatin1(question), reader.why());
    return work;
}

} // namespace device_db
