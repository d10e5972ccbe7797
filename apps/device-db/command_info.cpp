// SPDX-License-Identifier: MIT
#include "commands.h"

#include "open_processes.h"
#include "progress.h"
#include "table_writer.h"
#include "tables.h"
#include "times.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QMap>

#include <algorithm>

namespace device_db
{

namespace
{

struct InfoOptions {
    QString path;
    ReadOptions reading;
    OutputOptions output;
};

/// A kind of row that is worth a look.
struct Finding {
    QString what;
    qint64 rows = 0;
    qint64 firstId = 0;
    QString detail; ///< About the worst of them.
};

struct TableFacts {
    Table table;
    qint64 rows = 0;
    qint64 lastId = 0; ///< Ever given; the next row gets a higher one.
    qint64 bytes = -1; ///< With its indexes; negative: this SQLite cannot tell.
    QByteArray first;
    QByteArray last;
    bool indexed = false;
    QList<Finding> findings;
};

struct Registration {
    QByteArray collector;
    QByteArray name;
    bool hasTable = false;
};

struct FileFacts {
    qint64 bytes = 0;
    qint64 pages = 0;
    qint64 pageSize = 0;
    qint64 freePages = 0;
    QByteArray journal;
    QByteArray encoding;
    qint64 walBytes = -1;     ///< Negative: there is none beside the file.
    qint64 journalBytes = -1; ///< A transaction that is under way, or that a dead process left.
    QList<OpenProcess> processes;
    QList<TableFacts> tables;
    QList<Registration> registrations;
    QStringList unfinished; ///< Imports that stopped.
};

/// Looks at the times of a table in the order of recording.
class TimeCheck
{
public:
    explicit TimeCheck(Kind kind)
        : m_milliseconds(hasMilliseconds(kind)),
          m_gapsMatter(kind == Kind::Samples),
          m_future(QDateTime::currentDateTime().addDays(1).toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")).toLatin1())
    {
    }

    void add(qint64 id, const QByteArray &time)
    {
        const qint64 now = millisecondsOf(time, m_milliseconds);
        if (now < 0 && (time.size() < 4 || time.left(4) >= "1970")) {
            note(m_malformed, id, time);
            return;
        }
        // Such a clock tells nothing about steps and gaps either.
        if (time < "2000" || time > m_future) {
            note(time < "2000" ? m_ancient : m_ahead, id, time);
            return;
        }
        if (m_has && now < m_before) {
            if (m_before - now > m_longestBack) {
                m_longestBack = m_before - now;
                m_back.detail = QStringLiteral("the furthest by %1: %3 behind %4, ID %2")
                                    .arg(duration(m_longestBack))
                                    .arg(id)
                                    .arg(QString::fromUtf8(time), QString::fromUtf8(m_beforeText));
            }
            note(m_back, id, QByteArray());
        } else if (m_has && m_gapsMatter) {
            ++m_intervals[now - m_before];
            if (now - m_before > m_longestGap) {
                m_longestGap = now - m_before;
                m_gapText = QStringLiteral("the longest %1, from %2 to %3")
                                .arg(duration(m_longestGap), QString::fromUtf8(m_beforeText), QString::fromUtf8(time));
                m_gapId = id;
            }
        }
        m_has = true;
        m_before = now;
        m_beforeText = time;
    }

    QList<Finding> findings()
    {
        QList<Finding> all;
        const auto take = [&](Finding &finding, const char *what) {
            finding.what = QString::fromLatin1(what);
            if (finding.rows > 0)
                all << finding;
        };
        take(m_malformed, "time in another form, which does not sort");
        take(m_ancient, "before the year 2000: the clock was not set");
        take(m_ahead, "in the future");
        take(m_back, "clock went back");
        if (const qint64 usual = median(); usual > 0) {
            Finding gap;
            for (auto each = m_intervals.upperBound(10 * usual); each != m_intervals.end(); ++each)
                gap.rows += each.value();
            gap.firstId = m_gapId;
            gap.detail = m_gapText;
            take(gap, "");
            if (gap.rows > 0)
                all.last().what =
                    QStringLiteral("behind a gap of more than ten times the usual %1").arg(duration(usual));
        }
        return all;
    }

private:
    static void note(Finding &finding, qint64 id, const QByteArray &time)
    {
        if (finding.rows++ == 0)
            finding.firstId = id;
        if (!time.isNull() && finding.detail.isEmpty())
            finding.detail =
                QStringLiteral("the first: \"%2\", ID %1").arg(id).arg(visible(QString::fromUtf8(time)).left(40));
    }

    qint64 median() const
    {
        qint64 count = 0;
        for (const qint64 rows : m_intervals)
            count += rows;
        qint64 passed = 0;
        for (auto each = m_intervals.begin(); each != m_intervals.end(); ++each) {
            passed += each.value();
            if (passed * 2 >= count)
                return each.key();
        }
        return 0;
    }

    bool m_milliseconds;
    bool m_gapsMatter;
    QByteArray m_future;
    bool m_has = false;
    qint64 m_before = 0;
    QByteArray m_beforeText;
    qint64 m_longestBack = 0;
    qint64 m_longestGap = 0;
    qint64 m_gapId = 0;
    QString m_gapText;
    QMap<qint64, qint64> m_intervals; // how often each was seen
    Finding m_malformed;
    Finding m_ancient;
    Finding m_ahead;
    Finding m_back;
};

Status lookAt(const Database &database, TableFacts &facts, Progress &progress)
{
    const QByteArray name = identifier(facts.table.name);
    auto sequence = database.prepare("select max((select coalesce(max(seq),0) from sqlite_sequence where name=?1),"
                                     "(select coalesce(max(ID),0) from " +
                                     name + "))");
    if (!sequence) // a file in which nothing counts IDs
        sequence = database.prepare("select coalesce(max(ID),0) from " + name);
    if (!sequence)
        return sequence.error();
    sequence->bind(1, facts.table.name.toUtf8());
    if (sequence->step())
        facts.lastId = sequence->number(0);

    auto index = database.prepare("select count(*) from pragma_index_list(?1) l join pragma_index_info(l.name) i "
                                  "where i.seqno=0 and upper(i.name)='DATETIME'");
    if (!index)
        return index.error();
    index->bind(1, facts.table.name.toUtf8());
    facts.indexed = index->step() && index->number(0) > 0;

    auto rows = database.prepare("select ID,DATETIME from " + name + " order by ID");
    if (!rows)
        return rows.error();
    TimeCheck check(facts.table.kind);
    while (rows->step()) {
        const QByteArray time = rows->cell(1);
        check.add(rows->number(0), time.isNull() ? QByteArray("") : time);
        if (facts.rows == 0 || time < facts.first)
            facts.first = time;
        if (facts.rows == 0 || time > facts.last)
            facts.last = time;
        if (++facts.rows % 4096 == 0)
            progress.show(0, 0, facts.rows);
    }
    if (const Status status = rows->status(); !status)
        return status;
    facts.findings = check.findings();
    if (facts.table.kind != Kind::Alarms)
        return {};
    auto half = database.prepare("select count(*),min(ID) from " + name +
                                 " where not coalesce(EndDate='' and EndTime='',0) and not coalesce(EndDate!='' and "
                                 "EndTime!='',0)");
    if (!half)
        return half.error();
    if (half->step() && half->number(0) > 0)
        facts.findings << Finding{
            QStringLiteral("neither active nor ended"), half->number(0), half->number(1),
            QStringLiteral("the first: ID %1; the device's queries find none of them").arg(half->number(1))};
    return half->status();
}

Result<FileFacts> factsOf(const InfoOptions &options)
{
    const auto file = openForReading(options.path, options.reading);
    if (!file)
        return file.error();
    const auto database = Database::open(file->path(), Database::ReadOnly, options.path);
    if (!database)
        return database.error();
    FileFacts facts;
    facts.bytes = QFileInfo(options.path).size();
    for (const auto &[sql, number] :
         {std::pair{"pragma page_count", &facts.pages}, std::pair{"pragma page_size", &facts.pageSize},
          std::pair{"pragma freelist_count", &facts.freePages}}) {
        const auto value = database->number(sql);
        if (!value)
            return value.error();
        *number = *value;
    }
    for (const auto &[sql, text] :
         {std::pair{"pragma journal_mode", &facts.journal}, std::pair{"pragma encoding", &facts.encoding}}) {
        const auto value = database->text(sql);
        if (!value)
            return value.error();
        *text = *value;
    }
    for (const auto &[ending, bytes] :
         {std::pair{"-wal", &facts.walBytes}, std::pair{"-journal", &facts.journalBytes}}) {
        const QFileInfo beside(options.path + QLatin1String(ending));
        if (beside.exists())
            *bytes = beside.size();
    }
    facts.processes = processesThatHave(options.path);

    const auto tables = tablesOf(*database);
    if (!tables)
        return tables.error();
    QMap<QString, qint64> sizes;
    auto stat = database->prepare("select m.tbl_name,sum(d.pgsize) from dbstat d join sqlite_master m on m.name=d.name "
                                  "where d.aggregate=1 group by m.tbl_name");
    while (stat && stat->step()) // not every SQLite has it
        sizes[QString::fromUtf8(stat->cell(0))] = stat->number(1);
    Progress progress(QStringLiteral("rows looked at"));
    for (const Table &table : *tables) {
        TableFacts each;
        each.table = table;
        each.bytes = sizes.value(table.name, -1);
        if (holdsRecords(table.kind)) {
            if (const Status looked = lookAt(*database, each, progress); !looked)
                return looked.error();
        } else {
            const auto rows = database->number("select count(*) from " + identifier(table.name));
            if (!rows)
                return rows.error();
            each.rows = *rows;
        }
        if (table.name == QLatin1String("device_db_import")) {
            auto rows = database->prepare("select source,target,stored,line from device_db_import");
            while (rows && rows->step())
                facts.unfinished << QStringLiteral("%1 into %2: %3 stored, stopped at line %4")
                                        .arg(QString::fromUtf8(rows->cell(0)), QString::fromUtf8(rows->cell(1)),
                                             rowsText(rows->number(2)), grouped(rows->number(3)));
        } else {
            facts.tables << each;
        }
        if (table.kind != Kind::Configuration)
            continue;
        auto rows = database->prepare("select COLLECTOR,NAME from " + identifier(table.name) + " order by ID");
        if (!rows)
            return rows.error();
        while (rows->step()) {
            const QByteArray collector = decodedTwice(rows->cell(0));
            const bool stands = std::any_of(tables->begin(), tables->end(), [&](const Table &other) {
                return other.name.compare(QString::fromUtf8(collector), Qt::CaseInsensitive) == 0;
            });
            facts.registrations.append({collector, decodedTwice(rows->cell(1)), stands});
        }
    }
    return facts;
}

QString journalText(const FileFacts &facts)
{
    if (facts.journal != "wal") {
        return facts.journalBytes > 0 ? QStringLiteral("rollback, %1 of a transaction that is under way or was cut off")
                                            .arg(bytesText(facts.journalBytes))
                                      : QStringLiteral("rollback: a reader can make the device's commits fail");
    }
    return facts.walBytes > 0 ? QStringLiteral("write-ahead, %1 in the log").arg(bytesText(facts.walBytes))
                              : QStringLiteral("write-ahead");
}

void print(const InfoOptions &options, const FileFacts &facts)
{
    Output output(options.output);
    const auto line = [&](const char *title, const QString &text) {
        output.write(QByteArray(title).leftJustified(10) + visible(text).toUtf8() + '\n');
    };
    line("File", options.path);
    line("Size", QStringLiteral("%1: %2 pages of %3 bytes, %4 free")
                     .arg(bytesText(facts.bytes), grouped(facts.pages))
                     .arg(facts.pageSize)
                     .arg(grouped(facts.freePages)));
    line("Journal", journalText(facts));
    line("Texts", QString::fromLatin1(facts.encoding));
    line("Open in",
         facts.processes.isEmpty() ? QStringLiteral("no process that can be seen from here") : listed(facts.processes));
    for (const QString &import : facts.unfinished)
        line("Unfinished", QStringLiteral("import of %1; run it again to go on").arg(import));

    output.write("\n");
    const auto tables = rowWriter(Format::Table,
                                  {{"", QStringLiteral("Table")},
                                   {"", QStringLiteral("Kind")},
                                   {"", QStringLiteral("Rows"), true, false, true},
                                   {"", QStringLiteral("First"), false, false, true},
                                   {"", QStringLiteral("Last"), false, false, true},
                                   {"", QStringLiteral("Last ID"), true, false, true},
                                   {"", QStringLiteral("Size"), true, false, true},
                                   {"", QStringLiteral("Index"), false, false, true}},
                                  output);
    // To the minute where there is room, to the day in 80 columns.
    const int shown = output.width() == 0 || output.width() >= 96 ? 16 : 10;
    bool odd = false;
    for (const TableFacts &each : facts.tables) {
        const auto time = [&](const QByteArray &text) {
            return options.output.utc ? inUtc(text, hasMilliseconds(each.table.kind)) : text;
        };
        const bool records = holdsRecords(each.table.kind);
        tables->row({each.table.name.toUtf8(),
                     each.table.kind == Kind::Configuration ? "names" : nameOf(each.table.kind),
                     grouped(each.rows).toLatin1(), records && each.rows > 0 ? time(each.first).left(shown) : "",
                     records && each.rows > 0 ? time(each.last).left(shown) : "",
                     records ? grouped(each.lastId).toLatin1() : "",
                     each.bytes < 0 ? QByteArray("") : bytesText(each.bytes).toLatin1(),
                     !records       ? ""
                     : each.indexed ? "time"
                                    : "none"},
                    Tone::Plain);
        odd = odd || !each.findings.isEmpty();
    }
    tables->settle();
    if (facts.tables.isEmpty())
        output.write("no tables\n");

    if (!facts.registrations.isEmpty()) {
        output.write("\n");
        const auto series = rowWriter(
            Format::Table, {{"", QStringLiteral("Collector")}, {"", QStringLiteral("Name")}, {"", QString()}}, output);
        for (const Registration &each : facts.registrations)
            series->row({each.collector, each.name, each.hasTable ? "" : "there is no such table"},
                        each.hasTable ? Tone::Plain : Tone::Warning);
        series->settle();
    }
    if (!odd)
        return;
    output.write("\nWorth a look\n");
    for (const TableFacts &each : facts.tables) {
        for (const Finding &finding : each.findings)
            output.write(QStringLiteral("  %1, %2: %3\n      %4\n")
                             .arg(each.table.name, rowsText(finding.rows), finding.what, finding.detail)
                             .toUtf8());
    }
}

void printJson(const InfoOptions &options, const FileFacts &facts)
{
    QJsonArray tables;
    for (const TableFacts &each : facts.tables) {
        QJsonObject table{{QStringLiteral("name"), each.table.name},
                          {QStringLiteral("kind"), QLatin1String(nameOf(each.table.kind))},
                          {QStringLiteral("columns"), QJsonArray::fromStringList(each.table.columns)},
                          {QStringLiteral("rows"), each.rows}};
        if (each.bytes >= 0)
            table.insert(QStringLiteral("bytes"), each.bytes);
        if (holdsRecords(each.table.kind)) {
            QJsonArray findings;
            for (const Finding &finding : each.findings)
                findings.append(QJsonObject{{QStringLiteral("what"), finding.what},
                                            {QStringLiteral("rows"), finding.rows},
                                            {QStringLiteral("id"), finding.firstId},
                                            {QStringLiteral("detail"), finding.detail}});
            const bool milliseconds = hasMilliseconds(each.table.kind);
            for (const auto &[key, time] : {std::pair{"first", each.first}, std::pair{"last", each.last}}) {
                if (each.rows > 0)
                    table.insert(QLatin1String(key),
                                 QString::fromUtf8(options.output.utc ? inUtc(time, milliseconds) : time));
            }
            table.insert(QStringLiteral("last_id"), each.lastId);
            table.insert(QStringLiteral("time_index"), each.indexed);
            table.insert(QStringLiteral("findings"), findings);
        }
        tables.append(table);
    }
    QJsonArray registrations;
    for (const Registration &each : facts.registrations)
        registrations.append(QJsonObject{{QStringLiteral("collector"), QString::fromUtf8(each.collector)},
                                         {QStringLiteral("name"), QString::fromUtf8(each.name)},
                                         {QStringLiteral("table"), each.hasTable}});
    QJsonArray processes;
    for (const OpenProcess &each : facts.processes)
        processes.append(QJsonObject{{QStringLiteral("id"), each.id}, {QStringLiteral("name"), each.name}});
    const QJsonObject file{
        {QStringLiteral("file"), options.path},
        {QStringLiteral("bytes"), facts.bytes},
        {QStringLiteral("pages"), facts.pages},
        {QStringLiteral("page_size"), facts.pageSize},
        {QStringLiteral("free_pages"), facts.freePages},
        {QStringLiteral("journal"), facts.journal == "wal" ? QStringLiteral("wal") : QStringLiteral("rollback")},
        {QStringLiteral("encoding"), QString::fromLatin1(facts.encoding)},
        {QStringLiteral("processes"), processes},
        {QStringLiteral("unfinished_imports"), QJsonArray::fromStringList(facts.unfinished)},
        {QStringLiteral("configuration"), registrations},
        {QStringLiteral("tables"), tables}};
    Output output(options.output);
    output.write(QJsonDocument(file).toJson());
}

} // namespace

void addInfo(Program &program)
{
    CLI::App *const command = program.add(
        "info", "Say what the file is, what is in it and what looks odd",
        "Every row is looked at once, in the order of recording: times in another form, before 2000 or in the future, "
        "a clock that went back, gaps between samples.");
    const auto options = std::make_shared<InfoOptions>();
    addFile(command, options->path, options->reading);
    command->add_flag_callback(
        "--json", [options = options.get()] { options->output.format = Format::Json; }, "Print JSON");
    addLook(command, options->output);
    program.onRun(command, [options]() -> Outcome {
        const auto facts = factsOf(*options);
        if (!facts)
            return facts.error();
        if (options->output.format == Format::Json)
            printJson(*options, *facts);
        else
            print(*options, *facts);
        return Done;
    });
}

} // namespace device_db
