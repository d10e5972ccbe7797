// SPDX-License-Identifier: MIT
//
// What becomes of a text on its way into a file and back, in every text cell of every store: one long
// list.
#include "operator_log.h"
#include "store_test.h"

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <tuple>

namespace
{

using Store = interface_data_base;
using Bytes = QList<QByteArray>; ///< The bytes of a row's cells.

// The conversions, written down once more from their definitions.

/// What is no Latin-1 becomes "?", each half of a surrogate pair by itself; the text ends at its first NUL.
QString latin1Only(const QString &text)
{
    QString converted;
    for (const QChar unit : text.left(text.indexOf(QChar(0))))
        converted.append(unit.unicode() <= 0xFF ? unit : QLatin1Char('?'));
    return converted;
}

/// The UTF-8 bytes as one character each, up to the first NUL.
QString encodedOnceMore(const QString &text)
{
    QString converted;
    for (const char byte : text.left(text.indexOf(QChar(0))).toUtf8())
        converted.append(QChar(uchar(byte)));
    return converted;
}

QString escaped(QString text)
{
    return text.replace("'"_q, "''"_q);
}

QString withDashes(QString time)
{
    return time.replace("/"_q, "-"_q);
}

/// Each argument in its place, one after the other: markers inside an argument are filled by the next ones.
QStringList filled(int firstMarker, const QStringList &arguments)
{
    const QChar separator(0xE000);
    QStringList markers;
    for (int index = 0; index < arguments.size(); ++index)
        markers.append("%"_q + QString::number(firstMarker + index));
    QString text = markers.join(separator);
    for (const QString &argument : arguments)
        text = text.arg(argument);
    return text.split(separator);
}

/// The value of a text that was pasted between single quotes; nothing when that ends the literal too early.
std::optional<QByteArray> literal(const QString &pasted)
{
    QString text = pasted;
    text.remove("''"_q);
    if (text.contains(QLatin1Char('\'')) || text.contains(QChar(0)))
        return std::nullopt;
    return QString(pasted).replace("''"_q, "'"_q).toUtf8();
}

QString read(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes.constData());
}

struct TextStore {
    const char *name;
    const char *key;
    const char *table;
    QStringList columns;                                       ///< The columns of the text cells.
    QStringList row;                                           ///< A row without anything special.
    int firstTextCell;                                         ///< All cells from this one on are text.
    std::function<QStringList(const QStringList &row)> pasted; ///< What stands between quotes, one text a column.
    std::function<Rows(Store &)> records;                      ///< The texts of all records.
    std::function<Rows(const Bytes &columns)> expectedRecords;
};

const TextStore history{
    "history",
    "historyDB",
    "T1",
    {"DATETIME"_q, "Value"_q},
    {"2024/05/06 07:08:09"_q, "7.5"_q},
    0,
    [](const QStringList &row) {
        return filled(2, {latin1Only(withDashes(row.at(0))), latin1Only(row.at(1))});
    },
    [](Store &store) {
        QList<DataContent> samples;
        store.getCurrData("T1"_q, &samples, "desc"_q, 9);
        Rows rows;
        for (const DataContent &sample : samples)
            rows.append({sample.date, sample.time, sample.value});
        return rows;
    },
    [](const Bytes &columns) {
        const QStringList dateTime = read(columns.at(0)).split(" "_q);
        return dateTime.size() == 2 ? Rows({dateTime + QStringList(read(columns.at(1)))}) : Rows();
    },
};

const TextStore alarm{
    "alarm",
    "alarmDB",
    "AlarmData",
    {"LevelID"_q, "DATETIME"_q, "AlarmObject"_q, "AlarmType"_q, "CurrentValue"_q, "LimitValue"_q, "AlarmDescription"_q,
     "EndDate"_q, "EndTime"_q},
    {"2"_q, "2024/05/06"_q, "07:08:09"_q, "Pump 1"_q, "High"_q, "87.5"_q, "80"_q, "Level above limit"_q, ""_q, ""_q},
    1,
    [](const QStringList &row) {
        return filled(1, {row.at(0), withDashes(row.at(1) + " "_q + row.at(2)), row.at(3), row.at(4), row.at(5),
                          row.at(6), encodedOnceMore(escaped(row.at(7))), row.at(8), row.at(9)});
    },
    [](Store &store) {
        QList<AlarmData> alarms;
        store.getAllDataPage("AlarmData"_q, &alarms, ""_q, 0, 0, 0);
        Rows rows;
        for (const AlarmData &active : alarms)
            rows.append({active.alarmObject, active.alarmType, active.currentValue, active.description});
        return rows;
    },
    [](const Bytes &columns) {
        const bool active = columns.at(7).isEmpty() && columns.at(8).isEmpty();
        return active ? Rows({{read(columns.at(2)), read(columns.at(3)), read(columns.at(4)), read(columns.at(6))}})
                      : Rows();
    },
};

