// SPDX-License-Identifier: MIT
//
// Where each row of the whole file stands is asked of SQLite's own dbstat table, never of the code under test.
// DEVICE_SALVAGE_ROWS=100000 DEVICE_SALVAGE_SEEDS=20 damages pages of a larger file, and more often;
// DEVICE_SALVAGE_ROUNDS=100000 damages a small file so often; DEVICE_SALVAGE_SEED=N begins with another seed.
#include "plain_connection.h"
#include "text_literal.h"

#include "storefile/salvage/salvage.h"

#include "device/library.h"
#include "device/store.h"

#include <QBuffer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <iostream>
#include <map>
#include <random>
#include <set>

namespace
{

using device_db::SalvagedTable;
using device_db::SalvageOptions;
using device_db::SalvageReport;

int number(const char *variable, int otherwise)
{
    return qEnvironmentVariableIsSet(variable) ? qEnvironmentVariableIntValue(variable) : otherwise;
}

struct OriginalTable {
    std::map<qint64, QString> rows;                 ///< All cells in one text, by ID.
    std::map<qint64, std::vector<quint32>> pagesOf; ///< The leaf of a row, and the pages that it goes on in.
};

/// A file as it was before the damage.
struct Original {
    QByteArray bytes;
    quint32 pageSize = 0;
    std::map<QString, OriginalTable> tables;

    quint32 pages() const { return quint32(bytes.size()) / pageSize; }
    int offset(quint32 page) const { return int((page - 1) * pageSize); }
};

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

const QString manyRows = "with recursive n(i) as (select 0 union all select i+1 from n where i<%1-1) "_q;

// Two series, alarms and a log in one file, written in turns as on a device.
QString fill(int rows, bool twoSeries = true)
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

Original makeFile(int rounds, int rowsARound, const QString &pragmas = QString(), bool twoSeries = true)
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

struct Salvaged {
    SalvageReport report;
    std::map<QString, std::map<qint64, QString>> tables;
};

Salvaged salvage(const QByteArray &bytes, const QByteArray &log = QByteArray())
{
    QByteArray copy = bytes;
    QByteArray logCopy = log;
    QBuffer file(&copy);
    QBuffer wal(&logCopy);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly) && wal.open(QIODevice::ReadOnly));
    PlainConnection target(":memory:"_q);
    const auto report = device_db::salvage(file, log.isEmpty() ? nullptr : &wal, target.handle());
    EXPECT_TRUE(report.ok());
    Salvaged salvaged;
    salvaged.report = *report;
    for (const SalvagedTable &table : salvaged.report.tables) {
        auto &rows = salvaged.tables[table.name];
        rows = rowsByIds(target, table.name);
        EXPECT_EQ(qint64(rows.size()), table.rows);
    }
    return salvaged;
}

struct Score {
    qint64 standing = 0; ///< Rows that stand in full on pages without damage.
    qint64 found = 0;    ///< Of these.
    qint64 invented = 0; ///< Rows that no table had.
    qint64 mixed = 0;    ///< Tables with rows of two tables.
};

// A salvaged table must be a part of one table, whatever it is called.
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

struct Damage {
    int pages;
    bool firstPage;
    bool truncated;
};

void PrintTo(const Damage &damage, std::ostream *stream)
{
    *stream << damage.pages << " pages" << (damage.firstPage ? ", the first" : "")
            << (damage.truncated ? ", truncated" : "");
}

class DamagedPages : public ::testing::TestWithParam<Damage>
{
protected:
    static const Original &original()
    {
        static const Original made = makeFile(100, number("DEVICE_SALVAGE_ROWS", 20000) / 240);
        return made;
    }
};

TEST_P(DamagedPages, CostTheirOwnRowsOnly)
{
    const Original &whole = original();
    qint64 standing = 0;
    qint64 found = 0;
    const unsigned first = unsigned(number("DEVICE_SALVAGE_SEED", 1));
    for (unsigned seed = first; seed < first + unsigned(number("DEVICE_SALVAGE_SEEDS", 1)); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        QByteArray bytes = whole.bytes;
        std::set<quint32> damaged;
        if (GetParam().firstPage)
            damaged.insert(1);
        while (int(damaged.size()) < GetParam().pages + GetParam().firstPage)
            damaged.insert(2 + quint32(random() % (whole.pages() - 1)));
        for (const quint32 page : damaged)
            damage(bytes, whole.offset(page), int(whole.pageSize), random);
        if (GetParam().truncated) {
            const int size = int(bytes.size() / 2 + int(random()) % (bytes.size() / 2));
            bytes.truncate(size);
            for (quint32 page = quint32(size) / whole.pageSize + 1; page <= whole.pages(); ++page)
                damaged.insert(page);
        }
        const Salvaged salvaged = salvage(bytes);
        const Score score = compare(whole, damaged, salvaged);
        EXPECT_EQ(score.invented, 0);
        EXPECT_EQ(score.mixed, 0);
        EXPECT_EQ(salvaged.report.pageSize, whole.pageSize);
        standing += score.standing;
        found += score.found;
        std::cout << "seed " << seed << ": " << score.found << " of " << score.standing << " standing rows, "
                  << salvaged.tables.size() << " tables\n";
    }
    EXPECT_GE(double(found), 0.999 * double(standing));
}

