// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/options.h"
#include "program/program.h"
#include "storefile/row_query.h"
#include "storefile/statistics.h"
#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/table_writer.h"

#include <QDateTime>

#include <algorithm>
#include <cstdint>
#include <map>

namespace device_db
{

namespace
{

struct StatsCommand {
    QString path;
    ReadOptions reading;
    QStringList tables;
    RowFilter range;
    std::string by; ///< Empty: everything that fits, for people.
    int limit = -1; ///< Negative: the default of each section.
    OutputOptions output;

    size_t lines() const { return limit < 0 ? 10 : size_t(limit); } ///< Of a list by frequency.
    size_t linesOfSeries() const { return limit < 0 ? SIZE_MAX : size_t(limit); }
};

QByteArray timeText(qint64 milliseconds)
{
    if (milliseconds < 0)
        return QByteArray("");
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC)
        .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"))
        .toLatin1();
}

// The digits that tell a number from its neighbours, eight or more: a counter's last ones matter.
int digitsOf(double number)
{
    int digits = 8;
    while (digits < 17 && QByteArray::number(number, 'g', digits).toDouble() != number)
        ++digits;
    return digits;
}

QByteArray numberText(double number, int digits)
{
    return QByteArray::number(number, 'g', digits);
}

/// Standard output, section by section. For people each has its title and a table of its own. A program gets one table,
/// whatever the number of sections: they differ in the file's table alone, which is then the first column.
class Report
{
public:
    explicit Report(const OutputOptions &options) : m_output(options), m_format(options.format) {}
    ~Report()
    {
        if (m_data)
            m_data->end();
    }

private:
    friend class Section;
    Output m_output;
    Format m_format;
    bool m_any = false;
    std::unique_ptr<RowWriter> m_data;
};

/// One section. `table`: what it is about; empty: several series.
class Section
{
public:
    Section(Report &report, const QString &table, const QString &title, QVector<OutputColumn> columns)
        : m_report(report), m_people(isForPeople(report.m_format)), m_table(table.toUtf8())
    {
        if (m_people) {
            const QString heading = table.isEmpty() ? title : table + QLatin1String(": ") + title;
            report.m_output.write((report.m_any ? "\n" : "") + visible(heading).toUtf8() + '\n');
            m_writer = rowWriter(report.m_format, columns, report.m_output);
        } else if (!report.m_data) {
            if (!table.isEmpty())
                columns.prepend({"table", QString()});
            report.m_data = rowWriter(report.m_format, columns, report.m_output);
        }
        report.m_any = true;
    }
    ~Section()
    {
        if (!m_people)
            return;
        m_writer->settle();
        if (m_rows == 0)
            m_report.m_output.write("none\n");
    }

    bool forPeople() const { return m_people; }
    QByteArray count(qint64 number) const { return m_people ? grouped(number).toLatin1() : QByteArray::number(number); }
    QByteArray span(qint64 milliseconds) const
    {
        if (milliseconds < 0)
            return QByteArray("");
        const double seconds = double(milliseconds) / 1000;
        return m_people ? duration(milliseconds).toLatin1() : numberText(seconds, digitsOf(seconds));
    }
    void row(QVector<QByteArray> cells)
    {
        ++m_rows;
        if (m_people) {
            m_writer->row(cells, Tone::Plain);
            return;
        }
        if (!m_table.isEmpty())
            cells.prepend(m_table);
        m_report.m_data->row(cells, Tone::Plain);
    }

private:
    Report &m_report;
    bool m_people;
    QByteArray m_table;
    int m_rows = 0;
    std::unique_ptr<RowWriter> m_writer; ///< For people alone.
};

struct AlarmGroup {
    qint64 alarms = 0;
    qint64 active = 0;
    qint64 longest = -1;
    qint64 lasted = 0; ///< All that ended, together.
    qint64 ended = 0;
};

struct SingleAlarm {
    QByteArray object;
    QByteArray type;
    QByteArray level;
    qint64 begin;
    qint64 lasted;
};

class Statistics
{
public:
    Statistics(const Database &database, const StatsCommand &command)
        : m_database(database), m_command(command), m_report(command.output)
    {
    }

