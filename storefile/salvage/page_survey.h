// SPDX-License-Identifier: MIT
#ifndef STOREFILE_PAGE_SURVEY_H
#define STOREFILE_PAGE_SURVEY_H

#include "storefile/salvage/damaged_file.h"
#include "storefile/salvage/row_kind.h"

#include <QSet>

#include <array>
#include <functional>
#include <limits>
#include <map>
#include <vector>

namespace device_db
{

constexpr qint64 lowestId = std::numeric_limits<qint64>::min();
constexpr qint64 highestId = std::numeric_limits<qint64>::max();

/// A page with rows of a table.
struct LeafInfo {
    bool sound = false;
    bool placed = false;     ///< In a tree, so not free.
    qint64 after = lowestId; ///< What the tree above says of the rows' IDs.
    qint64 upTo = highestId;
    qint64 first = 0;
    qint64 last = 0;
    int count = 0;
    std::array<int, KindCount> votes{}; ///< Rows by what they look like.
};

struct Row {
    qint64 id = 0;
    std::vector<Value> cells; ///< Empty when the row is not whole. Valid while it is being looked at.
    QSet<quint32> chain;      ///< The pages that the row goes on in.
};

/// What each page of a damaged file is, as far as the page itself says. Shared by the steps of a salvage, which note
/// here which pages they have used.
class PageSurvey
{
public:
    /// `file` outlives this object.
    explicit PageSurvey(DamagedFile &file) : m_file(file) {}

    /// Looks at every page. `progress` is called with the part that is done, from 0 to 1; may be empty.
    void look(const std::function<void(double)> &progress);

    /// Each row of a leaf, in the order of the page.
    void forEachRow(quint32 page, const std::function<void(const Row &)> &use) const;

    const DamagedFile &file() const { return m_file; }
    Encoding encoding() const { return m_file.encoding(); }
    bool isInTree(quint32 page) const { return inTrees.contains(page); }
    bool isFree(quint32 page) const { return free.contains(page); }

    qint64 pages = 0;
    qint64 indexPages = 0;
    std::map<quint32, LeafInfo> leaves;
    std::map<quint32, std::vector<Child>> interiors;
    QSet<quint32> free;     ///< On the free list: what they hold was deleted.
    QSet<quint32> inTrees;  ///< Found from a root down.
    QSet<quint32> overflow; ///< A row that was taken goes on in these.

private:
    void findEncoding();
    void findFreePages();
    void lookAt(quint32 number);
    std::optional<QByteArray> payload(const Cell &cell, QSet<quint32> &chain) const;

    DamagedFile &m_file;
};

} // namespace device_db

#endif
