// SPDX-License-Identifier: MIT
#include "commands.h"

#include "help.h"
#include "sqlite.h"
#include "table_writer.h"
#include "tables.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace device_db
{

namespace
{

struct CheckCommand {
    QString path;
    ReadOptions reading;
    OutputOptions output;
};

enum class Severity { Ok, Note, Attention, Damage };

struct Finding {
    Severity severity;
    QString table; ///< Empty: the file.
    QString text;
};

class Check
{
public:
    explicit Check(const Database &database) : m_database(database) {}

    Status run();
    const QList<Finding> &findings() const { return m_findings; }

private:
    void add(Severity severity, const QString &table, const QString &text)
    {
        m_findings.append({severity, table, text});
    }
    Status integrity();
    Status definition(const Table &table);
    Status rows(const Table &table);
    Status configuration(const QList<Table> &tables);
    Result<qint64> count(const Table &table, const QByteArray &condition, QByteArray *firstId) const;

    const Database &m_database;
    QList<Finding> m_findings;
};

// As the store library makes it.
QByteArray layoutOf(Kind kind)
{
    switch (kind) {
    case Kind::Samples:
        return "ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text";
    case Kind::Configuration:
        return "ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text";
    case Kind::Alarms:
        return "ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,"
               "CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text";
    case Kind::Log:
        return "ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text";
    case Kind::Foreign:
        break;
    }
    return QByteArray();
}

// Without the remedies, of which this command is one.
QString plainCause(const Error &error)
{
    return error.cause().section(QLatin1Char(';'), 0, 0);
}

// For people: nothing is cut off.
QByteArray paragraph(const QByteArray &severity, const QByteArray &table, const QByteArray &text, const Output &output)
{
    const std::string indent(11, ' ');
    const std::string body = wrapped((table + ": " + text).toStdString(),
                                     size_t(output.width() > 30 ? output.width() - 11 : 100000), indent);
    return severity.leftJustified(11) + QByteArray::fromStdString(body) + '\n';
}

QByteArray plain(const QByteArray &sql)
{
    return sql.simplified().replace(", ", ",").replace(" ,", ",").replace("( ", "(").replace(" )", ")").toLower();
}

Status Check::run()
{
    if (const Status done = integrity(); !done)
        return done;
    if (std::any_of(m_findings.begin(), m_findings.end(),
                    [](const Finding &f) { return f.severity == Severity::Damage; }))
        return {}; // what stands in a damaged file tells nothing more
    const auto tables = tablesOf(m_database);
    if (!tables)
        return tables.error();
    for (const Table &table : *tables) {
        if (table.kind == Kind::Foreign) {
            add(Severity::Note, table.name, QStringLiteral("no table of a store; it is left alone"));
            continue;
        }
        if (const Status done = definition(table); !done)
            return done;
        if (holdsRecords(table.kind)) {
            if (const Status done = rows(table); !done)
                return done;
        }
    }
    return configuration(*tables);
}

Status Check::integrity()
{
    auto verdicts = m_database.prepare("pragma integrity_check");
    if (!verdicts)
        return verdicts.error();
    while (verdicts->step()) {
        QString verdict = QString::fromUtf8(verdicts->cell(0));
        verdict.remove(QLatin1String("*** in database main ***\n"));
        if (verdict != QLatin1String("ok")) {
            // SQLite tells of a broken rule of a column in the same list.
            const bool rule = verdict.contains(QLatin1String("NULL value in")) ||
                              verdict.contains(QLatin1String("value in")) || verdict.contains(QLatin1String("CHECK"));
            add(rule ? Severity::Attention : Severity::Damage, QString(), verdict);
        }
    }
    if (const Status status = verdicts->status(); !status) {
        add(Severity::Damage, QString(), plainCause(status.error()));
        return {};
    }
    const auto pages = m_database.number("pragma page_count");
    const auto free = m_database.number("pragma freelist_count");
    if (!pages || !free)
        return pages ? free.error() : pages.error();
    if (m_findings.isEmpty())
        add(Severity::Ok, QString(), QStringLiteral("integrity, %1 pages").arg(*pages));
    if (*free > 100 && *free * 2 > *pages)
        add(Severity::Note, QString(),
            QStringLiteral("%1 of its pages are free; \"device-db vacuum\" gives them back").arg(*free));
    return {};
}

Status Check::definition(const Table &table)
{
    const QByteArray name = identifier(table.name);
    auto objects = m_database.prepare("select type,name,coalesce(sql,'') from sqlite_master where tbl_name=?1");
    if (!objects)
        return objects.error();
    objects->bind(1, table.name.toUtf8());
    while (objects->step()) {
        const QByteArray type = objects->cell(0);
        const QString object = QString::fromUtf8(objects->cell(1));
        const QByteArray sql = objects->cell(2);
        if (type == "table" && !plain(sql).endsWith('(' + plain(layoutOf(table.kind)) + ')'))
            add(Severity::Attention, table.name,
                QStringLiteral("its columns have the right names, but other types or rules than the store's: rows that "
                               "break a rule are lost without a word"));
        if (type == "trigger")
            add(Severity::Attention, table.name, QStringLiteral("the trigger %1 acts on it").arg(object));
        if (type == "index" && (sql.isEmpty() || plain(sql).startsWith("create unique")))
            add(Severity::Attention, table.name,
                QStringLiteral("the unique index %1: rows that break it are lost without a word").arg(object));
    }
    return objects->status();
}

Result<qint64> Check::count(const Table &table, const QByteArray &condition, QByteArray *firstId) const
{
    auto row = m_database.prepare("select count(*),min(ID) from " + identifier(table.name) + " where " + condition);
    if (!row)
        return row.error();
    row->step();
    if (const Status status = row->status(); !status)
        return status.error();
    *firstId = row->cell(1);
    return row->number(0);
}

Status Check::rows(const Table &table)
{
    const auto all = m_database.number("select count(*) from " + identifier(table.name));
    if (!all)
        return all.error();
    QByteArray form = "'[0-9][0-9][0-9][0-9]-[0-1][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9]'";
    if (hasMilliseconds(table.kind))
        form.insert(form.size() - 1, ".[0-9][0-9][0-9]");
    struct Suspicion {
        QByteArray condition;
        const char *what;
        const char *consequence;
    };
    QList<Suspicion> suspicions{
        {"DATETIME is null or DATETIME not glob " + form, "times in another form than the store's",
         "they do not sort, and some queries end at them"},
        {"DATETIME glob " + form + " and DATETIME<'1990-01-01'", "times before 1990", "the clock was not set"},
        {"DATETIME glob " + form + " and DATETIME>strftime('%Y-%m-%d %H:%M:%S','now','localtime','+1 day')",
         "times in the future", "seen from this computer"},
    };
    if (table.kind == Kind::Alarms)
        suspicions << Suspicion{
            "(EndDate='' or EndDate is null)<>(EndTime='' or EndTime is null) or EndDate is null or "
            "EndTime is null",
            "alarms with half an end", "no query finds them and no purge removes them"};
    bool clean = true;
    for (const Suspicion &suspicion : suspicions) {
        QByteArray firstId;
        const auto found = count(table, suspicion.condition, &firstId);
        if (!found)
            return found.error();
        if (*found == 0)
            continue;
        clean = false;
        add(Severity::Attention, table.name,
            QStringLiteral("%1: %2, the first with ID %3; %4")
                .arg(QLatin1String(suspicion.what), grouped(*found), QString::fromLatin1(firstId),
                     QLatin1String(suspicion.consequence)));
    }
    if (clean)
        add(Severity::Ok, table.name,
            QStringLiteral("%1, %2 rows").arg(QLatin1String(nameOf(table.kind)), grouped(*all)));
    return {};
}

Status Check::configuration(const QList<Table> &tables)
{
    QStringList series;
    bool listed = false;
    for (const Table &table : tables) {
        if (table.kind == Kind::Samples)
            series << table.name;
        listed = listed || (table.kind == Kind::Configuration && table.name == QLatin1String("tb_config"));
    }
    if (!listed) {
        if (!series.isEmpty())
            add(Severity::Attention, QString(),
                QStringLiteral("there is no tb_config to name its %1 series").arg(series.size()));
        return {};
    }
    auto rows = m_database.prepare("select COLLECTOR from tb_config group by COLLECTOR order by min(ID)");
    if (!rows)
        return rows.error();
    QStringList named;
    while (rows->step()) {
        const QString collector = QString::fromUtf8(decodedTwice(rows->cell(0)));
        named << collector;
        if (!series.contains(collector, Qt::CaseInsensitive))
            add(Severity::Attention, QStringLiteral("tb_config"),
                QStringLiteral("it lists %1, which is no table of samples").arg(collector));
    }
    for (const QString &table : series) {
        if (!named.contains(table, Qt::CaseInsensitive))
            add(Severity::Attention, table, QStringLiteral("tb_config does not list it"));
    }
    return rows->status();
}

const char *textOf(Severity severity)
{
    switch (severity) {
    case Severity::Ok:
        return "ok";
    case Severity::Note:
        return "note";
    case Severity::Attention:
        return "attention";
    case Severity::Damage:
        break;
    }
    return "damage";
}

Tone toneOf(Severity severity)
{
    switch (severity) {
    case Severity::Ok:
        return Tone::Plain;
    case Severity::Note:
        return Tone::Notice;
    case Severity::Attention:
        return Tone::Warning;
    case Severity::Damage:
        break;
    }
    return Tone::Danger;
}

bool beginsAsADatabase(const QString &path)
{
    QFile file(path);
    return !file.open(QIODevice::ReadOnly) || file.size() == 0 || file.read(16) == QByteArray("SQLite format 3\0", 16);
}

Outcome run(const CheckCommand &command)
{
    QList<Finding> findings;
    if (QFileInfo(command.path).isFile() && !beginsAsADatabase(command.path)) {
        findings.append({Severity::Damage, QString(), QStringLiteral("it does not begin as a database does")});
    } else {
        const auto file = openForReading(command.path, command.reading);
        if (!file)
            return file.error();
        const auto database = Database::open(file->path(), Database::ReadOnly, command.path);
        if (!database) {
            findings.append({Severity::Damage, QString(), plainCause(database.error())});
        } else {
            Check check(*database);
            if (const Status done = check.run(); !done)
                return done.error();
            findings = check.findings();
        }
    }
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding &a, const Finding &b) { return a.severity > b.severity; });
    Output output(command.output);
    const auto writer = rowWriter(command.output.format,
                                  {{"severity", QStringLiteral("Result")},
                                   {"table", QStringLiteral("Table")},
                                   {"finding", QStringLiteral("What")}},
                                  output);
    Severity worst = Severity::Ok;
    for (const Finding &finding : findings) {
        worst = std::max(worst, finding.severity);
        const QByteArray table = finding.table.isEmpty() ? QByteArray("(file)") : finding.table.toUtf8();
        if (command.output.format == Format::Table)
            output.write(paragraph(textOf(finding.severity), table, visible(finding.text).toUtf8(), output));
        else
            writer->row({textOf(finding.severity), table, finding.text.toUtf8()}, toneOf(finding.severity));
    }
    writer->settle();
    if (worst == Severity::Damage && command.output.format == Format::Table)
        output.write("\n\"device-db salvage\" gets the rows out of a damaged file.\n");
    return worst == Severity::Damage ? Damaged : worst == Severity::Attention ? Attention : Done;
}

} // namespace

void addCheck(Program &program)
{
    CLI::App *const command =
        program.add("check", "Look for damage and for what will make trouble",
                    "Checks the structure of the file, the definition of each table, the list of the series and the "
                    "times. Exit code 0: all is well; 3: something needs a look; 4: the file is damaged.");
    const auto options = std::make_shared<CheckCommand>();
    addFile(command, options->path, options->reading);
    addOutput(command, options->output);
    program.onRun(command, [options] { return run(*options); });
}

} // namespace device_db