    Status series(const QList<Table> &tables);
    Status alarms(const Table &table);
    Status log(const Table &table);

private:
    Result<Statement> rows(const Table &table) const
    {
        RowQuery query;
        query.filter = m_command.range;
        query.order = Order::AsRecorded;
        query.utc = m_command.output.utc;
        return rowsOf(m_database, table, query);
    }
    bool wants(const char *section) const { return m_command.by.empty() || m_command.by == section; }
    qint64 timeOf(const QByteArray &text, bool milliseconds) const
    {
        return millisecondsOf(m_command.output.utc ? inUtc(text, milliseconds) : text, milliseconds);
    }
    void groups(const Table &table, const QString &title, const char *key, const QString &heading,
                const std::map<QByteArray, AlarmGroup> &all);

    const Database &m_database;
    const StatsCommand &m_command;
    Report m_report;
};

Status Statistics::series(const QList<Table> &tables)
{
    if (tables.isEmpty() || (!wants("series") && !wants("time") && !wants("gap")))
        return {};
    std::vector<std::pair<Table, SeriesStatistics>> all;
    for (const Table &table : tables) {
        auto samples = rows(table);
        if (!samples)
            return samples.error();
        SeriesStatistics figures;
        while (samples->step())
            figures.add(timeOf(samples->cell(SampleTime), false), samples->cell(SampleValue));
        if (const Status status = samples->status(); !status)
            return status;
        all.emplace_back(table, figures);
    }
    const size_t lines = std::min(all.size(), m_command.linesOfSeries());
    if (wants("series")) {
        Section section(m_report, QString(), QStringLiteral("Series"),
                        {{"series", QStringLiteral("Series")},
                         {"rows", QStringLiteral("Rows"), true, true},
                         {"no_numbers", QStringLiteral("No numbers"), true, true},
                         {"minimum", QStringLiteral("Minimum"), true, true},
                         {"mean", QStringLiteral("Mean"), true, true},
                         {"maximum", QStringLiteral("Maximum"), true, true}});
        for (size_t i = 0; i < lines; ++i) {
            const auto &[table, figures] = all[i];
            const int digits = std::max(digitsOf(figures.lowest), digitsOf(figures.highest));
            const auto number = [&, any = figures.numbers > 0](double value) {
                return any ? numberText(value, digits) : QByteArray("");
            };
            section.row({table.name.toUtf8(), section.count(figures.rows),
                         section.count(figures.rows - figures.numbers), number(figures.lowest), number(figures.mean()),
                         number(figures.highest)});
        }
    }
    if (wants("time")) {
        Section section(m_report, QString(), QStringLiteral("Times"),
                        {{"series", QStringLiteral("Series")},
                         {"first", QStringLiteral("First")},
                         {"last", QStringLiteral("Last")},
                         {"usual_s", QStringLiteral("Usual distance"), true, true},
                         {"steps_back", QStringLiteral("Set back"), true, true}});
        for (size_t i = 0; i < lines; ++i) {
            const auto &[table, figures] = all[i];
            section.row({table.name.toUtf8(), timeText(figures.firstTime), timeText(figures.lastTime),
                         section.span(figures.distances.usual()), section.count(figures.stepsBack)});
        }
    }
    if (wants("gap")) {
        Section section(m_report, QString(), QStringLiteral("Gaps, pauses of more than five times the usual distance"),
                        {{"series", QStringLiteral("Series")},
                         {"gaps", QStringLiteral("Gaps"), true, true},
                         {"longest_s", QStringLiteral("Longest"), true, true},
                         {"begin", QStringLiteral("It begins")}});
        size_t shown = 0;
        for (const auto &[table, figures] : all) {
            const qint64 gaps = figures.distances.gaps();
            if ((gaps > 0 || !section.forPeople()) && shown++ < lines)
                section.row({table.name.toUtf8(), section.count(gaps),
                             section.span(gaps > 0 ? figures.distances.longest() : -1),
                             timeText(gaps > 0 ? figures.distances.longestBegin() : -1)});
        }
    }
    return {};
}

void Statistics::groups(const Table &table, const QString &title, const char *key, const QString &heading,
                        const std::map<QByteArray, AlarmGroup> &all)
{
    Section section(m_report, table.name, title,
                    {{key, heading},
                     {"alarms", QStringLiteral("Alarms"), true, true},
                     {"active", QStringLiteral("Active"), true, true},
                     {"mean_s", QStringLiteral("Lasted, mean"), true, true},
                     {"longest_s", QStringLiteral("longest"), true, true}});
    std::vector<std::pair<QByteArray, AlarmGroup>> sorted(all.begin(), all.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto &a, const auto &b) { return a.second.alarms > b.second.alarms; });
    if (sorted.size() > m_command.lines())
        sorted.resize(m_command.lines());
    for (const auto &[name, group] : sorted)
        section.row({name, section.count(group.alarms), section.count(group.active),
                     section.span(group.ended > 0 ? group.lasted / group.ended : -1), section.span(group.longest)});
}

