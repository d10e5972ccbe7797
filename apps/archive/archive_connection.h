// SPDX-License-Identifier: MIT
#ifndef DEVICE_ARCHIVE_CONNECTION_H
#define DEVICE_ARCHIVE_CONNECTION_H

#include "storefile/error.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <memory>

struct pg_conn;
struct pg_result;

namespace device_db
{

/// Rows of an answer. Cells are texts in UTF-8; a null array for NULL.
using Rows = QList<QList<QByteArray>>;

/// A connection to the archive. Every operation waits for its answer; a server that is gone is noticed after half a
/// minute. Not thread-safe.
class ArchiveConnection
{
public:
    /// `settings`: libpq's keywords. Verifies the server's certificate unless the settings, their service file or
    /// PGSSLMODE say otherwise or the server is on a Unix socket. `name`: of the archive, in an Error.
    static Result<ArchiveConnection> open(QMap<QByteArray, QByteArray> settings,
                                          const QString &name = QStringLiteral("archive"));
    /// The same for a connection string or a URI that a person typed: a password in it is refused.
    static Result<ArchiveConnection> openTyped(const QByteArray &conninfo,
                                               const QString &name = QStringLiteral("archive"));

    /// One statement with its parameters ($1, $2 ...), or without parameters any number of statements.
    Result<Rows> query(const QByteArray &sql, const QList<QByteArray> &parameters = {});
    /// One statement whose rows next() takes one by one; nothing else until it has taken the last.
    Status ask(const QByteArray &sql, const QList<QByteArray> &parameters);
    /// False behind the last row.
    Result<bool> next(QList<QByteArray> &cells);
    /// Statements of which each "copy ... from stdin" takes the next of `data`. All of them succeed or none, if they
    /// are one transaction. The Error leaves no transaction open.
    Status copy(const QByteArray &sql, const QList<QByteArray> &data);
    /// The password as the server stores it, so that it is in no statement and no log.
    Result<QByteArray> encryptedPassword(const QByteArray &password, const QByteArray &role);

    /// The SQLSTATE of the last Error; empty if the server did not answer.
    QByteArray sqlState() const { return m_sqlState; }
    /// The constraint that it names; empty if none.
    QByteArray constraint() const { return m_constraint; }
    bool isOpen() const;
    QByteArray database() const;
    /// Which server's which database this is, however it is named: two connections to one have the same.
    Result<QByteArray> identity();

private:
    struct Close {
        void operator()(pg_conn *connection) const;
    };
    struct Clear {
        void operator()(pg_result *result) const;
    };
    using Answer = std::unique_ptr<pg_result, Clear>;

    ArchiveConnection(pg_conn *connection, QString name) : m_connection(connection), m_name(std::move(name)) {}
    Error error(const pg_result *answer);

    std::unique_ptr<pg_conn, Close> m_connection;
    QString m_name;
    QByteArray m_sqlState;
    QByteArray m_constraint;
};

/// The keywords of a connection string or a URI; an Error about `name` if it is none.
Result<QMap<QByteArray, QByteArray>> connectionSettings(const QByteArray &conninfo,
                                                        const QString &name = QStringLiteral("archive"));

/// A literal of PostgreSQL for arrays; NULL for a null element.
QByteArray arrayText(const QList<QByteArray> &elements);
QByteArray arrayText(const QList<qint64> &elements);

} // namespace device_db

#endif
