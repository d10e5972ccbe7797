// SPDX-License-Identifier: MIT
//
// Rows are bound to a prepared statement and not handed to the typed stores: a table may hold cells that are no record
// (an end of an alarm in the host's own form), and import takes back to the byte what export wrote. Tables are made by
// the stores.
#include "commands.h"

#include "csv_reader.h"
#include "progress.h"
#include "row_query.h"
#include "table_writer.h"
#include "times.h"
#include "writable_file.h"

#include "device/store.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <atomic>
#include <csignal>
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
    QString null;
    bool hasNull = false;
    bool asIs = false;
    bool dryRun = false;
    bool restart = false;
    QString refused;
};

/// Where an import stands. It is kept in a table of the file itself, in the transaction of the rows that it is about:
/// after whatever end, each row of the input is in the table once or not at all. The table goes with the last rows.
struct Place {
    qint64 offset = 0; ///< In the input.
    qint64 line = 1;
    qint64 stored = 0;
    qint64 refused = 0;
    qint64 refusedBytes = 0; ///< Of the file of refused rows.
};

/// Which columns of the table the cells of a row go to.
struct Assignment {
    Kind kind = Kind::Foreign;
    QVector<int> columnOfCell; ///< -1: left out.
    int cells() const { return int(columnOfCell.size()); }
};

// Names under which files from elsewhere have the columns, beside those of the table and of export.
struct Alias {
    const char *name;
    const char *key;
};
constexpr Alias aliases[] = {
    {"timestamp", "time"}, {"date", "time"},   {"datetime", "time"},    {"time", "start"},       {"timestamp", "start"},
    {"username", "user"},  {"logname", "log"}, {"enddate", "end_date"}, {"endtime", "end_time"}, {"text", "message"}};

int columnNamed(Kind kind, const QString &name)
{
    const QVector<KnownColumn> &columns = columnsOf(kind);
    const QByteArray plain = name.trimmed().toLower().toUtf8();
    for (int i = 0; i < columns.size(); ++i) {
        if (plain == columns.at(i).key || plain == QByteArray(columns.at(i).name).toLower() ||
            plain == QByteArray(columns.at(i).title).toLower())
            return i;
    }
    for (const Alias &alias : aliases) {
        for (int i = 0; i < columns.size(); ++i) {
            if (plain == alias.name && qstrcmp(columns.at(i).key, alias.key) == 0)
                return i;
        }
    }
    return -1;
}

QString namesOf(Kind kind)
{
    QStringList names;
    for (const KnownColumn &column : columnsOf(kind))
        names << QLatin1String(column.key);
    return names.join(QLatin1Char(','));
}

Result<Assignment> assigned(const ImportOptions &options, Kind kind, const QStringList &names)
{
    Assignment assignment{kind, {}};
    for (const QString &name : names) {
        const bool leftOut = name == QLatin1String("-") || name.compare(QLatin1String("id"), Qt::CaseInsensitive) == 0;
        const int column = leftOut ? -1 : columnNamed(kind, name);
        if (column < 0 && !leftOut)
            return failure(
                options.input,
                names.size() == 1
                    ? QStringLiteral("\"%1\" is no column of %2 (%3); is another --separator needed?")
                          .arg(name.left(60), QLatin1String(nameOf(kind)), namesOf(kind))
                    : QStringLiteral("\"%1\" is no column of %2 (%3); name them with --columns, - leaves one "
                                     "out, --no-header takes the first row as data")
                          .arg(name.left(60), QLatin1String(nameOf(kind)), namesOf(kind)));
        if (column >= 0 && assignment.columnOfCell.contains(column))
            return failure(options.input,
                           QStringLiteral("two columns are called \"%1\"; name them with --columns").arg(name));
        assignment.columnOfCell << column;
    }
    const int time = columnNamed(kind, kind == Kind::Alarms ? QStringLiteral("start") : QStringLiteral("time"));
    if (!assignment.columnOfCell.contains(time))
        return failure(options.input, QStringLiteral("it has no column for the time; name the columns with --columns, "
                                                     "such as --columns ") +
                                          namesOf(kind));
    return assignment;
}

