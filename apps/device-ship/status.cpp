// SPDX-License-Identifier: MIT
#include "status.h"

#include "storefile/texts.h"

#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace device_ship
{

Status showStatus(ArchiveConnection &archive)
{
    (void)archive.query("select fleet.make_months()"); // a reader may not
    const auto rows = archive.query(
        "select device, device_name, file, \"table\", shipped, behind,"
        " date_trunc('second', now() - last_received), gaps, missing, generations, date_trunc('second', now() - seen),"
        " trouble from fleet.status");
    if (!rows)
        return rows.error();
    QList<QStringList> lines{QStringLiteral("Device,Name,File,Table,Through ID,Behind,Last row ago,Gaps,Rows in gaps,"
                                            "Generations,Seen ago,Trouble")
                                 .split(QLatin1Char(','))};
    for (const QList<QByteArray> &row : *rows) {
        QStringList line;
        for (const QByteArray &cell : row)
            line << device_db::visible(QString::fromUtf8(cell)); // much of it is a device's to choose
        lines << line;
    }
    std::vector<int> widths(size_t(lines.first().size()));
    for (const QStringList &line : lines) {
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], int(line.at(int(i)).size()));
    }
    for (const QStringList &line : lines) {
        QString text;
        for (std::size_t i = 0; i < widths.size(); ++i)
            text += line.at(int(i)).leftJustified(widths[i] + 2);
        std::printf("%s\n", text.trimmed().toUtf8().constData());
    }
    return {};
}

} // namespace device_ship
