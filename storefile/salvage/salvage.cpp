// SPDX-License-Identifier: MIT
#include "storefile/salvage/salvage.h"

#include "storefile/salvage/damaged_file.h"

#include <sqlite3.h>

#include <QSet>

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <memory>
#include <set>

namespace device_db
{

namespace
{

constexpr qint64 lowest = std::numeric_limits<qint64>::min();
constexpr qint64 highest = std::numeric_limits<qint64>::max();
constexpr int deepest = 30; // a tree of two children a page and 2^30 leaves does not exist

enum RowKind { Samples, Names, Alarms, Log, Schema, Sequence, Foreign, KindCount };

// The tables of the stores, word for word as the stores make them.
struct Layout {
    const char *kind;
    const char *columns;
    int timeColumn; ///< -1: none
    const char *usualName;
};
constexpr std::array<Layout, 4> layouts{{
    {"samples", "ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text", 1, "salvaged_samples_%1"},
    {"names", "ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text", -1, "tb_config"},
    {"alarms",
     "ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,"
     "CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text",
     2, "AlarmData"},
    {"log", "ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text",
     1, "salvaged_log_%1"},
}};

bool isStore(RowKind kind)
{
    return size_t(kind) < layouts.size();
}

// "ID", "DATETIME", "Value": the first word of each column.
QStringList columnNames(const QString &columns)
{
    QStringList names;
    for (const QString &column : columns.split(QLatin1Char(','))) {
        QString name = column.trimmed().section(QLatin1Char(' '), 0, 0);
        for (const char quote : {'"', '`', '[', ']', '\''})
            name.remove(QLatin1Char(quote));
        names << name.toLower();
    }
    return names;
}

RowKind kindOfDefinition(const QString &sql)
{
    const int begin = int(sql.indexOf(QLatin1Char('('))) + 1;
    const QStringList names = columnNames(sql.mid(begin, sql.lastIndexOf(QLatin1Char(')')) - begin));
    for (size_t kind = 0; kind < layouts.size(); ++kind) {
        if (names == columnNames(QLatin1String(layouts[kind].columns)))
            return RowKind(kind);
    }
    return Foreign;
}

// "2024-05-06 07:08:09", with or without milliseconds.
bool isTime(const QByteArray &text)
{
    static constexpr char form[] = "dddd-dd-dd dd:dd:dd.ddd";
    if (text.size() != 19 && text.size() != 23)
        return false;
    for (int i = 0; i < text.size(); ++i) {
        if (form[i] == 'd' ? text[i] < '0' || text[i] > '9' : text[i] != form[i])
            return false;
    }
    return true;
}

bool isTime(const Value &value, Encoding encoding)
{
    if (value.type != Value::Text || value.bytes.size() > 46)
        return false;
    const auto text = readText(value.bytes, encoding);
    return text && isTime(*text);
}

bool isText(const Value &value)
{
    return value.type == Value::Text || value.type == Value::Null || value.type == Value::Blob;
}

// Which table a row may come from, by its columns alone.
RowKind kindOfRow(const std::vector<Value> &row, Encoding encoding)
{
    const auto texts = [&](size_t first) { return std::all_of(row.begin() + long(first), row.end(), isText); };
    if (row.size() == 2 && row[0].type == Value::Text && row[1].type == Value::Integer)
        return Sequence;
    if (row.size() == 5 && row[0].type == Value::Text && row[3].type == Value::Integer)
        return Schema;
    if (row.empty() || row[0].type != Value::Null)
        return Foreign;
    if (row.size() == 3 && texts(2))
        return isText(row[1]) && !isTime(row[1], encoding) ? Names : Samples;
    if (row.size() == 5 && texts(2))
        return Log;
    if (row.size() == 10 && texts(3))
        return Alarms;
    return Foreign;
}

// Whether a row can be of the table. On a page that is damaged it must look like one in every cell.
bool belongs(const std::vector<Value> &row, RowKind kind, Encoding encoding, bool sound)
{
    RowKind shape = kindOfRow(row, encoding);
    if (shape == Names && kind == Samples)
        shape = Samples; // a time in another form
    if (shape != kind)
        return false;
    if (sound)
        return true;
    const int time = layouts[size_t(kind)].timeColumn;
    return (time < 0 || isTime(row[size_t(time)], encoding)) && (kind != Alarms || row[1].type == Value::Integer);
}

struct LeafInfo {
    bool sound = false;
    bool placed = false;   ///< In a tree, so not free.
    qint64 after = lowest; ///< What the tree above says of the rows' IDs.
    qint64 upTo = highest;
    qint64 first = 0;
    qint64 last = 0;
    int count = 0;
    std::array<int, KindCount> votes{};
};

// A part of a tree that is gone: the rows behind `after` up to `last`.
struct Hole {
    qint64 after;
    qint64 last;
    int depth;
    bool filled = false;
};

// Leaves that belong together: a table, or a piece of one.
struct Tree {
    RowKind kind = Foreign;
    QString name;
    SalvagedTable::NameFrom nameFrom = SalvagedTable::MadeUp;
    bool rooted = false; ///< The schema names its root.
    bool gone = false;   ///< Has become part of another one, or is of no use.
    int leafDepth = -1;
    std::vector<quint32> leaves;
    std::vector<Hole> holes; ///< Where interior pages are lost.
    int lostLeaves = 0;
    qint64 first = highest;
    qint64 last = lowest;
};

class Salvage
{
public:
    Salvage(QIODevice &file, QIODevice *wal, sqlite3 *target, const SalvageOptions &options)
        : m_file(file, wal, options.pageSize), m_target(target), m_options(options)
    {
    }

