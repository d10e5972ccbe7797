// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_ARCHIVE_CONNECTION_H
#define DEVICE_SHIP_ARCHIVE_CONNECTION_H

#include "storefile/error.h"

#include <QByteArray>
#include <QList>
#include <QMap>

#include <memory>

struct pg_conn;
struct pg_result;

namespace device_ship
{

using device::Result;
using device::Status;

/// Rows of an answer. Cells are texts in UTF-8; a null array for NULL.
using Rows = QList<QList<QByteArray>>;

/// A connection to the archive. Every operation waits for its answer; a server that is gone is noticed after half a
/// minute. Not thread-safe.
class ArchiveConnection
{
public:
    /// `settings`: libpq's keywords. Verifies the server's certificate unless the settings say otherwise or the server
    /// is on this machine.
    static Result<ArchiveConnection> open(QMap<QByteArray, QByteArray> settings);

    /// One statement with its parameters ($1, $2 ...), or without parameters any number of statements.
    Result<Rows> query(const QByteArray &sql, const QList<QByteArray> &parameters = {});
    /// Statements of which each "copy ... from stdin" takes the next of `data`. All of them succeed or none, if they
    /// are one transaction. The Error leaves no transaction open.
    Status copy(const QByteArray &sql, const QList<QByteArray> &data);
    /// The password as the server stores it, so that it is in no statement and no log.
    Result<QByteArray> encryptedPassword(const QByteArray &password, const QByteArray &role);

    /// The SQLSTATE of the last Error; empty if the server did not answer.
    QByteArray sqlState() const { return m_sqlState; }
    bool isOpen() const;
    QByteArray database() const;

private:
    struct Close {
        void operator()(pg_conn *connection) const;
    };
    struct Clear {
        void operator()(pg_result *result) const;
    };
    using Answer = std::unique_ptr<pg_result, Clear>;

    explicit ArchiveConnection(pg_conn *connection) : m_connection(connection) {}
    device::Error error(const pg_result *answer);

    std::unique_ptr<pg_conn, Close> m_connection;
    QByteArray m_sqlState;
};

/// The keywords of a connection string or a URI; an Error if it is none.
Result<QMap<QByteArray, QByteArray>> connectionSettings(const QByteArray &conninfo);

/// A literal of PostgreSQL for arrays; NULL for a null element.
QByteArray arrayText(const QList<QByteArray> &elements);
QByteArray arrayText(const QList<qint64> &elements);

} // namespace device_ship

#endif
