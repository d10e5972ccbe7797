// SPDX-License-Identifier: MIT
//
// show, newest, range, find and tail: rows of a table on the terminal.
#include "commands/commands.h"

#include "commands/options.h"
#include "fleet/fleet.h"
#include "program/program.h"
#include "storefile/row_query.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/table_writer.h"

#include <QElapsedTimer>
#include <QFileInfo>

#include <sys/stat.h>

namespace device_db
{

namespace
{

constexpr const char *aboutTables = "TABLE may be left out when the file has only one that fits.";

struct RowsOptions {
    QString path;
    ReadOptions reading;
    QStringList devices; ///< Of a fleet.
    OutputOptions output;
    QString table;
    RowQuery query;
    bool withId = false;
    bool newestFirst = false;
    bool follow = false;
    int interval = 500; // ms
};

/// Turns rows of a table into rows of the output.
class Presentation
{
public:
    Presentation(Kind kind, const OutputOptions &output, bool withId, bool ofFleet = false)
        : m_kind(kind),
          m_milliseconds(hasMilliseconds(kind)),
          m_utc(output.utc),
          m_withId(withId),
          m_ofFleet(ofFleet),
          m_forPeople(isForPeople(output.format))
    {
    }

    QVector<OutputColumn> columns() const
    {
        QVector<OutputColumn> columns;
        if (m_ofFleet)
            columns.append({"device", QStringLiteral("Device")});
        if (m_withId)
            columns.append({"id", QStringLiteral("ID"), true, true, true});
        for (const KnownColumn &known : columnsOf(m_kind)) {
            const QByteArray key(known.key);
            if (m_forPeople && key == "end_time")
                continue;
            OutputColumn column{key, QString::fromLatin1(known.title)};
            column.right = key == "level" || key == "value" || key == "limit";
            column.number = key == "level";
            column.fixed = key == "level" || key == "time" || key == "start";
            column.twice = known.twice && !m_ofFleet; // the archive has it as it was meant
            column.main = key == "description" || key == "message";
            if (m_forPeople && key == "end_date") {
                column.title = QStringLiteral("End");
                column.least = 8; // a clock
            }
            columns.append(column);
        }
        return columns;
    }

    /// `Row`: a Statement or FleetRows.
    template<typename Row>
    QVector<QByteArray> cells(const Row &row) const
    {
        QVector<QByteArray> cells;
        for (int i = 1; i < row.columns(); ++i)
            cells << row.cell(i);
        if (m_utc)
            toUtc(cells, zoneOf(row));
        if (m_kind == Kind::Alarms && m_forPeople) {
            const QByteArray clock = cells.takeLast();
            cells.last() = shortEnd(cells.at(1), cells.last(), clock);
        }
        if (m_withId)
            cells.prepend(row.cell(0));
        if (m_ofFleet)
            cells.prepend(deviceOf(row));
        return cells;
    }

    template<typename Row>
    Tone tone(const Row &row) const
    {
        if (m_kind != Kind::Alarms)
            return Tone::Plain;
        const bool ended = !row.cell(AlarmEndDate).isEmpty() || !row.cell(AlarmEndTime).isEmpty();
        const qint64 level = row.number(AlarmLevel);
        if (ended)
            return Tone::Faint;
        return level >= 3 ? Tone::Danger : level == 2 ? Tone::Warning : level == 1 ? Tone::Notice : Tone::Plain;
    }

private:
    static QByteArray deviceOf(const Statement &) { return QByteArray(); }
    static QByteArray deviceOf(const FleetRows &row) { return row.device(); }
    static QTimeZone zoneOf(const Statement &) { return QTimeZone(); } // this computer's
    static QTimeZone zoneOf(const FleetRows &row) { return row.zone(); }

    // Both as they are: NULL is not an empty text, which is how the store writes that an alarm lasts.
    static QByteArray oneCell(const QByteArray &date, const QByteArray &clock)
    {
        if (date.isNull() && clock.isNull())
            return QByteArray();
        const auto shown = [](const QByteArray &cell) { return cell.isNull() ? QByteArray("NULL") : cell; };
        return (shown(date) + ' ' + shown(clock)).trimmed();
    }

    // The clock alone, and in front of it the days that lie between: lines are short of room.
    static QByteArray shortEnd(const QByteArray &start, const QByteArray &date, const QByteArray &clock)
    {
        const qint64 from = millisecondsOf(start.left(10) + " 00:00:00", false);
        const qint64 to = millisecondsOf(QByteArray(date).replace('/', '-') + " 00:00:00", false);
        if (from < 0 || to < from || clock.isEmpty())
            return oneCell(date, clock); // active, or in a form of its own
        return to > from ? '+' + QByteArray::number((to - from) / 86400000) + " d " + clock : clock;
    }