    Result<SalvageReport> run();

private:
    void findEncoding();
    void scan();
    void findFreePages();
    void readSchema();
    void growRooted();
    void growOthers();
    void walk(Tree &tree, quint32 page, qint64 after, qint64 last, int depth);
    void finish(Tree &tree);
    void fillHoles();
    void gatherRest();
    void nameBySequence();
    void makeNames();

    template<typename Use>
    void forEachRow(quint32 page, Use use);
    std::optional<QByteArray> payload(const Cell &cell);

    Status writeAll();
    Status write(Tree &tree);
    Status run(const QByteArray &sql);
    Error targetError() const;
    void tell(double part) const
    {
        if (m_options.progress)
            m_options.progress(part);
    }

    DamagedFile m_file;
    sqlite3 *m_target;
    SalvageOptions m_options;
    SalvageReport m_report;
    std::map<quint32, LeafInfo> m_leaves;
    std::map<quint32, std::vector<Child>> m_interiors;
    QSet<quint32> m_walked; ///< Pages of trees.
    QSet<quint32> m_free;
    QSet<quint32> m_chain;
    QSet<quint32> m_overflow; ///< Pages that a row which was taken goes on in.
    struct Definition {
        QString name;
        quint32 root;
        RowKind kind;
    };
    std::vector<Definition> m_schema;
    std::vector<std::pair<QString, qint64>> m_sequence; ///< SQLite's list of the last IDs.
    std::vector<Tree> m_trees;
};

// Tells whether texts are in UTF-16 by what the times look like; asked when the header is gone.
void Salvage::findEncoding()
{
    if (m_file.headerStands())
        return;
    std::array<int, 4> votes{};
    int looked = 0;
    for (const quint32 number : m_file.pages()) {
        const QByteArray bytes = m_file.page(number);
        const auto leaf = readLeaf(bytes, number == 1);
        if (!leaf || !leaf->sound || leaf->cells.empty())
            continue;
        const Cell &cell = leaf->cells.front();
        for (const Value &value : readRecord(cell.local, cell.payloadSize, false)) {
            for (const Encoding encoding : {Encoding::Utf8, Encoding::Utf16Little, Encoding::Utf16Big})
                votes[size_t(encoding)] += isTime(value, encoding);
        }
        if (++looked == 1000)
            break;
    }
    m_file.setEncoding(Encoding(std::max_element(votes.begin() + 1, votes.end()) - votes.begin()));
}

void Salvage::scan()
{
    const auto pages = m_file.pages();
    m_report.pages = qint64(pages.size());
    for (size_t i = 0; i < pages.size(); ++i) {
        if (i % 1024 == 0)
            tell(0.4 * double(i) / double(pages.size()));
        const quint32 number = pages[i];
        bool torn = false;
        const QByteArray bytes = m_file.page(number, &torn);
        const bool first = number == 1 && m_file.headerStands();
        switch (pageType(bytes, first)) {
        case PageType::TableLeaf:
            if (const auto leaf = readLeaf(bytes, first)) {
                LeafInfo info;
                info.sound = leaf->sound && !torn;
                info.first = highest;
                info.last = lowest;
                for (const Cell &cell : leaf->cells) {
                    const RowKind kind = kindOfRow(readRecord(cell.local, cell.payloadSize, false), m_file.encoding());
                    if (!info.sound && kind == Foreign)
                        continue; // no row at all
                    ++info.votes[kind];
                    ++info.count;
                    info.first = std::min(info.first, cell.rowid);
                    info.last = std::max(info.last, cell.rowid);
                }
                if (info.sound || info.count > 0)
                    m_leaves[number] = info;
            }
            break;
        case PageType::TableInterior: {
            auto children = readInterior(bytes, first, m_file.lastPage());
            if (!children.empty() && !torn)
                m_interiors[number] = std::move(children);
            break;
        }
        case PageType::IndexInterior:
        case PageType::IndexLeaf:
            ++m_report.treePages;
            break;
        case PageType::Other:
            break;
        }
    }
}

// The free list is a chain of pages, each with the number of the next and a list of free pages. Pages keep what they
// held when they become free, so rows on them were deleted. The chain may be broken or its beginning lost:
// each page that can only be a part of it is taken as one.
void Salvage::findFreePages()
{
    for (const quint32 number : m_file.pages()) {
        if (number == 1 || m_leaves.count(number) || m_interiors.count(number))
            continue;
        const QByteArray bytes = m_file.page(number);
        const Bytes page(bytes);
        const quint32 next = page.page(0);
        const quint32 count = page.page(4);
        if (next > m_file.lastPage() || next == 1 || count > page.size() / 4 - 2 || (next == 0 && count == 0))
            continue;
        QSet<quint32> listed;
        for (quint32 i = 0; i < count; ++i) {
            const quint32 entry = page.page(8 + 4 * size_t(i));
            if (entry < 2 || entry > m_file.lastPage() || listed.contains(entry))
                break;
            listed.insert(entry);
        }
        if (quint32(listed.size()) != count || (count == 0 && number != m_file.firstFreePage()))
            continue;
        m_free += listed;
        m_free.insert(number);
    }
}

template<typename Use>
void Salvage::forEachRow(quint32 page, Use use)
{
    const QByteArray bytes = m_file.page(page);
    const auto leaf = readLeaf(bytes, page == 1 && m_file.headerStands());
    if (!leaf)
        return;
    for (const Cell &cell : leaf->cells) {
        const auto whole = payload(cell);
        const auto row = whole ? readRecord(*whole, cell.payloadSize, true) : std::vector<Value>();
        use(cell, row);
    }
}

// The whole payload of a row, and in m_chain the overflow pages that it goes on in; null when their chain is broken.
std::optional<QByteArray> Salvage::payload(const Cell &cell)
{
    QByteArray bytes = cell.local.copy();
    const quint64 aPage = m_file.pageSize() - 4; // less what is reserved, which a page() leaves out
    m_chain.clear();
    for (quint32 next = cell.overflow; quint64(bytes.size()) < cell.payloadSize;) {
        const auto leaf = m_leaves.find(next);
        if (next < 2 || next > m_file.lastPage() || m_chain.contains(next) || m_overflow.contains(next) ||
            m_walked.contains(next) || (leaf != m_leaves.end() && leaf->second.sound) ||
            cell.payloadSize / aPage > quint64(m_report.pages))
            return std::nullopt;
        m_chain.insert(next);
        bool torn = false;
        const QByteArray page = m_file.page(next, &torn);
        if (page.size() <= 4 || torn)
            return std::nullopt;
        bytes += page.mid(4, int(qMin<quint64>(quint64(page.size()) - 4, cell.payloadSize - quint64(bytes.size()))));
        next = Bytes(page).page(0);
        if (quint64(bytes.size()) == cell.payloadSize && next != 0)
            return std::nullopt;
    }
    return bytes;
}

// The schema's rows from wherever they stand, also when page 1 is gone.
void Salvage::readSchema()
{
    Tree tree;
    walk(tree, 1, lowest, highest, 0);
    m_report.schemaStands = m_file.headerStands() && tree.holes.empty();
    std::vector<quint32> pages = tree.leaves;
    for (const auto &[page, leaf] : m_leaves) {
        if (!leaf.placed && !m_free.contains(page) && leaf.votes[Schema] > leaf.count / 2)
            pages.push_back(page);
    }
    QSet<quint32> roots;
    for (const quint32 page : pages) {
        const bool sound = m_leaves[page].sound;
        m_leaves[page].placed = true;
        m_walked.insert(page);
        if (!sound)
            m_report.schemaStands = false;
        forEachRow(page, [&](const Cell &, const std::vector<Value> &row) {
            if (kindOfRow(row, m_file.encoding()) != Schema) {
                m_report.schemaStands = false;
                return;
            }
            const auto type = readText(row[0].bytes, m_file.encoding());
            const auto name = readText(row[1].bytes, m_file.encoding());
            const auto sql = readText(row[4].bytes, m_file.encoding());
            const qint64 root = row[3].integer;
            if (!type || *type != "table" || !name || !sql || root < 2 || root > 0xfffffffe ||
                roots.contains(quint32(root)))
                return;
            const QString text = QString::fromUtf8(*name);
            roots.insert(quint32(root));
            m_schema.push_back(
                {text, quint32(root),
                 text == QLatin1String("sqlite_sequence") ? Sequence : kindOfDefinition(QString::fromUtf8(*sql))});
        });
    }
}

void Salvage::walk(Tree &tree, quint32 page, qint64 after, qint64 last, int depth)
{
    const auto leaf = m_leaves.find(page);
    const auto interior = m_interiors.find(page);
    const bool seen = m_walked.contains(page);
    if (!seen && leaf != m_leaves.end() &&
        (!leaf->second.sound || leaf->second.count == 0 || (leaf->second.first > after && leaf->second.last <= last))) {
        m_walked.insert(page);
        leaf->second.placed = true;
        leaf->second.after = after;
        leaf->second.upTo = last;
        tree.leaves.push_back(page);
        tree.leafDepth = depth;
    } else if (!seen && interior != m_interiors.end() && depth < deepest) {
        m_walked.insert(page);
        for (size_t i = 0; i < interior->second.size(); ++i) {
            const bool rightmost = i + 1 == interior->second.size();
            const qint64 upTo = rightmost ? last : std::min(last, interior->second[i].lastRowid);
            walk(tree, interior->second[i].page, after, upTo, depth + 1);
            after = upTo;
        }
    } else {
        tree.holes.push_back({after, last, depth});
    }
}

// What the leaves say about their tree.
void Salvage::finish(Tree &tree)
{
    std::array<int, KindCount> votes{};
    for (const quint32 page : tree.leaves) {
        const LeafInfo &leaf = m_leaves[page];
        for (size_t kind = 0; kind < votes.size(); ++kind)
            votes[kind] += leaf.votes[kind];
        if (leaf.count > 0) {
            tree.first = std::min(tree.first, leaf.first);
            tree.last = std::max(tree.last, leaf.last);
        }
    }
    // All leaves of a tree are equally deep, so what is missing there was a leaf, and nothing else fits into its place.
    const auto lost = std::remove_if(tree.holes.begin(), tree.holes.end(),
                                     [&](const Hole &hole) { return hole.depth == tree.leafDepth; });
    tree.lostLeaves = int(tree.holes.end() - lost);
    tree.holes.erase(lost, tree.holes.end());
    if (!tree.rooted)
        tree.kind = RowKind(std::max_element(votes.begin(), votes.end()) - votes.begin());
}

void Salvage::growRooted()
{
    for (const Definition &definition : m_schema) {
        Tree tree;
        tree.kind = definition.kind;
        tree.name = definition.name;
        tree.nameFrom = SalvagedTable::Schema;
        tree.rooted = true;
        walk(tree, definition.root, lowest, highest, 0);
        finish(tree);
        m_trees.push_back(std::move(tree));
    }
}

void Salvage::growOthers()
{
    QSet<quint32> children;
    for (const auto &[page, list] : m_interiors) {
        if (m_walked.contains(page) || m_free.contains(page))
            continue;
        for (const Child &child : list)
            children.insert(child.page);
    }
    std::vector<quint32> roots;
    for (const auto &[page, list] : m_interiors)
        roots.push_back(page);
    for (const auto &[page, leaf] : m_leaves)
        roots.push_back(page);
    // First the tops of what stands, then whatever they did not lead to.
    for (const bool tops : {true, false}) {
        for (const quint32 page : roots) {
            if (m_walked.contains(page) || m_free.contains(page) || (tops && children.contains(page)))
                continue;
            Tree tree;
            walk(tree, page, lowest, highest, 0);
            finish(tree);
            if (tree.first <= tree.last)
                m_trees.push_back(std::move(tree));
        }
    }
}

// A lost interior page leaves a gap in its tree that the pages below it fit into.
void Salvage::fillHoles()
{
    std::vector<size_t> order;
    for (size_t i = 0; i < m_trees.size(); ++i) {
        if (!m_trees[i].rooted && isStore(m_trees[i].kind))
            order.push_back(i);
    }
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return m_trees[a].first < m_trees[b].first; });