const TextStore operatorLog{
    "operatorLog",
    "operatorLogDB",
    "OperatorLog",
    {"DATETIME"_q, "userName"_q, "logName"_q, "message"_q},
    {"2024-05-06 07:08:09.123"_q, "admin"_q, "Login"_q, "Logged in"_q},
    0,
    [](const QStringList &row) {
        return filled(2, {row.at(0), escaped(row.at(1)), escaped(row.at(2)), escaped(row.at(3))});
    },
    [](Store &store) {
        QList<OperatorLogData> entries;
        store.getCurrData("OperatorLog"_q, &entries, "asc"_q, 9);
        return textsOf(entries);
    },
    [](const Bytes &columns) {
        const auto time = QDateTime::fromString(read(columns.at(0)), "yyyy-MM-dd hh:mm:ss.zzz"_q);
        return textsOf({{read(columns.at(1)), read(columns.at(2)), read(columns.at(3)), time}});
    },
};

struct Text {
    const char *name;
    QString text;
};

QString codeUnits(std::initializer_list<ushort> units)
{
    QString text;
    for (const ushort unit : units)
        text.append(QChar(unit));
    return text;
}

QString codeUnitsFromTo(ushort from, ushort to)
{
    QString text;
    for (ushort unit = from; unit <= to; ++unit)
        text.append(QChar(unit));
    return text;
}

const Text texts[] = {
    {"null", QString()},
    {"empty", ""_q},
    {"blank", " "_q},
    {"blanks_around", "  a  b  "_q},
    {"printable_ascii_without_quote", codeUnitsFromTo(0x20, 0x26) + codeUnitsFromTo(0x28, 0x7E)},
    {"quote", "'"_q},
    {"quote_in_a_word", "it's high"_q},
    {"two_quotes", "''"_q},
    {"two_quotes_in_a_word", "a''b"_q},
    {"quotes_at_the_ends", "'a'"_q},
    {"quotes_in_runs", "' '' ''' ''''"_q},
    {"double_quotes", "\"high\""_q},
    {"grave_and_acute", "`a´"_q},
    {"backslashes", "\\' \\n \\\\"_q},
    {"backslashes_without_quote", "C:\\n\\0\\"_q},
    {"sql_comment", "a -- b /* c */ ; d"_q},
    {"percent_signs", "100 % %% %"_q},
    {"printf_markers", "%s %d %n %08x"_q},
    {"marker_1", "%1"_q},
    {"marker_2", "%2"_q},
    {"marker_3", "a%3b"_q},
    {"marker_4", "%4%4"_q},
    {"marker_5", "%5"_q},
    {"marker_8", "%8"_q},
    {"marker_9", "%9"_q},
    {"markers_localised", "%L3 %L5 %L9"_q},
    {"markers_of_two_digits", "%10 %99"_q},
    {"markers_all", "%1%2%3%4%5%6%7%8%9"_q},
    {"line_feed", "a\nb\n"_q},
    {"carriage_return", "a\r\nb\r"_q},
    {"tab", "\ta\tb"_q},
    {"controls", codeUnitsFromTo(0x01, 0x1F) + QChar(0x7F)},
    {"nul_inside", codeUnits({'a', 0, 'b'})},
    {"nul_first", codeUnits({0, 'a'})},
    {"nul_last", codeUnits({'a', 0})},
    {"nul_behind_a_quote", codeUnits({'\'', 0, '\''})},
    {"slashes", "1/2 m/s //"_q},
    {"latin1_letters", "Größe Ångström ÿ"_q},
    {"latin1_controls", codeUnitsFromTo(0x80, 0x9F)},
    {"latin1_upper_half", codeUnitsFromTo(0xA0, 0xFF)},
    {"first_behind_latin1", codeUnits({0x100})},
    {"windows_1252", "€ „a“ – …"_q},
    {"typographic_quotes", "it’s ‘high’ ＇"_q},
    {"greek", "θερμοκρασία Ω"_q},
    {"cyrillic", "Давление"_q},
    {"hebrew", "טמפרטורה"_q},
    {"arabic", "درجة الحرارة"_q},
    {"devanagari", "तापमान"_q},
    {"thai", "อุณหภูมิ"_q},
    {"chinese", "温度报警"_q},
    {"japanese", "圧力センサー"_q},
    {"korean", "온도"_q},
    {"combining", "a\u0301\u0308"_q},
    {"emoji", "pump 😀"_q},
    {"emoji_joined", "👩‍🔧🇩🇪"_q},
    {"last_code_point", codeUnits({0xDBFF, 0xDFFF})},
    {"noncharacters", codeUnits({0xFFFE, 0xFFFF, 0xFDD0})},
    {"replacement_character", codeUnits({0xFFFD})},
    {"high_surrogate_alone", codeUnits({'a', 0xD83D, 'b'})},
    {"low_surrogate_alone", codeUnits({'a', 0xDE00, 'b'})},
    {"high_surrogate_last", codeUnits({'a', 0xD83D})},
    {"surrogates_swapped", codeUnits({0xDE00, 0xD83D})},
    {"byte_order_mark", codeUnits({0xFEFF, 'a'})},
    {"byte_order_marks", codeUnits({0xFEFF, 0xFEFF, 'a'})},
    {"byte_order_mark_inside", codeUnits({'a', 0xFEFF, 'b'})},
    {"byte_order_mark_alone", codeUnits({0xFEFF})},
    {"long", QString(100000, QChar(0xE9))},
};

