// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QStringList>
#include <QVector>

/// Writes to standard output, 80 columns wide.
class Printer
{
public:
    /// Without `unicode` rules and trend lines are of ASCII.
    explicit Printer(bool unicode) : m_unicode(unicode) {}

    void line(const QString &text = QString()) const;
    void heading(const QString &text) const;
    /// `alignment` holds one letter a column: 'l' or 'r'. A row that is too long loses the end of its last cell.
    void table(const QStringList &headers, const QList<QStringList> &rows, const char *alignment) const;
    /// The values, averaged down to `width` columns, from their lowest to their highest.
    QString trend(const QVector<double> &values, int width) const;

private:
    bool m_unicode;
};
