// SPDX-License-Identifier: MIT
#include "terminal/table_writer.h"

#include "storefile/texts.h"
#include "terminal/text.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

namespace device_db
{

namespace
{

constexpr int rowsMeasured = 1000; // the widths of a table are those of its first rows

QString forPeople(const OutputColumn &column, const QByteArray &cell)
{
    return QString::fromUtf8(column.twice ? decodedTwice(cell) : cell);
}

class TableWriter : public RowWriter
{
public:
    TableWriter(const QVector<OutputColumn> &columns, Output &output) : m_columns(columns), m_output(output) {}

    bool row(const QVector<QByteArray> &cells, Tone tone) override
    {
        QStringList texts;
        for (int i = 0; i < m_columns.size(); ++i)
            texts << (cells.at(i).isNull() ? QStringLiteral("NULL") : visible(forPeople(m_columns.at(i), cells.at(i))));
        ++m_rows;
        if (!m_widths.isEmpty())
            return print(texts, tone);
        m_waiting.append({texts, tone});
        return m_waiting.size() < rowsMeasured || printWaiting();
    }

    bool settle() override { return !m_widths.isEmpty() || m_waiting.isEmpty() || printWaiting(); }
    bool end() override
    {
        if (m_rows == 0)
            return m_output.write("no rows\n");
        if (!settle())
            return false;
        return m_output.write(rowsText(m_rows).toUtf8() + '\n', Tone::Faint);
    }

private:
    bool printWaiting()
    {
        QStringList titles;
        QStringList lines;
        for (const OutputColumn &column : m_columns) {
            titles << column.title;
            m_widths << displayWidth(column.title);
        }
        QVector<int> contents(int(m_columns.size()), 0);
        for (const auto &waiting : m_waiting) {
            for (int i = 0; i < m_columns.size(); ++i)
                contents[i] = std::max(contents.at(i), displayWidth(waiting.first.at(i)));
        }
        for (int i = 0; i < m_columns.size(); ++i)
            m_widths[i] = std::max(m_widths.at(i), contents.at(i));
        fit(contents);
        for (const int width : m_widths)
            lines << QString(width, QChar(0x2500));
        if (!print(titles, Tone::Plain) || !print(lines, Tone::Faint))
            return false;
        for (const auto &waiting : m_waiting) {
            if (!print(waiting.first, waiting.second))
                return false;
        }
        m_waiting.clear();
        return true;
    }

    // Until the line fits: empty columns give up their titles, then the widest of the others gives, the main one and
    // those that are fixed last.
    void fit(const QVector<int> &contents)
    {
        if (m_output.width() == 0)
            return;
        int excess = -m_output.width() + 2 * int(m_widths.size() - 1);
        for (const int width : m_widths)
            excess += width;
        for (int i = 0; i < m_widths.size() && excess > 0; ++i) {
            const int given = contents.at(i) == 0 ? std::min(excess, m_widths.at(i) - 1) : 0;
            m_widths[i] -= given;
            excess -= given;
        }
        const auto rank = [](const OutputColumn &column) { return column.fixed ? 2 : column.main ? 1 : 0; };
        for (const int turn : {0, 1, 2}) {
            while (excess > 0) {
                int widest = -1;
                for (int i = 0; i < m_widths.size(); ++i) {
                    if (rank(m_columns.at(i)) <= turn && m_widths.at(i) > m_columns.at(i).least &&
                        (widest < 0 || m_widths.at(i) > m_widths.at(widest)))
                        widest = i;
                }
                if (widest < 0)
                    break;
                --m_widths[widest];
                --excess;
            }
        }
    }

    bool print(const QStringList &cells, Tone tone)
    {
        QString line;
        for (int i = 0; i < m_columns.size(); ++i) {
            const QString cell = m_output.width() > 0 ? cutTo(cells.at(i), m_widths.at(i)) : cells.at(i);
            const QString padding(std::max(0, m_widths.at(i) - displayWidth(cell)), QLatin1Char(' '));
            if (i > 0)
                line += QLatin1String("  ");
            if (m_columns.at(i).right)
                line += padding + cell;
            else
                line += cell + padding;
        }
        while (line.endsWith(QLatin1Char(' ')))
            line.chop(1);
        return m_output.write(line.toUtf8() + '\n', tone);
    }