class TextsTest : public StoreTest
{
protected:
    void openWithTable(const TextStore &kind)
    {
        open(kind.key);
        ASSERT_TRUE(store().createTable(QString::fromLatin1(kind.table), "config"_q));
        log.take();
    }
    /// The cells of all rows, as the bytes that stand in the file.
    QList<Bytes> bytesInFile(const TextStore &kind)
    {
        QList<Bytes> rows;
        const QString sql =
            "select hex("_q + kind.columns.join("), hex("_q) + ") from "_q + QString::fromLatin1(kind.table);
        for (const QStringList &row : rowsOf(path(), sql)) {
            rows.append(Bytes());
            for (const QString &cell : row)
                rows.last().append(QByteArray::fromHex(cell.toLatin1()));
        }
        return rows;
    }
    void insert(const TextStore &kind, const QStringList &row)
    {
        Rows rows{row};
        store().insertManyDatas(rows, QString::fromLatin1(kind.table));
        EXPECT_EQ(rows, Rows{row}) << "the caller's rows were changed";
    }
};

using TextCase = std::tuple<TextStore, Text>;

class Texts : public TextsTest, public ::testing::WithParamInterface<TextCase>
{
};
INSTANTIATE_TEST_SUITE_P(, Texts,
                         ::testing::Combine(::testing::Values(history, alarm, operatorLog), ::testing::ValuesIn(texts)),
                         [](const auto &test) {
                             return std::string(std::get<0>(test.param).name) + "_" + std::get<1>(test.param).name;
                         });

TEST_P(Texts, StandInTheFileAndComeBackAsTheirStoreConvertsThem)
{
    const TextStore &kind = std::get<0>(GetParam());
    openWithTable(kind);
    for (int cell = kind.firstTextCell; cell < kind.row.size(); ++cell) {
        QStringList row = kind.row;
        row[cell] = std::get<1>(GetParam()).text;

        Bytes stored;
        bool lost = false;
        for (const QString &pasted : kind.pasted(row)) {
            const std::optional<QByteArray> bytes = literal(pasted);
            lost = lost || !bytes;
            stored.append(bytes.value_or(QByteArray()));
        }
        QStringList answer;
        for (const QByteArray &bytes : stored)
            answer.append(read(bytes));

        insert(kind, row);

        EXPECT_EQ(bytesInFile(kind), lost ? QList<Bytes>() : QList<Bytes>({stored})) << "cell " << cell;
        Rows answers;
        store().selectOldDataOfRows(QString::fromLatin1(kind.table), 9, answers);
        for (QStringList &columns : answers)
            columns.removeFirst(); // the ID
        EXPECT_EQ(answers, lost ? Rows() : Rows({answer})) << "cell " << cell;
        EXPECT_EQ(kind.records(store()), lost ? Rows() : kind.expectedRecords(stored)) << "cell " << cell;
        EXPECT_EQ(log.take(), QStringList()) << "cell " << cell;

        PlainConnection(path()).run("pragma synchronous = off; delete from "_q + QString::fromLatin1(kind.table));
    }
}

// The same, written out for the texts that matter most.

TEST_F(TextsTest, HistoryKeepsLatin1AndTurnsAllElseIntoQuestionMarks)
{
    openWithTable(history);
    insert(history, {"2024-05-06 07:08:09"_q, "Größe 温度 😀 €"_q});
    EXPECT_EQ(bytesInFile(history).value(0).value(1), "Gr\xC3\xB6\xC3\x9F"
                                                      "e ?? ?? ?");
    EXPECT_EQ(history.records(store()), Rows({{"2024-05-06"_q, "07:08:09"_q, "Größe ?? ?? ?"_q}}));
}

