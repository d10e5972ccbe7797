// SPDX-License-Identifier: MIT
#ifndef STOREFILE_TREES_H
#define STOREFILE_TREES_H

#include "storefile/salvage/page_survey.h"
#include "storefile/salvage/salvage.h"

#include <utility>

namespace device_db
{

/// A part of a tree that is lost: the rows after `after` up to `last`.
struct Hole {
    qint64 after;
    qint64 last;
    int depth;
    bool filled = false;
};

/// Leaves that belong together: a table, or a piece of one.
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
    qint64 first = highestId;
    qint64 last = lowestId;

    bool isTable() const { return !gone && (kindOf(kind) != Kind::Foreign || isOfHostLayer(kind)); }
};

/// The trees of a file, and what its own tables say of them.
struct Forest {
    bool schemaIntact = false;
    std::vector<Tree> trees;
    std::vector<std::pair<QString, qint64>> sequence; ///< SQLite's list of the last IDs.
};

/// From the list of tables down, then from whatever else is at the top of something.
Forest growTrees(PageSurvey &pages);

/// Puts pieces without a root into the gaps of the trees that they fit into, and together where one goes on where
/// another ends; only where there is a single choice. It is better that a table comes out in several pieces than that
/// rows of two are mixed.
void joinPieces(Forest &forest, PageSurvey &pages);

/// Names for the tables that have none.
void nameTrees(Forest &forest);

} // namespace device_db

#endif
