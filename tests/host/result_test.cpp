// SPDX-License-Identifier: MIT
#include "host_test.h"

#include <memory>

using namespace device;

namespace
{

const Error failure(Error::Locked, "count"_q, "Boiler"_q, "database is locked"_q);

TEST(Results, GiveTheirValueOrAnother)
{
    const Result<QString> done("done"_q);
    const Result<QString> failed(failure);
    EXPECT_EQ(done.valueOr("other"_q), "done"_q);
    EXPECT_EQ(failed.valueOr("other"_q), "other"_q);
    EXPECT_EQ(Result<QString>(failure).valueOr("other"_q), "other"_q);
}

TEST(Results, LetTheirValueBeChangedAndMovedOut)
{
    Result<QString> result("a"_q);
    *result += "b"_q;
    result->append("c"_q);
    result.value() += "d"_q;
    EXPECT_EQ(*result, "abcd"_q);
    Result<std::unique_ptr<int>> owner(std::make_unique<int>(1));
    EXPECT_EQ(*std::unique_ptr<int>(*std::move(owner)), 1);
}

TEST(Results, AreMappedAndKeepTheirError)
{
    const auto size = [](const QString &text) { return int(text.size()); };
    EXPECT_EQ(Result<QString>("four"_q).map(size).value(), 4);
    const Result<int> failed = Result<QString>(failure).map(size);
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(failed.error().text(), failure.text());
    const Result<QString> kept("four"_q);
    EXPECT_EQ(*kept.map(size), 4);
    EXPECT_EQ(*kept, "four"_q);
    EXPECT_EQ(**Result<std::unique_ptr<int>>(std::make_unique<int>(5)).map([](std::unique_ptr<int> value) {
        ++*value;
        return value;
    }),
              6);
}

TEST(Results, AdviseAfterEveryFailureButTheUnknown)
{
    for (int code = Error::Failed + 1; code <= Error::OptionRefused; ++code) {
        const Error error(Error::Code(code), "count"_q, QString(), "cause"_q);
        EXPECT_NE(error.advice(), QString()) << code;
        EXPECT_TRUE(error.advice().endsWith(QLatin1Char('.'))) << code;
    }
    EXPECT_EQ(Error(Error::NotStarted, "record"_q, "Boiler"_q, "the recorder was not started"_q).text(),
              "record Boiler: the recorder was not started. Call start() first."_q);
}

TEST(TableNames, AreEqualWhateverTheirCase)
{
    EXPECT_TRUE(table("Boiler"_q) == table("BOILER"_q));
    EXPECT_TRUE(table("Boiler"_q) != table("Boiler1"_q));
    const QHash<TableName, int> places{{table("Boiler"_q), 7}};
    EXPECT_EQ(places.value(table("boiler"_q)), 7);
    EXPECT_EQ(qHash(table("boiler"_q)), qHash(table("BOILER"_q)));
}

TEST(TableNames, OfLiteralsMustBeTableNames)
{
    EXPECT_EQ(TableName::must("Boiler").text(), "Boiler"_q);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(TableName::must("Boiler 1"), "\"Boiler 1\" is not a table name");
}

} // namespace
