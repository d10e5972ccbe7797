// SPDX-License-Identifier: MIT
#include "commands/importer.h"

#include "commands/destinations.h"
#include "commands/interruption.h"
#include "import/bookkeeping.h"
#include "import/columns.h"
#include "import/refused_rows.h"
#include "import/row_store.h"
#include "storefile/new_file.h"
#include "storefile/texts.h"
#include "storefile/trends.h"
#include "terminal/output.h"
#include "terminal/progress.h"

#include "device/table_name.h"

#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>
#include <optional>
#include <utility>

namespace device_db
{

namespace
{

constexpr int rowsOfTransaction = 20000;

Result<Kind> kindNamed(const ImportOptions &options)
{
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log}) {
        if (options.kind == QLatin1String(nameOf(kind)))
            return kind;
    }
    return failure(options.target.path,
                   QStringLiteral("a new table needs its kind: --kind samples, --kind alarms or --kind log"));
}

class Importer
{
public:
    explicit Importer(ImportOptions options) : m_options(std::move(options)), m_progress(QStringLiteral("rows")) {}

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
        const Interruption guard;
        m_timer.start();
        if (const Status copied = copy(); !copied) {
            if (m_refused && !m_isKept)
                m_refused->discard();
            return copied.error();
        }
        keepTrends();
        return report();
    }

private:
    QStringList tables() const;
    QString destinationNames() const { return tables().join(QLatin1String(", ")); }
    QString destinationText() const;
    QJsonObject form() const;
    Lookup lookup() const { return {m_options.create, m_options.wide, m_options.dryRun}; }
    Status openInput();
    Status chooseTable(const QStringList &names);
    Status chooseSeries(const QStringList &names, const QStringList &header);
    Status openTarget();
    Status goOn(bool fromTheStart);
    Status openRefused();
    Status copy();
    Result<int> store(const QVector<QByteArray> &cells, QByteArray &reason);
    Status refuse(const InputRow &row, const QByteArray &reason);
    enum class End { OfBatch, OfRun, OfInput };
    Status commit(End end);
    void keepTrends();
    Outcome report();

    ImportOptions m_options;
    Progress m_progress;
    QElapsedTimer m_timer;
    std::unique_ptr<Input> m_input;
    Assignment m_assignment;
    QVector<Destination> m_destinations;
    std::optional<RowCheck> m_check;
    std::optional<Database> m_database;
    std::optional<RowStore> m_store;
    std::optional<Bookkeeping> m_bookkeeping;
    std::optional<RefusedRows> m_refused;
    qint64 m_endsBefore = 0; ///< Alarms, stored.
    std::optional<qint64> m_rowsBefore;
    qint64 m_lost = 0;       ///< Rows that were stored or there before, and are not in the tables at the end.
    QString m_firstRefusal;  ///< Of this run.
    bool m_isKept = false;   ///< Rows were committed.
    bool m_isBehind = false; ///< The sums of a trend.
    Place m_begin;
    Place m_place;
};

QStringList Importer::tables() const
{
    QStringList names;
    for (const Destination &destination : m_destinations)
        names << destination.table;
    return names;
}

QString Importer::destinationText() const
{
    return m_destinations.size() == 1 ? m_destinations.first().table
                                      : QStringLiteral("%1 tables").arg(grouped(m_destinations.size()));
}

/// What decides the meaning of a line: an import goes on only with the same.
QJsonObject Importer::form() const
{
    const InputOptions &input = m_options.input;
    return {{QStringLiteral("--columns"), m_options.columns},
            {QStringLiteral("--default"), QJsonArray::fromStringList(m_options.constants)},
            {QStringLiteral("--kind"), QLatin1String(nameOf(m_assignment.kind))},
            {QStringLiteral("--wide"), m_options.wide},
            {QStringLiteral("--separator"), input.separator ? QString(QLatin1Char(*input.separator)) : QString()},
            {QStringLiteral("--encoding"), input.encoding},
            {QStringLiteral("--skip"), input.skip},
            {QStringLiteral("--no-header"), input.noHeader},
            {QStringLiteral("--time-format"), m_options.timeFormat},
            {QStringLiteral("--zone"), m_options.zone},
            {QStringLiteral("--null"), m_options.null ? QString::fromUtf8(*m_options.null) : QJsonValue()},
            {QStringLiteral("--as-is"), m_options.asIs}};
}

