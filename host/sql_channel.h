// SPDX-License-Identifier: MIT
#ifndef DEVICE_SQL_CHANNEL_H
#define DEVICE_SQL_CHANNEL_H

#include "cause.h"

#include <QList>
#include <QStringList>

#include <functional>

namespace device
{

/// A way to one file for whoever reads and writes rollups: the store library's, or the bench tool's own.
class SqlChannel
{
public:
    virtual ~SqlChannel() = default;

    /// A connection that writes nothing, so that another one may store rows meanwhile.
    virtual bool isReader() const = 0;

    /// The rows of a query, outside a transaction or inside.
    virtual Result<QList<QStringList>> query(const Site &site, const QString &sql) = 0;

    /// Runs `body` in one transaction: all of it, or nothing and an Error. Inside use run() and ask(). It may be run
    /// more than once, the last time with success.
    virtual Status transaction(const Site &site, const std::function<Status()> &body) = 0;
    virtual Status run(const Site &site, const QString &sql) = 0;
    virtual Result<QList<QStringList>> ask(const Site &site, const QString &sql) = 0;

    /// The rows changed by the statements, in one transaction.
    Result<qint64> change(const Site &site, const QStringList &statements);
};

} // namespace device

#endif
