// SPDX-License-Identifier: MIT
//
// Rows are bound to a prepared statement and not handed to the typed stores: a table may hold cells that are not a
// record (an end of an alarm in the host's own form), and import takes back to the byte what export wrote.
#include "import/row_store.h"

#include <sqlite3.h>

#include <limits>

namespace device_db
{

Result<RowStore> RowStore::ofTable(const Database &database, const QString &table, Kind kind)
{
    RowStore store(database);
    if (const Status prepared = store.prepare(table, kind); !prepared)
        return prepared.error();
    return store;
}

Result<RowStore> RowStore::ofSeries(const Database &database, const QStringList &tables)
{
    RowStore store(database);
    store.m_isWide = true;
    for (const QString &table : tables) {
        if (const Status prepared = store.prepare(table, Kind::Samples); !prepared)
            return prepared.error();
    }
    return store;
}

Status RowStore::prepare(const QString &table, Kind kind)
{
    const QByteArray places = QByteArray(",?").repeated(int(columnsOf(kind).size()));
    auto insert = m_database->prepare("insert into " + identifier(table) + '(' + columnList(kind) + ") values(NULL" +
                                      places + ')');
    if (!insert)
        return insert.error();
    m_targets.push_back({table, std::move(insert).value()});
    return {};
}

Result<int> RowStore::store(const QVector<QByteArray> &cells, QByteArray &reason)
{
    if (!m_isWide) {
        if (const Status inserted = insert(m_targets.front(), cells, reason); !inserted)
            return inserted.error();
        return reason.isEmpty() ? 1 : 0;
    }
    if (const Status begun = m_database->run("savepoint row"); !begun)
        return begun.error();
    int stored = 0;
    for (size_t i = 0; i < m_targets.size() && reason.isEmpty(); ++i) {
        const QByteArray &value = cells.at(int(i) + 1);
        if (value.isEmpty())
            continue;
        if (const Status inserted = insert(m_targets[i], {cells.at(0), value}, reason); !inserted)
            return inserted.error();
        ++stored;
    }
    const Status ended = m_database->run(reason.isEmpty() ? "release row" : "rollback to row; release row");
    if (!ended)
        return ended.error();
    return reason.isEmpty() ? stored : 0;
}

Status RowStore::insert(Target &target, const QVector<QByteArray> &cells, QByteArray &reason)
{
    for (int i = 0; i < cells.size(); ++i)
        target.insert.bind(i + 1, cells.at(i));
    target.insert.step();
    const Status status = target.insert.status();
    if (!status) {
        const int code = sqlite3_errcode(m_database->handle()) & 0xff;
        if (code == SQLITE_FULL && hasHighestId(target.table)) // SQLite has one word for both
            return failure(m_database->name(),
                           QStringLiteral("%1 has given the highest ID there is, so no row can be added; clear the "
                                          "table, or import into another one")
                               .arg(target.table));
        if (code != SQLITE_CONSTRAINT)
            return status; // the open transaction goes with the connection
        reason = "the table refuses it: " + QByteArray(sqlite3_errmsg(m_database->handle()));
        if (sqlite3_get_autocommit(m_database->handle()))
            return failure(m_database->name(),
                           QStringLiteral("a trigger or a conflict clause of %1 undid the whole transaction: %2")
                               .arg(target.table, QString::fromUtf8(sqlite3_errmsg(m_database->handle()))));
    } else if (m_database->changes() == 0) {
        reason = "the table leaves it out: a trigger or a conflict clause ignores it";
    }
    target.insert.reset();
    return {};
}

Result<std::optional<qint64>> RowStore::rowsIfAnyMayGo() const
{
    const auto rules = m_database->number("select count(*) from sqlite_master where type='trigger' or type='table' and "
                                          "sql like '%conflict%'");
    if (!rules)
        return rules.error();
    if (*rules == 0)
        return std::optional<qint64>();
    qint64 rows = 0;
    for (const Target &target : m_targets) {
        const auto count = m_database->number("select count(*) from " + identifier(target.table));
        if (!count)
            return count.error();
        rows += *count;
    }
    return std::optional<qint64>(rows);
}

bool RowStore::hasHighestId(const QString &table) const
{
    auto sequence = m_database->prepare("select seq from sqlite_sequence where name=?");
    if (!sequence)
        return false;
    sequence->bind(1, table.toUtf8());
    return sequence->step() && sequence->number(0) == std::numeric_limits<qint64>::max();
}

} // namespace device_db
