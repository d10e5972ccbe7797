// SPDX-License-Identifier: MIT
#include "batch.h"

#include "inserts.h"
#include "row_text.h"

#include <QSet>

#include <algorithm>
#include <iterator>
#include <map>

namespace device
{

namespace
{

// One way of a batch into the file.
class Storing
{
public:
    Storing(Connection &connection, const Site &site, Batch &batch)
        : m_connection(connection), m_site(site), m_batch(batch), m_changedBefore(batch.changed)
    {
    }

    Status run();

private:
    Site at(const QString &table) const { return {m_site.operation, table}; }
    bool isRefused(int step) const { return m_refused.find(step) != m_refused.end(); }
    Status allSteps();
    Status aside(std::function<Status(Connection &)> &task);
    Status rows(const QVector<int> &rows);
    Status inGroups(const QVector<Insert> &inserts);
    Result<qint64> changes();
    Status isKept(const QString &table);
    Status insert(const Insert &insert);
    Status singly(const Insert &insert);
    Status change(int step);
    Status create(int step);
    Status inSavepoint(int step, const std::function<Status()> &body);
    Error judged(const Error &why);
    bool schemaHas(const QString &condition);
    Status lookAtWitness(const QString &table, const QString &id);

    Connection &m_connection;
    const Site m_site;
    Batch &m_batch;
    const QVector<qint64> m_changedBefore; ///< In a try that may be in the file, and that has left no witness.
    std::map<int, Error> m_refused;
    std::optional<Witness> m_witness;
    QSet<QString> m_singly; ///< Tables whose rows are inserted one by one.
    bool m_again = false;
};

Status Storing::run()
{
    Status done;
    do {
        m_again = false;
        done = m_connection.transaction(m_site, [this] { return allSteps(); });
    } while (m_again);
    m_batch.refused.clear();
    for (const auto &[step, why] : m_refused)
        m_batch.refused.append({step, why});
    if (done)
        return done;
    if (done.error().code() == Error::FileMoved || m_connection.commitInDoubt())
        m_batch.inDoubt = m_witness;
    else
        m_batch.changed = m_changedBefore;
    return done;
}

Status Storing::allSteps()
{
    m_witness.reset();
    m_batch.changed = m_changedBefore;
    if (const Status done = aside(m_batch.before); !done)
        return done;
    bool mayHaveChanged = false;
    QVector<int> rows;
    const int size = int(m_batch.writes.size());
    for (int i = 0; i <= size; ++i) {
        if (i < size && isRefused(i))
            continue;
        if (i < size && m_batch.writes.at(i).kind == Write::Row) {
            rows.append(i);
            continue;
        }
        if (const Status stored = this->rows(rows); !stored)
            return stored;
        rows.clear();
        if (i == size)
            break;
        const Status done = m_batch.writes.at(i).kind == Write::Change ? change(i) : create(i);
        if (!done)
            return done;
        mayHaveChanged = true;
    }
    if (m_witness && mayHaveChanged) {
        if (const Status seen = lookAtWitness(m_witness->table, m_witness->cells.first()); !seen)
            return seen;
    }
    return aside(m_batch.after);
}

Status Storing::aside(std::function<Status(Connection &)> &task)
{
    if (!task)
        return {};
    const Status done = task(m_connection);
    if (!done && !isPassing(done.error().code())) {
        task = nullptr;
        m_again = true; // from the beginning, without it
    }
    return done;
}

Status Storing::rows(const QVector<int> &rows)
{
    if (rows.isEmpty())
        return {};
    QVector<Insert> grouped = insertsOf(m_batch.writes, rows, m_connection.hasJson());
    const auto isSingly = [this](const Insert &each) { return m_singly.contains(each.table); };
    QVector<Insert> single;
    std::copy_if(grouped.begin(), grouped.end(), std::back_inserter(single), isSingly);
    grouped.erase(std::remove_if(grouped.begin(), grouped.end(), isSingly), grouped.end());
    if (!grouped.isEmpty()) {
        if (const Status done = inGroups(grouped); !done)
            return done;
    }
    for (const Insert &each : single) {
        if (const Status done = singly(each); !done)
            return done;
    }
    return {};
}

Status Storing::inGroups(const QVector<Insert> &inserts)
{
    const auto changesBefore = changes();
    if (!changesBefore)
        return changesBefore.error();
    qint64 rows = 0;
    for (const Insert &each : inserts) {
        if (const Status done = insert(each); !done)
            return done;
        rows += each.rows.size();
    }
    const auto changesAfter = changes();
    if (!changesAfter)
        return changesAfter.error();
    if (*changesAfter - *changesBefore == rows)
        return {};
    // A trigger or a conflict clause was at work, which may have left rows out without an error: each on its own.
    for (const Insert &each : inserts)
        m_singly.insert(each.table);
    m_again = true;
    return at(QString()).error(Error::Failed, QStringLiteral("a table did not keep its rows"));
}

Result<qint64> Storing::changes()
{
    const auto rows = m_connection.ask(m_site, QStringLiteral("select total_changes()"));
    if (!rows)
        return rows.error();
    return rows->first().first().toLongLong();
}

// Whether the row that was inserted last is in its table.
Status Storing::isKept(const QString &table)
{
    const auto kept = m_connection.ask(at(table), QStringLiteral("select changes(),exists(select 1 from %1 where "
                                                                 "rowid=last_insert_rowid())")
                                                      .arg(table));
    if (!kept)
        return kept.error();
    if (kept->first().value(0) == QLatin1String("1") && kept->first().value(1) == QLatin1String("1"))
        return {};
    return at(table).error(Error::Failed,
                           QStringLiteral("a trigger or a conflict clause of the table left the row out"));
}

Status Storing::insert(const Insert &insert)
{
    const Status done = m_connection.run(at(insert.table), insert.sql);
    if (done)
        return m_witness ? Status() : lookAtWitness(insert.table, QStringLiteral("last_insert_rowid()"));
    const Error why = judged(done.error());
    // Each row on its own, from the beginning, shows which one it was: a statement that fails may leave rows in the
    // table.
    if (!isOfTheFile(why.code())) {
        m_singly.insert(insert.table);
        m_again = true;
    }
    return why;
}

Status Storing::singly(const Insert &insert)
{
    for (const int row : insert.rows) {
        const Status done = inSavepoint(row, [&] {
            const Status inserted =
                m_connection.run(at(insert.table), insertsOf(m_batch.writes, {row}, false).first().sql);
            return inserted ? isKept(insert.table) : inserted;
        });
        if (!done)
            return done;
        if (!m_witness && !isRefused(row)) {
            if (const Status seen = lookAtWitness(insert.table, QStringLiteral("last_insert_rowid()")); !seen)
                return seen;
        }
    }
    return {};
}

// Does a step whole or not at all; one that the table refuses is left out.
Status Storing::inSavepoint(int step, const std::function<Status()> &body)
{
    if (const Status begun = m_connection.run(m_site, QStringLiteral("savepoint step")); !begun)
        return begun;
    const Status done = body();
    if (done)
        return m_connection.run(m_site, QStringLiteral("release step"));
    const Error why = judged(done.error());
    if (isOfTheFile(why.code()))
        return why;
    m_refused.emplace(step, why);
    if (m_connection.isInTransaction()) {
        if (const Status undone = m_connection.run(m_site, QStringLiteral("rollback to step")); !undone)
            return undone;
        return m_connection.run(m_site, QStringLiteral("release step"));
    }
    m_again = true; // the refusal took the whole transaction with it: from the beginning, without this step
    return why;
}

Status Storing::change(int step)
{
    const Write &write = m_batch.writes.at(step);
    return inSavepoint(step, [&]() -> Status {
        if (const Status done = m_connection.run(at(write.table), write.text); !done)
            return done;
        const auto changed = m_connection.ask(m_site, QStringLiteral("select changes()"));
        if (!changed)
            return changed.error();
        // What a try whose commit was in doubt did change is not changed a second time.
        m_batch.changed[step] = std::max(m_batch.changed[step], changed->first().first().toLongLong());
        return {};
    });
}

Status Storing::create(int step)
{
    return inSavepoint(step, [&]() -> Status {
        const auto created = m_batch.writes.at(step).create(m_connection);
        if (!created)
            return created.error();
        m_batch.changed[step] = std::max(m_batch.changed[step], qint64(*created));
        return {};
    });
}

// Whose fault it is that a step failed. A trigger may say SQLite's own words, and a transaction may end at a trigger's
// wish: the schema can be asked for both. What stays unclear counts against the row, not against the queue.
Error Storing::judged(const Error &why)
{
    const bool explained = m_connection.explained();
    if (!explained && !m_connection.isInTransaction() && !schemaHas(QStringLiteral("instr(lower(sql),'rollback')")))
        return Error(Error::StorageFailed, why.operation(), why.table(), why.cause());
    if (!isOfTheFile(why.code()) || why.code() == Error::Cancelled)
        return why;
    if (schemaHas(QStringLiteral("type='trigger' and instr(sql,%1)").arg(quoted(why.cause()))))
        return Error(Error::Failed, why.operation(), why.table(), why.cause());
    if (why.code() == Error::StorageFailed) {
        const auto exhausted = m_connection.ask(
            m_site, QStringLiteral("select count(*) from sqlite_sequence where seq=9223372036854775807 and name=%1 "
                                   "collate nocase")
                        .arg(quoted(why.table())));
        if (exhausted && exhausted->first().first() != QLatin1String("0"))
            return Error(Error::Failed, why.operation(), why.table(),
                         QStringLiteral("the table has used the highest ID there is"));
    }
    return why;
}

// One row of the transaction is enough: they are stored together.
Status Storing::lookAtWitness(const QString &table, const QString &id)
{
    const auto row = m_connection.ask(m_site, QStringLiteral("select * from %1 where ID=").arg(table) + id);
    if (!row)
        return row.error();
    m_witness.reset();
    if (!row->isEmpty())
        m_witness = Witness{table, row->first()};
    return {};
}

bool Storing::schemaHas(const QString &condition)
{
    const auto found = m_connection.ask(m_site, QLatin1String("select count(*) from sqlite_master where ") + condition);
    return found && found->first().first() != QLatin1String("0");
}

// Whether the batch is in the file, so far as that was in doubt.
Result<bool> settled(Connection &connection, const Site &site, Batch &batch)
{
    if (!batch.inDoubt)
        return false;
    const Witness &witness = *batch.inDoubt;
    const auto rows =
        connection.query(site, QStringLiteral("select * from %1 where ID=").arg(witness.table) + witness.cells.first());
    // Without the table it is another file than the one that was written.
    if (!rows && rows.error().code() != Error::TableMissing)
        return rows.error();
    const bool stored = rows && !rows->isEmpty() && rows->first() == witness.cells;
    batch.inDoubt.reset();
    if (!stored)
        batch.changed.fill(0);
    return stored;
}

} // namespace

Status store(Connection &connection, const Site &site, Batch &batch)
{
    if (batch.writes.isEmpty())
        return {};
    if (batch.changed.isEmpty())
        batch.changed.fill(0, batch.writes.size());
    auto inFile = settled(connection, site, batch);
    if (!inFile)
        return inFile.error();
    if (*inFile)
        return {};
    const Status done = Storing(connection, site, batch).run();
    if (done || done.error().code() == Error::FileMoved)
        return done;
    inFile = settled(connection, site, batch);
    return inFile && *inFile ? Status() : done;
}

} // namespace device
