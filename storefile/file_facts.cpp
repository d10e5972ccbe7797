// SPDX-License-Identifier: MIT
#include "storefile/file_facts.h"

#include "storefile/texts.h"

#include <QFileInfo>
#include <QMap>

namespace device_db
{

namespace
{

Status readSizes(const Database &database, const QString &path, FileFacts &facts)
{
    facts.bytes = QFileInfo(path).size();
    for (const auto &[sql, number] :
         {std::pair{"pragma page_count", &facts.pages}, std::pair{"pragma page_size", &facts.pageSize},
          std::pair{"pragma freelist_count", &facts.freePages}}) {
        const auto value = database.number(sql);
        if (!value)
            return value.error();
        *number = *value;
    }
    for (const auto &[sql, text] :
         {std::pair{"pragma journal_mode", &facts.journal}, std::pair{"pragma encoding", &facts.encoding}}) {
        const auto value = database.text(sql);
        if (!value)
            return value.error();
        *text = *value;
    }
    for (const auto &[ending, bytes] :
         {std::pair{"-wal", &facts.walBytes}, std::pair{"-journal", &facts.journalBytes}}) {
        const QFileInfo beside(path + QLatin1String(ending));
        if (beside.exists())
            *bytes = beside.size();
    }
    return {};
}

Status readIds(const Database &database, TableFacts &facts)
{
    const QByteArray name = identifier(facts.table.name);
    auto sequence = database.prepare("select max((select coalesce(max(seq),0) from sqlite_sequence where name=?1),"
                                     "(select coalesce(max(ID),0) from " +
                                     name + "))");
    if (!sequence) // a file in which nothing counts IDs
        sequence = database.prepare("select coalesce(max(ID),0) from " + name);
    if (!sequence)
        return sequence.error();
    sequence->bind(1, facts.table.name.toUtf8());
    if (sequence->step())
        facts.lastId = sequence->number(0);

    auto index = database.prepare("select count(*) from pragma_index_list(?1) l join pragma_index_info(l.name) i "
                                  "where i.seqno=0 and upper(i.name)='DATETIME'");
    if (!index)
        return index.error();
    index->bind(1, facts.table.name.toUtf8());
    facts.indexed = index->step() && index->number(0) > 0;
    return {};
}

Status readRows(const Database &database, TableFacts &facts, QList<Finding> &findings,
                const std::function<void(qint64)> &seen)
{
    const bool alarms = facts.table.kind == Kind::Alarms;
    auto rows = database.prepare((alarms ? "select ID,DATETIME,EndDate,EndTime from " : "select ID,DATETIME from ") +
                                 identifier(facts.table.name) + " order by ID");
    if (!rows)
        return rows.error();
    RowJudge judge(facts.table);
    facts.rows = 0;
    while (rows->step()) {
        const QByteArray time = rows->cell(1);
        judge.add(rows->number(0), time, alarms ? rows->cell(2) : QByteArray(), alarms ? rows->cell(3) : QByteArray());
        if (facts.rows == 0 || time < facts.first)
            facts.first = time;
        if (facts.rows == 0 || time > facts.last)
            facts.last = time;
        if (++facts.rows % 4096 == 0 && seen)
            seen(facts.rows);
    }
    findings << judge.findings();
    return rows->status();
}

} // namespace

Result<FileFacts> factsOf(const Database &database, const QString &path, const std::function<void(qint64)> &seen)
{
    FileFacts facts;
    if (const Status read = readSizes(database, path, facts); !read)
        return read.error();
    facts.processes = processesThatHave(path);
    const auto tables = tablesOf(database);
    if (!tables)
        return tables.error();
    QMap<QString, qint64> sizes;
    auto stat = database.prepare("select m.tbl_name,sum(d.pgsize) from dbstat d join sqlite_master m on m.name=d.name "
                                 "where d.aggregate=1 group by m.tbl_name");
    while (stat && stat->step()) // not every SQLite has it
        sizes[fromUtf8(stat->cell(0))] = stat->number(1);
    for (const Table &table : *tables) {
        TableFacts each;
        each.table = table;
        each.bytes = sizes.value(table.name, -1);
        if (holdsRecords(table.kind)) {
            if (const Status read = readIds(database, each); !read)
                return read.error();
            if (const Status read = readRows(database, each, facts.findings, seen); !read)
                return read.error();
        } else if (!table.isVirtual && !table.isMisnamed) {
            const auto rows = database.number("select count(*) from " + identifier(table.name));
            if (!rows)
                return rows.error();
            each.rows = *rows;
        }
        if (table.kind != Kind::Foreign) {
            const auto found = definitionFindings(database, table);
            if (!found)
                return found.error();
            facts.findings << *found;
        }
        facts.tables << each;
    }
    const auto registrations = registrationsOf(database, *tables);
    if (!registrations)
        return registrations.error();
    facts.registrations = *registrations;
    facts.findings << configurationFindings(*tables, facts.registrations);
    return facts;
}

} // namespace device_db