    // The ranges that a tree holds already, by their beginnings, so that nothing is put upon something else.
    std::vector<std::map<qint64, qint64>> held(m_trees.size());
    for (size_t i = 0; i < m_trees.size(); ++i) {
        for (const quint32 page : m_trees[i].leaves) {
            if (m_leaves[page].count > 0)
                held[i][m_leaves[page].first] = m_leaves[page].last;
        }
    }
    const auto isFree = [&](size_t i, qint64 first, qint64 last) {
        auto next = held[i].upper_bound(last);
        return next == held[i].begin() || (--next)->second < first;
    };
    const auto touches = [&](size_t i, qint64 first, qint64 last) {
        auto next = held[i].lower_bound(first);
        if (next != held[i].end() && last < highest && next->first == last + 1)
            return true;
        return next != held[i].begin() && first > lowest && (--next)->second == first - 1;
    };
    const auto holeFor = [&](size_t i, const Tree &piece) -> Hole * {
        Tree &tree = m_trees[i];
        if (tree.gone || tree.kind != piece.kind || &tree == &piece || !isFree(i, piece.first, piece.last))
            return nullptr;
        for (Hole &hole : tree.holes) {
            if (hole.after < piece.first && piece.last <= hole.last)
                return &hole;
        }
        return nullptr;
    };

