// SPDX-License-Identifier: MIT
//
// DEVICE_SALVAGE_ROWS=100000 DEVICE_SALVAGE_SEEDS=20 damages pages of a larger file, and more often;
// DEVICE_SALVAGE_ROUNDS=100000 damages a small file so often; DEVICE_SALVAGE_SEED=N begins with another seed.
#include "salvage_files.h"
#include "text_literal.h"

#include "storefile/sqlite.h"

#include <QBuffer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <iostream>

namespace
{

using device_db::DamagedFiles;
using device_db::SalvagedTable;

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
    EXPECT_FALSE(salvaged.report.schemaIntact);
}

// A power cut while a file grew, or a copy that was broken off.
TEST_F(Salvage, TablesOfAFileThatIsCutKeepTheirNames)
{
    const Original original = makeFile(20, 200);
    const std::set<QString> names = [&] {
        std::set<QString> all;
        for (const auto &[name, table] : original.tables)
            all.insert(name);
        return all;
    }();
    for (const int part : {20, 35, 50, 65, 80, 95}) {
        SCOPED_TRACE(part);
        const quint32 pages = original.pages() * quint32(part) / 100;
        std::set<quint32> missing;
        for (quint32 page = pages + 1; page <= original.pages(); ++page)
            missing.insert(page);
        const Salvaged salvaged = salvage(original.bytes.left(int(pages * original.pageSize)));
        const Score score = compare(original, missing, salvaged);
        EXPECT_EQ(score.invented, 0);
        EXPECT_EQ(score.found, score.standing);
        for (const auto &[name, rows] : salvaged.tables)
            EXPECT_EQ(names.count(name), 1u) << name.toStdString() << ", " << rows.size() << " rows";
        for (const SalvagedTable &table : salvaged.report.tables) {
            EXPECT_GT(table.lostPages, table.name == "Boiler"_q ? 0 : -1);
        }
        EXPECT_TRUE(salvaged.report.schemaIntact);
    }
}

// Rows of equal length, so that the pages of both tables have the same IDs and nothing but the trees keeps them apart.
TEST_F(Salvage, TreesOfAFileThatIsCutHoldTogetherWithoutTheFirstPage)
{
    {
        PlainConnection file(path());
        for (const char *table : {"T1", "T2"})
            file.run("create table %1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q.arg(
                QString::fromLatin1(table)));
        for (int i = 0; i < 20; ++i) {
            for (const char *table : {"T1", "T2"})
                file.run(
                    "with recursive n(i) as (select 1 union all select i+1 from n where i<300) "
                    "insert into %1 select NULL,'2024-05-06 07:08:09','%1' from n"_q.arg(QString::fromLatin1(table)));
        }
    }
    const Original original = lookAt(path());
    std::set<quint32> missing{1};
    for (quint32 page = original.pages() / 2; page <= original.pages(); ++page)
        missing.insert(page);
    QByteArray bytes = withoutFirstPage(original);
    bytes.truncate(original.offset(original.pages() / 2));
    const Salvaged salvaged = salvage(bytes);
    const Score score = compare(original, missing, salvaged);
    EXPECT_EQ(score.invented, 0);
    EXPECT_EQ(score.mixed, 0);
    EXPECT_EQ(score.found, score.standing);
    EXPECT_EQ(salvaged.tables.size(), 2u);
}

TEST_F(Salvage, DeletedRowsOfAFileThatIsCutStayDeleted)
{
    const Original before = makeFile(20, 400);
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(before.bytes);
    file.close();
    PlainConnection(path()).run("pragma secure_delete=off; delete from Pump"_q);
    const Original original = lookAt(path());
    for (const QByteArray &bytes : {original.bytes, withoutFirstPage(original)}) {
        const Salvaged salvaged = salvage(bytes.left(bytes.size() / 2));
        const Score score = compare(original, {}, salvaged);
        EXPECT_EQ(score.invented, 0);
        EXPECT_EQ(score.mixed, 0);
        EXPECT_GT(salvaged.report.deletedRows, 1000);
    }
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
    ASSERT_TRUE(device_db::salvage(DamagedFiles{file}, makeTarget(path("rows.db"))).ok());
    PlainConnection target(path("rows.db"));
    target.run("insert into T1 values(NULL,'2024-05-06 07:08:10','y')"_q);
    EXPECT_EQ(target.value("select max(ID) from T1"_q), "71"_q);
}

TEST_F(Salvage, ATargetThatCannotBeWrittenIsLeftAsItWas)
{
    const Original original = makeFile(1, 10);
    const device_db::Database target = makeTarget(path("rows.db"));
    ASSERT_TRUE(target.run("create table OperatorLog(a)").ok());
    QByteArray bytes = original.bytes;
    QBuffer file(&bytes);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const auto report = device_db::salvage(DamagedFiles{file}, target);
    ASSERT_FALSE(report.ok());
    EXPECT_TRUE(report.error().cause().contains("already exists"_q)) << report.error().cause().toStdString();
    EXPECT_EQ(target.number("select count(*) from sqlite_master").value(), 1);
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
