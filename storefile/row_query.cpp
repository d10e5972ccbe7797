// SPDX-License-Identifier: MIT
#include "storefile/row_query.h"

#include "storefile/texts.h"
#include "storefile/times.h"

#include "device/number.h"

#include <QRegularExpression>

#include <sqlite3.h>

namespace device_db
{

namespace
{

// SQL's own comparison without regard to case knows ASCII letters alone.
void containsText(sqlite3_context *context, int count, sqlite3_value **values)
{
    const QString &wanted = *static_cast<const QString *>(sqlite3_user_data(context));
    for (int i = 0; i < count; ++i) {
        const auto *const bytes = reinterpret_cast<const char *>(sqlite3_value_text(values[i]));
        if (!bytes)
            continue;
        const QByteArray cell = QByteArray::fromRawData(bytes, sqlite3_value_bytes(values[i]));
        if (QString::fromUtf8(cell).contains(wanted, Qt::CaseInsensitive) ||
            QString::fromUtf8(decodedTwice(cell)).contains(wanted, Qt::CaseInsensitive)) {
            sqlite3_result_int(context, 1);
            return;
        }
    }
    sqlite3_result_int(context, 0);
}

// NULL for what is not a number, which then fits no comparison.
void numberOf(sqlite3_context *context, int, sqlite3_value **values)
{
    const auto *const bytes = reinterpret_cast<const char *>(sqlite3_value_text(values[0]));
    const auto number = device::number(QByteArray(bytes, bytes ? sqlite3_value_bytes(values[0]) : 0));
    number ? sqlite3_result_double(context, *number) : sqlite3_result_null(context);
}

// The conditions of a WHERE and what their places are filled with.
struct Conditions {
    QList<QByteArray> parts;
    QVector<QByteArray> texts;

    void addOneOf(const char *column, const QStringList &wanted)
    {
        if (wanted.isEmpty())
            return;
        for (const QString &each : wanted)
            texts << each.toUtf8();
        parts << column + QByteArray(" in (?") + QByteArray(",?").repeated(int(wanted.size()) - 1) + ')';
    }
};

Status addComparison(const Database &database, const QString &given, Conditions &conditions)
{
    const auto comparison = comparisonIn(given);
    if (!comparison)
        return comparison.error();
    sqlite3_create_function_v2(database.handle(), "number_of", 1, SQLITE_UTF8 | SQLITE_DIRECTONLY, nullptr, numberOf,
                               nullptr, nullptr, nullptr);
    conditions.parts << (comparison->number ? "number_of(Value)" + comparison->operation + "cast(? as real)"
                                            : "Value" + comparison->operation + '?');
    conditions.texts << comparison->text;
    return {};
}

} // namespace

Result<Comparison> comparisonIn(const QString &given)
{
    static const QRegularExpression form(QStringLiteral("^\\s*(>=|<=|!=|>|<|=)\\s*(.*\\S)\\s*$"));
    const auto match = form.match(given);
    const Comparison comparison{match.captured(1).toLatin1(), match.captured(2).toUtf8(),
                                device::number(match.captured(2).toUtf8())};
    if (!match.hasMatch() || (!comparison.number && comparison.operation != "=" && comparison.operation != "!="))
        return failure(given, QStringLiteral("give a comparison with a number, such as \">80\", or \"=\" and a text"));
    return comparison;
}

QVector<Kind> RowFilter::kinds() const
{
    const bool ofAlarms = active || ended || !levels.empty() || !objects.isEmpty() || !types.isEmpty();
    const bool ofLog = !users.isEmpty();
    const bool ofSamples = !values.isEmpty();
    QVector<Kind> fitting;
    for (const Kind kind : {Kind::Samples, Kind::Alarms, Kind::Log}) {
        if ((!ofAlarms || kind == Kind::Alarms) && (!ofLog || kind == Kind::Log) &&
            (!ofSamples || kind == Kind::Samples))
            fitting << kind;
    }
    return fitting;
}

Result<Statement> filtered(const Database &database, const Table &table, const RowFilter &filter, bool utc,
                           const QByteArray &head, const QByteArray &tail)
{
    Conditions conditions;
    const bool milliseconds = hasMilliseconds(table.kind);
    for (const auto &[given, bound] : {std::pair{filter.from, Bound::First}, std::pair{filter.to, Bound::Last}}) {
        if (given.isEmpty())
            continue;
        const auto text = boundText(given, bound, milliseconds, utc);
        if (!text)
            return text.error();
        conditions.parts << (bound == Bound::First ? "DATETIME>=?" : "DATETIME<=?");
        conditions.texts << *text;
    }
    if (filter.active)
        conditions.parts << "EndDate='' and EndTime=''";
    if (filter.ended)
        conditions.parts << "EndDate!='' and EndTime!=''";
    if (!filter.levels.empty()) {
        QByteArray list;
        for (const qint64 level : filter.levels)
            list += (list.isEmpty() ? "" : ",") + QByteArray::number(level);
        conditions.parts << "LevelID in (" + list + ')';
    }
    conditions.addOneOf("AlarmObject", filter.objects);
    conditions.addOneOf("AlarmType", filter.types);
    conditions.addOneOf("ifnull(userName,'')", filter.users);
    for (const QString &value : filter.values) {
        if (const Status added = addComparison(database, value, conditions); !added)
            return added.error();
    }
    if (filter.afterId)
        conditions.parts << "ID>" + QByteArray::number(*filter.afterId);
    if (!filter.containing.isEmpty()) {
        sqlite3_create_function_v2(database.handle(), "contains_text", -1, SQLITE_UTF8 | SQLITE_DIRECTONLY,
                                   new QString(filter.containing), containsText, nullptr, nullptr,
                                   [](void *wanted) { delete static_cast<QString *>(wanted); });
        QByteArray cells;
        for (const QString &column : table.columns.mid(1))
            cells += (cells.isEmpty() ? "" : ",") + identifier(column);
        conditions.parts << "contains_text(" + cells + ')';
    }
    QByteArray sql = head;
    if (!conditions.parts.isEmpty())
        sql += " where " + conditions.parts.join(" and ");
    auto statement = database.prepare(sql + tail);
    if (!statement)
        return statement.error();
    for (int i = 0; i < conditions.texts.size(); ++i)
        statement->bind(i + 1, conditions.texts.at(i));
    return statement;
}

Result<Statement> rowsOf(const Database &database, const Table &table, const RowQuery &query)
{
    QByteArray order;
    switch (query.order) {
    case Order::OldestFirst:
        order = " order by DATETIME,ID";
        break;
    case Order::NewestFirst:
        order = " order by DATETIME desc,ID desc";
        break;
    case Order::AsRecorded:
        order = " order by ID";
        break;
    }
    if (query.limit >= 0 || query.offset > 0)
        order += " limit " + QByteArray::number(query.limit) + " offset " + QByteArray::number(query.offset);
    return filtered(database, table, query.filter, query.utc,
                    "select " + columnList(table.kind) + " from " + identifier(table.name), order);
}

Result<qint64> countOf(const Database &database, const Table &table, const RowFilter &filter, bool utc)
{
    auto statement = filtered(database, table, filter, utc, "select count(*) from " + identifier(table.name), "");
    if (!statement)
        return statement.error();
    if (!statement->step())
        return statement->status().ok() ? failure(database.name(), QStringLiteral("counting gave no row"))
                                        : statement->status().error();
    return statement->number(0);
}

} // namespace device_db