    std::vector<size_t> withHoles;
    for (size_t i = 0; i < m_trees.size(); ++i) {
        if (isStore(m_trees[i].kind) && !m_trees[i].holes.empty())
            withHoles.push_back(i);
    }
    for (bool changed = !withHoles.empty(); changed;) {
        changed = false;
        for (const size_t i : order) {
            Tree &piece = m_trees[i];
            if (piece.gone)
                continue;
            std::vector<std::pair<size_t, Hole *>> fitting;
            std::vector<std::pair<size_t, Hole *>> touching;
            for (const size_t candidate : withHoles) {
                if (Hole *const hole = holeFor(candidate, piece)) {
                    fitting.emplace_back(candidate, hole);
                    if (touches(candidate, piece.first, piece.last))
                        touching.emplace_back(candidate, hole);
                }
            }
            const auto &choice = fitting.size() == 1 ? fitting : touching;
            if (choice.size() != 1)
                continue;
            const auto [into, hole] = choice.front();
            Tree &tree = m_trees[into];
            hole->filled = true;
            tree.leaves.insert(tree.leaves.end(), piece.leaves.begin(), piece.leaves.end());
            tree.lostLeaves += piece.lostLeaves;
            held[into].insert(held[i].begin(), held[i].end());
            tree.first = std::min(tree.first, piece.first);
            tree.last = std::max(tree.last, piece.last);
            piece.gone = true;
            changed = true;
        }
    }
    // Where the schema stands and no gap takes a piece, it is no table's: it was freed, or left by a table that is
    // gone.
    if (!m_report.schemaStands)
        return;
    for (const size_t i : order) {
        Tree &piece = m_trees[i];
        const bool wanted = std::any_of(withHoles.begin(), withHoles.end(),
                                        [&](size_t candidate) { return holeFor(candidate, piece) != nullptr; });
        if (piece.gone || wanted)
            continue;
        for (const quint32 page : piece.leaves)
            m_leaves[page].placed = false;
        piece.gone = true;
    }
}

