// SPDX-License-Identifier: MIT
#include "status.h"

#include <QString>

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
        " date_trunc('second', now() - last_received), gaps, missing, generations, trouble from fleet.status");
    if (!rows)
        return rows.error();
    QList<QList<QByteArray>> lines{{"Device", "Name", "File", "Table", "Through ID", "Behind", "Last row ago", "Gaps",
                                    "Rows in gaps", "Generations", "Trouble"}};
    lines += *rows;
    std::vector<int> widths(size_t(lines.first().size()));
    for (const QList<QByteArray> &line : lines) {
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], int(QString::fromUtf8(line.at(int(i))).size()));
    }
    for (const QList<QByteArray> &line : lines) {
        QByteArray text;
        for (std::size_t i = 0; i < widths.size(); ++i)
            text += QString::fromUtf8(line.at(int(i))).leftJustified(widths[i] + 2).toUtf8();
        std::printf("%s\n", text.trimmed().constData());
    }
    return {};
}

} // namespace device_ship
