// SPDX-License-Identifier: MIT
//
// Rows are bound to a prepared statement and not handed to the typed stores: a table may hold cells that are no record
// (an end of an alarm in the host's own form), and import takes back to the byte what export wrote. Tables are made by
// the stores.
#include "commands/commands.h"

#include "commands/options.h"
#include "commands/writing.h"
#include "import/bookkeeping.h"
#include "import/columns.h"
#include "import/csv_reader.h"
#include "import/refused_rows.h"
#include "program/program.h"
#include "storefile/live_file.h"
#include "storefile/texts.h"
#include "terminal/progress.h"
#include "terminal/text.h"

#include "device/store.h"

#include <QFile>
#include <QFileInfo>

#include <atomic>
#include <csignal>
#include <limits>
#include <optional>

#include <sqlite3.h>

namespace device_db
{

namespace
{

constexpr int rowsOfTransaction = 20000;

std::atomic_bool interrupted{false}; // lock-free: set in a signal handler

struct ImportOptions {
    WriteOptions target;
    QString table;
    QString input;
    QString kind;
    QString name;
    bool create = false;
    char separator = ',';
    bool noHeader = false;
    QString columns;
    std::optional<QByteArray> null;
    bool asIs = false;
    bool dryRun = false;
    bool restart = false;
    QString refused;
};

Result<Kind> kindNamed(const ImportOptions &options)
{
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log}) {
        if (options.kind == QLatin1String(nameOf(kind)))
            return kind;
    }
    return failure(options.target.path,
                   QStringLiteral("a new table needs its kind: --kind samples, --kind alarms or --kind log"));
}

/// The device's own store makes the table, so that it is the same to the word as on a device.
template<typename Store, typename... Name>
Status makeTable(const ImportOptions &options, const Name &...seriesName)
{
    const auto library = storeLibrary(options.target);
    if (!library)
        return library.error();
    const auto name = device::TableName::from(options.table);
    if (!name)
        return name.error();
    auto store = Store::open(*library, options.target.path);
    if (!store)
        return store.error();
    const auto made = store->createTable(*name, seriesName...);
    return made ? Status() : Status(made.error());
}

Status makeTable(const ImportOptions &options, Kind kind)
{
    switch (kind) {
    case Kind::Alarms:
        return makeTable<device::AlarmStore>(options);
    case Kind::Log:
        return makeTable<device::LogStore>(options);
    default:
        return makeTable<device::HistoryStore>(options, options.name);
    }
}

/// Whether the table stands; Foreign when the file or the table is missing.
Result<Table> standingTable(const ImportOptions &options)
{
    if (!QFileInfo::exists(options.target.path)) {
        if (options.create)
            return Table{options.table, Kind::Foreign, {}};
        return failure(options.target.path, QStringLiteral("there is no such file; check the name, or make it with "
                                                           "--create"));
    }
    std::optional<OpenFile> readable;
    std::optional<Database> writable;
    if (options.dryRun) {
        ReadOptions reading;
        reading.lock = options.target.lock;
        auto file = openFile(options.target.path, reading);
        if (!file)
            return file.error();
        readable.emplace(std::move(file).value());
    } else {
        auto file = openForWriting(options.target);
        if (!file)
            return file.error();
        writable.emplace(std::move(file).value());
    }
    const Database &database = options.dryRun ? readable->database : *writable;
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    for (const Table &table : *tables) {
        if (table.name.compare(options.table, Qt::CaseInsensitive) == 0 && !holdsRecords(table.kind))
            return failure(options.target.path, QStringLiteral("table %1 has other columns (%2); take another name")
                                                    .arg(table.name, table.columns.join(QLatin1String(", "))));
        if (table.name.compare(options.table, Qt::CaseInsensitive) == 0)
            return table;
    }
    if (options.create)
        return Table{options.table, Kind::Foreign, {}};
    const auto chosen = chooseTable(database, options.table); // for its words
    return failure(options.target.path,
                   (chosen ? QString() : chosen.error().cause()) + QStringLiteral(", or make it with --create"));
}