// Pieces of which nothing tells the table: those that go on where another ends, without another choice, are put
// together. It is better that a table comes out in several pieces than that rows of two are mixed.
void Salvage::gatherRest()
{
    std::vector<size_t> order;
    qint64 leaves = 0;
    qint64 rows = 0;
    for (size_t i = 0; i < m_trees.size(); ++i) {
        if (!m_trees[i].rooted && !m_trees[i].gone && isStore(m_trees[i].kind))
            order.push_back(i);
    }
    for (const auto &[page, leaf] : m_leaves) {
        ++leaves;
        rows += leaf.count;
    }
    // So many rows can be missing between two pieces of a table, generously.
    const qint64 lostPages = m_report.pages - leaves;
    const qint64 widestGap = 4 * (lostPages + 1) * (rows / std::max<qint64>(1, leaves) + 1);
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return m_trees[a].first < m_trees[b].first; });
    const auto isComplete = [&](const Tree &tree) {
        return std::any_of(m_sequence.begin(), m_sequence.end(),
                           [&](const auto &entry) { return entry.second == tree.last; });
    };
    std::vector<size_t> chains;
    for (const size_t i : order) {
        Tree &piece = m_trees[i];
        std::vector<size_t> near;
        std::vector<size_t> exact;
        for (const size_t chain : chains) {
            const Tree &tree = m_trees[chain];
            if (tree.kind != piece.kind || tree.last >= piece.first)
                continue;
            if (tree.last == piece.first - 1)
                exact.push_back(chain);
            if (!isComplete(tree) && quint64(piece.first) - quint64(tree.last) <= quint64(widestGap))
                near.push_back(chain);
        }
        const auto &choice = exact.size() == 1 ? exact : near;
        if (choice.size() != 1) {
            chains.push_back(i);
            continue;
        }
        Tree &tree = m_trees[choice.front()];
        tree.leaves.insert(tree.leaves.end(), piece.leaves.begin(), piece.leaves.end());
        tree.holes.insert(tree.holes.end(), piece.holes.begin(), piece.holes.end());
        tree.lostLeaves += piece.lostLeaves;
        tree.last = piece.last;
        piece.gone = true;
    }
}

