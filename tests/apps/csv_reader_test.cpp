// SPDX-License-Identifier: MIT
#include "import/csv_reader.h"

#include "terminal/table_writer.h"

#include "qt_printers.h"

#include <QBuffer>

#include <gtest/gtest.h>

#include <random>

using namespace device_db;

namespace
{

using Cells = QVector<QByteArray>;

struct Reading {
    QVector<Cells> rows;
    QVector<qint64> lines;
    QVector<QByteArray> faults;
};

Reading read(QByteArray text, char separator = ',')
{
    QBuffer buffer(&text);
    buffer.open(QIODevice::ReadOnly);
    CsvReader reader(&buffer, separator);
    Reading all;
    InputRow row;
    while (reader.next(row)) {
        all.rows.append(row.cells);
        all.lines.append(row.line);
        all.faults.append(row.fault);
    }
    return all;
}

TEST(CsvReader, KeepsBlanksQuotesAndLineEndsOfCells)
{
    const Reading all = read("a, b ,\"c\"\"d\"\n\"1\r\n2\",\"3\n4\",\"\t5,6\"\n");
    EXPECT_EQ(all.rows, (QVector<Cells>{{"a", " b ", "c\"d"}, {"1\r\n2", "3\n4", "\t5,6"}}));
    EXPECT_EQ(all.lines, (QVector<qint64>{1, 2}));
}

TEST(CsvReader, TakesEachKindOfLineEndAndNone)
{
    const QVector<Cells> rows{{"a", "b"}, {"c", "d"}};
    EXPECT_EQ(read("a,b\nc,d\n").rows, rows);
    EXPECT_EQ(read("a,b\r\nc,d\r\n").rows, rows);
    EXPECT_EQ(read("a,b\rc,d").rows, rows);
    EXPECT_EQ(read("\n\na,b\n\nc,d").rows, rows);
    EXPECT_EQ(read("\xef\xbb\xbf"
                   "a,b\nc,d")
                  .rows,
              rows);
    EXPECT_EQ(read("a;b\nc;d", ';').rows, rows);
    EXPECT_EQ(read("").rows, QVector<Cells>());
}

TEST(CsvReader, TellsTheLineWhereARowBegins)
{
    EXPECT_EQ(read("a\n\"b\n\n\"\n\nc\n").lines, (QVector<qint64>{1, 2, 6}));
}

TEST(CsvReader, GoesOnBehindARowThatIsNone)
{
    const Reading all = read("a,b\nc\"d,e\n\"f\"g,h\ni,j\n");
    EXPECT_EQ(all.rows, (QVector<Cells>{{"a", "b"}, {"c\"d,e"}, {"\"f\"g,h"}, {"i", "j"}}));
    EXPECT_EQ(all.lines, (QVector<qint64>{1, 2, 3, 4}));
    EXPECT_TRUE(all.faults.at(0).isEmpty() && all.faults.at(3).isEmpty());
    EXPECT_FALSE(all.faults.at(1).isEmpty() || all.faults.at(2).isEmpty());
}

TEST(CsvReader, AQuoteThatIsNeverClosedIsAFaultOfItsLine)
{
    const Reading all = read("a\n\"b\nc\nd");
    EXPECT_EQ(all.rows.size(), 2);
    EXPECT_EQ(all.lines.last(), 2);
    EXPECT_TRUE(all.faults.last().contains("never closed"));
}

TEST(CsvReader, BeginsAgainAtABoundary)
{
    QByteArray text("a\n\"b\nc\"\n\nd\r\ne\n");
    QVector<Cells> all = read(text).rows;
    QBuffer buffer(&text);
    buffer.open(QIODevice::ReadOnly);
    CsvReader reader(&buffer, ',');
    InputRow row;
    for (int seen = 1; reader.next(row); ++seen) {
        if (!reader.atBoundary())
            continue;
        QBuffer rest(&text);
        rest.open(QIODevice::ReadOnly);
        rest.seek(reader.offset());
        CsvReader second(&rest, ',', reader.offset(), reader.line());
        QVector<Cells> behind;
        QVector<qint64> lines;
        while (second.next(row)) {
            behind.append(row.cells);
            lines.append(row.line);
        }
        EXPECT_EQ(behind, all.mid(seen)) << seen;
        EXPECT_EQ(lines, read(text).lines.mid(seen)) << seen;
    }
}

// What csvRow() writes comes back, whatever the cells; also across the borders of the reader's buffer.
TEST(CsvReader, ReadsBackWhatIsWritten)
{
    std::mt19937 random(20240506);
    const QByteArray signs("ab,;\"\n\r\t \\'\0\xc3\xa4", 14);
    QVector<Cells> rows;
    QByteArray text;
    while (text.size() < (3 << 20)) {
        Cells cells;
        for (int i = 0; i < 3; ++i) {
            QByteArray cell("");
            for (auto length = random() % 200; length > 0; --length)
                cell += signs.at(int(random() % unsigned(signs.size())));
            cells.append(cell);
        }
        text += csvRow(cells, ';');
        rows.append(cells);
    }
    const Reading all = read(text, ';');
    EXPECT_EQ(all.rows, rows);
    EXPECT_EQ(all.faults.count(QByteArray()), rows.size());
}

TEST(InputRow, OfOneEmptyCellIsNoEmptyLine)
{
    EXPECT_EQ(csvRow({""}, ','), "\"\"\n");
    EXPECT_EQ(read(csvRow({""}, ',')).rows, (QVector<Cells>{{""}}));
}

} // namespace