Status Importer::openInput()
{
    const auto times = TimeForms::make(m_options.timeFormat, m_options.zone);
    if (!times)
        return times.error();
    auto input = Input::open(m_options.input);
    if (!input)
        return input.error();
    m_input = std::move(input).value();
    if (m_input->isJson() && !m_options.columns.isEmpty())
        return failure(m_options.input.path, QStringLiteral("these are JSON lines, whose keys name the columns; leave "
                                                            "out --columns"));
    const auto header = m_input->header();
    if (!header)
        return header.error();
    const QStringList names = m_options.columns.isEmpty() ? *header : m_options.columns.split(QLatin1Char(','));
    if (const Status chosen = m_options.wide ? chooseSeries(names, *header) : chooseTable(names); !chosen)
        return chosen;
    if (const Status may = mayBeMade(m_destinations, m_assignment.kind); !may)
        return may;
    m_options.target.runTriggers = true; // who was to be asked was asked
    m_check.emplace(m_assignment, *times, m_options.null, m_options.asIs);
    return {};
}

Status Importer::chooseTable(const QStringList &names)
{
    m_destinations = {{m_options.table, m_options.name}};
    if (const Status found = lookUp(m_options.target, lookup(), m_destinations); !found)
        return found;
    Kind kind = m_destinations.first().kind;
    if (kind != Kind::Foreign && !m_options.kind.isEmpty() && m_options.kind != QLatin1String(nameOf(kind)))
        return failure(m_options.target.path,
                       QStringLiteral("%1 is a table of %2, not of %3; leave out --kind, or name "
                                      "another table")
                           .arg(m_destinations.first().table, QLatin1String(nameOf(kind)), m_options.kind));
    if (kind == Kind::Foreign) {
        const auto named = kindNamed(m_options);
        if (!named)
            return named.error();
        kind = *named;
    }
    const auto assignment =
        assigned(m_options.input.path, kind, names.isEmpty() ? keysOf(kind) : names, m_options.constants);
    if (!assignment)
        return assignment.error();
    m_assignment = *assignment;
    return {};
}

// A column that --columns renames keeps its heading as the name of the series.
Status Importer::chooseSeries(const QStringList &names, const QStringList &header)
{
    const auto assignment = assignedSeries(m_options.input.path, names);
    if (!assignment)
        return assignment.error();
    m_assignment = *assignment;
    for (int column = 1; column < m_assignment.columns.size(); ++column) {
        const int cell = int(m_assignment.columnOfCell.indexOf(column));
        const QString heading = header.value(cell).trimmed();
        const QString table = m_assignment.columns.at(column);
        m_destinations << Destination{table, heading.isEmpty() ? table : heading};
    }
    if (const Status found = lookUp(m_options.target, lookup(), m_destinations); !found)
        return found;
    for (const Destination &destination : m_destinations) {
        const auto name = device::TableName::from(destination.table);
        if (destination.kind == Kind::Foreign && !name)
            return failure(m_options.input.path, QStringLiteral("the column \"%1\" cannot be the name of a table (%2); "
                                                                "name the tables with --columns, such as --columns "
                                                                "time,S1,S2")
                                                     .arg(destination.table.left(60), name.error().cause()));
    }
    return {};
}