/// Reads what the columns of the input are: from its first row, or from the options.
Result<Assignment> columnsOfInput(const ImportOptions &options, Kind kind, CsvReader &reader)
{
    QStringList names = options.columns.isEmpty() ? QStringList() : options.columns.split(QLatin1Char(','));
    if (!options.noHeader) {
        CsvRow header;
        if (!reader.next(header))
            return failure(options.input, QStringLiteral("it is empty"));
        if (names.isEmpty()) {
            for (const QByteArray &cell : header.cells)
                names << QString::fromUtf8(cell);
        }
    }
    return assigned(options.input, kind, names.isEmpty() ? keysOf(kind) : names);
}

class Import
{
public:
    explicit Import(ImportOptions options)
        : m_options(std::move(options)),
          m_fromPipe(m_options.input == QLatin1String("-")),
          m_input(m_options.input),
          m_progress(QStringLiteral("rows"))
    {
    }

    Outcome run()
    {
        // The names first: an input that does not fit leaves no new file behind.
        if (const Status opened = openInput(); !opened)
            return opened.error();
        // Nor does a new table when the file for refused rows cannot be; only an old one has an earlier run to go on
        // with.
        if (m_makeTable && !m_options.dryRun) {
            if (const Status ready = openRefused(); !ready)
                return ready.error();
        }
        if (!m_options.dryRun) {
            if (const Status opened = openTarget(); !opened)
                return opened.error();
            if (const Status ready = openRefused(); !ready)
                return ready.error();
        }
        m_begin = m_place;
        std::signal(SIGINT, [](int) { interrupted = true; });
        std::signal(SIGTERM, [](int) { interrupted = true; });
        m_timer.start();
        if (const Status copied = copy(); !copied)
            return copied.error();
        return report();
    }

private:
    Status openInput();
    Status openTarget();
    Status openRefused();
    Status copy();
    Status store(const QVector<QByteArray> &cells, QByteArray &reason);
    bool hasHighestId() const;
    Status refuse(const CsvRow &row, const QByteArray &reason);
    enum class End { OfBatch, OfRun, OfInput };
    Status commit(End end);
    Outcome report();

    ImportOptions m_options;
    bool m_fromPipe;
    QFile m_input;
    Progress m_progress;
    QElapsedTimer m_timer;
    Kind m_kind = Kind::Foreign;
    bool m_makeTable = false;
    std::optional<CsvReader> m_reader;
    Assignment m_assignment;
    std::optional<Database> m_database;
    std::optional<Statement> m_insert;
    std::optional<Bookkeeping> m_bookkeeping;
    std::optional<RefusedRows> m_refused;
    qint64 m_endsBefore = 0; ///< Alarms, stored.
    Place m_begin;
    Place m_place;
};

Status Import::openInput()
{
    if (!(m_fromPipe ? m_input.open(stdin, QIODevice::ReadOnly) : m_input.open(QIODevice::ReadOnly)))
        return failure(m_options.input, m_input.errorString() + QStringLiteral("; check the name and its rights"));
    // A FIFO and <(...) have a name and can be read once, like standard input.
    m_fromPipe = m_fromPipe || !QFileInfo(m_options.input).isFile();
    const QByteArray beginning = m_input.peek(16);
    if (beginning.startsWith("SQLite format 3"))
        return failure(m_options.input, QStringLiteral("this is a database; \"device-db export\" writes a table "
                                                       "as CSV"));
    if (beginning.startsWith("\xff\xfe") || beginning.startsWith("\xfe\xff") || beginning.contains('\0'))
        return failure(m_options.input,
                       QStringLiteral("this is not a text in UTF-8; convert it first, from UTF-16 with "
                                      "iconv -f UTF-16 -t UTF-8"));
    const auto table = standingTable(m_options);
    if (!table)
        return table.error();
    m_options.target.runTriggers = true; // who was to be asked was asked
    m_options.table = table->name;
    m_kind = table->kind;
    if (m_kind == Kind::Foreign) {
        const auto named = kindNamed(m_options);
        if (!named)
            return named.error();
        m_kind = *named;
        m_makeTable = true;
    }
    m_reader.emplace(&m_input, m_options.separator);
    const auto assignment = columnsOfInput(m_options, m_kind, *m_reader);
    if (!assignment)
        return assignment.error();
    m_assignment = *assignment;
    return {};
}

