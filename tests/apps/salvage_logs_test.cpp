// SPDX-License-Identifier: MIT
//
// Files with the logs that lie beside them: what was committed comes back, what was not does not.
#include "loaded_library.h"
#include "salvage_files.h"
#include "text_literal.h"

#include "storefile/salvage/damaged_source.h"
#include "storefile/sqlite.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace
{

using Tables = std::map<QString, std::map<qint64, QString>>;

class SalvageLogs : public ::testing::Test
{
protected:
    QString path(const char *name = "device.db") const { return m_folder.filePath(QString::fromLatin1(name)); }
    QByteArray bytesOf(const char *name = "device.db") const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        return file.readAll();
    }
    void write(const QByteArray &bytes) const
    {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }
    static Tables tablesOf(const Original &original)
    {
        Tables tables;
        for (const auto &[name, table] : original.tables)
            tables[name] = table.rows;
        return tables;
    }
    /// A process with the store library gets so far and no further.
    void dieAfter(const QStringList &statements) const
    {
        const pid_t process = fork();
        if (process == 0) {
            const auto store = library::store("historyDB");
            QList<QStringList> rows;
            store->openDB(path());
            store->execSQL({statements.join(QLatin1Char(';'))}, rows, 0);
            raise(SIGKILL);
        }
        int status = 0;
        ASSERT_EQ(waitpid(process, &status, 0), process);
        ASSERT_TRUE(WIFSIGNALED(status));
    }

private:
    QTemporaryDir m_folder;
};

/// A device died within a transaction that had already changed the file.
class SalvageJournal : public SalvageLogs
{
protected:
    void SetUp() override
    {
        original = makeFile(5, 300);
        write(original.bytes);
        ASSERT_NO_FATAL_FAILURE(
            dieAfter({"pragma cache_size=5"_q, "begin"_q, "update Boiler set Value='never committed' where ID<=1200"_q,
                      "delete from Pump where ID between 300 and 1400"_q, "delete from AlarmData"_q,
                      "create table Added(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)"_q,
                      "with recursive n(i) as (select 1 union all select i+1 from n where i<4000) "
                      "insert into Added select NULL,'2024-05-06 07:08:09','never committed' from n"_q}));
        bytes = bytesOf();
        journal = bytesOf("device.db-journal");
        ASSERT_GT(bytes.size(), original.bytes.size()) << "the transaction has not reached the file";
        ASSERT_TRUE(salvage(bytes).tables != tablesOf(original)) << "the tests below would see nothing";
    }
    /// The place of each page's image, as SQLite itself finds it: records follow a header of one sector.
    std::vector<std::pair<quint32, int>> records() const
    {
        std::vector<std::pair<quint32, int>> all;
        const int sector = 512;
        const int size = int(original.pageSize) + 8;
        const auto number = [&](int at) {
            quint32 value = 0;
            for (int i = 0; i < 4; ++i)
                value = value << 8 | uchar(journal[at + i]);
            return value;
        };
        int at = 0;
        while (at + sector <= journal.size() && number(at) == 0xd9d505f9) {
            const int count = int(number(at + 8));
            at += sector;
            for (int i = 0; i < count; ++i, at += size)
                all.emplace_back(number(at), at + 4);
            at = (at + sector - 1) / sector * sector;
        }
        return all;
    }

    Original original;
    QByteArray bytes;
    QByteArray journal;
};

TEST_F(SalvageJournal, UndoesATransactionThatWasNeverCommitted)
{
    const Salvaged salvaged = salvage(bytes, {}, journal);
    EXPECT_TRUE(salvaged.tables == tablesOf(original));
    EXPECT_GT(salvaged.report.journalPages, 20);
    EXPECT_FALSE(salvaged.report.journalDamaged);
    EXPECT_EQ(salvaged.report.pages, qint64(original.pages())) << "pages that the transaction added";
    EXPECT_EQ(salvaged.report.deletedRows, 0);
    EXPECT_EQ(salvaged.report.rejectedCells, 0);
}

