// SPDX-License-Identifier: MIT
#ifndef STOREFILE_ROLLUP_CHANNEL_H
#define STOREFILE_ROLLUP_CHANNEL_H

#include "storefile/sqlite.h"

#include "host/sql_channel.h"

namespace device_db
{

/// A plain connection, for the functions of the host layer that read and write what it adds to a file. Cells are as the
/// store library gives them: they end at U+0000.
class RollupChannel : public device::SqlChannel
{
public:
    /// `database` is to outlive it.
    explicit RollupChannel(const Database &database) : m_database(database) {}

    bool isReader() const override { return true; }
    Result<QList<QStringList>> query(const device::Site &site, const QString &sql) override;
    Status transaction(const device::Site &site, const std::function<Status()> &body) override;
    Status run(const device::Site &site, const QString &sql) override;
    Result<QList<QStringList>> ask(const device::Site &site, const QString &sql) override { return query(site, sql); }

private:
    const Database &m_database;
};

} // namespace device_db

#endif
