// SPDX-License-Identifier: MIT
#include "storefile/salvage/salvage.h"

#include "storefile/keeping.h"
#include "storefile/rollup_channel.h"
#include "storefile/salvage/trees.h"
#include "storefile/trend_review.h"

#include <algorithm>
#include <utility>

namespace device_db
{

namespace
{

// Puts the rows of trees into tables.
class TableMaker
{
public:
    TableMaker(PageSurvey &pages, const Database &target, SalvageReport &report)
        : m_pages(pages), m_target(target), m_report(report)
    {
    }

    Status make(Tree &tree);
    Status keepLastIds(const Forest &forest) const;

private:
    enum class Stored { Yes, No, Duplicate };
    Status create(const Tree &tree, const QByteArray &name);
    bool bind(Statement &insert, const Row &row, size_t firstCell) const;
    Result<Stored> store(Statement &insert, const Tree &tree, const LeafInfo &leaf, const Row &row);

    PageSurvey &m_pages;
    const Database &m_target;
    SalvageReport &m_report;
    bool m_hasTrends = false;
    bool m_hasRules = false;
};

// False when a text is damaged.
bool TableMaker::bind(Statement &insert, const Row &row, size_t firstCell) const
{
    insert.reset();
    insert.bind(1, row.id);
    for (size_t i = firstCell; i < row.cells.size(); ++i) {
        const int place = int(i - firstCell) + 2;
        const Value &value = row.cells[i];
        switch (value.type) {
        case Value::Null:
            insert.bind(place, QByteArray());
            break;
        case Value::Integer:
            insert.bind(place, value.integer);
            break;
        case Value::Real:
            insert.bind(place, value.real);
            break;
        case Value::Text: {
            const auto text = readText(value.bytes, m_pages.encoding());
            if (!text)
                return false;
            insert.bind(place, text->isNull() ? QByteArray("") : *text);
            break;
        }
        case Value::Blob:
            insert.bindBlob(place, value.bytes.copy());
            break;
        }
    }
    return true;
}

Result<TableMaker::Stored> TableMaker::store(Statement &insert, const Tree &tree, const LeafInfo &leaf, const Row &row)
{
    if (!belongs(row.cells, tree.kind, m_pages.encoding(), leaf.sound) || row.id <= leaf.after || row.id > leaf.upTo ||
        !bind(insert, row, tree.kind == KeepRules ? 0 : 1))
        return Stored::No;
    insert.step();
    if (const Status status = insert.status(); !status)
        return status.error();
    return m_target.changes() == 1 ? Stored::Yes : Stored::Duplicate;
}

Status TableMaker::create(const Tree &tree, const QByteArray &name)
{
    if (tree.kind == KeepRules)
        return std::exchange(m_hasRules, true) ? Status() : m_target.run(device::creationOfKeep().toUtf8());
    if (!isOfTrends(tree.kind))
        return m_target.run("create table " + name + '(' + definitionOf(kindOf(tree.kind)) + ')');
    Status done;
    if (!std::exchange(m_hasTrends, true)) {
        for (const QString &creation : device::creationOfRollups())
            done = done ? m_target.run(creation.toUtf8()) : done;
    }
    return done;
}

Status TableMaker::make(Tree &tree)
{
    SalvagedTable table;
    table.name = tree.name;
    table.kind = kindOf(tree.kind);
    table.nameFrom = tree.nameFrom;
    table.lostPages = tree.lostLeaves + std::count_if(tree.holes.begin(), tree.holes.end(),
                                                      [](const Hole &hole) { return !hole.filled; });
    const QByteArray name = identifier(tree.name);
    if (const Status created = create(tree, name); !created)
        return created;
    const int columns = tree.kind == TrendSums     ? 1
                        : tree.kind == TrendSeries ? 6
                        : tree.kind == KeepRules   ? 11
                                                   : int(columnsOf(table.kind).size());
    const QByteArray places = QByteArray(",?").repeated(columns);
    // The ID is no column of the rules.
    const char *const into = tree.kind == KeepRules ? "(rowid,COLLECTOR,AGE,NEWEST,ATLEAST,SUMS,FLOORS,TRIMMED,"
                                                      "UNSHIPPED,THROUGHID,THROUGH,VERSION)"
                                                    : "";
    auto prepared = m_target.prepare("insert or ignore into " + name + into + " values(?" + places + ')');
    if (!prepared)
        return prepared.error();
    Statement insert = std::move(prepared).value();

    std::sort(tree.leaves.begin(), tree.leaves.end(),
              [&](quint32 a, quint32 b) { return m_pages.leaves[a].first < m_pages.leaves[b].first; });
    Status status;
    for (const quint32 page : tree.leaves) {
        const LeafInfo &leaf = m_pages.leaves[page];
        m_pages.forEachRow(page, [&](const Row &row) {
            if (!status)
                return;
            const auto stored = store(insert, tree, leaf, row);
            if (!stored) {
                status = stored.error();
            } else if (*stored == Stored::Yes) {
                table.firstId = table.rows == 0 ? row.id : std::min(table.firstId, row.id);
                table.lastId = table.rows == 0 ? row.id : std::max(table.lastId, row.id);
                ++table.rows;
                // The pages that this row goes on in belong to it alone.
                m_pages.overflow += row.chain;
            } else {
                ++(*stored == Stored::No ? table.rejected : m_report.duplicates);
            }
        });
        if (!status)
            return status;
    }
    m_report.rejectedCells += table.rejected;
    if (isOfTrends(tree.kind)) {
        m_report.trendSums += tree.kind == TrendSums ? table.rows : 0;
        m_report.trendPagesLost += table.lostPages;
    } else if (tree.kind == KeepRules) {
        m_report.keepRules += table.rows;
        m_report.keepPagesLost += table.lostPages;
    } else {
        m_report.tables.append(table);
    }
    return {};
}

// IDs that were given once are not given again.
Status TableMaker::keepLastIds(const Forest &forest) const
{
    if (m_report.tables.isEmpty())
        return {}; // SQLite makes its list with the first table
    auto update = m_target.prepare("update sqlite_sequence set seq=max(seq,?) where name=?");
    if (!update)
        return update.error();
    for (const auto &[name, id] : forest.sequence) {
        update->reset();
        update->bind(1, id);
        update->bind(2, name.toUtf8());
        update->step();
        if (const Status kept = update->status(); !kept)
            return kept;
    }
    return {};
}

// Rules that a recorder could not read would keep it from storing rows.
Status leaveOutBadRules(const Database &target, SalvageReport &report)
{
    const auto file = keepFileOf(target);
    if (file || file.error().code() != Error::TableLayout)
        return file ? Status() : file.error();
    report.keepRulesLeft = report.keepRules;
    report.keepRules = 0;
    return target.run("delete from \"device keep\"");
}

// The highest ID that a table gave, if SQLite's list of them is lost: rows up to the mark of its trend were there.
Status keepMark(const Database &target, const Forest &forest, const QString &table)
{
    constexpr qint64 plausible = 1LL << 50; // behind 2^63 - 1 there is no room for a row
    if (std::any_of(forest.sequence.begin(), forest.sequence.end(),
                    [&](const auto &entry) { return entry.first.compare(table, Qt::CaseInsensitive) == 0; }))
        return {};
    const QByteArray mark = "(select MARK from \"device trend series\" where COLLECTOR=?1 and typeof(MARK)='integer' "
                            "and MARK between 0 and " +
                            QByteArray::number(plausible) + ')';
    for (const QByteArray &sql :
         {QByteArray("insert into sqlite_sequence(name,seq) select ?1,0 where not exists(select "
                     "1 from sqlite_sequence where name=?1)"),
          "update sqlite_sequence set seq=max(seq,ifnull(" + mark + ",0)) where name=?1"}) {
        auto statement = target.prepare(sql);
        if (!statement)
            return statement.error();
        statement->bind(1, table.toUtf8());
        statement->step();
        if (const Status done = statement->status(); !done)
            return done;
    }
    return {};
}

// A trend is taken as it is, with its mark: rows that are salvaged are in the sums up to there, and so they are not
// added once more. What the rows say better than what is left of the sums is made anew.
Status mendTrends(const Database &target, const Forest &forest, SalvageReport &report)
{
    if (const Status removed = removeLeftBuckets(target, [] { return true; }); !removed)
        return removed;
    RollupChannel channel(target);
    for (const SalvagedTable &table : report.tables) {
        if (table.kind != Kind::Samples)
            continue;
        const Status mended = channel.transaction({target.name(), QString()}, [&]() -> Status {
            if (const Status kept = keepMark(target, forest, table.name); !kept)
                return kept;
            const auto state = trendOf(target, table.name);
            if (!state || !*state || !(*state)->isOfThisTable)
                return {};
            const auto repaired = repairTrend(target, table.name, **state, {});
            if (!repaired)
                return repaired.error();
            report.trendSumsMade += repaired->written;
            return {};
        });
        if (!mended)
            return mended;
    }
    return {};
}

Status writeTables(Forest &forest, PageSurvey &pages, const Database &target, SalvageReport &report,
                   const std::function<void(double)> &progress)
{
    if (const Status begun = target.run("begin"); !begun)
        return begun;
    TableMaker maker(pages, target, report);
    double done = 0;
    Status status;
    for (Tree &tree : forest.trees) {
        progress(done++ / double(forest.trees.size()));
        if (status && tree.isTable())
            status = maker.make(tree);
    }
    if (status)
        status = maker.keepLastIds(forest);
    if (status)
        status = target.run("commit");
    if (!status)
        (void)target.run("rollback"); // SQLite may have done it; then this fails
    return status;
}

void countPages(SalvageReport &report, const Forest &forest, const PageSurvey &pages)
{
    for (const Tree &tree : forest.trees) {
        for (const quint32 page : tree.leaves)
            report.foreignRows += tree.kind == Foreign ? pages.leaves.at(page).count : 0;
    }
    for (const auto &[page, leaf] : pages.leaves) {
        if (leaf.placed)
            ++(leaf.sound ? report.rowPages : report.damagedPages);
        else
            report.deletedRows += leaf.count;
    }
    for (const quint32 page : pages.file().pages())
        report.freePages += pages.isFree(page) && !pages.isInTree(page);
    report.treePages = pages.indexPages;
    for (const auto &[page, children] : pages.interiors)
        report.treePages += !pages.isFree(page) || pages.isInTree(page);
    report.overflowPages = pages.overflow.size();
    report.pages = pages.pages;
    report.unknownPages = std::max<qint64>(0, report.pages - report.rowPages - report.damagedPages - report.treePages -
                                                  report.freePages - report.overflowPages);
}

} // namespace

Result<SalvageReport> salvage(const DamagedFiles &files, const Database &target, const SalvageOptions &options)
{
    constexpr double lookingPart = 0.4;
    const auto progress = [&](double part) {
        if (options.progress)
            options.progress(part);
    };
    DamagedFile file(files, options.pageSize);
    SalvageReport report;
    report.pageSize = file.pageSize();
    report.headerIntact = file.headerIntact();
    report.logPages = file.logPages();
    report.journalPages = file.journalPages();
    report.journalDamaged = file.journalDamaged();

    PageSurvey pages(file);
    pages.look([&](double part) { progress(lookingPart * part); });
    Forest forest = growTrees(pages);
    report.schemaIntact = forest.schemaIntact;
    joinPieces(forest, pages);
    nameTrees(forest);
    const Status written = writeTables(forest, pages, target, report,
                                       [&](double part) { progress(lookingPart + (1 - lookingPart) * part); });
    if (!written)
        return written.error();
    if (report.keepRules > 0) {
        if (const Status left = leaveOutBadRules(target, report); !left)
            return left.error();
    }
    if (report.trendSums > 0) {
        if (const Status mended = mendTrends(target, forest, report); !mended)
            return mended.error();
    }
    progress(1);
    countPages(report, forest, pages);
    return report;
}

} // namespace device_db