    void toUtc(QVector<QByteArray> &cells, const QTimeZone &zone) const
    {
        QByteArray &time = cells[timeColumnOf(m_kind) - 1];
        time = inUtc(time, m_milliseconds, zone);
        if (m_kind != Kind::Alarms)
            return;
        const QByteArray turned = inUtc(endOfAlarm(cells.at(7), cells.at(8)), false, zone);
        if (turned.size() == 19) {
            cells[7] = turned.left(10);
            cells[8] = turned.mid(11);
        }
    }

    Kind m_kind;
    bool m_milliseconds;
    bool m_utc;
    bool m_withId;
    bool m_ofFleet;
    bool m_forPeople;
};

void addTable(CLI::App *command, RowsOptions &options)
{
    addText(command, "TABLE", options.table, "The table")->type_name("");
}

void addPresentation(CLI::App *command, RowsOptions &options)
{
    command->add_flag("--id", options.withId, "Print the IDs too");
    addOutput(command, options.output);
}

Result<OpenTable> open(const RowsOptions &options)
{
    return openTable(options.path, options.reading, options.table, options.query.filter.kinds());
}

template<typename Rows>
Outcome printAll(Rows &rows, const Presentation &presentation, const OutputOptions &options)
{
    Output output(options);
    const auto writer = rowWriter(options.format, presentation.columns(), output);
    while (rows.step()) {
        if (!writer->row(presentation.cells(rows), presentation.tone(rows)))
            return Done; // nobody looks any more
    }
    if (const Status status = rows.status(); !status)
        return status.error();
    writer->end();
    return Done;
}

Outcome printFleet(const RowsOptions &options)
{
    const auto fleet = openFleet(options.path, options.devices);
    if (!fleet)
        return fleet.error();
    const auto rows = (*fleet)->rows(options.table, options.query);
    if (!rows)
        return rows.error();
    return printAll(**rows, Presentation((*rows)->kind(), options.output, options.withId, true), options.output);
}

Outcome print(RowsOptions &options)
{
    options.query.utc = options.output.utc;
    if (isFleet(options.path))
        return printFleet(options);
    const auto opened = open(options);
    if (!opened)
        return opened.error();
    auto rows = rowsOf(opened->database, opened->table, options.query);
    if (!rows)
        return rows.error();
    return printAll(*rows, Presentation(opened->table.kind, options.output, options.withId), options.output);
}

// What changes when somebody writes: the times and sizes of the file and of its write-ahead log.
QByteArray marks(const QString &path)
{
    QByteArray marks;
    const QByteArray file = QFile::encodeName(QFileInfo(path).canonicalFilePath()); // the log is beside it
    for (const char *ending : {"", "-wal"}) {
        struct stat status {
        };
        if (stat((file + ending).constData(), &status) == 0)
            marks += QByteArray::number(qint64(status.st_mtim.tv_sec)) + '.' +
                     QByteArray::number(qint64(status.st_mtim.tv_nsec)) + ':' +
                     QByteArray::number(qint64(status.st_size)) + ' ';
    }
    return marks;
}

Outcome tail(RowsOptions &options)
{
    options.output.noPager = true;
    options.query.utc = options.output.utc;
    QByteArray seen = marks(options.path);
    qint64 lastId = 0;
    Output output(options.output);
    std::unique_ptr<RowWriter> writer;
    std::optional<Presentation> presentation;
    {
        const auto opened = open(options);
        if (!opened)
            return opened.error();
        presentation.emplace(opened->table.kind, options.output, options.withId);
        writer = rowWriter(options.output.format, presentation->columns(), output);
        options.table = opened->table.name;
        // The newest, turned round: the newest row is at the bottom.
        options.query.order = Order::NewestFirst;
        auto rows = rowsOf(opened->database, opened->table, options.query);
        if (!rows)
            return rows.error();
        QVector<std::pair<QVector<QByteArray>, Tone>> newest;
        while (rows->step())
            newest.append({presentation->cells(*rows), presentation->tone(*rows)});
        if (const Status status = rows->status(); !status)
            return status.error();
        for (auto row = newest.crbegin(); row != newest.crend(); ++row)
            writer->row(row->first, row->second);
        const auto last = opened->database.number("select coalesce(max(ID),0) from " + identifier(opened->table.name));
        if (!last)
            return last.error();
        lastId = *last;
    }
    if (!options.follow) {
        writer->end();
        return Done;
    }
    writer->settle();
    options.query.order = Order::AsRecorded;
    options.query.limit = -1;
    while (output.flush() && output.waitFor(std::max(10, options.interval))) {
        const QByteArray now = marks(options.path);
        if (now == seen)
            continue;
        const auto opened = open(options);
        if (!opened)
            return opened.error();
        seen = now;
        const auto last = opened->database.number("select coalesce(max(ID),0) from " + identifier(opened->table.name));
        if (!last)
            return last.error();
        if (*last < lastId)
            lastId = 0; // the table was emptied and its IDs begin anew
        options.query.filter.afterId = lastId;
        auto rows = rowsOf(opened->database, opened->table, options.query);
        if (!rows)
            return rows.error();
        while (rows->step()) {
            writer->row(presentation->cells(*rows), presentation->tone(*rows));
            lastId = std::max(lastId, rows->number(0));
        }
        if (const Status status = rows->status(); !status)
            return status.error();
        writer->settle();
    }
    return Done;
}

std::shared_ptr<RowsOptions> ofFile(CLI::App *command)
{
    const auto options = std::make_shared<RowsOptions>();
    addFile(command, options->path, options->reading);
    return options;
}

std::shared_ptr<RowsOptions> ofFileOrFleet(CLI::App *command)
{
    const auto options = std::make_shared<RowsOptions>();
    addSource(command, options->path, options->reading, options->devices);
    return options;
}

void addLimit(CLI::App *command, RowsOptions &options, const char *description)
{
    command->add_option("-n,--limit", options.query.limit, description)->type_name("N")->check(wholeNumber());
}

} // namespace

void addRows(Program &program)
{
    {
        CLI::App *const command = program.add("show", "Print the rows of a table, oldest first", aboutTables);
        const auto options = ofFile(command);
        addTable(command, *options);
        addRange(command, options->query.filter);
        addFilter(command, options->query.filter);
        addLimit(command, *options, "At most this many rows");
        command->add_option("--offset", options->query.offset, "Skip this many rows first")
            ->type_name("N")
            ->check(wholeNumber());
        command->add_flag("--newest-first", options->newestFirst, "Turn the order round");
        addPresentation(command, *options);
        program.onRun(command, [options] {
            options->query.order = options->newestFirst ? Order::NewestFirst : Order::OldestFirst;
            return print(*options);
        });
    }
    {
        CLI::App *const command = program.add("newest", "Print the newest rows, newest first", aboutTables);
        const auto options = ofFileOrFleet(command);
        options->query.limit = 10;
        options->query.order = Order::NewestFirst;
        addTable(command, *options);
        addFilter(command, options->query.filter);
        addLimit(command, *options, "Number of rows; default: 10");
        addPresentation(command, *options);
        program.onRun(command, [options] { return print(*options); });
    }
    {
        CLI::App *const command = program.add("range", "Print the rows of a range of time, oldest first", aboutTimes);
        const auto options = ofFileOrFleet(command);
        addText(command, "FROM", options->query.filter.from, "The first time")->type_name("")->required();
        addText(command, "TO", options->query.filter.to, "The last time")->type_name("")->required();
        addTable(command, *options);
        addFilter(command, options->query.filter);
        addLimit(command, *options, "At most this many rows");
        addPresentation(command, *options);
        program.onRun(command, [options] { return print(*options); });
    }
    {
        CLI::App *const command = program.add("find", "Print the rows that hold a text, oldest first",
                                              "The case of letters plays no part. TABLE may be left out when the file "
                                              "has only one that fits.");
        const auto options = ofFileOrFleet(command);
        addText(command, "TEXT", options->query.filter.containing, "The text, in any column")
            ->type_name("")
            ->required();
        addTable(command, *options);
        addRange(command, options->query.filter);
        addFilter(command, options->query.filter);
        addLimit(command, *options, "At most this many rows");
        addPresentation(command, *options);
        program.onRun(command, [options] { return print(*options); });
    }
    {
        CLI::App *const command = program.add("tail", "Print the newest rows and follow what comes", aboutTables);
        const auto options = ofFile(command);
        options->query.limit = 10;
        addTable(command, *options);
        command->add_flag("-f,--follow", options->follow, "Go on with the rows that come, until Ctrl-C");
        command->add_option("--interval", options->interval, "How often to look, in milliseconds; default: 500")
            ->type_name("MS")
            ->check(wholeNumber());
        addFilter(command, options->query.filter);
        addLimit(command, *options, "Number of rows to begin with; default: 10");
        addPresentation(command, *options);
        program.onRun(command, [options] { return tail(*options); });
    }
}

} // namespace device_db
