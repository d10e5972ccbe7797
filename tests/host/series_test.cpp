// SPDX-License-Identifier: MIT
//
// What a store writes into a file beside its records: the list of series, their units, the indexes on time.
#include "host_test.h"

#include "loaded_library.h"

#include "interface_data_base.h"

using namespace device;

namespace
{

const QString indexes = "select name from sqlite_master where type='index' and tbl_name like 'Motor%' order by name"_q;

class SeriesOfAFile : public HostTest
{
protected:
    const TableName boiler = table("Boiler"_q);
    const TableName motor = table("Motor"_q);
    HistoryStore store = require(HistoryStore::open(library(), path()));

    static OpenOptions durable()
    {
        OpenOptions options;
        options.profile = Profile::Durable;
        return options;
    }
};

TEST_F(SeriesOfAFile, HaveANameAUnitAndADescription)
{
    require(store.createTable(boiler, {"Boiler 1 – Ω"_q, "°C"_q, "it's %1, \"north\""_q}));
    require(store.createTable(motor, "Motor"_q));
    const QList<Series> series = require(store.series());
    ASSERT_EQ(series.size(), 2);
    EXPECT_EQ(series[0].name, "Boiler 1 – Ω"_q);
    EXPECT_EQ(series[0].unit, "°C"_q);
    EXPECT_EQ(series[0].description, "it's %1, \"north\""_q);
    EXPECT_EQ(series[0].table, boiler);
    EXPECT_EQ(series[1].name, "Motor"_q);
    EXPECT_EQ(series[1].unit, QString());
    EXPECT_EQ(series[1].table, motor);
    require(store.append(*series[0].table, {{at("2024-05-06 07:00:00"_q), 1.0}}));
}

TEST_F(SeriesOfAFile, WithoutUnitsLeaveTheFileAsTheStoreLibraryMakesIt)
{
    EXPECT_TRUE(require(store.series()).isEmpty());
    require(store.createTable(motor, "Motor"_q));
    EXPECT_EQ(valueOf(path(), "select count(*) from sqlite_master where name like 'device%'"_q), "0"_q);
    EXPECT_EQ(require(store.series()).size(), 1);
}

TEST_F(SeriesOfAFile, GetTheUnitThatWasGivenLast)
{
    require(store.createTable(boiler, "Boiler"_q));
    require(store.createTable(boiler, {"Kessel"_q, "K"_q, "north"_q}));
    require(store.createTable(table("BOILER"_q), {"Kessel"_q, "°C"_q, QString()}));
    require(store.createTable(boiler));
    const QList<Series> series = require(store.series());
    ASSERT_EQ(series.size(), 1);
    EXPECT_EQ(series[0].name, "Boiler"_q) << "the name stays";
    EXPECT_EQ(series[0].unit, "°C"_q);
    EXPECT_EQ(series[0].description, QString());
    EXPECT_EQ(valueOf(path(), "select count(*) from \"device series\""_q), "1"_q);
}

TEST_F(SeriesOfAFile, AreNotWrittenAgainAtEachStart)
{
    const SeriesInfo info{"Boiler"_q, "°C"_q, "north"_q};
    require(store.createTable(boiler, info));
    PlainConnection reader(path());
    const QString version = "pragma data_version"_q; // rises with each commit that writes
    const QString before = reader.value(version);
    require(store.createTable(boiler, info));
    EXPECT_EQ(reader.value(version), before);
    require(store.createTable(boiler, {"Boiler"_q, "K"_q, "north"_q}));
    EXPECT_NE(reader.value(version), before);
}

TEST_F(SeriesOfAFile, RefuseWhatWouldNotComeBack)
{
    EXPECT_EQ(codeOf(store.createTable(boiler, {QString(QChar(0)), QString(), QString()})), Error::TextRefused);
    const auto unit = store.createTable(boiler, {"Boiler"_q, QString(QChar(0xd800)), QString()});
    ASSERT_FALSE(unit.ok());
    EXPECT_TRUE(unit.error().cause().startsWith("the unit cannot be held"_q)) << unit.error().text().toStdString();
    EXPECT_FALSE(require(store.tableExists(boiler)));
}

TEST_F(SeriesOfAFile, AreReadAsTheStoreLibraryAndOthersListThem)
{
    const auto bare = library::store("historyDB");
    ASSERT_EQ(bare->openDB(path()), 0);
    ASSERT_TRUE(bare->createTable("T1"_q, "Kühler °C"_q));
    bare->insertConfig("Kühler-1"_q, "a name that is not ours"_q);
    PlainConnection(path()).run("insert into tb_config values(NULL,'T2','Öl °C'),(NULL,'t1','later')"_q);
    const QList<Series> series = require(store.series());
    ASSERT_EQ(series.size(), 3);
    EXPECT_EQ(series[0].table, table("T1"_q)) << "listed twice, given once";
    EXPECT_EQ(series[0].name, "later"_q);
    EXPECT_EQ(series[1].listed, "Kühler-1"_q);
    EXPECT_FALSE(series[1].table);
    EXPECT_EQ(series[2].name, "Öl °C"_q) << "not encoded twice by that program";
}

TEST_F(SeriesOfAFile, KeepWhatIsAddedOutOfTheListOfTables)
{
    require(store.createTable(boiler, {"Boiler"_q, "°C"_q, QString()}));
    EXPECT_EQ(require(store.tables()), QStringList{"Boiler"_q});
}

TEST_F(SeriesOfAFile, MayBeNamedAsTheIndexOfAnotherOnceWas)
{
    store = require(HistoryStore::open(library(), path(), durable()));
    const TableName motorTime = table("Motor_time"_q);
    EXPECT_TRUE(require(store.createTable(motor)));
    EXPECT_TRUE(require(store.createTable(motorTime)));
    EXPECT_EQ(rowsOf(path(), indexes), (Rows{{"device index Motor"_q}, {"device index Motor_time"_q}}));

    auto other = require(HistoryStore::open(library(), path("other"), durable()));
    EXPECT_TRUE(require(other.createTable(motorTime)));
    EXPECT_TRUE(require(other.createTable(motor)));
}

TEST_F(SeriesOfAFile, KeepAnIndexOnTimeThatTheyHave)
{
    require(store.createTable(motor));
    require(store.createTable(boiler));
    PlainConnection file(path());
    file.run("create index Motor_time on Motor(DATETIME);"
             "create index partly on Boiler(DATETIME) where Value='1'"_q);
    store = require(HistoryStore::open(library(), path(), durable()));
    EXPECT_FALSE(require(store.createTable(motor)));
    EXPECT_FALSE(require(store.createTable(boiler)));
    EXPECT_EQ(rowsOf(path(), indexes), Rows{{"Motor_time"_q}});
    EXPECT_EQ(valueOf(path(), "select count(*) from sqlite_master where name='device index Boiler'"_q), "1"_q)
        << "an index on some of the rows does not do";
}

} // namespace
