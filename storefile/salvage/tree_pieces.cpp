// SPDX-License-Identifier: MIT
#include "storefile/salvage/trees.h"

#include <algorithm>
#include <map>

namespace device_db
{

namespace
{

// A lost interior page leaves a gap in its tree that the pages below it fit into.
class HoleFiller
{
public:
    HoleFiller(Forest &forest, PageSurvey &pages);

    void fill();
    void dropUnwanted();

private:
    bool isUnused(size_t tree, qint64 first, qint64 last) const;
    bool touches(size_t tree, qint64 first, qint64 last) const;
    Hole *holeFor(size_t tree, const Tree &piece) const;
    bool place(size_t piece);

    std::vector<Tree> &m_trees;
    PageSurvey &m_pages;
    std::vector<size_t> m_pieces; ///< Those without a root, by their first IDs.
    std::vector<size_t> m_withHoles;
    /// The ranges that a tree holds already, by their beginnings, so that nothing is put upon something else.
    std::vector<std::map<qint64, qint64>> m_held;
};

HoleFiller::HoleFiller(Forest &forest, PageSurvey &pages)
    : m_trees(forest.trees), m_pages(pages), m_held(forest.trees.size())
{
    for (size_t i = 0; i < m_trees.size(); ++i) {
        if (m_trees[i].isTable() && !m_trees[i].rooted)
            m_pieces.push_back(i);
        if (m_trees[i].isTable() && !m_trees[i].holes.empty())
            m_withHoles.push_back(i);
        for (const quint32 page : m_trees[i].leaves) {
            const LeafInfo &leaf = m_pages.leaves[page];
            if (leaf.count > 0)
                m_held[i][leaf.first] = leaf.last;
        }
    }
    std::sort(m_pieces.begin(), m_pieces.end(),
              [&](size_t a, size_t b) { return m_trees[a].first < m_trees[b].first; });
}

bool HoleFiller::isUnused(size_t tree, qint64 first, qint64 last) const
{
    auto next = m_held[tree].upper_bound(last);
    return next == m_held[tree].begin() || (--next)->second < first;
}

bool HoleFiller::touches(size_t tree, qint64 first, qint64 last) const
{
    auto next = m_held[tree].lower_bound(first);
    if (next != m_held[tree].end() && last < highestId && next->first == last + 1)
        return true;
    return next != m_held[tree].begin() && first > lowestId && (--next)->second == first - 1;
}

Hole *HoleFiller::holeFor(size_t tree, const Tree &piece) const
{
    Tree &candidate = m_trees[tree];
    if (candidate.gone || candidate.kind != piece.kind || &candidate == &piece ||
        !isUnused(tree, piece.first, piece.last))
        return nullptr;
    for (Hole &hole : candidate.holes) {
        if (hole.after < piece.first && piece.last <= hole.last)
            return &hole;
    }
    return nullptr;
}

// Into the only hole that it fits into, or the only one where its IDs go on without a gap.
bool HoleFiller::place(size_t index)
{
    Tree &piece = m_trees[index];
    std::vector<std::pair<size_t, Hole *>> fitting;
    std::vector<std::pair<size_t, Hole *>> touching;
    for (const size_t candidate : m_withHoles) {
        if (Hole *const hole = holeFor(candidate, piece)) {
            fitting.emplace_back(candidate, hole);
            if (touches(candidate, piece.first, piece.last))
                touching.emplace_back(candidate, hole);
        }
    }
    const auto &choice = fitting.size() == 1 ? fitting : touching;
    if (choice.size() != 1)
        return false;
    const auto [into, hole] = choice.front();
    Tree &tree = m_trees[into];
    hole->filled = true;
    tree.leaves.insert(tree.leaves.end(), piece.leaves.begin(), piece.leaves.end());
    tree.lostLeaves += piece.lostLeaves;
    m_held[into].insert(m_held[index].begin(), m_held[index].end());
    tree.first = std::min(tree.first, piece.first);
    tree.last = std::max(tree.last, piece.last);
    piece.gone = true;
    return true;
}

void HoleFiller::fill()
{
    for (bool changed = !m_withHoles.empty(); changed;) {
        changed = false;
        for (const size_t piece : m_pieces) {
            if (!m_trees[piece].gone)
                changed = place(piece) || changed;
        }
    }
}

// Where the schema is intact and no gap takes a piece, it is not a table's: it was freed, or left by a table that is
// gone.
void HoleFiller::dropUnwanted()
{
    for (const size_t i : m_pieces) {
        Tree &piece = m_trees[i];
        const bool wanted = std::any_of(m_withHoles.begin(), m_withHoles.end(),
                                        [&](size_t candidate) { return holeFor(candidate, piece) != nullptr; });
        if (piece.gone || wanted)
            continue;
        for (const quint32 page : piece.leaves)
            m_pages.leaves[page].placed = false;
        piece.gone = true;
    }
}

// Pieces of which nothing says the table.
void gatherRest(Forest &forest, const PageSurvey &pages)
{
    std::vector<Tree> &trees = forest.trees;
    std::vector<size_t> order;
    for (size_t i = 0; i < trees.size(); ++i) {
        if (!trees[i].rooted && trees[i].isTable())
            order.push_back(i);
    }
    qint64 rows = 0;
    for (const auto &[page, leaf] : pages.leaves)
        rows += leaf.count;
    // This many rows can be missing between two pieces of a table, generously.
    const qint64 leaves = qint64(pages.leaves.size());
    const qint64 widestGap = 4 * (pages.pages - leaves + 1) * (rows / std::max<qint64>(1, leaves) + 1);
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return trees[a].first < trees[b].first; });
    const auto isComplete = [&](const Tree &tree) {
        return std::any_of(forest.sequence.begin(), forest.sequence.end(),
                           [&](const auto &entry) { return entry.second == tree.last; });
    };
    std::vector<size_t> chains;
    for (const size_t i : order) {
        Tree &piece = trees[i];
        std::vector<size_t> near;
        std::vector<size_t> exact;
        for (const size_t chain : chains) {
            const Tree &tree = trees[chain];
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
        Tree &tree = trees[choice.front()];
        tree.leaves.insert(tree.leaves.end(), piece.leaves.begin(), piece.leaves.end());
        tree.holes.insert(tree.holes.end(), piece.holes.begin(), piece.holes.end());
        tree.lostLeaves += piece.lostLeaves;
        tree.last = piece.last;
        piece.gone = true;
    }
}

// A table's last row has the ID that SQLite's own list keeps beside the table's name.
void nameByLastId(Forest &forest)
{
    QSet<QString> taken;
    for (const Tree &tree : forest.trees)
        taken.insert(tree.name);
    for (const auto &[name, id] : forest.sequence) {
        const auto isOther = [&, last = id](const auto &entry) { return entry.second == last; };
        if (taken.contains(name) || std::count_if(forest.sequence.begin(), forest.sequence.end(), isOther) != 1)
            continue;
        Tree *match = nullptr;
        int matches = 0;
        for (Tree &tree : forest.trees) {
            if (tree.isTable() && !isOfHostLayer(tree.kind) && tree.name.isEmpty() && tree.last == id) {
                match = &tree;
                ++matches;
            }
        }
        if (matches != 1 || (match->kind == Configuration) != (name == QLatin1String("tb_config")))
            continue;
        match->name = name;
        match->nameFrom = SalvagedTable::LastId;
    }
}

void makeNames(Forest &forest)
{
    QSet<QString> taken;
    for (const Tree &tree : forest.trees)
        taken.insert(tree.name.toLower());
    for (Tree &tree : forest.trees) {
        if (!tree.isTable() || !tree.name.isEmpty())
            continue;
        if (isOfHostLayer(tree.kind)) { // all pieces go into the one table
            tree.name = nameOfHostLayer(tree.kind);
            continue;
        }
        const QString made = QStringLiteral("salvaged_%1_%2").arg(QLatin1String(nameOf(kindOf(tree.kind))));
        tree.name = tree.kind == Configuration ? QStringLiteral("tb_config")
                    : tree.kind == Alarms      ? QStringLiteral("AlarmData")
                                               : made.arg(1);
        for (int i = 1; taken.contains(tree.name.toLower()); ++i)
            tree.name = made.arg(i);
        taken.insert(tree.name.toLower());
    }
}

} // namespace

void joinPieces(Forest &forest, PageSurvey &pages)
{
    HoleFiller filler(forest, pages);
    filler.fill();
    if (forest.schemaIntact)
        filler.dropUnwanted();
    gatherRest(forest, pages);
}

void nameTrees(Forest &forest)
{
    nameByLastId(forest);
    makeNames(forest);
}

} // namespace device_db