Result<Kind> kindNamed(const ImportOptions &options)
{
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log}) {
        if (options.kind == QLatin1String(nameOf(kind)))
            return kind;
    }
    return failure(options.target.path,
                   QStringLiteral("a new table needs its kind: --kind samples, --kind alarms or --kind log"));
}

/// The time in the form of the tables when it is one in a form beside it (`/`, `T`, without milliseconds in the log).
bool toTableForm(QByteArray &time, bool milliseconds)
{
    if (millisecondsOf(time, milliseconds) >= 0)
        return true;
    QByteArray turned = time;
    turned.replace('/', '-');
    if (turned.size() > 10 && turned.at(10) == 'T')
        turned[10] = ' ';
    if (milliseconds && turned.size() == 19)
        turned += ".000";
    if (millisecondsOf(turned, milliseconds) < 0)
        return false;
    time = turned;
    return true;
}

/// Makes the row ready to be stored, or tells why it cannot be.
class RowCheck
{
public:
    RowCheck(const ImportOptions &options, const Assignment &assignment)
        : m_options(options),
          m_assignment(assignment),
          m_milliseconds(hasMilliseconds(assignment.kind)),
          m_time(assignment.kind == Kind::Alarms ? 1 : 0),
          m_null(options.null.toUtf8())
    {
    }

    /// `cells` receives a cell for each column of the table behind ID; columns that the input lacks are empty texts.
    QByteArray refusal(const CsvRow &row, QVector<QByteArray> &cells) const
    {
        if (!row.fault.isEmpty())
            return row.fault;
        if (row.cells.size() != m_assignment.cells())
            return "its number of cells is " + QByteArray::number(qint64(row.cells.size())) + ", not " +
                   QByteArray::number(m_assignment.cells());
        cells.fill(QByteArray(""), int(columnsOf(m_assignment.kind).size()));
        for (int i = 0; i < row.cells.size(); ++i) {
            const int column = m_assignment.columnOfCell.at(i);
            if (column < 0)
                continue;
            QByteArray &cell = cells[column];
            cell = row.cells.at(i);
            if (m_options.hasNull && cell == m_null) {
                cell = QByteArray();
                continue;
            }
            if (cell.contains('\0'))
                return nameOfColumn(column) + " holds U+0000, which ends a text in the file";
            if (!isUtf8(cell))
                return nameOfColumn(column) +
                       " is no UTF-8, or begins with a byte order mark; convert the input with iconv";
        }
        return m_options.asIs ? QByteArray() : misfit(cells);
    }

private:
    QByteArray misfit(QVector<QByteArray> &cells) const
    {
        if (!toTableForm(cells[m_time], m_milliseconds))
            return "the time \"" + cells.at(m_time).left(40) + "\" is none of the form " +
                   (m_milliseconds ? "yyyy-MM-dd hh:mm:ss.zzz" : "yyyy-MM-dd hh:mm:ss");
        if (m_assignment.kind == Kind::Alarms) {
            bool isNumber = false;
            cells.at(0).toInt(&isNumber);
            if (!isNumber)
                return "the level \"" + cells.at(0).left(40) + "\" is no whole number";
        }
        return QByteArray();
    }
    QByteArray nameOfColumn(int column) const { return columnsOf(m_assignment.kind).at(column).key; }

    const ImportOptions &m_options;
    const Assignment &m_assignment;
    bool m_milliseconds;
    int m_time;
    QByteArray m_null;
};

/// The file of refused rows; made with the first of them.
class RefusedRows
{
public:
    /// `keep`: so many bytes of an earlier run stay.
    RefusedRows(const ImportOptions &options, qint64 keep) : m_keep(keep)
    {
        if (!options.refused.isEmpty())
            m_file.setFileName(options.refused);
        else
            m_file.setFileName((options.input == QLatin1String("-") ? options.target.path : options.input) +
                               QLatin1String(".refused.csv"));
    }

