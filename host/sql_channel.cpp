// SPDX-License-Identifier: MIT
#include "sql_channel.h"

namespace device
{

Result<qint64> SqlChannel::change(const Site &site, const QStringList &statements)
{
    qint64 changed = 0;
    const Status done = transaction(site, [&]() -> Status {
        changed = 0;
        for (const QString &statement : statements) {
            if (const Status each = run(site, statement); !each)
                return each;
            const auto rows = ask(site, QStringLiteral("select changes()"));
            if (!rows)
                return rows.error();
            changed += rows->first().first().toLongLong();
        }
        return {};
    });
    if (!done)
        return done.error();
    return changed;
}

} // namespace device
