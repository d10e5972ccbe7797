// SPDX-License-Identifier: MIT
#include "row_encoder.h"

#include "text_hash.h"

#include "device/number.h"
#include "storefile/texts.h"
#include "storefile/times.h"

#include <cctype>
#include <cstring>

#include <sqlite3.h>

namespace device_ship
{

using device_db::Kind;
using device_db::Statement;

namespace
{

QByteArray view(std::string_view text)
{
    return QByteArray::fromRawData(text.data(), int(text.size()));
}

std::string quotedJson(std::string_view text)
{
    std::string json("\"");
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(c));
            json += escape;
        } else {
            json += c;
        }
    }
    return json + '"';
}

void appendCell(QByteArray &lines, std::string_view text)
{
    if (!text.data()) {
        lines += "\\N";
        return;
    }
    std::size_t plain = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const char letter = c == '\\' ? '\\' : c == '\n' ? 'n' : c == '\r' ? 'r' : c == '\t' ? 't' : '\0';
        if (!letter)
            continue;
        lines.append(text.data() + plain, int(i - plain));
        lines += '\\';
        lines += letter;
        plain = i + 1;
    }
    lines.append(text.data() + plain, int(text.size() - plain));
}

// As PostgreSQL writes a field of a composite value.
void appendField(QByteArray &record, std::string_view text)
{
    record += record.isEmpty() ? '(' : ',';
    if (!text.data())
        return;
    bool quotes = text.empty();
    for (const char c : text)
        quotes |= c == '"' || c == '\\' || c == '(' || c == ')' || c == ',' || c == ' ' || (c >= '\t' && c <= '\r');
    if (!quotes) {
        record.append(text.data(), int(text.size()));
        return;
    }
    record += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\')
            record += c;
        record += c;
    }
    record += '"';
}

// As PostgreSQL writes a timestamp: fractions without zeros at their end.
std::string_view shortest(std::string_view time)
{
    if (time.size() <= 19)
        return time;
    while (time.back() == '0')
        time.remove_suffix(1);
    if (time.back() == '.')
        time.remove_suffix(1);
    return time;
}

bool isEnd(Kind kind, int column)
{
    return kind == Kind::Alarms && (column == device_db::AlarmEndDate || column == device_db::AlarmEndTime);
}

} // namespace

bool isText(std::string_view bytes)
{
    const auto *at = reinterpret_cast<const unsigned char *>(bytes.data());
    const auto *const end = at + bytes.size();
    while (at != end) {
        const unsigned first = *at++;
        if (first == 0)
            return false;
        if (first < 0x80)
            continue;
        const int more = first >= 0xf0 ? 3 : first >= 0xe0 ? 2 : 1;
        if (first < 0xc2 || first > 0xf4 || end - at < more)
            return false;
        const unsigned second = *at;
        if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) || (first == 0xf0 && second < 0x90) ||
            (first == 0xf4 && second > 0x8f))
            return false;
        for (int i = 0; i < more; ++i) {
            if ((*at++ & 0xc0) != 0x80)
                return false;
        }
    }
    return true;
}

const char *RowEncoder::tableOf(Kind kind)
{
    return kind == Kind::Samples ? "sample" : kind == Kind::Alarms ? "alarm" : "log";
}

const char *RowEncoder::columnsOf(Kind kind)
{
    switch (kind) {
    case Kind::Samples:
        return "id,tbl,gen,dt,num,val,odd";
    case Kind::Alarms:
        return "id,tbl,gen,level,dt,object,type,value,\"limit\",description,odd,end_date,end_time,end_odd";
    default:
        return "id,tbl,gen,dt,user_name,log_name,message,odd";
    }
}

void RowEncoder::begin(qint64 id)
{
    m_id = id;
    m_idText = std::to_string(id);
    m_number.clear();
    m_odd.clear();
    m_endOdd.clear();
}

bool RowEncoder::read(const Statement &row)
{
    begin(row.number(0));
    const int columns = int(device_db::columnsOf(m_kind).size());
    std::size_t size = 0;
    for (int column = 1; column <= columns; ++column) {
        const int type = row.type(column);
        if (type == SQLITE_FLOAT) { // SQLite's own text has 15 digits
            take(column, type, device::numberText(row.real(column)).toStdString());
            continue;
        }
        const std::string_view bytes = row.bytes(column);
        size += bytes.size();
        if (size > std::size_t(largestCell))
            return false;
        take(column, type, bytes);
    }
    finish();
    return true;
}

void RowEncoder::read(qint64 id, QList<Cell> cells)
{
    begin(id);
    m_given = std::move(cells);
    for (int column = 1; column <= int(device_db::columnsOf(m_kind).size()); ++column)
        take(column, m_given.at(column - 1));
    finish();
}

void RowEncoder::take(int column, const Cell &cell)
{
    if (cell.refused < 0)
        return take(column, cell.type,
                    cell.bytes.isNull() ? std::string_view()
                                        : std::string_view(cell.bytes.constData(), size_t(cell.bytes.size())));
    m_cells[size_t(column)].text = {};
    std::string &odd = isEnd(m_kind, column) ? m_endOdd : m_odd;
    odd += odd.empty() ? "{" : ",";
    odd += quotedJson(device_db::columnsOf(m_kind).at(column - 1).name);
    odd += ":{\"refused\":" + quotedJson(cell.why.toStdString()) + ",\"size\":" + std::to_string(cell.refused) + "}";
}

