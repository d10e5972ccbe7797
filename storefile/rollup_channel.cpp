// SPDX-License-Identifier: MIT
#include "storefile/rollup_channel.h"

namespace device_db
{

Result<QList<QStringList>> RollupChannel::query(const device::Site &, const QString &sql)
{
    auto statement = m_database.prepare(sql.toUtf8());
    if (!statement)
        return statement.error();
    QList<QStringList> rows;
    while (statement->step()) {
        QStringList row;
        for (int column = 0; column < statement->columns(); ++column)
            row << QString::fromUtf8(statement->cell(column).constData());
        rows << row;
    }
    if (const Status status = statement->status(); !status)
        return status.error();
    return rows;
}

Status RollupChannel::transaction(const device::Site &site, const std::function<Status()> &body)
{
    if (const Status begun = run(site, QStringLiteral("begin immediate")); !begun)
        return begun;
    Status done = body();
    if (done)
        done = run(site, QStringLiteral("commit"));
    if (!done)
        (void)m_database.run("rollback"); // SQLite may have done so itself
    return done;
}

Status RollupChannel::run(const device::Site &, const QString &sql)
{
    return m_database.run(sql.toUtf8());
}

} // namespace device_db