    Status add(const CsvRow &row, const QByteArray &reason)
    {
        bool written = true;
        if (!m_file.isOpen()) {
            written = m_file.open(QIODevice::ReadWrite) && m_file.resize(std::min(m_keep, m_file.size())) &&
                      m_file.seek(m_file.size());
            if (m_file.size() == 0)
                written = written && m_file.write("line,reason,cells\n") > 0;
        }
        written = written &&
                  m_file.write(csvRow(QVector<QByteArray>{QByteArray::number(row.line), reason} + row.cells, ',')) > 0;
        return written ? Status() : trouble();
    }
    Status flush() { return !m_file.isOpen() || m_file.flush() ? Status() : Status(trouble()); }
    qint64 size() const { return m_file.isOpen() ? m_file.size() : m_keep; }
    QString path() const { return m_file.fileName(); }

private:
    Error trouble() const
    {
        return failure(m_file.fileName(),
                       m_file.errorString() + QStringLiteral("; name another place for refused rows with --refused"));
    }

    QFile m_file;
    qint64 m_keep;
};

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
    std::optional<ReadableFile> readable;
    if (options.dryRun) {
        ReadOptions reading;
        reading.lock = options.target.lock;
        auto file = openForReading(options.target.path, reading);
        if (!file)
            return file.error();
        readable.emplace(std::move(file).value());
    }
    const auto database = options.dryRun ? Database::open(readable->path(), Database::ReadOnly, options.target.path)
                                         : openForWriting(options.target);
    if (!database)
        return database.error();
    const auto tables = tablesOf(*database);
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
    const auto chosen = chooseTable(*database, options.table); // for its words
    return failure(options.target.path,
                   (chosen ? QString() : chosen.error().cause()) + QStringLiteral(", or make it with --create"));
}

/// The bookkeeping of one import in the file.
class Bookkeeping
{
public:
    Bookkeeping(const ImportOptions &options, const QFile &input, const Database &database)
        : m_database(database),
          m_source(QFileInfo(input.fileName()).absoluteFilePath().toUtf8()),
          m_table(options.table.toUtf8()),
          m_marks(QByteArray::number(input.size()) + ' ' +
                  QFileInfo(input.fileName()).lastModified().toUTC().toString(Qt::ISODateWithMs).toLatin1())
    {
    }

    /// Where an earlier run stopped. The start when there was none.
    Result<Place> find(const ImportOptions &options) const
    {
        Place place;
        const auto stands = m_database.number("select count(*) from sqlite_master where name='device_db_import'");
        if (!stands)
            return stands.error();
        if (*stands == 0)
            return place;
        auto row = m_database.prepare("select marks,offset,line,stored,refused,refused_bytes from device_db_import "
                                      "where source=? and target=?");
        if (!row)
            return row.error();
        row->bind(1, m_source);
        row->bind(2, m_table);
        if (!row->step())
            return row->status() ? Result<Place>(place) : row->status().error();
        if (options.restart)
            return place;
        if (row->cell(0) != m_marks)
            return failure(options.input,
                           QStringLiteral("an import of it stopped at line %1, and it was changed since; --restart "
                                          "begins at its first line again")
                               .arg(row->number(2)));
        place = {row->number(1), row->number(2), row->number(3), row->number(4), row->number(5)};
        return place;
    }

    /// Within the transaction of the rows.
    Status keep(const Place &place) const
    {
        if (const Status made = m_database.run("create table if not exists device_db_import(source text,target text,"
                                               "marks text,offset integer,line integer,stored integer,refused "
                                               "integer,refused_bytes integer,primary key(source,target))");
            !made)
            return made;
        auto row = m_database.prepare("insert or replace into device_db_import values(?,?,?,?,?,?,?,?)");
        if (!row)
            return row.error();
        row->bind(1, m_source);
        row->bind(2, m_table);
        row->bind(3, m_marks);
        int column = 4;
        for (const qint64 number : {place.offset, place.line, place.stored, place.refused, place.refusedBytes})
            row->bind(column++, number);
        row->step();
        return row->status();
    }

    Status forget() const
    {
        const auto stands = m_database.number("select count(*) from sqlite_master where name='device_db_import'");
        if (!stands || *stands == 0)
            return stands ? Status() : stands.error();
        auto row = m_database.prepare("delete from device_db_import where source=? and target=?");
        if (!row)
            return row.error();
        row->bind(1, m_source);
        row->bind(2, m_table);
        row->step();
        if (!row->status())
            return row->status();
        const auto left = m_database.number("select count(*) from device_db_import");
        if (!left)
            return left.error();
        return *left == 0 ? m_database.run("drop table device_db_import") : Status();
    }

private:
    const Database &m_database;
    QByteArray m_source;
    QByteArray m_table;
    QByteArray m_marks;
};

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
    if (names.isEmpty())
        names = namesOf(kind).split(QLatin1Char(','));
    return assigned(options, kind, names);
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
        if (!m_options.dryRun) {
            if (const Status opened = openTarget(); !opened)
                return opened.error();
        }
        m_begin = m_place;
        m_refused.emplace(m_options, m_place.refusedBytes);
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
    Status copy();
    Status store(const QVector<QByteArray> &cells, QByteArray &reason);
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
    Place m_begin;
    Place m_place;
};