void RowEncoder::take(int column, int type, std::string_view bytes)
{
    Field &field = m_cells[size_t(column)];
    field.text = {};
    const device_db::KnownColumn &known = device_db::columnsOf(m_kind).at(column - 1);
    const auto odd = [&](const char *what, const std::string &json) {
        std::string &all = isEnd(m_kind, column) ? m_endOdd : m_odd;
        all += all.empty() ? "{" : ",";
        all += quotedJson(known.name) + ":{\"" + what + "\":" + json + "}";
    };
    const auto hex = [&] { return '"' + view(bytes).toHex().toStdString() + '"'; };
    if (type == SQLITE_NULL)
        return;
    if (type == SQLITE_BLOB)
        return odd("blob", hex());
    if (type == SQLITE_TEXT && !isText(bytes))
        return odd("bytes", hex());
    const bool isLevel = m_kind == Kind::Alarms && column == device_db::AlarmLevel;
    if (type == SQLITE_INTEGER && isLevel) {
        field.keep(bytes);
        return;
    }
    if (type == SQLITE_INTEGER)
        return odd("integer", std::string(bytes));
    if (type == SQLITE_FLOAT)
        return odd("real", quotedJson(bytes));
    if (isLevel)
        return odd("text", quotedJson(bytes));
    if (column == device_db::timeColumnOf(m_kind)) {
        if (!device_db::isTime(view(bytes), device_db::hasMilliseconds(m_kind)))
            return odd("text", quotedJson(bytes));
        field.text = shortest(bytes);
        return;
    }
    if (known.twice) {
        const QByteArray meant = device_db::decodedTwice(view(bytes));
        field.keep({meant.constData(), size_t(meant.size())});
        return;
    }
    field.text = bytes;
    if (m_kind == Kind::Samples) {
        if (device::number(view(bytes)))
            m_number = device::numberText(*device::number(view(bytes))).toStdString();
    }
}

void RowEncoder::finish()
{
    if (!m_odd.empty())
        m_odd += '}';
    if (!m_endOdd.empty())
        m_endOdd += '}';
}

bool RowEncoder::isActive() const
{
    const auto isEmptyText = [this](int column) {
        const std::string_view text = m_cells[size_t(column)].text;
        return text.data() && text.empty();
    };
    return m_kind == Kind::Alarms && isEmptyText(device_db::AlarmEndDate) && isEmptyText(device_db::AlarmEndTime);
}

void RowEncoder::appendTo(QByteArray &lines, int stream, int generation) const
{
    const auto next = [&](std::string_view text) {
        lines += '\t';
        appendCell(lines, text);
    };
    const auto orNull = [](const std::string &text) { return text.empty() ? std::string_view() : text; };
    lines.append(m_idText.data(), int(m_idText.size()));
    next(std::to_string(stream));
    next(std::to_string(generation));
    const int columns = int(device_db::columnsOf(m_kind).size());
    for (int column = 1; column <= columns; ++column) {
        if (m_kind == Kind::Samples && column == device_db::SampleValue)
            next(orNull(m_number));
        if (m_kind == Kind::Alarms && column == device_db::AlarmEndDate)
            next(orNull(m_odd));
        next(m_cells[size_t(column)].text);
    }
    next(orNull(m_kind == Kind::Alarms ? m_endOdd : m_odd));
    lines += '\n';
}

qint64 RowEncoder::digest() const
{
    QByteArray record;
    appendField(record, m_idText);
    if (m_kind == Kind::Alarms) { // the archive's order: the time first
        appendField(record, m_cells[device_db::AlarmStart].text);
        appendField(record, m_cells[device_db::AlarmLevel].text);
    }
    const int columns = int(device_db::columnsOf(m_kind).size());
    for (int column = m_kind == Kind::Alarms ? int(device_db::AlarmObject) : 1; column <= columns; ++column) {
        if (!isEnd(m_kind, column))
            appendField(record, m_cells[size_t(column)].text);
    }
    appendField(record, m_odd.empty() ? std::string_view() : m_odd);
    record += ')';
    return textHash(record);
}

qint64 RowEncoder::rest() const
{
    if (m_kind == Kind::Samples) {
        QByteArray number;
        if (!m_number.empty()) {
            const double value = QByteArray::fromStdString(m_number).toDouble();
            quint64 bits = 0;
            std::memcpy(&bits, &value, sizeof bits);
            number = QByteArray::number(bits, 16).rightJustified(16, '0');
        }
        return textHash(QByteArray::fromStdString(m_idText) + ' ' + number);
    }
    QByteArray record;
    appendField(record, m_idText);
    appendField(record, m_cells[device_db::AlarmEndDate].text);
    appendField(record, m_cells[device_db::AlarmEndTime].text);
    appendField(record, m_endOdd.empty() ? std::string_view() : m_endOdd);
    record += ')';
    return textHash(record);
}

RowEncoder::End RowEncoder::readEnd(const Statement &row, int dateColumn, int timeColumn)
{
    const auto cell = [&row](int column) { return Cell{row.type(column), row.cell(column), -1, {}}; };
    return readEnd(cell(dateColumn), cell(timeColumn));
}

RowEncoder::End RowEncoder::readEnd(const Cell &date, const Cell &time)
{
    RowEncoder encoder(Kind::Alarms);
    encoder.begin(0);
    encoder.take(device_db::AlarmEndDate, date);
    encoder.take(device_db::AlarmEndTime, time);
    encoder.finish();
    const auto copy = [](std::string_view text) {
        return text.data() ? QByteArray(text.data(), int(text.size())) : QByteArray();
    };
    return {copy(encoder.m_cells[device_db::AlarmEndDate].text), copy(encoder.m_cells[device_db::AlarmEndTime].text),
            encoder.m_endOdd.empty() ? QByteArray() : QByteArray::fromStdString(encoder.m_endOdd)};
}

} // namespace device_ship
