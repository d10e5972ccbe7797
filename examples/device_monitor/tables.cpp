// SPDX-License-Identifier: MIT
#include "tables.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <utility>

static const int lineWidth = 80;

void Printer::line(const QString &text) const
{
    std::fputs(text.toUtf8().append('\n').constData(), stdout);
}

void Printer::heading(const QString &text) const
{
    line();
    line(text);
}

void Printer::table(const QStringList &headers, const QList<QStringList> &rows, const char *alignment) const
{
    QList<QStringList> lines = rows;
    lines.prepend(headers);
    QVector<int> widths(int(headers.size()), 0);
    for (const QStringList &cells : std::as_const(lines)) {
        for (int column = 0; column < widths.size(); ++column)
            widths[column] = qMax(widths[column], int(cells.value(column).size()));
    }
    const int room = lineWidth - 2 * int(widths.size()) - std::accumulate(widths.begin(), widths.end() - 1, 0);
    widths.last() = qBound(1, room, widths.last());

    QStringList rule;
    for (const int width : std::as_const(widths))
        rule.append(QString(width, m_unicode ? QChar(0x2500) : '-'));
    lines.insert(1, rule);

    for (const QStringList &cells : std::as_const(lines)) {
        QString text;
        for (int column = 0; column < widths.size(); ++column) {
            const QString cell = cells.value(column).left(widths[column]);
            text += "  ";
            text += alignment[column] == 'r' ? cell.rightJustified(widths[column]) : cell.leftJustified(widths[column]);
        }
        while (text.endsWith(' '))
            text.chop(1);
        line(text);
    }
    if (rows.isEmpty())
        line("  (none)");
}

QString Printer::trend(const QVector<double> &values, int width) const
{
    const QString levels =
        m_unicode ? QString::fromUtf8("\u2581\u2582\u2583\u2584\u2585\u2586\u2587\u2588") : "_.-:=+*#";
    const int columns = qMin(width, int(values.size()));
    QVector<double> means;
    for (int column = 0; column < columns; ++column) {
        const auto from = values.begin() + column * values.size() / columns;
        const auto to = values.begin() + (column + 1) * values.size() / columns;
        means.append(std::accumulate(from, to, 0.0) / double(to - from));
    }
    QString text;
    const auto [lowest, highest] = std::minmax_element(values.cbegin(), values.cend());
    for (const double mean : std::as_const(means)) {
        const double share = *highest > *lowest ? (mean - *lowest) / (*highest - *lowest) : 0;
        text += levels.at(qRound(share * double(levels.size() - 1)));
    }
    return text;
}