Status Import::openInput()
{
    if (!(m_fromPipe ? m_input.open(stdin, QIODevice::ReadOnly) : m_input.open(QIODevice::ReadOnly)))
        return failure(m_options.input, m_input.errorString() + QStringLiteral("; check the name and its rights"));
    const auto table = standingTable(m_options);
    if (!table)
        return table.error();
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
    QByteArray places;
    for (int i = 0; i < columnsOf(m_kind).size(); ++i)
        places += ",?";
    auto insert = m_database->prepare("insert into " + identifier(m_options.table) + " values(NULL" + places + ')');
    if (!insert)
        return insert.error();
    m_insert.emplace(std::move(insert).value());
    if (!m_fromPipe) {
        m_bookkeeping.emplace(m_options, m_input, *m_database);
        const auto earlier = m_bookkeeping->find(m_options);
        if (!earlier)
            return earlier.error();
        if (earlier->offset > 0) {
            m_place = *earlier;
            m_input.seek(m_place.offset);
            m_reader.emplace(&m_input, m_options.separator, m_place.offset, m_place.line);
            std::fprintf(stderr, "device-db: %s: going on at line %s, behind %s of an earlier run\n",
                         m_options.input.toUtf8().constData(), qPrintable(grouped(m_place.line)),
                         qPrintable(rowsText(m_place.stored)));
        }
    }
    return m_database->run("begin immediate");
}

Status Import::copy()
{
    const RowCheck check(m_options, m_assignment);
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
                       m_input.errorString() + QStringLiteral("; run it again to go on behind what is stored"));
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
        if ((sqlite3_errcode(m_database->handle()) & 0xff) != SQLITE_CONSTRAINT)
            return status; // the open transaction goes with the connection
        reason = "the table refuses it: " + QByteArray(sqlite3_errmsg(m_database->handle()));
    }
    m_insert->reset();
    return {};
}

Status Import::refuse(const CsvRow &row, const QByteArray &reason)
{
    ++m_place.refused;
    if (!m_options.dryRun)
        return m_refused->add(row, reason);
    if (m_place.refused <= 10)
        std::fprintf(stderr, "line %lld: %s\n", static_cast<long long>(row.line), reason.constData());
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
    std::printf("%s\n", line.toUtf8().constData());
    std::fflush(stdout);
    if (m_place.refused > 0) {
        const QString where = QStringLiteral("; %1 tells lines and reasons").arg(m_refused->path());
        std::fprintf(stderr, "device-db: %s: %s refused%s\n", m_options.input.toUtf8().constData(),
                     qPrintable(rowsText(m_place.refused)), m_options.dryRun ? "" : where.toUtf8().constData());
    }
    if (interrupted) {
        std::fprintf(stderr, "device-db: %s: interrupted; %s\n", m_options.input.toUtf8().constData(),
                     m_fromPipe ? "what is stored stays" : "run it again to go on");
        return Interrupted;
    }
    return m_place.refused > 0 ? Attention : Done;
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
    command
        ->add_option_function<std::string>(
            "--null",
            [options = options.get()](const std::string &text) {
                options->null = QString::fromStdString(text);
                options->hasNull = true;
            },
            "The text that stands for NULL; default: there is none")
        ->type_name("TEXT");
    command->add_flag("--as-is", options->asIs, "Store times and levels of any form, which the device may not find");
    command->add_flag("--dry-run", options->dryRun, "Store nothing; print the first rows that would be refused");
    command->add_flag("--restart", options->restart, "Begin at the first row although an earlier run stored some");
    addText(command, "--refused", options->refused, "The file for refused rows; default: INPUT.refused.csv")
        ->type_name("PATH");
    program.onRun(command, [options] { return Import(*options).run(); });
}

} // namespace device_db