TEST_F(TextsTest, AnAlarmsDescriptionIsEncodedOnceMoreAndItsOtherCellsAreNot)
{
    openWithTable(alarm);
    QStringList row = alarm.row;
    row[3] = "Größe 温 😀"_q;
    row[7] = "Größe's"_q;
    insert(alarm, row);
    const Bytes cells = bytesInFile(alarm).value(0);
    EXPECT_EQ(cells.value(2), "Gr\xC3\xB6\xC3\x9F"
                              "e \xE6\xB8\xA9 \xF0\x9F\x98\x80");
    EXPECT_EQ(cells.value(6), "Gr\xC3\x83\xC2\xB6\xC3\x83\xC2\x9F"
                              "e's");
    EXPECT_EQ(alarm.records(store()), Rows({{"Größe 温 😀"_q, "High"_q, "87.5"_q, "GrÃ¶Ã\u009Fe's"_q}}));
}

TEST_F(TextsTest, TheOperatorLogKeepsEveryText)
{
    openWithTable(operatorLog);
    const QStringList row{"2024-05-06 07:08:09.123"_q, "Jürgen O'Neill"_q, "温度"_q, "it's 😀\n\t\"%1\""_q};
    insert(operatorLog, row);
    const Bytes cells = bytesInFile(operatorLog).value(0);
    EXPECT_EQ(cells.value(1), "J\xC3\xBCrgen O'Neill");
    EXPECT_EQ(cells.value(2), "\xE6\xB8\xA9\xE5\xBA\xA6");
    EXPECT_EQ(cells.value(3), "it's \xF0\x9F\x98\x80\n\t\"%1\"");
    EXPECT_EQ(operatorLog.records(store()), Rows({row}));
}

TEST_F(TextsTest, ANulEndsAConvertedTextAndLosesTheRowOfAnyOther)
{
    const QString text = codeUnits({'a', 0, 'b'});
    openWithTable(history);
    insert(history, {"2024-05-06 07:08:09"_q, text});
    EXPECT_EQ(bytesInFile(history).value(0).value(1), "a");

    closeStore();
    openWithTable(alarm);
    QStringList row = alarm.row;
    row[7] = text;
    insert(alarm, row);
    row[3] = text;
    insert(alarm, row);
    EXPECT_EQ(bytesInFile(alarm).size(), 1);
    EXPECT_EQ(bytesInFile(alarm).value(0).value(6), "a");

    closeStore();
    openWithTable(operatorLog);
    insert(operatorLog, {"2024-05-06 07:08:09.123"_q, "admin"_q, "log"_q, text});
    EXPECT_EQ(bytesInFile(operatorLog).size(), 0);
}

TEST_F(TextsTest, AByteOrderMarkStandsInTheFileButIsNotReadBack)
{
    openWithTable(operatorLog);
    insert(operatorLog, {"2024-05-06 07:08:09.123"_q, codeUnits({0xFEFF, 'a'}), "log"_q, "message"_q});
    EXPECT_EQ(bytesInFile(operatorLog).value(0).value(1), "\xEF\xBB\xBF"
                                                          "a");
    EXPECT_EQ(operatorLog.records(store()).value(0).value(1), "a"_q);
}

TEST_F(TextsTest, AnUnescapedCellIsSql)
{
    openWithTable(history);
    insert(history, {"2024-05-06 07:08:09"_q, "1' || '2"_q});
    EXPECT_EQ(bytesInFile(history).value(0).value(1), "12");

    closeStore();
    openWithTable(alarm);
    QStringList row = alarm.row;
    row[3] = row[7] = "1' || '2"_q;
    insert(alarm, row);
    EXPECT_EQ(bytesInFile(alarm).value(0).value(2), "12");
    EXPECT_EQ(bytesInFile(alarm).value(0).value(6), "1' || '2");
}

TEST_F(TextsTest, AStatementOfTheHostsIsNotConverted)
{
    for (const TextStore &kind : {history, alarm}) {
        closeStore();
        openWithTable(kind);
        Rows result;
        const QString text = "Größe 温度 😀"_q;
        const QString sql = "insert into %1(DATETIME) values('%2')"_q.arg(QString::fromLatin1(kind.table), text);
        EXPECT_TRUE(store().execSQL({sql}, result, 0));
        EXPECT_TRUE(store().execSQL({sql}, result, 2));
        EXPECT_TRUE(store().execSQL({"select DATETIME from "_q + QString::fromLatin1(kind.table)}, result, 1));
        EXPECT_EQ(result, Rows({{text}, {text}}));
    }
}

