// SPDX-License-Identifier: MIT
#include "host_test.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

using namespace device;

namespace
{

std::optional<double> inBytes(const char *text)
{
    return number(QByteArray(text));
}

TEST(Numbers, AreWholeTexts)
{
    EXPECT_EQ(inBytes("87.5"), 87.5);
    EXPECT_EQ(inBytes(" -1e3\t"), -1000.0);
    EXPECT_EQ(inBytes("+5"), 5.0);
    EXPECT_EQ(inBytes(".5"), 0.5);
    for (const char *text :
         {"", " ", "fault", "88 °C", "1,5", "0x10", "nan", "inf", "-inf", "1e999", "+-5", "--5", "5 6", "٣"})
        EXPECT_FALSE(inBytes(text)) << text;
}

TEST(Numbers, AreTheSameInQtTextsAndInBytes)
{
    for (const char *text : {"87.5", " -1e3\t", "+5", "", "88 °C", "nan", "²", "1\u00a0"})
        EXPECT_EQ(number(QString::fromUtf8(text)), inBytes(text)) << text;
    EXPECT_FALSE(number("1"_q + QChar(0) + "2"_q));
    EXPECT_FALSE(number("1"_q + QChar(0)));
}

TEST(Numbers, AreWrittenInTheFewestDigitsThatReadBackTheSame)
{
    EXPECT_EQ(numberText(87.5), "87.5"_q);
    EXPECT_EQ(numberText(0.1), "0.1"_q);
    EXPECT_EQ(numberText(100), "100"_q);
    EXPECT_EQ(numberText(-0.0), "-0"_q);
    EXPECT_EQ(numberText(1.0 / 3), "0.3333333333333333"_q);
    using Limits = std::numeric_limits<double>;
    for (const double value : {0.0, -0.0, Limits::max(), Limits::lowest(), Limits::min(), Limits::denorm_min()})
        EXPECT_EQ(number(numberText(value)), value) << value;
    std::mt19937_64 random(1);
    for (int i = 0; i < 100000; ++i) {
        const quint64 bits = random();
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        if (std::isfinite(value)) {
            ASSERT_EQ(number(numberText(value)), value) << bits;
        }
    }
}

TEST(Numbers, ThatAreNotFiniteBecomeTextsThatAreNoNumbers)
{
    using Limits = std::numeric_limits<double>;
    for (const auto &[value, text] :
         {std::make_pair(Limits::quiet_NaN(), "nan"), std::make_pair(-std::nan(""), "nan"),
          std::make_pair(Limits::infinity(), "inf"), std::make_pair(-Limits::infinity(), "-inf")}) {
        EXPECT_EQ(numberText(value), QLatin1String(text));
        EXPECT_FALSE(number(numberText(value)));
    }
}

class NumberSamples : public HostTest
{
};

TEST_F(NumberSamples, ComeBackFromTheFileAsTheyWere)
{
    auto store = require(HistoryStore::open(library(), path()));
    const TableName boiler = table("Boiler"_q);
    require(store.createTable(boiler));
    const LocalTime time = at("2024-05-06 07:00:00"_q);
    require(store.append(boiler, {{time, 87.5}, {time, 0.1 + 0.2}, {time, std::nan("")}, {time, "fault"_q}}));
    const QList<Sample> read = require(store.read(boiler, Query<Sample>().oldestFirst()));
    ASSERT_EQ(read.size(), 4);
    EXPECT_EQ(read[0].value, "87.5"_q);
    EXPECT_EQ(read[0].number(), 87.5);
    EXPECT_EQ(read[1].number(), 0.1 + 0.2);
    EXPECT_FALSE(read[2].number());
    EXPECT_EQ(read[2].value, "nan"_q);
    EXPECT_FALSE(read[3].number());
}

} // namespace
