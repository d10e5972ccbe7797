// SPDX-License-Identifier: MIT
#include "plain_connection.h"
#include "qt_printers.h"

#include <helpsqlite.h>

#include <gtest/gtest.h>

#include <random>

namespace
{

QString fromUtf8(const char *text)
{
    return QString::fromUtf8(text);
}

TEST(HelpSqlite, ATextWithoutAQuoteComesBackAsItIs)
{
    for (const char *text : {"", " ", "Logged in", "\"double\" `grave` ´acute´ ’typographic’", "\\ % %1 ; -- /* */",
                             "a\r\n\tb", "Größe 温度 😀"})
        EXPECT_EQ(helpSQLite::toSQLiteString(fromUtf8(text)), fromUtf8(text));
}

TEST(HelpSqlite, NullStaysNullAndEmptyStaysEmpty)
{
    EXPECT_TRUE(helpSQLite::toSQLiteString(QString()).isNull());
    const QString empty = helpSQLite::toSQLiteString(fromUtf8(""));
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_FALSE(empty.isNull());
}

TEST(HelpSqlite, EachQuoteIsDoubled)
{
    const struct {
        const char *text, *escaped;
    } rows[] = {{"'", "''"},        {"''", "''''"},       {"it's", "it''s"},
                {"'a'", "''a''"},   {"\\'", "\\''"},      {"O'Neill's 😀'", "O''Neill''s 😀''"},
                {"'%1'", "''%1''"}, {"'); --", "''); --"}};
    for (const auto &row : rows)
        EXPECT_EQ(helpSQLite::toSQLiteString(fromUtf8(row.text)), fromUtf8(row.escaped));
}

TEST(HelpSqlite, TheCallersTextIsNotChanged)
{
    const QString text = fromUtf8("it's");
    helpSQLite::toSQLiteString(text);
    EXPECT_EQ(text, fromUtf8("it's"));
}

TEST(HelpSqlite, AnyTextStandsBetweenSingleQuotesInSql)
{
    PlainConnection connection(QString::fromLatin1(":memory:"));
    std::mt19937 random(20240506);
    const QString frequent = fromUtf8("'''\"\\;-%1 aä温");
    for (int round = 0; round < 2000; ++round) {
        QString text;
        for (unsigned length = random() % 40; length > 0; --length) {
            if (random() % 4)
                text.append(frequent.at(int(random() % unsigned(frequent.size()))));
            else
                text.append(QChar(ushort(1 + random() % 0xFFFF))); // anything but NUL, half surrogates too
        }
        const QString literal = QLatin1Char('\'') + helpSQLite::toSQLiteString(text) + QLatin1Char('\'');
        const QString hex = connection.value(fromUtf8("select hex(%1)").arg(literal));
        ASSERT_EQ(QByteArray::fromHex(hex.toLatin1()), text.toUtf8()) << "round " << round;
    }
}

} // namespace