Status Import::openTarget()
{
    if (m_makeTable) {
        if (const Status made = makeTable(m_options, m_kind); !made)
            return made;
    }
    auto database = openForWriting(m_options.target);
    if (!database)
        return database.error();
    m_database.emplace(std::move(database).value());
    const QByteArray places = QByteArray(",?").repeated(int(columnsOf(m_kind).size()));
    auto insert = m_database->prepare("insert into " + identifier(m_options.table) + '(' + columnList(m_kind) +
                                      ") values(NULL" + places + ')');
    if (!insert)
        return insert.error();
    m_insert.emplace(std::move(insert).value());
    if (!m_fromPipe) {
        m_bookkeeping.emplace(*m_database, m_input, m_options.table);
        const auto earlier = m_bookkeeping->find(m_options.restart);
        if (!earlier)
            return earlier.error();
        if (earlier->offset > 0) {
            m_place = *earlier;
            m_input.seek(m_place.offset);
            m_reader.emplace(&m_input, m_options.separator, m_place.offset, m_place.line);
            complain(QStringLiteral("%1: going on at line %2, after %3 of an earlier run")
                         .arg(m_options.input, grouped(m_place.line), rowsText(m_place.stored)));
        }
    }
    return m_database->run("begin immediate");
}

Status Import::openRefused()
{
    if (m_refused)
        return {};
    const QString target = QFileInfo(m_options.target.path).absoluteFilePath();
    auto made = RefusedRows::make(m_options.refused, m_fromPipe ? m_options.target.path : m_options.input,
                                  (target + QLatin1Char('\n') + m_options.table).toUtf8(), m_place.refusedBytes);
    if (!made)
        return made.error();
    m_refused.emplace(std::move(made).value());
    return {};
}

Status Import::copy()
{
    const RowCheck check(m_assignment, m_options.null, m_options.asIs);
    const qint64 size = m_input.isSequential() ? 0 : m_input.size();
    CsvRow row;
    QVector<QByteArray> cells;
    qint64 rows = 0;
    qint64 inTransaction = 0;
    // An interruption waits for the end of a line, where the next run can go on.
    while (!(interrupted && m_reader->atBoundary()) && m_reader->next(row)) {
        QByteArray reason = check.refusal(row, cells);
        if (reason.isEmpty()) {
            if (const Status stored = store(cells, reason); !stored)
                return stored;
        }
        if (reason.isEmpty()) {
            ++m_place.stored;
            m_endsBefore += endsBeforeItBegins(m_kind, cells);
        } else if (const Status refused = refuse(row, reason); !refused) {
            return refused;
        }
        if (++rows % 1024 == 0)
            m_progress.show(m_reader->offset(), size, m_place.stored - m_begin.stored, m_begin.offset);
        if (++inTransaction >= rowsOfTransaction && m_reader->atBoundary()) {
            if (const Status done = commit(End::OfBatch); !done)
                return done;
            inTransaction = 0;
        }
    }
    if (m_reader->failed())
        return failure(m_options.input,
                       m_input.errorString() + QStringLiteral("; run it again to go on after what is stored"));
    return commit(interrupted ? End::OfRun : End::OfInput);
}

/// `reason` is set when it is the table that refuses the row.
Status Import::store(const QVector<QByteArray> &cells, QByteArray &reason)
{
    if (!m_insert)
        return {}; // a dry run
    for (int i = 0; i < cells.size(); ++i)
        m_insert->bind(i + 1, cells.at(i));
    m_insert->step();
    const Status status = m_insert->status();
    if (!status) {
        const int code = sqlite3_errcode(m_database->handle()) & 0xff;
        if (code == SQLITE_FULL && hasHighestId()) // SQLite has one word for both
            return failure(m_options.target.path,
                           QStringLiteral("%1 has given the highest ID there is, so no row can be added; clear the "
                                          "table, or import into another one")
                               .arg(m_options.table));
        if (code != SQLITE_CONSTRAINT)
            return status; // the open transaction goes with the connection
        reason = "the table refuses it: " + QByteArray(sqlite3_errmsg(m_database->handle()));
    }
    m_insert->reset();
    return {};
}

bool Import::hasHighestId() const
{
    auto sequence = m_database->prepare("select seq from sqlite_sequence where name=?");
    if (!sequence)
        return false;
    sequence->bind(1, m_options.table.toUtf8());
    return sequence->step() && sequence->number(0) == std::numeric_limits<qint64>::max();
}

