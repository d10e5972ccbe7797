// SPDX-License-Identifier: MIT
#ifndef DEVICE_TABLE_NAME_H
#define DEVICE_TABLE_NAME_H

#include "result.h"

namespace device
{

/// A name that means the same in every statement, quoted or bare: letters, digits and "_" of ASCII, no
/// digit in front, at most 64, no reserved word of SQL, no name of SQLite's or of the configuration table.
class DEVICE_HOST_EXPORT TableName
{
public:
    static Result<TableName> from(const QString &text);

    const QString &text() const { return m_text; }
    friend bool operator==(const TableName &a, const TableName &b) { return a.m_text == b.m_text; }
    friend bool operator!=(const TableName &a, const TableName &b) { return a.m_text != b.m_text; }

private:
    explicit TableName(QString text) : m_text(std::move(text)) {}

    QString m_text;
};

} // namespace device

#endif
