// SPDX-License-Identifier: MIT
//
// tb_config: pairs of a collector and a name.
#include "kind_test.h"

namespace
{

using Store = interface_data_base;

class ConfigTable : public KindTest
{
protected:
    void prepareTable()
    {
        prepare("create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)"_q);
    }
    Rows storedPairs() { return rowsOf(path(), "select COLLECTOR,NAME from tb_config order by ID"_q); }
};
INSTANTIATE_TEST_SUITE_P(Kinds, ConfigTable, everyKind(), nameOfKind);

TEST_P(ConfigTable, APairIsInsertedInATransactionOfItsOwn)
{
    prepareTable();
    open().insertConfig("Series1"_q, "Pump 1"_q);
    EXPECT_EQ(trace.take(),
              (QStringList{"begin transaction"_q, "insert into tb_config values(NULL,'Series1','Pump 1')"_q,
                           "commit transaction"_q}));
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(rowsOf(path(), "select * from tb_config"_q), (Rows{{"1"_q, "Series1"_q, "Pump 1"_q}}));
}

TEST_P(ConfigTable, PairsComeBackAsOneTextEach)
{
    prepareTable();
    prepare("insert into tb_config(COLLECTOR,NAME) values('A','B'), ('','B'), ('A',''), ('',''), (NULL,'B'),"
            " ('A',NULL), ('a@b','c'), ('Größe','功率 🚨')"_q);
    const QStringList expected{"@A@B"_q, "@@B"_q, "@A@"_q, "@@"_q, "@@B"_q, "@A@"_q, "@a@b@c"_q, "@Größe@功率 🚨"_q};
    EXPECT_EQ(open().selectConfigInfo(), expected);
    EXPECT_EQ(trace.take(), QStringList{"select COLLECTOR,NAME from 'tb_config'"_q});
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(ConfigTable, WithoutPairsTheListIsEmpty)
{
    prepareTable();
    EXPECT_EQ(open().selectConfigInfo(), QStringList());
    EXPECT_EQ(log.take(), QStringList());
}

TEST_P(ConfigTable, EqualPairsAreStoredAsOftenAsTheyAreInserted)
{
    prepareTable();
    Store &store = open();
    store.insertConfig("A"_q, "B"_q);
    store.insertConfig("A"_q, "B"_q);
    EXPECT_EQ(store.selectConfigInfo(), (QStringList{"@A@B"_q, "@A@B"_q}));
}

TEST_P(ConfigTable, ACollectorWithTheSeparatorCannotBeToldApart)
{
    prepareTable();
    Store &store = open();
    store.insertConfig("A@B"_q, "C"_q);
    store.insertConfig("A"_q, "B@C"_q);
    EXPECT_EQ(store.selectConfigInfo(), (QStringList{"@A@B@C"_q, "@A@B@C"_q}));
}

TEST_P(ConfigTable, WithoutTheTableAnInsertWritesNothingAndSaysNothing)
{
    Store &store = open();
    store.insertConfig("A"_q, "B"_q);
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_EQ(trace.take(), (QStringList{"begin transaction"_q, "commit transaction"_q}));
    EXPECT_NE(sqlite3_get_autocommit(trace.connection()), 0);
    EXPECT_EQ(valueOf(path(), "select count(*) from sqlite_master"_q), "0"_q);
}

TEST_P(ConfigTable, WithoutTheTableReadingIsEmptyAndSaysWhy)
{
    EXPECT_EQ(open().selectConfigInfo(), QStringList());
    EXPECT_EQ(log.take(), QStringList{streamed("database selectConfigInfo failed;", "no such table: tb_config")});
}

TEST_P(ConfigTable, AQuoteBreaksTheInsertSilently)
{
    prepareTable();
    Store &store = open();
    store.insertConfig("it's"_q, "B"_q);
    store.insertConfig("A"_q, "it's"_q);
    EXPECT_EQ(log.take(), QStringList());
    store.insertConfig("A"_q, "B"_q);
    EXPECT_EQ(storedPairs(), (Rows{{"A"_q, "B"_q}}));
}

// The UTF-8 bytes are read as Latin-1 before they enter the statement.
TEST_P(ConfigTable, OtherThanAsciiIsStoredEncodedTwice)
{
    prepareTable();
    Store &store = open();
    store.insertConfig("Tä"_q, "功"_q);
    EXPECT_EQ(storedPairs(), (Rows{{"TÃ¤"_q, "å\u008a\u009f"_q}}));
    EXPECT_EQ(store.selectConfigInfo(), QStringList{"@TÃ¤@å\u008a\u009f"_q});
}

TEST_P(ConfigTable, ANulEndsEachText)
{
    prepareTable();
    Store &store = open();
    store.insertConfig("A"_q + QChar(0) + "junk"_q, "B"_q + QChar(0) + "junk"_q);
    EXPECT_EQ(storedPairs(), (Rows{{"A"_q, "B"_q}}));
}

TEST_P(ConfigTable, AMarkerInTheCollectorIsFilledByTheName)
{
    prepareTable();
    Store &store = open();
    store.insertConfig("C%2"_q, "N"_q);
    store.insertConfig("C"_q, "N%1"_q);
    EXPECT_EQ(storedPairs(), (Rows{{"CN"_q, "N"_q}, {"C"_q, "N%1"_q}}));
}

// A second "begin" fails; the pair goes into the transaction that is open, and the commit ends that one.
TEST_P(ConfigTable, AnInsertIntoAnOpenTransactionCommitsIt)
{
    prepareTable();
    Store &store = open();
    sqlite3 *const handle = trace.connection();
    ASSERT_EQ(sqlite3_exec(handle, "begin; insert into tb_config values(NULL,'A','B')", nullptr, nullptr, nullptr),
              SQLITE_OK);
    store.insertConfig("C"_q, "D"_q);
    EXPECT_EQ(log.take(), QStringList());
    EXPECT_NE(sqlite3_get_autocommit(handle), 0);
    EXPECT_EQ(storedPairs(), (Rows{{"A"_q, "B"_q}, {"C"_q, "D"_q}}));
}

// As on a disk that fills up: SQLite may end the transaction within the insert.
TEST_P(ConfigTable, AnInsertThatRollsBackMakesTheCommitFail)
{
    PlainConnection(path()).run(
        "create table tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text);"
        "create trigger t before insert on tb_config begin select raise(rollback, 'no'); end"_q);
    Store &store = open();
    store.insertConfig("A"_q, "B"_q);
    EXPECT_EQ(log.take(), QStringList{streamed("insertManyDatas fail")});
    EXPECT_NE(sqlite3_get_autocommit(trace.connection()), 0);
    EXPECT_EQ(storedPairs(), Rows());
}

} // namespace
