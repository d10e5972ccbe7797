// SPDX-License-Identifier: MIT
#include "storefile/salvage/row_kind.h"

#include "host/rollup_file.h"

#include <QStringList>

#include <algorithm>

namespace device_db
{

namespace
{

// "ID", "DATETIME", "Value": the first word of each column.
QStringList columnNames(const QString &columns)
{
    QStringList names;
    for (const QString &column : columns.split(QLatin1Char(','))) {
        QString name = column.trimmed().section(QLatin1Char(' '), 0, 0);
        for (const char quote : {'"', '`', '[', ']', '\''})
            name.remove(QLatin1Char(quote));
        names << name.toLower();
    }
    return names;
}

bool isTime(const QByteArray &text)
{
    static constexpr char form[] = "dddd-dd-dd dd:dd:dd.ddd";
    if (text.size() != 19 && text.size() != 23)
        return false;
    for (int i = 0; i < text.size(); ++i) {
        if (form[i] == 'd' ? text[i] < '0' || text[i] > '9' : text[i] != form[i])
            return false;
    }
    return true;
}

bool isText(const Value &value)
{
    return value.type == Value::Text || value.type == Value::Null || value.type == Value::Blob;
}

// A rule that is not one of this version would have a recorder keep to something else.
bool isKeepRule(const std::vector<Value> &row)
{
    const auto isNumber = [](const Value &value) { return value.type == Value::Integer && value.integer >= 0; };
    const auto isNumberOrNull = [&](const Value &value) { return value.type == Value::Null || isNumber(value); };
    const auto isList = [](const Value &value) { return value.type == Value::Text; };
    return row.size() == 11 && row[0].type == Value::Text &&
           std::all_of(row.begin() + 1, row.begin() + 4, isNumberOrNull) &&
           std::all_of(row.begin() + 4, row.begin() + 6, isList) &&
           std::all_of(row.begin() + 6, row.begin() + 9, isNumber) &&
           (row[9].type == Value::Text || row[9].type == Value::Null) && isNumber(row[10]) && row[10].integer == 1;
}

// Of whatever width: one of a day may say all that narrower ones say.
bool isSum(const Value &value, Encoding encoding)
{
    const auto text = readText(value.bytes, encoding);
    const device::TimeSpan day{0, device::widthOf(device::TrendLevel::Day)};
    return text && device::Bucket().add(text->constData(), text->constData() + text->size(), day);
}

} // namespace

Kind kindOf(RowKind kind)
{
    return kind < Schema ? Kind(kind) : Kind::Foreign;
}

QString nameOfHostLayer(RowKind kind)
{
    return kind == TrendSums     ? QStringLiteral("device trend")
           : kind == TrendSeries ? QStringLiteral("device trend series")
                                 : QStringLiteral("device keep");
}

RowKind kindOfDefinition(const QString &name, const QString &sql)
{
    for (const RowKind kind : {TrendSums, TrendSeries, KeepRules}) {
        if (name == nameOfHostLayer(kind))
            return kind;
    }
    const int begin = int(sql.indexOf(QLatin1Char('('))) + 1;
    const QStringList names = columnNames(sql.mid(begin, sql.lastIndexOf(QLatin1Char(')')) - begin));
    for (const RowKind kind : {Samples, Alarms, Log, Configuration}) {
        if (names == columnNames(QString::fromLatin1(columnList(kindOf(kind)))))
            return kind;
    }
    return Foreign;
}

bool isTime(const Value &value, Encoding encoding)
{
    if (value.type != Value::Text || value.bytes.size() > 46)
        return false;
    const auto text = readText(value.bytes, encoding);
    return text && isTime(*text);
}

RowKind kindOfRow(const std::vector<Value> &row, Encoding encoding)
{
    const auto texts = [&](size_t first) { return std::all_of(row.begin() + long(first), row.end(), isText); };
    if (row.size() == 2 && row[0].type == Value::Text && row[1].type == Value::Integer)
        return Sequence;
    if (row.size() == 5 && row[0].type == Value::Text && row[3].type == Value::Integer)
        return Schema;
    if (isKeepRule(row))
        return KeepRules;
    if (row.empty() || row[0].type != Value::Null)
        return Foreign;
    if (row.size() == 2 && row[1].type == Value::Text && isSum(row[1], encoding))
        return TrendSums;
    if (row.size() == 7 && row[1].type == Value::Text && row[2].type == Value::Text && row[3].type == Value::Integer &&
        isText(row[4]) && row[5].type == Value::Integer && row[6].type == Value::Integer)
        return TrendSeries;
    if (row.size() == 3 && texts(2))
        return isText(row[1]) && !isTime(row[1], encoding) ? Configuration : Samples;
    if (row.size() == 5 && texts(2))
        return Log;
    if (row.size() == 10 && texts(3))
        return Alarms;
    return Foreign;
}

bool belongs(const std::vector<Value> &row, RowKind kind, Encoding encoding, bool sound)
{
    RowKind shape = kindOfRow(row, encoding);
    if (shape == Configuration && kind == Samples)
        shape = Samples; // a time in another form
    if (shape != kind)
        return false;
    if (sound)
        return true;
    const bool hasTime = holdsRecords(kindOf(kind));
    return (!hasTime || isTime(row[size_t(timeColumnOf(kindOf(kind)))], encoding)) &&
           (kind != Alarms || row[1].type == Value::Integer);
}

} // namespace device_db
