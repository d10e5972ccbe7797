// SPDX-License-Identifier: MIT
#include "salvage_files.h"

#include "text_literal.h"

#include "storefile/sqlite.h"

#include "device/library.h"
#include "device/store.h"

#include <QBuffer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>

using device_db::DamagedFiles;
using device_db::SalvagedTable;

namespace
{

const QString manyRows = "with recursive n(i) as (select 0 union all select i+1 from n where i<%1-1) "_q;

} // namespace

std::map<qint64, QString> rowsByIds(PlainConnection &file, QString table)
{
    table.replace("\""_q, "\"\""_q); // names may be damaged, too
    QStringList cells;
    for (const QStringList &column : file.run("select name from pragma_table_info(\"%1\")"_q.arg(table)))
        cells << "typeof(%1)||':'||quote(%1)"_q.arg(column.first());
    std::map<qint64, QString> rows;
    for (const QStringList &row : file.run("select ID, %1 from \"%2\""_q.arg(cells.join("||','||"_q), table)))
        rows[row.at(0).toLongLong()] = row.at(1);
    return rows;
}

Original lookAt(const QString &path)
{
    Original original;
    PlainConnection file(path);
    original.pageSize = file.value("pragma page_size"_q).toUInt();
    for (const QStringList &name :
         file.run("select name from sqlite_master where type='table' and name not like 'sqlite%'"_q)) {
        OriginalTable &table = original.tables[name.first()];
        table.rows = rowsByIds(file, name.first());
        // Leaves in the order of their paths hold the rows in the order of their IDs.
        auto row = table.rows.begin();
        std::map<QString, std::vector<qint64>> idsOfLeaf;
        for (const QStringList &leaf :
             file.run("select path, pageno, ncell from dbstat where name='%1' and pagetype='leaf' order by path"_q.arg(
                 name.first()))) {
            for (int i = 0; i < leaf.at(2).toInt() && row != table.rows.end(); ++i, ++row) {
                table.pagesOf[row->first].push_back(leaf.at(1).toUInt());
                idsOfLeaf[leaf.at(0)].push_back(row->first);
            }
        }
        EXPECT_TRUE(row == table.rows.end());
        EXPECT_EQ(table.pagesOf.size(), table.rows.size());
        for (const QStringList &page :
             file.run("select path, pageno from dbstat where name='%1' and pagetype='overflow'"_q.arg(name.first()))) {
            // "/00a/012+000003": the fourth page behind row 0x12 of the leaf "/00a/"
            const int split = int(page.at(0).lastIndexOf(QLatin1Char('/'))) + 1;
            const size_t cell = page.at(0).mid(split, 3).toUInt(nullptr, 16);
            table.pagesOf[idsOfLeaf.at(page.at(0).left(split)).at(cell)].push_back(page.at(1).toUInt());
        }
    }
    QFile bytes(path);
    EXPECT_TRUE(bytes.open(QIODevice::ReadOnly));
    original.bytes = bytes.readAll();
    return original;
}

QString fill(int rows, bool twoSeries)
{
    QString sql = manyRows.arg(rows) +
                  "insert into Boiler select NULL,datetime(1714978800+(select count(*) from Boiler)+i,'unixepoch'),"
                  "printf('%.2f',20+(i%977)/10.0) from n;"_q;
    if (twoSeries)
        sql += manyRows.arg(rows) +
               "insert into Pump select NULL,datetime(1714978800+(select count(*) from Pump)+i,'unixepoch'),"
               "case when i%151=0 then '' else 1000+i%89||' 1/min' end from n;"_q;
    sql += manyRows.arg(rows / 5) +
           "insert into AlarmData select NULL,i%4,datetime(1714978800+60*i,'unixepoch'),'Pump '||i%7,'High',i,'80',"
           "'Level above limit '||i,case when i%3 then '2024-05-06' else '' end,case when i%3 then '07:20:00' else "
           "'' end from n;"_q;
    sql += manyRows.arg(rows / 5) +
           "insert into OperatorLog select NULL,strftime('%Y-%m-%d %H:%M:%f',1714978800+i,'unixepoch'),'user'||i%5,"
           "'action',case when i%50=0 then replace(hex(zeroblob(1000+37*i)),'0','long ') else 'set '||i||' µ' end "
           "from n;"_q;
    return sql;
}

