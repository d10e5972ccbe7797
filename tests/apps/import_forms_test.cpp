// SPDX-License-Identifier: MIT
//
// Inputs in the forms of other programs.
#include "tool_test.h"

#include "import/decoded_input.h"
#include "import/json_reader.h"
#include "import/time_forms.h"

#include <QBuffer>

#include <random>

using device_db::DecodedInput;
using device_db::InputRow;
using device_db::JsonReader;
using device_db::TimeForms;

namespace
{

/// The time as it is stored, or "refused".
QByteArray stored(QByteArray given, bool milliseconds = false, const char *zone = "", const char *format = "")
{
    const auto forms = TimeForms::make(QString::fromLatin1(format), QString::fromLatin1(zone));
    EXPECT_TRUE(forms.ok());
    const QByteArray before = given;
    const QByteArray reason = forms->refusal(given, milliseconds);
    EXPECT_TRUE(reason.isEmpty() || given == before) << "a refused time is left alone";
    return reason.isEmpty() ? given : QByteArray("refused");
}

TEST(TimeForms, TheUsualOnesAreTakenAsTheyCome)
{
    for (const char *given :
         {"2024-05-06 07:08:09", "2024-05-06T07:08:09", "2024/05/06 07:08:09", "2024.05.06 07:08:09",
          "2024-5-6 7:08:09", "06.05.2024 07:08:09", "6.5.2024 7:08:09", "6.5.2024T07:08:09", "2024-05-06 07:08:09.999",
          "2024-05-06T07:08:09,999999999", " 2024-05-06  07:08:09 "})
        EXPECT_EQ(stored(given), "2024-05-06 07:08:09") << given;
    for (const char *given : {"2024-05-06 07:08", "6.5.2024 7:08", "2024/05/06T07:08"})
        EXPECT_EQ(stored(given), "2024-05-06 07:08:00") << given;
    EXPECT_EQ(stored("2024-05-06 07:08:09", true), "2024-05-06 07:08:09.000");
    EXPECT_EQ(stored("2024-05-06 07:08:09.5", true), "2024-05-06 07:08:09.500");
    EXPECT_EQ(stored("6.5.2024 7:08:09,1239", true), "2024-05-06 07:08:09.123");
}

TEST(TimeForms, WhatMayMeanTwoThingsOrNothingIsRefused)
{
    for (const char *given :
         {"", "05/06/2024 07:08:09", "5-6-2024 07:08:09", "2024-05/06 07:08:09", "2024-05-06", "07:08:09",
          "6.5.24 7:08", "2024-05-06 24:00:00", "2024-02-30 07:08:09", "30.2.2024 7:08", "2024-05-06 7:8:9",
          "2024-05-06 07:08:60", "2024-05-06 07:08:09 PM", "20240506070809", "noon", "2024-05-06 07:08:09+", "\xff"})
        EXPECT_EQ(stored(given), "refused") << given;
}

TEST(TimeForms, AnInstantNeedsTheZoneOfTheDevice)
{
    // The computer's own zone must not count.
    qputenv("TZ", "America/New_York");
    tzset();
    for (const char *given :
         {"2024-05-06T05:08:09Z", "2024-05-06 05:08:09 UTC", "2024-05-06T05:08:09.5Z", "2024-05-06T07:08:09+02:00",
          "2024-05-06T07:08:09 +0200", "2024-05-06 06:08:09+01", "2024-05-05 22:08:09-07:00", "6.5.2024 5:08:09Z",
          "1714972089", "1714972089.75", "1714972089000", "1714972089999"}) {
        EXPECT_EQ(stored(given), "refused") << given;
        EXPECT_EQ(stored(given, false, "Europe/Berlin"), "2024-05-06 07:08:09") << given;
        EXPECT_EQ(stored(given, false, "UTC+02:00"), "2024-05-06 07:08:09") << given;
    }
    EXPECT_EQ(stored("1714972089.75", true, "UTC"), "2024-05-06 05:08:09.750");
    EXPECT_EQ(stored("1714972089750", true, "UTC"), "2024-05-06 05:08:09.750");
    // Summer and winter; an hour that is there twice.
    EXPECT_EQ(stored("2024-01-06T05:08:09Z", false, "Europe/Berlin"), "2024-01-06 06:08:09");
    EXPECT_EQ(stored("2024-10-27T00:30:00Z", false, "Europe/Berlin"), "2024-10-27 02:30:00");
    EXPECT_EQ(stored("2024-10-27T01:30:00Z", false, "Europe/Berlin"), "2024-10-27 02:30:00");
    // A time without a zone is the device's own, also in the hour that a zone leaves out.
    for (const char *zone : {"", "Europe/Berlin", "UTC"})
        EXPECT_EQ(stored("2024-03-31T02:30:00", false, zone), "2024-03-31 02:30:00") << zone;
    qputenv("TZ", "UTC");
    tzset();
}

TEST(TimeForms, AFormThatIsNamedIsTheOnlyOne)
{
    EXPECT_EQ(stored("05/06/2024 07:08:09", false, "", "dd/MM/yyyy hh:mm:ss"), "2024-06-05 07:08:09");
    EXPECT_EQ(stored("05/06/2024 07:08:09", false, "", "MM/dd/yyyy hh:mm:ss"), "2024-05-06 07:08:09");
    EXPECT_EQ(stored("6 May 2024 7:08 PM", false, "", "d MMM yyyy h:mm AP"), "2024-05-06 19:08:00");
    EXPECT_EQ(stored("20240506070809", false, "", "yyyyMMddhhmmss"), "2024-05-06 07:08:09");
    EXPECT_EQ(stored("2024-05-06", false, "", "yyyy-MM-dd"), "2024-05-06 00:00:00");
    EXPECT_EQ(stored("6.5.24 7:08", false, "", "d.M.yy h:mm"), "2024-05-06 07:08:00");
    EXPECT_EQ(stored("6.5.99 7:08", false, "", "d.M.yy h:mm"), "1999-05-06 07:08:00");
    EXPECT_EQ(stored("31/03/2024 02:30", false, "", "dd/MM/yyyy hh:mm"), "2024-03-31 02:30:00");
    EXPECT_EQ(stored("2024-05-06 07:08:09", false, "", "dd/MM/yyyy hh:mm:ss"), "refused");
    EXPECT_FALSE(TimeForms::make("hh:mm:ss"_q, QString()).ok());
    EXPECT_FALSE(TimeForms::make(QString(), "Europe/Atlantis"_q).ok());
}

TEST(DecodedInput, IsTheSameTextInUtf8WhereverItsBlocksEnd)
{
    QString text;
    std::mt19937 random(1);
    while (text.size() < 100000) // characters of one to four bytes
        text += QStringList{"a"_q, "ü"_q, "€"_q, QString::fromUtf8("\xf0\x9f\x94\xa5")}.at(int(random() % 4));
    QByteArray encoded("\xff\xfe", 2);
    for (const QChar c : text)
        encoded.append(char(c.unicode() & 0xff)).append(char(c.unicode() >> 8));
    QBuffer buffer(&encoded);
    ASSERT_TRUE(buffer.open(QIODevice::ReadOnly));
    const auto input = DecodedInput::open(&buffer, "UTF-16"_q);
    ASSERT_TRUE(input.ok());
    EXPECT_TRUE((*input)->readAll() == text.toUtf8());
}

TEST(DecodedInput, AByteThatIsNotACharacterSpoilsNothingElse)
{
    QByteArray encoded("a\x81z\n"); // 0x81 is nothing in windows-1252
    QBuffer buffer(&encoded);
    ASSERT_TRUE(buffer.open(QIODevice::ReadOnly));
    EXPECT_EQ((*DecodedInput::open(&buffer, "windows-1252"_q))->readAll(), QByteArray("a\xffz\n"));
    QByteArray cut("a\0b", 3); // the last one is half of a character
    QBuffer cutBuffer(&cut);
    ASSERT_TRUE(cutBuffer.open(QIODevice::ReadOnly));
    EXPECT_EQ((*DecodedInput::open(&cutBuffer, "UTF-16LE"_q))->readAll(), QByteArray("a\xff"));
    EXPECT_FALSE(DecodedInput::open(&buffer, "klingon"_q).ok());
}

TEST(JsonReader, GivesCellsInTheOrderOfTheHeaderAndSaysWhatIsNone)
{
    QByteArray text("\xef\xbb\xbf\n{\"b\":\"x\",\"a\":1}\n{\"a\":null}\r\n{\"a\":[]}\nnone\n[1]\n{\"c\":1}\n"
                    "{\"a\":12345678901234567,\"b\":1.50}\n{\"a\":true,\"b\":\"\\u00fc\\n\"}");
    QBuffer buffer(&text);
    ASSERT_TRUE(buffer.open(QIODevice::ReadOnly));
    JsonReader reader(&buffer);
    EXPECT_EQ(reader.header().value(), (QStringList{"a"_q, "b"_q}));
    QVector<InputRow> rows;
    for (InputRow row; reader.next(row);)
        rows << row;
    ASSERT_EQ(rows.size(), 8);
    using Cells = QVector<QByteArray>;
    EXPECT_EQ(rows[0].cells, (Cells{"1", "x"}));
    EXPECT_EQ(rows[0].line, 2);
    EXPECT_TRUE(rows[1].cells.at(0).isNull());
    EXPECT_TRUE(rows[1].cells.at(1).isEmpty() && !rows[1].cells.at(1).isNull()) << "a key that is missing";
    for (int i = 2; i < 6; ++i)
        EXPECT_FALSE(rows[i].fault.isEmpty()) << i;
    EXPECT_EQ(rows[3].cells, (Cells{"none"}));
    EXPECT_EQ(rows[6].cells, (Cells{"12345678901234567", "1.50"}));
    EXPECT_EQ(rows[7].cells, (Cells{"true", "ü\n"}));
    EXPECT_EQ(reader.offset(), text.size());
    EXPECT_EQ(reader.line(), 10);
}

/// 60,000 rows with a series of three, and what is exported of them, in the form that a test wants.
struct Many {
    const char *name;
    QStringList options;
    QByteArray (*write)(int row);
    QByteArray header;
    const char *encoding;
};

void PrintTo(const Many &many, std::ostream *stream)
{
    *stream << many.name;
}

QByteArray clockOf(int row)
{
    return QByteArray::number(100 + row / 3600 % 24).mid(1) + ':' + QByteArray::number(100 + row / 60 % 60).mid(1) +
           ':' + QByteArray::number(100 + row % 60).mid(1);
}

class ImportGoesOn : public ToolTest, public ::testing::WithParamInterface<Many>
{
};

TEST_P(ImportGoesOn, WhereItWasKilledInEveryForm)
{
    constexpr int count = 60000;
    const Many &many = GetParam();
    QByteArray text = many.header;
    for (int row = 0; row < count; ++row)
        text += many.write(row);
    if (qstrcmp(many.encoding, "UTF-16LE") == 0) {
        const QString characters = QString::fromUtf8(text);
        text = "\xff\xfe";
        text.append(reinterpret_cast<const char *>(characters.utf16()), int(characters.size()) * 2);
    }
    write("many.txt"_q, text);
    const bool isWide = many.options.contains("--wide"_q);
    const QStringList arguments = QStringList{"import"_q, "many.db"_q} + many.options + QStringList{"--create"_q};
    // The second time is after the first transaction, which is three times as large with three series.
    const qint64 size = isWide ? 1500000 : 500000;
    ASSERT_GT(killedAt({size, 2 * size}, "many.db"_q, arguments), 0);
    const Outcome last = run(arguments);
    EXPECT_EQ(last.exitCode, 0) << last.errors.constData();
    EXPECT_TRUE(last.errors.contains("going on at line")) << last.errors.constData();
    const QStringList tables = isWide ? QStringList{"S1"_q, "S2"_q, "S3"_q} : QStringList{"Many"_q};
    for (const QString &table : tables) {
        const Rows rows = rowsOf(path("many.db"_q), "select DATETIME, Value from %1 order by ID"_q.arg(table));
        ASSERT_EQ(rows.size(), count);
        for (int row = 0; row < count; ++row)
            ASSERT_EQ(rows.at(row),
                      (QStringList{"2024-05-06 "_q + QString::fromLatin1(clockOf(row)), "%1 µ"_q.arg(row)}));
    }
}

QByteArray csvLine(int row)
{
    return "2024-05-06 " + clockOf(row) + ',' + QByteArray::number(row) + " µ\n";
}

QByteArray jsonLine(int row)
{
    return "{\"value\":\"" + QByteArray::number(row) + " µ\",\"time\":\"2024-05-06 " + clockOf(row) + "\"}\n";
}

QByteArray wideLine(int row)
{
    const QByteArray value = ';' + QByteArray::number(row) + " µ";
    return "6.5.2024;" + clockOf(row) + value + value + value + '\n';
}

const QStringList ofOneTable{"Many"_q, "many.txt"_q, "--kind"_q, "samples"_q};

INSTANTIATE_TEST_SUITE_P(
    Forms, ImportGoesOn,
    ::testing::Values(Many{"utf16", ofOneTable, csvLine, "time,value\n", "UTF-16LE"},
                      Many{"json", ofOneTable, jsonLine, "", "UTF-8"},
                      Many{"skip", ofOneTable + QStringList{"--skip"_q, "2"_q}, csvLine,
                           "# a logger\n# of a kind\ntime,value\n", "UTF-8"},
                      Many{"wide", {"many.txt"_q, "--wide"_q}, wideLine, "sep=;\ndate;time;S1;S2;S3\n", "UTF-8"}),
    [](const auto &parameter) { return std::string(parameter.param.name); });

class ImportForms : public ToolTest
{
};

TEST_F(ImportForms, ARowOfManySeriesIsStoredAsAWholeOrNotAtAll)
{
    write("wide.csv"_q, "time,S1,S2\n2024-05-06 07:08:09,1,1\n");
    ASSERT_EQ(run({"import"_q, "wide.db"_q, "wide.csv"_q, "--wide"_q, "--create"_q}).exitCode, 0);
    PlainConnection(path("wide.db"_q)).run("create unique index once on S2(DATETIME)"_q);
    write("wide.csv"_q, "time,S1,S2\n2024-05-06 07:08:09,2,2\n2024-05-06 07:08:09,3,\n2024-05-06 07:08:10,4,4\n");
    const Outcome second = run({"import"_q, "wide.db"_q, "wide.csv"_q, "--wide"_q});
    EXPECT_EQ(second.exitCode, 3) << second.errors.constData();
    EXPECT_EQ(rowsOf(path("wide.db"_q), "select Value from S1 order by ID"_q), (Rows{{"1"_q}, {"3"_q}, {"4"_q}}));
    EXPECT_EQ(rowsOf(path("wide.db"_q), "select Value from S2 order by ID"_q), (Rows{{"1"_q}, {"4"_q}}));
    EXPECT_TRUE(read("wide.csv.refused.csv"_q).contains("\n2,the table refuses it"))
        << read("wide.csv.refused.csv"_q).constData();
}

TEST_F(ImportForms, ATableThatHasGivenItsHighestIdSaysSo)
{
    write("one.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    ASSERT_EQ(run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    PlainConnection(path("one.db"_q)).run("update sqlite_sequence set seq=9223372036854775807 where name='One'"_q);
    const Outcome second = run({"import"_q, "one.db"_q, "One"_q, "one.csv"_q});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_TRUE(second.errors.contains("the highest ID there is")) << second.errors.constData();
}

TEST(TimeForms, AnOffsetThatNoZoneHasIsRefused)
{
    for (const char *offset : {"+25:00", "+02:60", "+99:99", "-14:01"})
        EXPECT_EQ(stored("2024-05-06T07:08:09" + QByteArray(offset), false, "UTC"), "refused") << offset;
    EXPECT_EQ(stored("2024-05-06T14:00:00+14:00", false, "UTC"), "2024-05-06 00:00:00");
    EXPECT_EQ(stored("2024-05-06T07:08:09+05:45", false, "UTC"), "2024-05-06 01:23:09");
}

TEST_F(ImportForms, AJsonNumberKeepsItsDigits)
{
    const QList<QByteArray> numbers{
        "12345678901234567890", "18446744073709551615", "3.141592653589793238", "-0.10", "1E+2", "9223372036854775807"};
    QByteArray lines;
    for (const QByteArray &number : numbers)
        lines += "{\"time\":\"2024-05-06 07:08:09\" , \"v\\u0061lue\": " + number + "}\n";
    write("in.json"_q, lines);
    ASSERT_EQ(run({"import"_q, "j.db"_q, "J"_q, "in.json"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    EXPECT_EQ(run({"export"_q, "j.db"_q, "--no-header"_q}).output,
              "2024-05-06 07:08:09," + numbers.join("\n2024-05-06 07:08:09,") + '\n');
}

TEST_F(ImportForms, AJsonTextWithHalfACharacterIsRefused)
{
    write("in.json"_q, "{\"time\":\"2024-05-06 07:08:09\",\"value\":\"x\\ud83dy\"}\n"
                       "{\"time\":\"2024-05-06 07:08:09\",\"value\":\"\\ud83d\\ude00\"}\n");
    EXPECT_EQ(run({"import"_q, "j.db"_q, "J"_q, "in.json"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 3);
    EXPECT_EQ(rowsOf(path("j.db"_q), "select Value from J"_q), (Rows{{QString::fromUtf8("\xf0\x9f\x98\x80")}}));
}

TEST_F(ImportForms, ATextThatBeginsWithAByteOrderMarkComesBack)
{
    const QByteArray text(
        "time,value\n2024-05-06 07:08:09,\xef\xbb\xbf\n2024-05-06 07:08:09,\xef\xbb\xbf\xef\xbb\xbfx\n");
    write("in.csv"_q, text);
    ASSERT_EQ(run({"import"_q, "a.db"_q, "A"_q, "in.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    EXPECT_EQ(run({"export"_q, "a.db"_q}).output, text);
    const Outcome exported = run({"export"_q, "a.db"_q, "-o"_q, "a.json"_q});
    EXPECT_EQ(exported.exitCode, 0) << exported.errors.constData();
    ASSERT_EQ(run({"import"_q, "b.db"_q, "A"_q, "a.json"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    EXPECT_EQ(run({"export"_q, "b.db"_q}).output, text);
}

TEST_F(ImportForms, OptionsOfOneTableAreRefusedWithManySeries)
{
    write("wide.csv"_q, "time,A\n2024-05-06 07:08:09,1\n");
    EXPECT_EQ(run({"import"_q, "w.db"_q, "wide.csv"_q, "--wide"_q, "--create"_q, "--default"_q, "B=3"_q}).exitCode, 2);
    EXPECT_EQ(run({"import"_q, "w.db"_q, "wide.csv"_q, "--wide"_q, "--create"_q, "--kind"_q, "alarms"_q}).exitCode, 2);
    EXPECT_FALSE(QFile::exists(path("w.db"_q)));
}

// Qt would take the last of two silently, and has no number that a double has not.
TEST_F(ImportForms, AJsonKeyMayComeOnceAndANumberMayHaveAnySize)
{
    write("in.json"_q, "{\"time\":\"2024-05-06 07:08:09\",\"value\":0.1e-400}\n"
                       "{\"time\":\"2024-05-06 07:08:09\",\"value\":-1E400 }\n"
                       "{\"time\":\"2024-05-06 07:08:09\",\"value\":\"1e999: \\\"value\\\":\"}\n"
                       "{\"time\":\"2024-05-06 07:08:09\",\"value\":1,\"value\":2}\n"
                       "{\"time\":\"2024-05-06 07:08:09\",\"value\":\"1\",\"v\\u0061lue\":\"2\"}\n"
                       "{\"time\":\"2024-05-06 07:08:09\",\"value\":01}\n"
                       "{\"time\":\"2024-05-06 07:08:09\",\"value\":1e}\n");
    const Outcome outcome = run(
        {"import"_q, "j.db"_q, "J"_q, "in.json"_q, "--create"_q, "--kind"_q, "samples"_q, "--refused"_q, "no.csv"_q});
    EXPECT_EQ(outcome.exitCode, 3) << outcome.errors.constData();
    EXPECT_EQ(rowsOf(path("j.db"_q), "select Value from J"_q),
              (Rows{{"0.1e-400"_q}, {"-1E400"_q}, {"1e999: \"value\":"_q}}));
    const QByteArray refused = read("no.csv"_q);
    EXPECT_TRUE(refused.contains("\n4,\"it has the key \"\"value\"\" twice\"")) << refused.constData();
    EXPECT_TRUE(refused.contains("\n5,\"it has the key \"\"value\"\" twice\"")) << refused.constData();
    EXPECT_TRUE(refused.contains("\n6,it is not JSON")) << refused.constData();
    EXPECT_TRUE(refused.contains("\n7,it is not JSON")) << refused.constData();
}

TEST_F(ImportForms, TheNameOfTheTableOfAlarmsIsKeptForIt)
{
    write("in.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    write("wide.csv"_q, "time,alarmdata\n2024-05-06 07:08:09,1\n");
    const QList<QStringList> imports{
        {"import"_q, "a.db"_q, "AlarmData"_q, "in.csv"_q, "--create"_q, "--kind"_q, "samples"_q},
        {"import"_q, "a.db"_q, "AlarmData"_q, "in.csv"_q, "--create"_q, "--kind"_q, "log"_q, "--columns"_q,
         "time,user"_q},
        {"import"_q, "a.db"_q, "wide.csv"_q, "--create"_q, "--wide"_q},
        {"import"_q, "a.db"_q, "wide.csv"_q, "--create"_q, "--wide"_q, "--dry-run"_q}};
    for (const QStringList &import : imports) {
        const Outcome outcome = run(import);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_TRUE(outcome.errors.contains("only a table of alarms may have this name")) << outcome.errors.constData();
    }
    EXPECT_FALSE(QFile::exists(path("a.db"_q)));
}

TEST_F(ImportForms, AKindThatContradictsTheTableIsRefused)
{
    write("in.csv"_q, "time,value\n2024-05-06 07:08:09,1\n");
    ASSERT_EQ(run({"import"_q, "a.db"_q, "T"_q, "in.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
    const Outcome outcome = run({"import"_q, "a.db"_q, "T"_q, "in.csv"_q, "--kind"_q, "log"_q});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.errors, "device-db: a.db: T is a table of samples, not of log; leave out --kind, or name another "
                              "table\n");
    EXPECT_EQ(run({"import"_q, "a.db"_q, "T"_q, "in.csv"_q, "--kind"_q, "samples"_q}).exitCode, 0);
}

} // namespace