TEST_F(SalvageJournal, IsTheSameThatSQLiteRollsBackTo)
{
    {
        PlainConnection recovered(path());
        EXPECT_EQ(recovered.value("pragma integrity_check"_q), "ok"_q);
    }
    EXPECT_TRUE(salvage(bytes, {}, journal).tables == tablesOf(lookAt(path())));
}

TEST_F(SalvageJournal, BringsPagesBackThatAreDamagedInTheFile)
{
    std::set<quint32> inJournal;
    for (const auto &[page, place] : records())
        inJournal.insert(page);
    ASSERT_EQ(inJournal.count(1), 1u);
    std::mt19937 random(1);
    for (const quint32 page : inJournal)
        damage(bytes, original.offset(page), int(original.pageSize), random);
    EXPECT_TRUE(salvage(bytes, {}, journal).tables == tablesOf(original));

    std::set<quint32> damaged;
    for (quint32 page = 3; page <= original.pages(); page += 5) {
        if (!inJournal.count(page)) {
            damage(bytes, original.offset(page), int(original.pageSize), random);
            damaged.insert(page);
        }
    }
    ASSERT_GT(damaged.size(), 3u);
    const Salvaged salvaged = salvage(bytes, {}, journal);
    const Score score = compare(original, damaged, salvaged);
    EXPECT_EQ(score.invented, 0);
    EXPECT_EQ(score.mixed, 0);
    EXPECT_EQ(score.found, score.standing);
    EXPECT_EQ(salvaged.tables.size(), 5u);
}

TEST_F(SalvageJournal, ADamagedImageCostsItsOwnPageAndIsSaid)
{
    const auto all = records();
    const auto [page, place] = all[all.size() / 2];
    journal[place + int(original.pageSize) - 200] = char(journal[place + int(original.pageSize) - 200] + 1);
    const Salvaged salvaged = salvage(bytes, {}, journal);
    EXPECT_TRUE(salvaged.report.journalDamaged);
    EXPECT_EQ(salvaged.report.journalPages, qint64(all.size()) - 1);

    // The page is as the transaction left it; all others are as they were.
    int differs = 0;
    for (const auto &[name, table] : original.tables) {
        for (const auto &[id, cells] : table.rows) {
            const auto tables = salvaged.tables.find(name);
            const auto row = tables != salvaged.tables.end() ? tables->second.find(id) : tables->second.end();
            const bool same = tables != salvaged.tables.end() && row != tables->second.end() && row->second == cells;
            const auto &pages = table.pagesOf.at(id);
            EXPECT_TRUE(same || std::count(pages.begin(), pages.end(), page)) << name.toStdString() << ' ' << id;
            differs += !same;
        }
    }
    EXPECT_GT(differs, 0);
}

TEST_F(SalvageJournal, AJournalThatIsCutCountsAsFarAsItGoes)
{
    const auto all = records();
    journal.truncate(all[all.size() / 2].second + 100);
    const Salvaged salvaged = salvage(bytes, {}, journal);
    EXPECT_TRUE(salvaged.report.journalDamaged);
    EXPECT_EQ(salvaged.report.journalPages, qint64(all.size() / 2));
}

TEST_F(SalvageJournal, TheToolTakesItAndSaysSo)
{
    const auto run = [&] {
        QProcess tool;
        tool.setProcessChannelMode(QProcess::MergedChannels);
        tool.start(QString::fromLocal8Bit(DEVICE_DB), {"salvage"_q, path(), path("rows.db"), "--force"_q});
        EXPECT_TRUE(tool.waitForFinished(120000));
        return std::pair<int, QString>(tool.exitCode(), QString::fromUtf8(tool.readAll()));
    };
    auto [code, said] = run();
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(said.contains("pages were taken from the rollback journal"_q)) << said.toStdString();
    EXPECT_EQ(rowsOf(path("rows.db"), "select * from Boiler"_q).size(), 1500);
    EXPECT_EQ(valueOf(path("rows.db"), "select count(*) from Boiler where Value='never committed'"_q), "0"_q);
    EXPECT_EQ(bytesOf(), bytes);
    EXPECT_EQ(bytesOf("device.db-journal"), journal);

    QFile file(path("device.db-journal"));
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.seek(records()[1].second + 4096 - 200);
    file.write("damaged");
    file.close();
    std::tie(code, said) = run();
    EXPECT_EQ(code, 3);
    EXPECT_TRUE(said.contains("The rollback journal is damaged"_q)) << said.toStdString();
}