// A table's last row has the ID that SQLite's own list keeps beside the table's name.
void Salvage::nameBySequence()
{
    QSet<QString> taken;
    for (const Tree &tree : m_trees)
        taken.insert(tree.name);
    for (const auto &[name, id] : m_sequence) {
        const auto isOther = [&, last = id](const auto &entry) { return entry.second == last; };
        if (taken.contains(name) || std::count_if(m_sequence.begin(), m_sequence.end(), isOther) != 1)
            continue;
        Tree *match = nullptr;
        int matches = 0;
        for (Tree &tree : m_trees) {
            if (!tree.gone && tree.name.isEmpty() && isStore(tree.kind) && tree.last == id) {
                match = &tree;
                ++matches;
            }
        }
        if (matches != 1 || (match->kind == Names) != (name == QLatin1String("tb_config")))
            continue;
        match->name = name;
        match->nameFrom = SalvagedTable::LastId;
    }
}

void Salvage::makeNames()
{
    QSet<QString> taken;
    for (const Tree &tree : m_trees)
        taken.insert(tree.name.toLower());
    for (Tree &tree : m_trees) {
        if (tree.gone || !tree.name.isEmpty() || !isStore(tree.kind))
            continue;
        const Layout &layout = layouts[size_t(tree.kind)];
        tree.name = QString::fromLatin1(layout.usualName).replace(QLatin1String("%1"), QLatin1String("1"));
        for (int i = 1; taken.contains(tree.name.toLower()); ++i)
            tree.name = QStringLiteral("salvaged_%1_%2").arg(QLatin1String(layout.kind)).arg(i);
        taken.insert(tree.name.toLower());
    }
}

