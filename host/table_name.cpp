// SPDX-License-Identifier: MIT
#include "device/table_name.h"

#include <algorithm>
#include <iterator>

namespace device
{

namespace
{

// The words that SQLite does not accept as a bare table name. Sorted.
constexpr const char *reserved[] = {
    "add",      "all",     "alter",  "and",         "as",         "autoincrement", "between",    "case",
    "check",    "collate", "commit", "constraint",  "create",     "default",       "deferrable", "delete",
    "distinct", "drop",    "else",   "escape",      "except",     "exists",        "foreign",    "from",
    "group",    "having",  "if",     "in",          "index",      "insert",        "intersect",  "into",
    "is",       "isnull",  "join",   "limit",       "not",        "nothing",       "notnull",    "null",
    "on",       "or",      "order",  "primary",     "references", "returning",     "select",     "set",
    "table",    "then",    "to",     "transaction", "union",      "unique",        "update",     "using",
    "values",   "when",    "where"};

bool isReserved(const QString &text)
{
    const QByteArray word = text.toLower().toLatin1();
    return std::binary_search(std::begin(reserved), std::end(reserved), word.constData(),
                              [](const char *a, const char *b) { return qstrcmp(a, b) < 0; });
}

const char *fault(const QString &text)
{
    if (text.isEmpty())
        return "it is empty";
    if (text.size() > 64)
        return "it is longer than 64 characters";
    for (const QChar c : text) {
        const bool letter = (c >= QLatin1Char('a') && c <= QLatin1Char('z')) ||
                            (c >= QLatin1Char('A') && c <= QLatin1Char('Z')) || c == QLatin1Char('_');
        if (!letter && !(c >= QLatin1Char('0') && c <= QLatin1Char('9')))
            return "it contains something other than letters, digits and \"_\"";
    }
    if (text.at(0) >= QLatin1Char('0') && text.at(0) <= QLatin1Char('9'))
        return "it begins with a digit";
    if (text.startsWith(QLatin1String("sqlite_"), Qt::CaseInsensitive))
        return "the name belongs to SQLite";
    if (text.compare(QLatin1String("tb_config"), Qt::CaseInsensitive) == 0)
        return "the name belongs to the configuration table";
    if (isReserved(text))
        return "it is a word of SQL";
    return nullptr;
}

} // namespace

Result<TableName> TableName::from(const QString &text)
{
    if (const char *why = fault(text))
        return Error(Error::NameRefused, QStringLiteral("table name"), QString(),
                     QStringLiteral("\"%1\" is not a table name: %2").arg(text.left(80), QLatin1String(why)));
    return TableName(text);
}

TableName TableName::must(const char *literal)
{
    const Result<TableName> name = from(QString::fromUtf8(literal));
    if (!name)
        qFatal("device::TableName::must: %s", qUtf8Printable(name.error().cause()));
    return *name;
}

} // namespace device