INSTANTIATE_TEST_SUITE_P(Salvage, DamagedPages,
                         ::testing::Values(Damage{0, false, false}, Damage{1, false, false}, Damage{10, false, false},
                                           Damage{100, false, false}, Damage{0, true, false}, Damage{1, true, false},
                                           Damage{10, true, false}, Damage{100, true, false}, Damage{10, false, true},
                                           Damage{10, true, true}));

/// Damage to a small file, each in its own way.
class Salvage : public ::testing::Test
{
protected:
    static Original fromFile(const QString &path) { return lookAt(path); }
    QString path(const char *name = "device.db") const { return m_folder.filePath(QString::fromLatin1(name)); }
    static QByteArray bytesOf(const QString &path)
    {
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }
    static QByteArray withoutFirstPage(const Original &original)
    {
        QByteArray bytes = original.bytes;
        std::mt19937 random(1);
        damage(bytes, 0, int(original.pageSize), random);
        return bytes;
    }

private:
    QTemporaryDir m_folder;
};

class SalvageForm : public ::testing::TestWithParam<const char *>
{
};

TEST_P(SalvageForm, IsFoundWithoutTheFirstPage)
{
    const Original original = makeFile(10, 200, QString::fromLatin1(GetParam()));
    QByteArray bytes = original.bytes;
    std::mt19937 random(1);
    damage(bytes, 0, int(original.pageSize), random);
    const Salvaged salvaged = salvage(bytes);
    const Score score = compare(original, {1}, salvaged);
    EXPECT_EQ(salvaged.report.pageSize, original.pageSize);
    EXPECT_EQ(score.invented, 0);
    EXPECT_EQ(score.found, score.standing);
    EXPECT_GT(score.found, 4000);
}

INSTANTIATE_TEST_SUITE_P(Salvage, SalvageForm,
                         ::testing::Values("pragma page_size=512", "pragma page_size=1024", "pragma page_size=65536",
                                           "pragma encoding='UTF-16le'", "pragma encoding='UTF-16be'",
                                           "pragma auto_vacuum=full", "pragma auto_vacuum=incremental"));

TEST_F(Salvage, NamesTablesByTheirLastIdsWhenTheSchemaIsGone)
{
    Original original = makeFile(10, 200, QString(), false);
    const Salvaged salvaged = salvage(withoutFirstPage(original));
    ASSERT_EQ(salvaged.tables.count("Boiler"_q), 1u);
    EXPECT_EQ(salvaged.tables.at("Boiler"_q).size(), 2000u);
    EXPECT_EQ(salvaged.tables.count("OperatorLog"_q), 0u) << "it has as many rows as AlarmData, so nothing tells";
    EXPECT_EQ(salvaged.tables.at("AlarmData"_q).size(), 400u);
    EXPECT_EQ(salvaged.tables.at("salvaged_log_1"_q).size(), 400u);
    EXPECT_EQ(salvaged.tables.at("tb_config"_q).size(), 2u);
    EXPECT_FALSE(salvaged.report.schemaStands);
}

TEST_F(Salvage, DeletedRowsStayDeleted)
{
    const Original before = makeFile(10, 600);
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(before.bytes);
    file.close();
    {
        PlainConnection connection(path());
        connection.run(
            "pragma secure_delete=off; delete from Boiler where ID<=4000; delete from Pump; delete from OperatorLog where ID>600"_q);
    }
    const Original original = lookAt(path());
    for (const QByteArray &bytes : {original.bytes, withoutFirstPage(original)}) {
        const Salvaged salvaged = salvage(bytes);
        const Score score = compare(original, {1}, salvaged);
        EXPECT_EQ(score.invented, 0);
        EXPECT_EQ(score.found, score.standing);
        EXPECT_GT(salvaged.report.deletedRows, 5000);
        EXPECT_GT(salvaged.report.freePages, 50);
    }
}

TEST_F(Salvage, TheLogBesideTheFileIsNewer)
{
    const Original before = makeFile(5, 200, "pragma journal_mode=wal"_q);
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(before.bytes);
    file.close();
    PlainConnection device(path());
    device.run(
        "pragma wal_autocheckpoint=0; update AlarmData set EndDate='2024-05-07', EndTime='00:00:00' where ID%2=0"_q);
    device.run(fill(300));
    const QByteArray bytes = bytesOf(path());
    QByteArray log = bytesOf(path("device.db-wal"));
    std::map<QString, std::map<qint64, QString>> now;
    for (const char *table : {"Boiler", "Pump", "AlarmData", "OperatorLog", "tb_config"})
        now[QString::fromLatin1(table)] = rowsByIds(device, QString::fromLatin1(table));
    Salvaged salvaged = salvage(bytes, log);
    EXPECT_TRUE(salvaged.tables == now);
    EXPECT_GT(salvaged.report.logPages, 10);

    // Without the file's first page, of which the log has a copy, and with a transaction that was not committed.
    QByteArray damaged = bytes;
    std::mt19937 random(1);
    damage(damaged, 0, 4096, random);
    log.append(log.mid(32 + 24 + 4096, 3 * (24 + 4096)));
    EXPECT_TRUE(salvage(damaged, log).tables == now);

    // A log whose first frame is damaged is worth nothing.
    log[32 + 24 + 100] = char(log[32 + 24 + 100] + 1);
    salvaged = salvage(bytes, log);
    EXPECT_EQ(salvaged.report.logPages, 0);
    EXPECT_EQ(compare(before, {}, salvaged).found, compare(before, {}, salvaged).standing);
}