Status Statistics::alarms(const Table &table)
{
    auto alarms = rows(table);
    if (!alarms)
        return alarms.error();
    std::map<QByteArray, AlarmGroup> objects;
    std::map<QByteArray, AlarmGroup> types;
    std::map<QByteArray, AlarmGroup> levels;
    std::vector<SingleAlarm> single;
    std::vector<qint64> begins;
    while (alarms->step()) {
        const qint64 begin = timeOf(alarms->cell(AlarmStart), false);
        const bool active = alarms->cell(AlarmEndDate).isEmpty() && alarms->cell(AlarmEndTime).isEmpty();
        const qint64 end = timeOf(endOfAlarm(alarms->cell(AlarmEndDate), alarms->cell(AlarmEndTime)), false);
        const qint64 lasted = begin >= 0 && end >= begin ? end - begin : -1;
        for (AlarmGroup *group : {&objects[alarms->cell(AlarmObject)], &types[alarms->cell(AlarmType)],
                                  &levels[alarms->cell(AlarmLevel)]}) {
            ++group->alarms;
            group->active += active;
            group->longest = std::max(group->longest, lasted);
            group->lasted += std::max<qint64>(lasted, 0);
            group->ended += lasted >= 0;
        }
        if (begin >= 0)
            begins.push_back(begin);
        if (lasted >= 0) {
            // Only the longest are kept, whatever the size of the file.
            single.push_back(
                {alarms->cell(AlarmObject), alarms->cell(AlarmType), alarms->cell(AlarmLevel), begin, lasted});
            if (single.size() > 2 * m_command.lines() + 1000) {
                std::stable_sort(single.begin(), single.end(),
                                 [](const auto &a, const auto &b) { return a.lasted > b.lasted; });
                single.resize(m_command.lines());
            }
        }
    }
    if (const Status status = alarms->status(); !status)
        return status;
    if (wants("level"))
        groups(table, QStringLiteral("alarms by level"), "level", QStringLiteral("Level"), levels);
    if (wants("object"))
        groups(table, QStringLiteral("alarms by object, the most frequent first"), "object", QStringLiteral("Object"),
               objects);
    if (wants("type"))
        groups(table, QStringLiteral("alarms by type, the most frequent first"), "type", QStringLiteral("Type"), types);
    if (wants("longest")) {
        std::stable_sort(single.begin(), single.end(),
                         [](const auto &a, const auto &b) { return a.lasted > b.lasted; });
        if (single.size() > m_command.lines())
            single.resize(m_command.lines());
        Section section(m_report, table.name, QStringLiteral("the longest alarms that have ended"),
                        {{"start", QStringLiteral("Start")},
                         {"lasted_s", QStringLiteral("Lasted"), true, true},
                         {"level", QStringLiteral("Level"), true, true},
                         {"object", QStringLiteral("Object")},
                         {"type", QStringLiteral("Type")}});
        for (const SingleAlarm &alarm : single)
            section.row({timeText(alarm.begin), section.span(alarm.lasted), alarm.level, alarm.object, alarm.type});
    }
    if (wants("flood")) {
        std::vector<Flood> floods = floodsIn(begins);
        std::stable_sort(floods.begin(), floods.end(),
                         [](const Flood &a, const Flood &b) { return a.alarms > b.alarms; });
        if (floods.size() > m_command.lines())
            floods.resize(m_command.lines());
        Section section(m_report, table.name,
                        QStringLiteral("floods, more than ten alarms within ten minutes, the largest first"),
                        {{"first", QStringLiteral("First alarm")},
                         {"last", QStringLiteral("Last alarm")},
                         {"alarms", QStringLiteral("Alarms"), true, true},
                         {"most", QStringLiteral("Most in 10 min"), true, true}});
        for (const Flood &flood : floods)
            section.row(
                {timeText(flood.begin), timeText(flood.end), section.count(flood.alarms), section.count(flood.most)});
    }
    return {};
}