Error Salvage::targetError() const
{
    return failure(QString::fromUtf8(sqlite3_db_filename(m_target, "main")),
                   QString::fromUtf8(sqlite3_errmsg(m_target)) + QStringLiteral("; check free space and the medium"));
}

Status Salvage::run(const QByteArray &sql)
{
    if (sqlite3_exec(m_target, sql.constData(), nullptr, nullptr, nullptr) != SQLITE_OK)
        return targetError();
    return {};
}

Status Salvage::write(Tree &tree)
{
    const Layout &layout = layouts[size_t(tree.kind)];
    SalvagedTable table;
    table.name = tree.name;
    table.kind = QLatin1String(layout.kind);
    table.nameFrom = tree.nameFrom;
    table.lostPages = tree.lostLeaves + std::count_if(tree.holes.begin(), tree.holes.end(),
                                                      [](const Hole &hole) { return !hole.filled; });
    QByteArray name = tree.name.toUtf8();
    name.replace('"', "\"\"");
    if (const Status created = run("create table \"" + name + "\"(" + layout.columns + ')'); !created)
        return created;
    const int columns = int(QByteArray(layout.columns).count(',')) + 1;
    QByteArray places("?");
    for (int i = 1; i < columns; ++i)
        places += ",?";
    sqlite3_stmt *prepared = nullptr;
    sqlite3_prepare_v2(m_target, ("insert or ignore into \"" + name + "\" values(" + places + ')').constData(), -1,
                       &prepared, nullptr);
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> insert(prepared, sqlite3_finalize);
    if (!insert)
        return targetError();

    std::sort(tree.leaves.begin(), tree.leaves.end(),
              [&](quint32 a, quint32 b) { return m_leaves[a].first < m_leaves[b].first; });
    Status status;
    for (const quint32 page : tree.leaves) {
        const LeafInfo &leaf = m_leaves[page];
        forEachRow(page, [&](const Cell &cell, const std::vector<Value> &row) {
            if (!status)
                return;
            bool fits = belongs(row, tree.kind, m_file.encoding(), leaf.sound) && cell.rowid > leaf.after &&
                        cell.rowid <= leaf.upTo;
            std::vector<QByteArray> texts; // alive until the row is stored
            texts.reserve(row.size());
            sqlite3_reset(insert.get());
            sqlite3_bind_int64(insert.get(), 1, cell.rowid);
            for (size_t i = 1; fits && i < row.size(); ++i) {
                const int place = int(i) + 1;
                const Value &value = row[i];
                switch (value.type) {
                case Value::Null:
                    sqlite3_bind_null(insert.get(), place);
                    break;
                case Value::Integer:
                    sqlite3_bind_int64(insert.get(), place, value.integer);
                    break;
                case Value::Real:
                    sqlite3_bind_double(insert.get(), place, value.real);
                    break;
                case Value::Text:
                    if (auto text = readText(value.bytes, m_file.encoding())) {
                        texts.push_back(std::move(*text));
                        sqlite3_bind_text(insert.get(), place, texts.back().constData(), int(texts.back().size()),
                                          SQLITE_STATIC);
                    } else {
                        fits = false;
                    }
                    break;
                case Value::Blob:
                    sqlite3_bind_blob64(insert.get(), place, value.bytes.chars(), value.bytes.size(), SQLITE_STATIC);
                    break;
                }
            }
            if (!fits) {
                ++table.rejected;
                return;
            }
            const int code = sqlite3_step(insert.get());
            sqlite3_reset(insert.get()); // lets go of the row's bytes
            if (code == SQLITE_DONE && sqlite3_changes(m_target) == 1) {
                if (table.rows++ == 0)
                    table.firstId = cell.rowid;
                table.firstId = std::min(table.firstId, cell.rowid);
                table.lastId = std::max(table.lastId, cell.rowid);
                // The pages that this row goes on in belong to it alone.
                m_overflow += m_chain;
            } else if (code == SQLITE_DONE) {
                ++m_report.duplicates;
            } else {
                status = targetError();
            }
        });
        if (!status)
            return status;
    }
    m_report.rejectedCells += table.rejected;
    m_report.tables.append(table);
    return {};
}