Status Import::refuse(const CsvRow &row, const QByteArray &reason)
{
    ++m_place.refused;
    if (!m_options.dryRun)
        return m_refused->add(row, reason);
    if (m_place.refused <= 10)
        std::fprintf(stderr, "line %lld: %s\n", static_cast<long long>(row.line),
                     visible(QString::fromUtf8(reason)).toUtf8().constData());
    return {};
}

Status Import::commit(End end)
{
    if (!m_database)
        return {};
    if (const Status flushed = m_refused->flush(); !flushed)
        return flushed;
    if (m_bookkeeping) {
        m_place.offset = m_reader->offset();
        m_place.line = m_reader->line();
        m_place.refusedBytes = m_refused->size();
        if (const Status kept = end == End::OfInput ? m_bookkeeping->forget() : m_bookkeeping->keep(m_place); !kept)
            return kept;
    }
    if (const Status committed = m_database->run("commit"); !committed)
        return committed;
    if (end == End::OfInput)
        return m_refused->finish();
    return end == End::OfBatch ? m_database->run("begin immediate") : Status();
}

Outcome Import::report()
{
    m_progress.wipe();
    const qint64 stored = m_place.stored - m_begin.stored;
    const qint64 elapsed = std::max<qint64>(1, m_timer.elapsed());
    QString line = m_options.dryRun ? QStringLiteral("%1: %2 would be stored in %3")
                                    : QStringLiteral("%1: %2 stored in %3, %4 a second");
    line = line.arg(m_options.target.path, rowsText(stored), m_options.table);
    if (!m_options.dryRun)
        line = line.arg(grouped(stored * 1000 / elapsed));
    if (m_begin.stored > 0)
        line += QStringLiteral("; %1 with those of before").arg(grouped(m_place.stored));
    say(line);
    if (m_place.refused > 0) {
        QString refused = QStringLiteral("%1: %2 refused").arg(m_options.input, rowsText(m_place.refused));
        if (!m_options.dryRun)
            refused += QStringLiteral("; %1 tells lines and reasons").arg(m_refused->path());
        complain(refused);
    }
    if (interrupted) {
        complain(QStringLiteral("%1: interrupted; %2")
                     .arg(m_options.input, m_fromPipe ? QStringLiteral("what is stored stays")
                                                      : QStringLiteral("run it again to go on")));
        return Interrupted;
    }
    if (m_endsBefore > 0)
        complain(
            QStringLiteral("%1: %2 of alarms that end before they begin").arg(m_options.input, rowsText(m_endsBefore)));
    return m_place.refused + m_endsBefore > 0 ? Attention : Done;
}

} // namespace

void addImport(Program &program)
{
    CLI::App *const command = program.add(
        "import", "Store the rows of a CSV file in a table",
        "The first row names the columns: samples have time,value; alarms "
        "level,start,object,type,value,limit,description,end_date,end_time; the log time,user,log,message. Cells are stored "
        "as they are; a time may also have / or T in it. An import that was stopped goes on where it was when the "
        "same command is run again.");
    const auto options = std::make_shared<ImportOptions>();
    addWritableFile(command, options->target);
    addText(command, "TABLE", options->table, "The table")->type_name("")->required();
    addText(command, "INPUT", options->input, "The CSV file; - for standard input")->type_name("")->required();
    command->add_flag("--create", options->create, "Make the file or the table when it is missing");
    addText(command, "--kind", options->kind, "Of a new table: samples, alarms or log")
        ->type_name("KIND")
        ->check(CLI::IsMember({"samples", "alarms", "log"}));
    addText(command, "--name", options->name, "The name of a new table of samples in the configuration table");
    addSeparator(command, options->separator);
    command->add_flag("--no-header", options->noHeader, "The first row holds data; the columns are those of the table");
    addText(command, "--columns", options->columns, "The names of the columns, in order; - leaves one out")
        ->type_name("NAME,...");
    addNull(command, options->null, "The text that stands for NULL; default: there is none");
    command->add_flag("--as-is", options->asIs, "Store times and levels of any form, which the device may not find");
    command->add_flag("--dry-run", options->dryRun, "Store nothing; print the first rows that would be refused");
    command->add_flag("--restart", options->restart, "Begin at the first row although an earlier run stored some");
    addText(command, "--refused", options->refused,
            "The file to make for refused rows; default: INPUT.refused.csv, or with a number where that exists")
        ->type_name("PATH");
    program.onRun(command, [options] { return Import(*options).run(); });
}

} // namespace device_db
