// SPDX-License-Identifier: MIT
#include "storefile/salvage/trees.h"

#include <algorithm>

namespace device_db
{

namespace
{

constexpr int deepest = 30; // no file has room for a tree of two children a page and 2^30 leaves

struct Definition {
    QString name;
    quint32 root;
    RowKind kind;
};

class Grower
{
public:
    explicit Grower(PageSurvey &pages) : m_pages(pages) {}

    Forest grow()
    {
        readSchema();
        growRooted();
        growOthers();
        readSequence();
        return std::move(m_forest);
    }

private:
    void readSchema();
    void readSequence();
    void growRooted();
    void growOthers();
    void walk(Tree &tree, quint32 page, qint64 after, qint64 last, int depth);
    void finish(Tree &tree) const;

    PageSurvey &m_pages;
    std::vector<Definition> m_schema;
    Forest m_forest;
};

// The schema's rows from wherever they are, even when page 1 is gone.
void Grower::readSchema()
{
    Tree tree;
    walk(tree, 1, lowestId, highestId, 0);
    m_forest.schemaIntact = m_pages.file().headerIntact() && tree.holes.empty();
    std::vector<quint32> pages = tree.leaves;
    for (const auto &[page, leaf] : m_pages.leaves) {
        if (!leaf.placed && !m_pages.isFree(page) && leaf.votes[Schema] > leaf.count / 2)
            pages.push_back(page);
    }
    QSet<quint32> roots;
    for (const quint32 page : pages) {
        LeafInfo &leaf = m_pages.leaves[page];
        leaf.placed = true;
        m_pages.inTrees.insert(page);
        if (!leaf.sound)
            m_forest.schemaIntact = false;
        m_pages.forEachRow(page, [&](const Row &row) {
            if (kindOfRow(row.cells, m_pages.encoding()) != Schema) {
                m_forest.schemaIntact = false;
                return;
            }
            const auto type = readText(row.cells[0].bytes, m_pages.encoding());
            const auto name = readText(row.cells[1].bytes, m_pages.encoding());
            const auto sql = readText(row.cells[4].bytes, m_pages.encoding());
            const qint64 root = row.cells[3].integer;
            if (!type || *type != "table" || !name || !sql || root < 2 || root > 0xfffffffe ||
                roots.contains(quint32(root)))
                return;
            const QString text = QString::fromUtf8(*name);
            roots.insert(quint32(root));
            m_schema.push_back({text, quint32(root),
                                text == QLatin1String("sqlite_sequence")
                                    ? Sequence
                                    : kindOfDefinition(text, QString::fromUtf8(*sql))});
        });
    }
}

void Grower::readSequence()
{
    for (const Tree &tree : m_forest.trees) {
        if (tree.kind != Sequence)
            continue;
        for (const quint32 page : tree.leaves) {
            m_pages.forEachRow(page, [&](const Row &row) {
                if (kindOfRow(row.cells, m_pages.encoding()) != Sequence)
                    return;
                if (const auto name = readText(row.cells[0].bytes, m_pages.encoding()))
                    m_forest.sequence.emplace_back(QString::fromUtf8(*name), row.cells[1].integer);
            });
        }
    }
}

void Grower::walk(Tree &tree, quint32 page, qint64 after, qint64 last, int depth)
{
    const auto leaf = m_pages.leaves.find(page);
    const auto interior = m_pages.interiors.find(page);
    const bool seen = m_pages.isInTree(page);
    if (!seen && leaf != m_pages.leaves.end() &&
        (!leaf->second.sound || leaf->second.count == 0 || (leaf->second.first > after && leaf->second.last <= last))) {
        m_pages.inTrees.insert(page);
        leaf->second.placed = true;
        leaf->second.after = after;
        leaf->second.upTo = last;
        tree.leaves.push_back(page);
        tree.leafDepth = depth;
    } else if (!seen && interior != m_pages.interiors.end() && depth < deepest) {
        m_pages.inTrees.insert(page);
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
void Grower::finish(Tree &tree) const
{
    std::array<int, KindCount> votes{};
    for (const quint32 page : tree.leaves) {
        const LeafInfo &leaf = m_pages.leaves[page];
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

void Grower::growRooted()
{
    for (const Definition &definition : m_schema) {
        Tree tree;
        tree.kind = definition.kind;
        tree.name = definition.name;
        tree.nameFrom = SalvagedTable::FromSchema;
        tree.rooted = true;
        walk(tree, definition.root, lowestId, highestId, 0);
        finish(tree);
        m_forest.trees.push_back(std::move(tree));
    }
}

void Grower::growOthers()
{
    QSet<quint32> children;
    for (const auto &[page, list] : m_pages.interiors) {
        if (m_pages.isInTree(page) || m_pages.isFree(page))
            continue;
        for (const Child &child : list)
            children.insert(child.page);
    }
    std::vector<quint32> roots;
    for (const auto &[page, list] : m_pages.interiors)
        roots.push_back(page);
    for (const auto &[page, leaf] : m_pages.leaves)
        roots.push_back(page);
    // First the tops of what is there, then whatever they did not lead to.
    for (const bool tops : {true, false}) {
        for (const quint32 page : roots) {
            if (m_pages.isInTree(page) || m_pages.isFree(page) || (tops && children.contains(page)))
                continue;
            Tree tree;
            walk(tree, page, lowestId, highestId, 0);
            finish(tree);
            if (tree.first <= tree.last)
                m_forest.trees.push_back(std::move(tree));
        }
    }
}

} // namespace

Forest growTrees(PageSurvey &pages)
{
    return Grower(pages).grow();
}

} // namespace device_db
