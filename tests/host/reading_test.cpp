// SPDX-License-Identifier: MIT
#include "every_kind.h"
#include "host_test.h"
#include "sqlite_calls.h"

#include <QRandomGenerator>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

using namespace device;

namespace
{

/// Cells as any program may have stored them, as SQL: all storage classes, and texts that no host of ours stores.
class ForeignCells
{
public:
    explicit ForeignCells(quint32 seed) : m_random(seed) {}

    int below(int end) { return int(m_random.bounded(end)); }
    /// Plain rows mostly, so that a table of a few rows is a plain one often enough.
    bool odd() { return below(60) == 0; }

    QString cell()
    {
        static const QStringList odd{"NULL"_q,
                                     "7"_q,
                                     "-9223372036854775808"_q,
                                     "0.1"_q,
                                     "1e300"_q,
                                     "9e999"_q,
                                     "x''"_q,
                                     "x'00'"_q,
                                     "x'6100ff'"_q,
                                     "x'1f'"_q,
                                     "cast(x'1f' as text)"_q,
                                     "cast(x'1e' as text)"_q,
                                     "cast(x'611f62' as text)"_q,
                                     "cast(x'610062' as text)"_q,
                                     "cast(x'611f00' as text)"_q,
                                     "cast(x'00' as text)"_q,
                                     "cast(x'ff' as text)"_q,
                                     "cast(x'61e282' as text)"_q,
                                     "cast(x'eda080' as text)"_q,
                                     "cast(x'f0f0909080' as text)"_q,
                                     "cast(x'efbbbf61' as text)"_q,
                                     "cast(x'efbbbf' as text)"_q,
                                     "cast(x'efbfbd' as text)"_q,
                                     "cast(x'61efbbbf' as text)"_q};
        static const QStringList plain{"''"_q,  "'0'"_q,    "'73.5'"_q,        "'it''s'"_q,    "'%1 \"\\'"_q,
                                       "'é'"_q, "'日本'"_q, "'👩‍🚒'"_q, "'Boiler 1'"_q, "'Boiler 2'"_q};
        return this->odd() ? odd.at(below(int(odd.size()))) : plain.at(below(int(plain.size())));
    }

    QString time(bool withMilliseconds)
    {
        if (odd())
            return cell();
        if (odd())
            return "'yesterday'"_q;
        return "'2024-05-%1 12:00:0%2%3'"_q.arg(1 + below(2), 2, 10, QLatin1Char('0'))
            .arg(below(5))
            .arg(withMilliseconds ? ".125"_q : QString());
    }