Status Importer::openTarget()
{
    const auto missing = [](const Destination &each) { return each.kind == Kind::Foreign; };
    const bool areNew = std::all_of(m_destinations.cbegin(), m_destinations.cend(), missing);
    if (std::any_of(m_destinations.cbegin(), m_destinations.cend(), missing)) {
        // A new table has no earlier run, and is not made when the file for refused rows cannot be.
        if (const Status ready = openRefused(); !ready)
            return ready;
        if (const Status made = makeTables(m_options.target, m_destinations, m_assignment.kind); !made)
            return made;
    }
    auto database = openForWriting(m_options.target);
    if (!database)
        return database.error();
    m_database.emplace(std::move(database).value());
    auto store = m_options.wide ? RowStore::ofSeries(*m_database, tables())
                                : RowStore::ofTable(*m_database, tables().first(), m_assignment.kind);
    if (!store)
        return store.error();
    m_store.emplace(std::move(store).value());
    if (m_input->isFile()) {
        // Of a file with many series there is one place, so that other --columns are noticed.
        m_bookkeeping.emplace(*m_database, m_input->file(),
                              m_options.wide ? QStringLiteral("several tables") : destinationNames(), tables(), form());
        if (const Status gone = goOn(m_options.restart || areNew); !gone)
            return gone;
    }
    if (!m_refused) {
        if (const Status ready = openRefused(); !ready)
            return ready;
    }
    if (const Status begun = m_database->run("begin immediate"); !begun)
        return begun;
    const auto rows = m_store->rowsIfAnyMayGo();
    if (!rows)
        return rows.error();
    m_rowsBefore = *rows;
    return {};
}

Status Importer::openRefused()
{
    const QString target = QFileInfo(m_options.target.path).absoluteFilePath();
    auto made = RefusedRows::make(m_options.refused, m_input->isFile() ? m_options.input.path : m_options.target.path,
                                  (target + QLatin1Char('\n') + destinationNames()).toUtf8(), m_place.refusedBytes);
    if (!made)
        return made.error();
    if (!m_options.refused.isEmpty()) {
        if (const Status may = isNoPartOf(m_options.refused, {m_options.target.path}); !may)
            return may;
    }
    m_refused.emplace(std::move(made).value());
    return {};
}

Status Importer::goOn(bool fromTheStart)
{
    const auto earlier = m_bookkeeping->find(fromTheStart);
    if (!earlier)
        return earlier.error();
    if (earlier->offset == 0)
        return {};
    m_place = *earlier;
    complain(QStringLiteral("%1: going on at line %2, after %3 of an earlier run")
                 .arg(m_options.input.path, grouped(m_place.line), rowsText(m_place.stored)));
    return m_input->goTo(m_place.offset, m_place.line);
}

Status Importer::copy()
{
    InputRow row;
    QVector<QByteArray> cells;
    qint64 rows = 0;
    qint64 inTransaction = 0;
    // An interruption waits for the end of a line, where the next run can go on.
    while (!(Interruption::came() && m_input->rows().atBoundary()) && m_input->rows().next(row)) {
        QByteArray reason = m_check->refusal(row, cells);
        if (reason.isEmpty()) {
            const auto stored = store(cells, reason);
            if (!stored)
                return stored.error();
            m_place.stored += *stored;
        }
        if (reason.isEmpty()) {
            m_endsBefore += endsBeforeItBegins(m_assignment.kind, cells);
        } else if (const Status refused = refuse(row, reason); !refused) {
            return refused;
        }
        if (++rows % 1024 == 0)
            m_progress.show(m_input->position(), m_input->size(), m_place.stored - m_begin.stored, m_begin.offset);
        if (++inTransaction >= rowsOfTransaction && m_input->rows().atBoundary()) {
            if (const Status done = commit(End::OfBatch); !done)
                return done;
            inTransaction = 0;
        }
    }
    if (const Status read = m_input->status(); !read)
        return read;
    return commit(Interruption::came() ? End::OfRun : End::OfInput);
}

/// The number of rows stored; `reason` is set when it is a table that refuses one.
Result<int> Importer::store(const QVector<QByteArray> &cells, QByteArray &reason)
{
    if (m_store)
        return m_store->store(cells, reason);
    // A dry run.
    const auto isValue = [](const QByteArray &cell) { return !cell.isEmpty(); };
    return m_options.wide ? int(std::count_if(cells.cbegin() + 1, cells.cend(), isValue)) : 1;
}