Original makeFile(int rounds, int rowsARound, const QString &pragmas, bool twoSeries)
{
    QTemporaryDir folder;
    const QString path = folder.filePath("device.db"_q);
    {
        PlainConnection file(path);
        file.run(pragmas);
    }
    {
        const auto library = device::Library::load(QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY));
        EXPECT_TRUE(library.ok());
        auto history = device::HistoryStore::open(*library, path);
        auto alarms = device::AlarmStore::open(*library, path);
        auto log = device::LogStore::open(*library, path);
        const auto name = [](const char *text) { return device::TableName::from(QLatin1String(text)).value(); };
        EXPECT_TRUE(history->createTable(name("Boiler"), "Boiler 1"_q).ok());
        EXPECT_TRUE(history->createTable(name("Pump"), "Pump"_q).ok());
        EXPECT_TRUE(alarms->createTable(name("AlarmData")).ok());
        EXPECT_TRUE(log->createTable(name("OperatorLog")).ok());
    }
    {
        PlainConnection file(path);
        file.run("create index Boiler_time on Boiler(DATETIME)"_q);
        for (int i = 0; i < rounds; ++i)
            file.run("begin;"_q + fill(rowsARound, twoSeries) + "commit"_q);
    }
    return lookAt(path);
}

device_db::Database makeTarget(const QString &path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    auto target = device_db::Database::open(path, device_db::Database::ReadWrite);
    EXPECT_TRUE(target.ok());
    EXPECT_TRUE(target->run("pragma journal_mode=memory; pragma synchronous=off").ok());
    return std::move(target).value();
}

Salvaged salvage(const QByteArray &bytes, const QByteArray &log, const QByteArray &journal)
{
    QByteArray copies[] = {bytes, log, journal};
    QBuffer file(&copies[0]);
    QBuffer logFile(&copies[1]);
    QBuffer journalFile(&copies[2]);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly) && logFile.open(QIODevice::ReadOnly) &&
                journalFile.open(QIODevice::ReadOnly));
    DamagedFiles files{file};
    files.writeAheadLog = log.isEmpty() ? nullptr : &logFile;
    files.rollbackJournal = journal.isEmpty() ? nullptr : &journalFile;
    const QTemporaryDir folder;
    const QString path = folder.filePath("rows.db"_q);
    Salvaged salvaged;
    {
        const auto report = device_db::salvage(files, makeTarget(path));
        EXPECT_TRUE(report.ok());
        salvaged.report = *report;
    }
    PlainConnection target(path);
    for (const SalvagedTable &table : salvaged.report.tables) {
        auto &rows = salvaged.tables[table.name];
        rows = rowsByIds(target, table.name);
        EXPECT_EQ(qint64(rows.size()), table.rows);
    }
    return salvaged;
}

Score compare(const Original &original, const std::set<quint32> &damaged, const Salvaged &salvaged)
{
    Score score;
    std::map<QString, std::set<qint64>> found;
    for (const auto &[name, rows] : salvaged.tables) {
        const auto wrongIn = [&, &rows = rows](const OriginalTable &table) {
            return std::count_if(rows.begin(), rows.end(), [&](const auto &row) {
                const auto was = table.rows.find(row.first);
                return was == table.rows.end() || was->second != row.second;
            });
        };
        const OriginalTable *best = nullptr;
        QString nameOfBest;
        for (const auto &[originalName, table] : original.tables) {
            if (!best || wrongIn(table) < wrongIn(*best)) {
                best = &table;
                nameOfBest = originalName;
            }
        }
        score.invented += wrongIn(*best);
        score.mixed += wrongIn(*best) > 0;
        if (original.tables.count(name) && !rows.empty()) {
            EXPECT_EQ(nameOfBest.toStdString(), name.toStdString()) << "rows under the name of another table";
        }
        for (const auto &row : rows)
            found[nameOfBest].insert(row.first);
    }
    for (const auto &[name, table] : original.tables) {
        for (const auto &[id, pages] : table.pagesOf) {
            if (std::any_of(pages.begin(), pages.end(), [&](quint32 page) { return damaged.count(page) != 0; }))
                continue;
            ++score.standing;
            score.found += qint64(found[name].count(id));
        }
    }
    return score;
}

void damage(QByteArray &bytes, int offset, int size, std::mt19937 &random)
{
    for (int i = offset; i < offset + size && i < int(bytes.size()); ++i)
        bytes[i] = char(random());
}
