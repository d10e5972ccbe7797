// SPDX-License-Identifier: MIT
#include "storefile/texts.h"
#include "storefile/times.h"
#include "terminal/table_writer.h"
#include "terminal/text.h"
#include "tool_test.h"

#include <QElapsedTimer>

using namespace device_db;

namespace
{

QByteArray bound(const char *given, Bound which, bool milliseconds)
{
    const auto text = boundText(QString::fromUtf8(given), which, milliseconds, false);
    return text ? *text : QByteArray("refused");
}

TEST(BoundText, IsFilledUpToTheBound)
{
    EXPECT_EQ(bound("2024-05-06", Bound::First, false), "2024-05-06 00:00:00");
    EXPECT_EQ(bound("2024-05-06", Bound::Last, false), "2024-05-06 23:59:59");
    EXPECT_EQ(bound("2024-05-06", Bound::Last, true), "2024-05-06 23:59:59.999");
    EXPECT_EQ(bound("2024/05/06T07:08", Bound::First, false), "2024-05-06 07:08:00");
    EXPECT_EQ(bound("6.5.2024", Bound::Last, false), "2024-05-06 23:59:59");
    EXPECT_EQ(bound("2024-05-06 07:08", Bound::Last, false), "2024-05-06 07:08:59");
    EXPECT_EQ(bound("2024-05-06 07:08:09", Bound::Last, true), "2024-05-06 07:08:09.999");
    EXPECT_EQ(bound("2024-05-06 07:08:09.250", Bound::First, true), "2024-05-06 07:08:09.250");
}

TEST(BoundText, OfAnythingElseIsRefused)
{
    for (const char *given : {"", "2024", "5/6/2024", "2024-02-30", "2024-05-06 24:00", "24", "2024-05-06 07", "-1h"})
        EXPECT_EQ(bound(given, Bound::First, false), "refused") << given;
}

TEST(BoundText, TakesUtcWhenItIsTold)
{
    qputenv("TZ", "Europe/Berlin");
    tzset();
    EXPECT_EQ(*boundText("2024-07-01 10:00:00"_q, Bound::First, false, true), "2024-07-01 12:00:00");
    EXPECT_EQ(*boundText("2024-07-01T10:00Z"_q, Bound::Last, false, false), "2024-07-01 12:00:59");
    EXPECT_EQ(*boundText("2024-07-01 10:00:00-01:30"_q, Bound::First, true, true), "2024-07-01 13:30:00.000");
    EXPECT_EQ(inUtc("2024-07-01 12:00:00", false), "2024-07-01 10:00:00");
    EXPECT_EQ(inUtc("2024-01-01 12:00:00.125", true), "2024-01-01 11:00:00.125");
    EXPECT_EQ(inUtc("noon", false), "noon");
    EXPECT_EQ(inUtc("2024-03-31 01:59:59", false), "2024-03-31 00:59:59");
    EXPECT_EQ(inUtc("2024-03-31 02:30:00", false), "2024-03-31 02:30:00 local") << "an hour that there was not";
    EXPECT_EQ(inUtc("2024-03-31 02:30:00.000", true), "2024-03-31 02:30:00.000 local");
    EXPECT_EQ(beginningOf(inUtc("2024-03-31 02:30:00", false), 13), "2024-03-31 02 local");
    EXPECT_EQ(beginningOf("2024-03-31 02:30:00", 10), "2024-03-31");
    EXPECT_EQ(inUtc("2024-03-31 03:00:00", false), "2024-03-31 01:00:00");
    qputenv("TZ", "UTC");
    tzset();
}

TEST(MillisecondsOf, ATimeOfTheTablesAndNothingElse)
{
    EXPECT_EQ(millisecondsOf("1970-01-02 00:00:01", false), 86401000);
    EXPECT_EQ(millisecondsOf("1970-01-01 00:00:00.007", true), 7);
    for (const char *text :
         {"", "1970-01-01", "1970-01-01 00:00:00.007", "1970-01-01T00:00:00", "1970-02-30 00:00:00",
          "1970-01-01 00:00:0x", "1970/01/01 00:00:00", "-070-01-01 00:00:00", "0000-01-01 00:00:00"})
        EXPECT_EQ(millisecondsOf(text, false), -1) << text;
}

TEST(ComesBefore, NumbersInNamesAreCounted)
{
    const QStringList ordered{"2"_q,   "10"_q,   "S"_q,     "S01"_q,    "S1"_q,  "s2"_q,   "S2a"_q,
                              "S10"_q, "s10b"_q, "S10b2"_q, "S10b10"_q, "T 9"_q, "T 10"_q, "Über"_q};
    for (int i = 0; i < ordered.size(); ++i) {
        for (int k = 0; k < ordered.size(); ++k)
            EXPECT_EQ(comesBefore(ordered.at(i), ordered.at(k)), i < k)
                << ordered.at(i).toStdString() << ' ' << ordered.at(k).toStdString();
    }
}

TEST(Duration, ReadsAsOneWouldSayIt)
{
    EXPECT_EQ(duration(250), "0.250 s"_q);
    EXPECT_EQ(duration(61000), "0:01:01"_q);
    EXPECT_EQ(duration(2 * 86400000LL + 3600000), "2 d 1:00:00"_q);
}

TEST(DecodedTwice, OnlyWhatTheStoreEncodedTwice)
{
    const QByteArray plain = "80 °C, Ω"_q.toUtf8();
    EXPECT_EQ(decodedTwice(QString::fromLatin1(plain).toUtf8()), plain);
    EXPECT_EQ(decodedTwice(plain), plain);     // a letter outside Latin-1
    EXPECT_EQ(decodedTwice("80 °C"), "80 °C"); // its byte is no UTF-8
    EXPECT_EQ(decodedTwice("80 C"), "80 C");
    EXPECT_EQ(decodedTwice(""), "");
}

TEST(Widths, AreThoseOfTheTerminal)
{
    EXPECT_EQ(displayWidth("a°é"_q), 3);
    EXPECT_EQ(displayWidth("高压"_q), 4);
    EXPECT_EQ(cutTo("高压高压"_q, 5), "高压…"_q);
    EXPECT_EQ(cutTo("abcdef"_q, 6), "abcdef"_q);
    EXPECT_EQ(cutTo("abcdefg"_q, 6), "abcde…"_q);
    EXPECT_EQ(cutTo("🚨🚨🚨🚨"_q, 5), "🚨🚨…"_q);
}

TEST(Visible, NoTextOfAFileSteersTheTerminal)
{
    EXPECT_EQ(visible("a\r\nb\tc\x1b[2J"_q), "a␊b␉c␛[2J"_q);
    for (const QChar c : visible(QString(QChar(0x9b)) + QChar(0x7f) + QChar(0)))
        EXPECT_TRUE(c.isPrint());
}

TEST(JsonRow, HoldsAnyText)
{
    const QVector<OutputColumn> columns{{"level", QString(), true, true}, {"text", QString()}, {"end", QString()}};
    EXPECT_EQ(jsonRow(columns, {"3", "a\"b\\\n\xc3\xa4", QByteArray()}),
              "{\"level\":3,\"text\":\"a\\\"b\\\\\\nä\",\"end\":null}\n");
    EXPECT_EQ(jsonRow(columns, {"03", "", ""}), "{\"level\":\"03\",\"text\":\"\",\"end\":\"\"}\n");
}

class Tail : public ToolTest
{
protected:
    /// The output up to and with `text`.
    static QByteArray waitFor(QProcess &process, const QByteArray &text)
    {
        QByteArray output;
        QElapsedTimer timer;
        timer.start();
        while (!output.contains(text) && timer.elapsed() < 60000 && process.state() == QProcess::Running) {
            process.waitForReadyRead(100);
            output += process.readAllStandardOutput();
        }
        return output;
    }
};

TEST_F(Tail, FollowsWhatComesAlsoAfterTheTableWasEmptied)
{
    for (const char *mode : {"delete", "wal"}) {
        SCOPED_TRACE(mode);
        write("one.csv"_q, "time,value\n2024-05-06 07:08:09,first\n");
        const QString file = QString::fromLatin1(mode) + ".db"_q;
        ASSERT_EQ(run({"import"_q, file, "One"_q, "one.csv"_q, "--create"_q, "--kind"_q, "samples"_q}).exitCode, 0);
        PlainConnection device(path(file));
        device.run("pragma journal_mode="_q + QString::fromLatin1(mode));
        QProcess tail;
        start(tail, {"tail"_q, file, "--follow"_q, "--interval"_q, "20"_q, "--csv"_q});
        EXPECT_TRUE(waitFor(tail, "first\n").contains("time,value\n2024-05-06 07:08:09,first\n"));
        device.run("insert into One values(NULL,'2024-05-06 07:08:10','second')"_q);
        EXPECT_EQ(waitFor(tail, "second\n"), "2024-05-06 07:08:10,second\n");
        device.run("delete from One; update sqlite_sequence set seq=0 where name='One'"_q);
        device.run("insert into One values(NULL,'2024-05-06 07:08:11','third')"_q);
        EXPECT_EQ(waitFor(tail, "third\n"), "2024-05-06 07:08:11,third\n");
        EXPECT_EQ(tail.state(), QProcess::Running);
        tail.kill();
        tail.waitForFinished();
    }
}

} // namespace