Status Importer::refuse(const InputRow &row, const QByteArray &reason)
{
    ++m_place.refused;
    if (m_firstRefusal.isEmpty())
        m_firstRefusal = QStringLiteral("; line %1: %2").arg(grouped(row.line), QString::fromUtf8(reason));
    if (!m_options.dryRun)
        return m_refused->add(row, reason);
    if (m_place.refused <= 10)
        std::fprintf(stderr, "line %lld: %s\n", static_cast<long long>(row.line),
                     visible(QString::fromUtf8(reason)).toUtf8().constData());
    return {};
}

Status Importer::commit(End end)
{
    if (!m_database)
        return {};
    if (const Status flushed = m_refused->flush(); !flushed)
        return flushed;
    if (m_bookkeeping) {
        m_place.offset = m_input->rows().offset();
        m_place.line = m_input->rows().line();
        m_place.refusedBytes = m_refused->size();
        if (const Status kept = end == End::OfInput ? m_bookkeeping->forget() : m_bookkeeping->keep(m_place); !kept)
            return kept;
    }
    if (end != End::OfBatch && m_rowsBefore) {
        const auto rows = m_store->rowsIfAnyMayGo();
        if (!rows)
            return rows.error();
        m_lost = m_place.stored - m_begin.stored - (rows->value_or(0) - *m_rowsBefore);
    }
    if (const Status committed = m_database->run("commit"); !committed)
        return committed;
    m_isKept = true;
    if (end == End::OfInput || (end == End::OfRun && !m_bookkeeping)) // nothing more comes
        return m_refused->finish();
    return end == End::OfBatch ? m_database->run("begin immediate") : Status();
}

// The rows are stored; what is not summed up now a recorder sums up.
void Importer::keepTrends()
{
    if (!m_database || m_assignment.kind != Kind::Samples)
        return;
    for (const QString &table : tables()) {
        const auto kept = trendOf(*m_database, table);
        Status done = kept ? Status() : Status(kept.error());
        if (kept && *kept)
            done = catchUpTrend(*m_database, table, [&](qint64) {
                m_progress.show(0, 0, m_place.stored);
                return !Interruption::came();
            });
        if (done)
            continue;
        m_isBehind = true;
        m_progress.wipe();
        complain(QStringLiteral("%1: the rows are stored, but the trend of %2 is behind: %3")
                     .arg(m_options.target.path, table, done.error().cause()));
    }
}

Outcome Importer::report()
{
    m_progress.wipe();
    const qint64 stored = m_place.stored - m_begin.stored;
    const qint64 elapsed = std::max<qint64>(1, m_timer.elapsed());
    QString line = m_options.dryRun ? QStringLiteral("%1: %2 would be stored in %3")
                                    : QStringLiteral("%1: %2 stored in %3, %4 a second");
    line = line.arg(m_options.target.path, rowsText(stored), destinationText());
    if (!m_options.dryRun)
        line = line.arg(grouped(stored * 1000 / elapsed));
    if (m_begin.stored > 0)
        line += QStringLiteral("; %1 with those of before").arg(grouped(m_place.stored));
    say(line);
    if (m_place.refused > 0) {
        QString refused = QStringLiteral("%1: %2 refused").arg(m_options.input.path, rowsText(m_place.refused));
        if (!m_options.dryRun)
            refused += m_firstRefusal + QStringLiteral("; %1 lists lines and reasons").arg(m_refused->path());
        complain(refused);
    }
    if (m_lost > 0)
        complain(QStringLiteral("%1: %2 fewer in %3 than that; a trigger or a conflict clause of the table deletes or "
                                "replaces rows")
                     .arg(m_options.target.path, rowsText(m_lost), destinationText()));
    if (Interruption::came()) {
        complain(QStringLiteral("%1: interrupted; %2")
                     .arg(m_options.input.path, m_input->isFile() ? QStringLiteral("run it again to go on")
                                                                  : QStringLiteral("what is stored stays")));
        return Interrupted;
    }
    if (m_endsBefore > 0)
        complain(QStringLiteral("%1: %2 of alarms that end before they begin")
                     .arg(m_options.input.path, rowsText(m_endsBefore)));
    return m_isBehind || m_place.refused + m_endsBefore + m_lost > 0 ? Attention : Done;
}

} // namespace

Outcome importRows(const ImportOptions &options)
{
    return Importer(options).run();
}

} // namespace device_db