TEST_F(SalvageJournal, TheJournalOfAnEndedTransactionSaysNothing)
{
    {
        PlainConnection device(path());
        device.run("pragma journal_mode=persist; begin; update Boiler set Value='committed' where ID%2=0; "
                   "delete from Pump where ID<700; commit"_q);
    }
    journal = bytesOf("device.db-journal");
    ASSERT_GT(journal.size(), 10000);
    const Salvaged salvaged = salvage(bytesOf(), {}, journal);
    EXPECT_EQ(salvaged.report.journalPages, 0);
    EXPECT_FALSE(salvaged.report.journalDamaged);
    EXPECT_TRUE(salvaged.tables == tablesOf(lookAt(path())));
}

// Records of an earlier transaction may follow those of the last one, whose journal is shorter.
TEST_F(SalvageJournal, RecordsOfAnEarlierTransactionAreNotTaken)
{
    for (const char *synchronous : {"full", "off"}) {
        {
            PlainConnection device(path());
            device.run("pragma journal_mode=persist; begin; update Boiler set Value='first %1';"
                       "update Pump set Value='first %1'; commit"_q.arg(QString::fromLatin1(synchronous)));
        }
        original = lookAt(path());
        const qint64 size = QFile(path("device.db-journal")).size();
        dieAfter({"pragma synchronous=%1"_q.arg(QString::fromLatin1(synchronous)), "pragma journal_mode=persist"_q,
                  "pragma cache_size=5"_q, "begin"_q, "update Boiler set Value='second' where ID<=500"_q});
        journal = bytesOf("device.db-journal");
        ASSERT_EQ(journal.size(), size) << "the longer one's end is still there";
        ASSERT_TRUE(bytesOf() != original.bytes);
        const Salvaged salvaged = salvage(bytesOf(), {}, journal);
        EXPECT_TRUE(salvaged.tables == tablesOf(original)) << synchronous;
        EXPECT_FALSE(salvaged.report.journalDamaged) << synchronous;
        EXPECT_GT(salvaged.report.journalPages, 0) << synchronous;
    }
}

