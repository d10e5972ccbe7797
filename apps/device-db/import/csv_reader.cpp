// SPDX-License-Identifier: MIT
#include "import/csv_reader.h"

#include <csv.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace device_db
{

namespace
{

constexpr qint64 bufferSize = 1 << 20;
constexpr size_t longestCell = 16 << 20; // an open quote must not take the whole input into memory

} // namespace

struct CsvReader::Parser {
    explicit Parser(char separator)
    {
        if (csv_init(&csv, CSV_STRICT | CSV_STRICT_FINI) != 0)
            throw std::bad_alloc();
        csv_set_delim(&csv, static_cast<unsigned char>(separator));
        csv_set_space_func(&csv, [](unsigned char) { return 0; }); // blanks around a cell belong to it
    }
    ~Parser() { csv_free(&csv); }
    Parser(const Parser &) = delete;
    Parser &operator=(const Parser &) = delete;

    bool isBetweenRows() const { return csv.pstate == 0; }

    csv_parser csv{};
};

CsvReader::CsvReader(QIODevice *input, char separator, qint64 offset, qint64 line)
    : m_input(input), m_parser(std::make_unique<Parser>(separator)), m_offset(offset), m_line(line)
{
    if (offset == 0 && input->peek(3) == "\xef\xbb\xbf")
        m_offset += input->read(3).size();
}

CsvReader::~CsvReader() = default;

std::optional<QStringList> CsvReader::header()
{
    InputRow row;
    if (!next(row))
        return std::nullopt;
    QStringList names;
    for (const QByteArray &cell : row.cells)
        names << QString::fromUtf8(cell);
    return names;
}

bool CsvReader::next(InputRow &row)
{
    while (m_rows.empty()) {
        if (m_ended || !feed())
            return false;
    }
    row = std::move(m_rows.front());
    m_rows.pop_front();
    return true;
}

void CsvReader::fault(const QByteArray &why, const QByteArray &text)
{
    m_current.fault = why;
    m_current.cells = {text};
    m_rows.push_back(std::move(m_current));
    m_current = InputRow();
    const char separator = char(csv_get_delim(&m_parser->csv));
    m_parser = std::make_unique<Parser>(separator);
}

// One line at a time, so that the number of the line is known.
bool CsvReader::feed()
{
    const auto endOfCell = [](void *cell, size_t size, void *self) {
        auto &cells = static_cast<CsvReader *>(self)->m_current.cells;
        cells.append(size == 0 ? QByteArray("") : QByteArray(static_cast<const char *>(cell), qsizetype(size)));
    };
    const auto endOfRow = [](int, void *self) {
        auto &reader = *static_cast<CsvReader *>(self);
        const qint64 line = reader.m_line; // of a next row after a lone carriage return
        reader.m_rows.push_back(std::move(reader.m_current));
        reader.m_current = InputRow();
        reader.m_current.line = line;
    };

    if (m_place == m_buffer.size()) {
        m_buffer = m_input->read(bufferSize);
        m_place = 0;
        if (m_buffer.isEmpty()) {
            m_ended = true;
            if (csv_fini(&m_parser->csv, endOfCell, endOfRow, this) != 0)
                fault("a quote is opened and never closed; the rest of the input was taken for its text",
                      QByteArray(""));
            m_betweenRows = true;
            return !m_rows.empty();
        }
    }
    const char *const begin = m_buffer.constData() + m_place;
    const qsizetype left = m_buffer.size() - m_place;
    const auto *const newline = static_cast<const char *>(std::memchr(begin, '\n', size_t(left)));
    const qsizetype size = newline ? newline - begin + 1 : left;
    if (m_parser->isBetweenRows())
        m_current.line = m_line;
    if (csv_parse(&m_parser->csv, begin, size_t(size), endOfCell, endOfRow, this) != size_t(size))
        fault("a quote within a cell, or text after a closing quote", QByteArray(begin, size).trimmed());
    else if (m_parser->csv.entry_pos > longestCell)
        fault("a cell is longer than 16 MB; is a quote left open?", QByteArray(""));
    m_place += size;
    m_offset += size;
    m_line += newline ? 1 : 0;
    m_betweenRows = newline && m_parser->isBetweenRows();
    return true;
}

} // namespace device_db