    /// The values of a row after its ID.
    QString row(Sample *) { return time(false) + ","_q + cell(); }
    QString row(Alarm *)
    {
        QStringList cells{QString::number(below(4)), time(false)};
        for (int i = 0; i < 5; ++i)
            cells << cell();
        cells << (below(2) ? "'2024-05-06','07:08:09'"_q : "'',''"_q);
        return cells.join(","_q);
    }
    QString row(LogEntry *)
    {
        const QString when = time(true);
        return QStringList{when == "NULL"_q ? "''"_q : when, cell(), cell(), cell()}.join(","_q); // it is NOT NULL
    }

private:
    QRandomGenerator m_random;
};

QVector<QString> textsOf(const Sample &sample)
{
    return {sample.value};
}

QVector<QString> textsOf(const Alarm &alarm)
{
    return {alarm.object, alarm.type, alarm.value, alarm.limit, alarm.description};
}

QVector<QString> textsOf(const LogEntry &entry)
{
    return {entry.user, entry.name, entry.message};
}

template<typename Record>
bool isSame(const Record &a, const Record &b)
{
    const auto isNull = [](const QString &text) { return text.isNull(); };
    const QVector<QString> textsA = textsOf(a);
    const QVector<QString> textsB = textsOf(b);
    return a == b && a.id == b.id &&
           std::equal(textsA.begin(), textsA.end(), textsB.begin(),
                      [&](const QString &x, const QString &y) { return isNull(x) == isNull(y); });
}

template<typename Record>
::testing::AssertionResult areSame(const QList<Record> &whole, const QList<Record> &page)
{
    if (whole.size() != page.size())
        return ::testing::AssertionFailure() << whole.size() << " records and " << page.size();
    for (int i = 0; i < whole.size(); ++i) {
        if (!isSame(whole.at(i), page.at(i)))
            return ::testing::AssertionFailure()
                   << "record " << i << ", IDs " << whole.at(i).id << " and " << page.at(i).id;
    }
    return ::testing::AssertionSuccess();
}

constexpr qint64 everything = std::numeric_limits<qint64>::max();

/// A whole table is read column by column, a page row by row. Both must give the same.
template<typename Store, typename Record>
::testing::AssertionResult readsTheSame(Store &store, const TableName &table, Query<Record> query)
{
    const QList<Record> whole = require(store.read(table, query));
    return areSame(whole, require(store.read(table, query.page(0, everything))));
}

bool readsColumns(const QString &statement)
{
    return statement.contains("group_concat"_q);
}

template<typename Pair>
class WholeTable : public HostTest
{
};

TYPED_TEST_SUITE(WholeTable, Pairings, KindNames);

TYPED_TEST(WholeTable, GivesEveryCellThatAnotherProgramStoredAsAPageDoes)
{
    using Record = typename TypeParam::Row;
    const quint32 seed = qEnvironmentVariableIsSet("DEVICE_HOST_SEED")
                             ? quint32(qEnvironmentVariableIntValue("DEVICE_HOST_SEED"))
                             : QRandomGenerator::global()->generate();
    SCOPED_TRACE("DEVICE_HOST_SEED=" + std::to_string(int(seed)));
    ForeignCells cells(seed);
    auto store = require(TypeParam::Kept::open(this->library(), this->path()));
    const TableName name = table("Boiler"_q);
    require(store.createTable(name));
    PlainConnection plain(this->path());
    plain.run("pragma synchronous=off"_q);
    int byColumns = 0;
    constexpr int tables = 400;
    for (int i = 0; i < tables; ++i) {
        plain.run("delete from Boiler"_q);
        QStringList rows;
        for (int row = cells.below(12); row > 0; --row)
            rows << "(NULL,"_q + cells.row(static_cast<Record *>(nullptr)) + ")"_q;
        if (!rows.isEmpty())
            plain.run("insert into Boiler values"_q + rows.join(","_q));
        SCOPED_TRACE(rows.join("\n"_q).toStdString());
        {
            SqliteCalls calls;
            require(store.read(name));
            const QStringList statements = calls.take();
            byColumns += std::none_of(statements.begin(), statements.end(),
                                      [](const QString &each) { return each.startsWith("select ID"_q); });
        }
        using Q = Query<Record>;
        ASSERT_TRUE(readsTheSame(store, name, Q()));
        ASSERT_TRUE(readsTheSame(store, name, Q().oldestFirst()));
        ASSERT_TRUE(readsTheSame(store, name,
                                 Q().oldestFirst().between(at("2024-05-01 12:00:01"_q), at("2024-05-02 12:00:02"_q))));
    }
    EXPECT_GT(byColumns, tables / 10);
    EXPECT_LT(byColumns, tables);
}

TYPED_TEST(WholeTable, GivesTheIdsOfItsRows)
{
    using Record = typename TypeParam::Row;
    auto store = require(TypeParam::Kept::open(this->library(), this->path()));
    const TableName name = table("Boiler"_q);
    require(store.createTable(name));
    ForeignCells cells(1);
    for (const int id : {3, 17, 4000000})
        PlainConnection(this->path())
            .run("insert into Boiler values(%1,"_q.arg(id) + cells.row(static_cast<Record *>(nullptr)) + ")"_q);
    PlainConnection(this->path()).run("update Boiler set DATETIME='yesterday' where ID=4000000"_q);
    const auto ids = [](const QList<Record> &records) {
        QList<qint64> all;
        for (const Record &record : records)
            all.append(record.id);
        std::sort(all.begin(), all.end());
        return all;
    };
    EXPECT_EQ(ids(require(store.read(name))), QList<qint64>({3, 17, 4000000}));
    EXPECT_EQ(ids(require(store.read(name, Query<Record>().through(17)))), QList<qint64>({3, 17}));
    EXPECT_EQ(ids(require(store.read(name, Query<Record>().page(0, 3)))), QList<qint64>({3, 17, 4000000}));
    EXPECT_EQ(Record().id, 0);
}

// The first text has a separator too many and a byte that grows when it is decoded; the second ends the joined text.
TEST(JoinedCells, DoNotMakeUpForEachOthersLosses)
{
    QTemporaryDir folder;
    const QString path = folder.filePath("store.db"_q);
    auto store =
        require(HistoryStore::open(require(Library::load(QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY))), path));
    const TableName name = table("Boiler"_q);
    require(store.createTable(name));
    PlainConnection(path).run("insert into Boiler select NULL,'2024-05-06 12:00:00',value from "
                              "(select cast(x'611fff' as text) as value union all select x'00' union all select '')"_q);
    EXPECT_EQ(require(store.read(name)).size(), 3);
    EXPECT_TRUE(readsTheSame(store, name, Query<Sample>()));
}

class LargeTable : public HostTest
{
protected:
    static constexpr int rows = 25000;

    /// One row per minute from the start of 2024 on; each tenth ID is left out, and at row 12,345 the clock is set back
    /// by a week.
    static void fill(PlainConnection &plain, int count = rows)
    {
        plain.run(QStringLiteral(
                      "with recursive n(i) as (select 0 union all select i+1 from n where i<%1-1) insert into Boiler "
                      "select i+i/9,datetime('2024-01-01',(i-case when i<12345 then 0 else 10080 end)||' minutes'),"
                      "'value '||i from n")
                      .arg(count));
    }
    HistoryStore opened(const OpenOptions &options = {})
    {
        auto store = require(HistoryStore::open(library(), path(), options));
        require(store.createTable(boiler));
        PlainConnection plain(path());
        fill(plain);
        return store;
    }