// --- Names
// -----------------------------------------------------------------------------------------------------------

TEST_F(TextsTest, AnOperatorLogTableMayHaveAnyName)
{
    open("operatorLogDB");
    for (const QString &table : {"Größe"_q, "温度"_q, "Давление_😀"_q}) {
        EXPECT_TRUE(store().createTable(table, QString()));
        EXPECT_TRUE(store().tableIsExist(table));
        log.take();
        Rows rows{operatorLog.row};
        store().insertManyDatas(rows, table);
        QList<OperatorLogData> entries;
        store().getCurrData(table, &entries, "desc"_q, 9);
        store().getAllDataPage(table, &entries, "desc"_q, 0, 9, 9);
        store().findDataOfUserName("admin"_q, &entries, table, "desc"_q);
        store().findDataOfTime("2024-01-01"_q, "2024-12-31"_q, &entries, table, "desc"_q);
        EXPECT_EQ(textsOf(entries), Rows({operatorLog.row, operatorLog.row, operatorLog.row, operatorLog.row}));
        EXPECT_EQ(store().getDataCountOfUserQuery("admin"_q, table), 1);
        EXPECT_EQ(log.take(), QStringList());
    }
}

TEST_F(TextsTest, AHistoryTableThatIsNotNamedInLatin1TakesNoSamples)
{
    open("historyDB");
    for (const QString &table : {"Größe"_q, "温度"_q}) {
        EXPECT_TRUE(store().createTable(table, "config"_q));
        log.take();
        Rows rows{history.row};
        store().insertManyDatas(rows, table);
        QList<DataContent> samples;
        store().getCurrData(table, &samples, "desc"_q, 9);
        EXPECT_EQ(samples.size(),
                  table == "Größe"_q ? 1 : 0); // the other one's rows went to "??", which is none
        EXPECT_EQ(log.take(), QStringList());
    }
}

TEST_F(TextsTest, AUserIsFoundByAnyName)
{
    openWithTable(operatorLog);
    for (const QString &user : {"Jürgen"_q, "Юрий"_q, "温 😀"_q, "a\"b\\c"_q, "a\nb"_q}) {
        insert(operatorLog, {"2024-05-06 07:08:09.123"_q, user, "log"_q, "message"_q});
        QList<OperatorLogData> entries;
        store().findDataOfUserName(user, &entries, "OperatorLog"_q, "asc"_q);
        ASSERT_EQ(entries.size(), 1);
        EXPECT_EQ(entries.first().userName, user);
        EXPECT_EQ(store().getDataCountOfUserQuery(user, "OperatorLog"_q), 1);
    }
}

// --- The debug output
// ------------------------------------------------------------------------------------------------

TEST_F(TextsTest, AnErrorTextThatIsNotLatin1IsLoggedByteByByteWhereItIsAString)
{
    const char *error = "no such table: Größe_温度_😀";
    const QString table = "Größe_温度_😀"_q;
    const QString logged = streamed("findDataOfTime", QString::fromLatin1(error));
    for (const TextStore &kind : {history, alarm, operatorLog}) {
        closeStore();
        open(kind.key);
        QList<DataContent> nothing; // no store reads what a failed query was given
        store().findDataOfTime("2024-01-01"_q, "2024-12-31"_q, &nothing, table, "asc"_q);
        EXPECT_EQ(log.take(), QStringList(logged)) << kind.name;
    }
}

TEST_F(TextsTest, AnErrorTextThatIsNotLatin1IsLoggedAsACStringWhereItIsBare)
{
    for (const TextStore &kind : {history, alarm}) {
        closeStore();
        open(kind.key);
        Rows result;
        EXPECT_FALSE(store().execSQL({"delete from 温度_😀"_q}, result, 0));
        EXPECT_EQ(log.take(), QStringList(streamed("no such table: 温度_😀"))) << kind.name;
    }
}

TEST_F(TextsTest, AFailedStatementOfABatchIsLoggedEncodedOnceMore)
{
    for (const TextStore &kind : {history, alarm}) {
        closeStore();
        open(kind.key);
        Rows result;
        EXPECT_FALSE(store().execSQL({"delete from Größe"_q}, result, 2));
        EXPECT_EQ(log.take(),
                  QStringList(streamed("SQL=delete from GrÃ¶Ã\u009Fe   error:no such table: GrÃ¶Ã\u009Fe"_q)))
            << kind.name;
    }
}

} // namespace