    QVector<OutputColumn> m_columns;
    Output &m_output;
    QVector<int> m_widths;
    QVector<std::pair<QStringList, Tone>> m_waiting;
    qint64 m_rows = 0;
};

class FullWriter : public RowWriter
{
public:
    FullWriter(const QVector<OutputColumn> &columns, Output &output) : m_columns(columns), m_output(output)
    {
        for (const OutputColumn &column : columns)
            m_width = std::max(m_width, displayWidth(column.title));
    }

    bool row(const QVector<QByteArray> &cells, Tone tone) override
    {
        QString block = m_first ? QString() : QStringLiteral("\n");
        m_first = false;
        for (int i = 0; i < m_columns.size(); ++i) {
            const QString title = m_columns.at(i).title;
            block += title + QString(m_width - displayWidth(title) + 2, QLatin1Char(' '));
            QString text = forPeople(m_columns.at(i), cells.at(i)).replace(QLatin1String("\r\n"), QLatin1String("\n"));
            QStringList lines = text.split(QLatin1Char('\n'));
            for (QString &line : lines)
                line = visible(line.replace(QLatin1Char('\t'), QLatin1String("    ")));
            block += lines.join(QLatin1Char('\n') + QString(m_width + 2, QLatin1Char(' '))) + QLatin1Char('\n');
        }
        return m_output.write(block.toUtf8(), tone);
    }

private:
    QVector<OutputColumn> m_columns;
    Output &m_output;
    int m_width = 0;
    bool m_first = true;
};

class CsvWriter : public RowWriter
{
public:
    CsvWriter(const QVector<OutputColumn> &columns, Output &output) : m_output(output)
    {
        for (const OutputColumn &column : columns)
            m_header << column.key;
    }

    bool row(const QVector<QByteArray> &cells, Tone) override
    {
        return header() && m_output.writeData(csvRow(cells, ','));
    }
    bool end() override { return header(); }

private:
    bool header()
    {
        if (m_header.isEmpty())
            return true;
        const bool written = m_output.writeData(csvRow(m_header, ','));
        m_header.clear();
        return written;
    }

    QVector<QByteArray> m_header;
    Output &m_output;
};

class JsonWriter : public RowWriter
{
public:
    JsonWriter(const QVector<OutputColumn> &columns, Output &output) : m_columns(columns), m_output(output) {}

    bool row(const QVector<QByteArray> &cells, Tone) override { return m_output.writeData(jsonRow(m_columns, cells)); }

private:
    QVector<OutputColumn> m_columns;
    Output &m_output;
};

} // namespace

std::unique_ptr<RowWriter> rowWriter(Format format, const QVector<OutputColumn> &columns, Output &output)
{
    switch (format) {
    case Format::Full:
        return std::make_unique<FullWriter>(columns, output);
    case Format::Csv:
        return std::make_unique<CsvWriter>(columns, output);
    case Format::Json:
        return std::make_unique<JsonWriter>(columns, output);
    case Format::Table:
        break;
    }
    return std::make_unique<TableWriter>(columns, output);
}

QByteArray csvRow(const QVector<QByteArray> &cells, char separator)
{
    QByteArray row;
    for (int i = 0; i < cells.size(); ++i) {
        const QByteArray &cell = cells.at(i);
        if (i > 0)
            row += separator;
        const bool quote = std::any_of(cell.begin(), cell.end(), [separator](char c) {
            return c == separator || c == '"' || c == '\n' || c == '\r';
        });
        if (!quote) {
            row += cell;
            continue;
        }
        row += '"';
        row += QByteArray(cell).replace('"', "\"\"");
        row += '"';
    }
    // A row of one empty cell would be an empty line, which is not a row.
    if (row.isEmpty())
        row = "\"\"";
    row += '\n';
    return row;
}

namespace
{

QByteArray jsonText(const QByteArray &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{fromUtf8(text)}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2); // between the brackets
}

} // namespace

QByteArray jsonRow(const QVector<OutputColumn> &columns, const QVector<QByteArray> &cells)
{
    // Put together here because QJsonObject would sort the columns by name; each text is Qt's.
    QByteArray row("{");
    for (int i = 0; i < columns.size(); ++i) {
        if (i > 0)
            row += ',';
        row += jsonText(columns.at(i).key) + ':';
        const QByteArray &cell = cells.at(i);
        if (cell.isNull())
            row += "null";
        else
            row += columns.at(i).number && isJsonNumber(cell) ? cell : jsonText(cell);
    }
    row += "}\n";
    return row;
}

} // namespace device_db
