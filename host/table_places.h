// SPDX-License-Identifier: MIT
#ifndef DEVICE_TABLE_PLACES_H
#define DEVICE_TABLE_PLACES_H

#include <QHash>
#include <QString>

#include <algorithm>
#include <vector>

namespace device
{

/// Finds the entry of a table among those of a writer, by any spelling of its name: rows come with the same few.
template<typename Entry>
class TablePlaces
{
public:
    /// `entries` have a `name`. Null if there is none.
    Entry *find(std::vector<Entry> &entries, const QString &name)
    {
        auto place = m_places.constFind(name);
        if (place == m_places.constEnd()) {
            const auto found = std::find_if(entries.begin(), entries.end(), [&](const Entry &each) {
                return each.name.compare(name, Qt::CaseInsensitive) == 0;
            });
            place = m_places.insert(name, found == entries.end() ? -1 : int(found - entries.begin()));
        }
        return *place < 0 ? nullptr : &entries[size_t(*place)];
    }
    /// To be called when entries came, went or changed places.
    void clear() { m_places.clear(); }

private:
    QHash<QString, int> m_places; ///< -1 for a table without an entry.
};

} // namespace device

#endif