TEST_F(SalvageLogs, TheLogBesideTheFileIsNewer)
{
    const Original before = makeFile(5, 200, "pragma journal_mode=wal"_q);
    write(before.bytes);
    PlainConnection device(path());
    device.run(
        "pragma wal_autocheckpoint=0; update AlarmData set EndDate='2024-05-07', EndTime='00:00:00' where ID%2=0"_q);
    device.run(fill(300));
    const QByteArray bytes = bytesOf();
    QByteArray log = bytesOf("device.db-wal");
    Tables now;
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

TEST_F(SalvageLogs, PagesThatTheLogHasTakenAwayAreNotLookedAt)
{
    const Original before = makeFile(5, 200, "pragma journal_mode=wal"_q);
    write(before.bytes);
    PlainConnection device(path());
    device.run("pragma wal_autocheckpoint=0; delete from Pump; vacuum"_q);
    const Salvaged salvaged = salvage(bytesOf(), bytesOf("device.db-wal"));
    EXPECT_EQ(salvaged.report.pages, device.value("pragma page_count"_q).toLongLong());
    EXPECT_EQ(salvaged.report.deletedRows, 0);
    EXPECT_EQ(salvaged.tables.at("Boiler"_q).size(), 1000u);
}

/// Another process that has the file open until this object goes.
class User
{
public:
    /// `use` runs there for ever; the object is made when it calls `isReady`.
    User(const QString &path, const std::function<void(const std::function<void()> &isReady)> &use)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        m_process = fork();
        if (m_process == 0) {
            QFile file(path);
            (void)file.open(QIODevice::ReadOnly);
            use([&] { (void)!::write(ready[1], "", 1); });
            _exit(0);
        }
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }
    ~User()
    {
        ::kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    Q_DISABLE_COPY(User)

private:
    pid_t m_process;
};

/// Goes on writing batches of equal rows.
void writeForEver(const QString &path, const char *mode, const std::function<void()> &isReady)
{
    const auto store = library::store("historyDB");
    QList<QStringList> rows;
    store->openDB(path);
    store->execSQL({"pragma journal_mode=%1"_q.arg(QString::fromLatin1(mode))}, rows, 1);
    store->execSQL({"pragma wal_autocheckpoint=20"_q}, rows, 1);
    store->createTable("Boiler"_q, "Boiler 1"_q);
    for (int batch = 0;; ++batch) {
        rows.clear();
        for (int i = 0; i < 20; ++i)
            rows << QStringList{"2024-05-06 07:08:09"_q, QString::number(batch)};
        store->insertManyDatas(rows, "Boiler"_q);
        if (batch == 100)
            isReady();
        usleep(2000);
    }
}

using SalvageLive = SalvageLogs;

TEST_F(SalvageLive, AFileThatIsWrittenComesInOneState)
{
    for (const char *mode : {"wal", "delete"}) {
        SCOPED_TRACE(mode);
        QFile::remove(path());
        const User writer(path(), [&](const auto &isReady) { writeForEver(path(), mode, isReady); });
        for (int i = 0; i < 5; ++i) {
            device_db::ReadOptions options;
            options.deadline = std::chrono::seconds(20);
            const auto source = device_db::DamagedSource::open(path(), options);
            ASSERT_TRUE(source.ok()) << source.error().cause().toStdString();
            EXPECT_TRUE(source->isSnapshot());
            EXPECT_TRUE(source->whyNoSnapshot().isNull()) << source->whyNoSnapshot().toStdString();
            const QString rows = path("rows.db");
            const auto report = device_db::salvage(source->files(), makeTarget(rows));
            ASSERT_TRUE(report.ok());
            EXPECT_EQ(report->rejectedCells + report->duplicates + report->damagedPages, 0);
            PlainConnection salvaged(rows);
            EXPECT_EQ(salvaged.value("select max(ID)-count(*) from Boiler"_q), "0"_q);
            EXPECT_EQ(
                salvaged.value("select count(*) from (select 1 from Boiler group by Value having count(*)!=20)"_q),
                "0"_q);
            EXPECT_GT(report->rows(), 2000);
        }
    }
}

TEST_F(SalvageLive, AFileThatIsInUseAndHasNoBeginningIsReadAllTheSame)
{
    QByteArray bytes = makeFile(1, 300).bytes;
    std::mt19937 random(1);
    damage(bytes, 0, 4096, random);
    write(bytes);
    const User user(path(), [](const auto &isReady) {
        isReady();
        pause();
    });
    const auto source = device_db::DamagedSource::open(path());
    ASSERT_TRUE(source.ok()) << source.error().cause().toStdString();
    EXPECT_FALSE(source->isSnapshot());
    EXPECT_TRUE(source->whyNoSnapshot().contains("process"_q));
    const auto report = device_db::salvage(source->files(), makeTarget(path("rows.db")));
    ASSERT_TRUE(report.ok());
    EXPECT_GT(report->rows(), 600);
}

TEST_F(SalvageLive, AFileThatNobodyUsesIsNotCopied)
{
    makeTarget(path());
    const auto source = device_db::DamagedSource::open(path());
    ASSERT_TRUE(source.ok());
    EXPECT_FALSE(source->isSnapshot());
    EXPECT_TRUE(source->whyNoSnapshot().isNull());
}

} // namespace
