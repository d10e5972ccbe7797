// SPDX-License-Identifier: MIT
#ifndef DEVICE_TABLE_NAME_H
#define DEVICE_TABLE_NAME_H

#include "result.h"

#include <QHashFunctions>

namespace device
{

/// A name that means the same in every statement, quoted or bare: letters, digits and "_" of ASCII, no
/// digit in front, at most 64, no reserved word of SQL, no name of SQLite's or of the configuration table.
///
/// Two names are equal when they differ in case only, because SQLite finds the same table by both.
class DEVICE_HOST_EXPORT TableName
{
    using HashValue = decltype(qHash(QString())); // Qt 5 and 6 differ

public:
    static Result<TableName> from(const QString &text);
    /// For a name that is written in the program: ends the program with a message when it is not a table name.
    static TableName must(const char *literal);

    const QString &text() const { return m_text; }
    friend bool operator==(const TableName &a, const TableName &b)
    {
        return a.m_text.compare(b.m_text, Qt::CaseInsensitive) == 0;
    }
    friend bool operator!=(const TableName &a, const TableName &b) { return !(a == b); }
    friend HashValue qHash(const TableName &name, HashValue seed = 0) { return qHash(name.m_text.toLower(), seed); }

private:
    explicit TableName(QString text) : m_text(std::move(text)) {}

    QString m_text;
};

} // namespace device

#endif