    const TableName boiler = table("Boiler"_q);
};

TEST_F(LargeTable, IsReadInSlicesAndPutInOrder)
{
    auto store = opened();
    using Q = Query<Sample>;
    SqliteCalls calls;
    EXPECT_EQ(require(store.read(boiler)).size(), rows);
    const QStringList statements = calls.take();
    EXPECT_EQ(std::count_if(statements.begin(), statements.end(), readsColumns), 3);
    EXPECT_EQ(std::count_if(statements.begin(), statements.end(),
                            [](const QString &each) { return each.startsWith("select ID"_q); }),
              0);
    EXPECT_TRUE(readsTheSame(store, boiler, Q()));
    EXPECT_TRUE(readsTheSame(store, boiler, Q().oldestFirst()));
    EXPECT_TRUE(readsTheSame(store, boiler,
                             Q().oldestFirst().between(at("2024-01-02 00:00:00"_q), at("2024-01-16 12:00:00"_q))));
    EXPECT_TRUE(readsTheSame(store, boiler, Q().containing("99"_q)));
    EXPECT_TRUE(readsTheSame(store, boiler, Q().through(20000)));
    EXPECT_EQ(require(store.read(boiler, Q().between(at("2025-01-01 00:00:00"_q), at("2025-01-02 00:00:00"_q)))).size(),
              0);
}

TEST_F(LargeTable, LeavesAShortTimeToTheIndex)
{
    OpenOptions durable;
    durable.profile = Profile::Durable;
    auto store = opened(durable);
    using Q = Query<Sample>;
    const Q hour = Q().between(at("2024-01-02 14:00:00"_q), at("2024-01-02 14:59:00"_q));
    SqliteCalls calls;
    EXPECT_EQ(require(store.read(boiler, hour)).size(), 120) << "twice, as the clock was set back";
    const QStringList statements = calls.take();
    EXPECT_EQ(std::count_if(statements.begin(), statements.end(), readsColumns), 1);
    EXPECT_EQ(std::count_if(statements.begin(), statements.end(),
                            [](const QString &each) { return each.contains("not indexed"_q); }),
              0);
    EXPECT_TRUE(readsTheSame(store, boiler, hour));
    const Q weeks = Q().between(at("2024-01-02 00:00:00"_q), at("2024-01-16 12:00:00"_q));
    EXPECT_GT(require(store.read(boiler, weeks)).size(), 10000);
    EXPECT_TRUE(readsTheSame(store, boiler, weeks));
}

TEST_F(LargeTable, WithoutRowIdsOfItsOwnIsReadAsAPageIs)
{
    PlainConnection(path()).run("create table Boiler(ID,DATETIME dateTime,Value text)"_q);
    auto store = require(HistoryStore::open(library(), path()));
    PlainConnection plain(path());
    fill(plain);
    plain.run("update Boiler set ID=NULL where ID=100"_q);
    EXPECT_EQ(require(store.read(boiler)).size(), rows);
    EXPECT_TRUE(readsTheSame(store, boiler, Query<Sample>()));
}

// The slices are of one moment: a window that moves on between them would show too many rows or too few.
TEST_F(LargeTable, IsOfOneMomentWhileAnotherConnectionStoresAndDeletes)
{
    OpenOptions durable;
    durable.profile = Profile::Flash;
    auto store = require(HistoryStore::open(library(), path(), durable));
    require(store.createTable(boiler));
    {
        PlainConnection plain(path());
        fill(plain);
    }
    std::atomic_bool stop{false};
    std::thread writer([&] {
        PlainConnection plain(path());
        while (!stop) {
            plain.run("begin immediate;"
                      "delete from Boiler where ID in (select ID from Boiler order by ID limit 50);"
                      "with recursive n(i) as (select 1 union all select i+1 from n where i<50) "
                      "insert into Boiler select NULL,'2024-02-01 00:00:00','new' from n;"
                      "commit"_q);
        }
    });
    int wrong = 0;
    for (int i = 0; i < 20; ++i)
        wrong += require(store.read(boiler)).size() != rows;
    stop = true;
    writer.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(LargeTable, IsReadByAQuestionInSeveralMomentsThatLetTheLogBeCheckpointed)
{
    constexpr int many = 210000;
    RecorderOptions options;
    options.file.profile = Profile::Flash;
    HistoryRecorder recorder(library(), path(), options);
    require(recorder.start());
    recorder.createTable(boiler);
    require(recorder.flush(std::chrono::milliseconds(20000)));
    {
        PlainConnection plain(path());
        fill(plain, many);
    }
    SqliteCalls calls;
    std::optional<Result<QList<Sample>>> read;
    recorder.ask(
        &recorder, [this](HistoryStore &store) { return store.read(boiler); },
        [&](const Result<QList<Sample>> &answer) { read = answer; });
    for (int i = 0; i < 400 && !read; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        require(recorder.flush(std::chrono::milliseconds(20000)));
    }
    ASSERT_TRUE(read);
    EXPECT_EQ(require(*read).size(), many);
    EXPECT_EQ(calls.take().count("begin"_q), 2);
}

} // namespace