Status Salvage::writeAll()
{
    if (const Status begun = run("begin"); !begun)
        return begun;
    double done = 0;
    for (Tree &tree : m_trees) {
        tell(0.4 + 0.6 * done++ / double(m_trees.size()));
        if (tree.gone || !isStore(tree.kind))
            continue;
        if (const Status written = write(tree); !written)
            return written;
    }
    // IDs that were given once are not given again.
    for (const auto &[name, id] : m_sequence) {
        QByteArray quoted = name.toUtf8();
        quoted.replace('\'', "''");
        const Status kept =
            run("update sqlite_sequence set seq=max(seq," + QByteArray::number(id) + ") where name='" + quoted + '\'');
        if (!kept && !m_report.tables.isEmpty())
            return kept;
    }
    return run("commit");
}

Result<SalvageReport> Salvage::run()
{
    findEncoding();
    scan();
    findFreePages();
    readSchema();
    growRooted();
    growOthers();
    for (const Tree &tree : m_trees) {
        if (tree.kind != Sequence)
            continue;
        for (const quint32 page : tree.leaves) {
            forEachRow(page, [&](const Cell &, const std::vector<Value> &row) {
                if (kindOfRow(row, m_file.encoding()) != Sequence)
                    return;
                if (const auto name = readText(row[0].bytes, m_file.encoding()))
                    m_sequence.emplace_back(QString::fromUtf8(*name), row[1].integer);
            });
        }
    }
    fillHoles();
    gatherRest();
    nameBySequence();
    makeNames();
    if (const Status written = writeAll(); !written) {
        const Error why = written.error();
        sqlite3_exec(m_target, "rollback", nullptr, nullptr, nullptr);
        return why;
    }
    tell(1);

    m_report.pageSize = m_file.pageSize();
    m_report.headerStands = m_file.headerStands();
    m_report.logPages = m_file.logPages();
    for (const Tree &tree : m_trees) {
        for (const quint32 page : tree.leaves)
            m_report.foreignRows += tree.kind == Foreign ? m_leaves[page].count : 0;
    }
    for (const auto &[page, leaf] : m_leaves) {
        if (leaf.placed)
            ++(leaf.sound ? m_report.rowPages : m_report.damagedPages);
        if (!leaf.placed)
            m_report.deletedRows += leaf.count;
    }
    for (const quint32 page : m_free)
        m_report.freePages += !m_walked.contains(page) && page <= m_file.lastPage();
    for (const auto &[page, children] : m_interiors)
        m_report.treePages += !m_free.contains(page) || m_walked.contains(page);
    m_report.overflowPages = m_overflow.size();
    m_report.unknownPages = std::max<qint64>(0, m_report.pages - m_report.rowPages - m_report.damagedPages -
                                                    m_report.treePages - m_report.freePages - m_report.overflowPages);
    return m_report;
}

} // namespace

Result<SalvageReport> salvage(QIODevice &file, QIODevice *wal, sqlite3 *target, const SalvageOptions &options)
{
    return Salvage(file, wal, target, options).run();
}

} // namespace device_db
