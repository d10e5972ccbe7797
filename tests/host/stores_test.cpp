// SPDX-License-Identifier: MIT
#include "host_test.h"

#include "loaded_library.h"

using namespace device;

namespace
{

class Stores : public HostTest
{
};

TEST_F(Stores, SamplesComeBackAsTheyWent)
{
    auto store = require(HistoryStore::open(library(), path()));
    const TableName boiler = table("Boiler"_q);
    EXPECT_TRUE(require(store.createTable(boiler, "Boiler 1"_q)));
    EXPECT_FALSE(require(store.createTable(boiler, "Boiler 1"_q)));
    const QList<Sample> samples{{at("2024-05-06 07:08:09"_q), "it's 5 %1 – \n€ 🚒"_q},
                                {at("2024-05-06 07:08:10"_q), ""_q}};
    EXPECT_EQ(require(store.append(boiler, samples)).stored, 2);
    EXPECT_EQ(require(store.read(boiler, Query<Sample>().oldestFirst())), samples);
    EXPECT_EQ(require(store.count(boiler)), 2);
    EXPECT_EQ(codeOf(store.count(table("Missing"_q))), Error::TableMissing);
}

} // namespace