TEST_F(Salvage, CellsOfEveryTypeComeBackAsTheyWere)
{
    {
        PlainConnection file(path());
        file.run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "insert into T1 values(-5,'',''),(1,'2024','x'),(2,NULL,NULL),(3,'1e3','µ'),"
                 "(4,'20240506070809.125',x'00ff'),(9000000000,'2024-05-06 07:08:09','it''s');"
                 "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text);"
                 "create table Own(ID,b,c); insert into Own values(1,2,3);"
                 "insert into tb_config values(NULL,'T1',NULL)"_q);
    }
    const Original original = lookAt(path());
    const Salvaged salvaged = salvage(original.bytes);
    ASSERT_EQ(salvaged.tables.size(), 2u);
    EXPECT_TRUE(salvaged.tables.at("T1"_q) == original.tables.at("T1"_q).rows);
    EXPECT_TRUE(salvaged.tables.at("tb_config"_q) == original.tables.at("tb_config"_q).rows);
    EXPECT_EQ(salvaged.report.foreignRows, 1);
}

TEST_F(Salvage, IdsThatWereGivenAreNotGivenAgain)
{
    {
        PlainConnection file(path());
        file.run("create table T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
                 "insert into T1 values(70,'2024-05-06 07:08:09','x'); delete from T1;"
                 "insert into T1 values(3,'2024-05-06 07:08:09','x')"_q);
    }
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    PlainConnection target(":memory:"_q);
    ASSERT_TRUE(device_db::salvage(file, nullptr, target.handle()).ok());
    target.run("insert into T1 values(NULL,'2024-05-06 07:08:10','y')"_q);
    EXPECT_EQ(target.value("select max(ID) from T1"_q), "71"_q);
}

TEST_F(Salvage, ATargetThatCannotBeWrittenIsLeftAsItWas)
{
    const Original original = makeFile(1, 10);
    PlainConnection target(":memory:"_q);
    target.run("create table OperatorLog(a)"_q);
    QByteArray bytes = original.bytes;
    QBuffer file(&bytes);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const auto report = device_db::salvage(file, nullptr, target.handle());
    ASSERT_FALSE(report.ok());
    EXPECT_TRUE(report.error().cause().contains("already exists"_q)) << report.error().cause().toStdString();
    EXPECT_EQ(target.value("select count(*) from sqlite_master"_q), "1"_q);
}

// Bytes, sectors and ends at random: it must return, and whatever it gives must have been there, but for texts in
// which single bytes were changed, which nobody can see.
TEST_F(Salvage, AnyDamageIsSurvived)
{
    const Original original = makeFile(4, 120);
    const unsigned first = unsigned(number("DEVICE_SALVAGE_SEED", 1));
    const unsigned rounds = unsigned(number("DEVICE_SALVAGE_ROUNDS", 150));
    qint64 rows = 0;
    for (unsigned seed = first; seed < first + rounds; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        QByteArray bytes = original.bytes;
        const int hits = 1 + int(random() % 60);
        for (int i = 0; i < hits; ++i) {
            const int at = int(random() % unsigned(bytes.size()));
            switch (random() % 5) {
            case 0:
                bytes[at] = char(random());
                break;
            case 1: // where pages and cells say what they are
                bytes[at - at % int(original.pageSize) + int(random() % 40)] = char(random());
                break;
            case 2:
                damage(bytes, at - at % 512, 512, random);
                break;
            case 3: // a page in the place of another
                bytes.replace(
                    at - at % int(original.pageSize), int(original.pageSize),
                    bytes.mid(original.offset(1 + quint32(random() % original.pages())), int(original.pageSize)));
                break;
            case 4: // as flash memory forgets
                bytes.replace(at, qMin(700, int(bytes.size()) - at),
                              QByteArray(qMin(700, int(bytes.size()) - at), '\xff'));
                break;
            }
        }
        if (random() % 4 == 0)
            bytes.truncate(int(random() % unsigned(bytes.size())));
        QByteArray log = random() % 8 == 0 ? bytes.mid(int(random() % 5000), 30000) : QByteArray();
        rows += salvage(bytes, log).report.rows();
    }
    EXPECT_GT(rows, 0);
}

} // namespace