Status Statistics::log(const Table &table)
{
    if (!wants("user"))
        return {};
    struct User {
        qint64 entries = 0;
        QByteArray first;
        QByteArray last;
        std::map<QByteArray, qint64> logs;
    };
    std::map<QByteArray, User> users;
    auto entries = rows(table);
    if (!entries)
        return entries.error();
    while (entries->step()) {
        User &user = users[entries->cell(LogUser)];
        QByteArray time = entries->cell(LogTime);
        if (m_command.output.utc)
            time = inUtc(time, true);
        user.first = user.entries == 0 ? time : std::min(user.first, time);
        user.last = std::max(user.last, time);
        ++user.entries;
        ++user.logs[entries->cell(LogName)];
    }
    if (const Status status = entries->status(); !status)
        return status;
    std::vector<std::pair<QByteArray, User>> sorted(users.begin(), users.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto &a, const auto &b) { return a.second.entries > b.second.entries; });
    if (sorted.size() > m_command.lines())
        sorted.resize(m_command.lines());
    Section section(m_report, table.name, QStringLiteral("entries by user"),
                    {{"user", QStringLiteral("User")},
                     {"entries", QStringLiteral("Entries"), true, true},
                     {"first", QStringLiteral("First")},
                     {"last", QStringLiteral("Last")},
                     {"most_log", QStringLiteral("Mostly in")}});
    for (const auto &[name, user] : sorted) {
        const auto most = std::max_element(user.logs.begin(), user.logs.end(),
                                           [](const auto &a, const auto &b) { return a.second < b.second; });
        section.row({name, section.count(user.entries), user.first, user.last, most->first});
    }
    return {};
}

Outcome run(const StatsCommand &command)
{
    if (!isForPeople(command.output.format) && command.by.empty())
        return failure(QStringLiteral("--by"),
                       QStringLiteral("CSV and JSON hold one table; say which, for example --by "
                                      "series"));
    const auto file = openFile(command.path, command.reading);
    if (!file)
        return file.error();
    const Database &database = file->database;
    QList<Table> tables;
    for (const QString &name : command.tables) {
        const auto table = chooseTable(database, name);
        if (!table)
            return table.error();
        tables << *table;
    }
    if (command.tables.isEmpty()) {
        const auto all = tablesOf(database);
        if (!all)
            return all.error();
        std::copy_if(all->begin(), all->end(), std::back_inserter(tables),
                     [](const Table &table) { return holdsRecords(table.kind); });
    }
    if (tables.isEmpty())
        return failure(command.path, QStringLiteral("it has no table of records; \"device-db info\" says more"));
    Statistics statistics(database, command);
    QList<Table> series;
    for (const Table &table : tables) {
        if (table.kind == Kind::Samples)
            series << table;
    }
    if (const Status done = statistics.series(series); !done)
        return done.error();
    for (const Table &table : tables) {
        const Status done = table.kind == Kind::Alarms ? statistics.alarms(table)
                            : table.kind == Kind::Log  ? statistics.log(table)
                                                       : Status();
        if (!done)
            return done.error();
    }
    return Done;
}

} // namespace

void addStats(Program &program)
{
    CLI::App *const command = program.add(
        "stats", "Figures of series, alarms and users",
        "Series: rows, lowest, highest and mean value, times, gaps (pauses of more than five times the usual "
        "distance). Alarms: by level, object and type, the longest, and floods (more than ten within ten minutes). Log: "
        "entries by user. CSV and JSON hold one of these, which --by names; spans are in seconds there.");
    const auto options = std::make_shared<StatsCommand>();
    addFile(command, options->path, options->reading);
    addTexts(command, "TABLE", options->tables, "The tables; default: all of the file")->type_name("");
    addRange(command, options->range);
    command->add_option("--by", options->by, "One of series, time, gap, level, object, type, longest, flood, user")
        ->type_name("WHAT")
        ->check(CLI::IsMember({"series", "time", "gap", "level", "object", "type", "longest", "flood", "user"}));
    command->add_option("-n,--limit", options->limit, "Number of lines of each list; default: 10, and all series")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000));
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
