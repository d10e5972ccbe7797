// SPDX-License-Identifier: MIT
#ifndef DEVICE_CONNECTION_H
#define DEVICE_CONNECTION_H

#include "device/store.h"

#include <functional>

namespace device
{

/// What an Error says was done, and on which table.
struct Site {
    QString operation;
    QString table;

    Error error(Error::Code code, const QString &cause) const { return Error(code, operation, table, cause); }
};

/// One row to insert, or one statement that changes rows.
struct Write {
    QString table; ///< Empty: `text` is a whole statement.
    QString text;  ///< Else the row, as RowText has it: see insertsOf().
};

struct Written {
    int stored = 0;
    QVector<Refusal> refused;
    QVector<qint64> changed; ///< One number for each Write that is a whole statement, in order.
};

/// The one channel to one file: SQL through execSQL() of a history store, whatever the kind of table.
///
/// That slot answers for each statement by itself, rows or no rows, which no other slot does; and one
/// connection a file means that reading never locks out writing. Only the words of a failure come by the
/// debug output.
class Connection
{
public:
    static Result<std::shared_ptr<Connection>> open(const Library &library, const QString &path,
                                                    const OpenOptions &options);
    ~Connection();

    QString path() const { return m_path; }
    const OpenOptions &options() const { return m_options; }
    qint64 failedCommits() const { return m_failedCommits; }

    /// The rows of a query, tried until the deadline.
    Result<QList<QStringList>> query(const Site &site, const QString &sql);
    Result<qint64> number(const Site &site, const QString &sql);

    /// Runs `body` in one transaction: all of it, or nothing and an Error. Inside use run() and ask(). While
    /// the file is locked it is tried again, the body too, until the deadline.
    Status transaction(const Site &site, const std::function<Status()> &body);
    Status run(const Site &site, const QString &sql);
    Result<QList<QStringList>> ask(const Site &site, const QString &sql);

    /// The rows changed by the statements, in one transaction.
    Result<qint64> change(const Site &site, const QStringList &statements);

    /// Stores the rows in order, in one transaction. A row that the table itself refuses (a constraint, no such
    /// table) is left out and reported; anything else that fails leaves the file as it was.
    Result<Written> write(const Site &site, const QVector<Write> &writes);

    /// Outside a transaction: VACUUM and the like, tried until the deadline.
    Status alone(const Site &site, const QString &sql);
    void checkpoint();
    Result<qint64> usedBytes();

private:
    class Patience;

    Connection(Library library, interface_data_base *store, QString path, const OpenOptions &options);
    Q_DISABLE_COPY(Connection)

    Status attempt(const Site &site, const std::function<Status()> &body, Patience &patience);
    Status commit(const Site &site, Patience &patience);
    bool isInTransaction();
    Status all(const Site &site, const QVector<Write> &writes, Written &written);
    Status eachAlone(const Site &site, const QVector<Write> &writes, Written &written);
    Status applyProfile();

    Library m_library;
    interface_data_base *m_store;
    QString m_path;
    OpenOptions m_options;
    bool m_hasJson = false;
    qint64 m_failedCommits = 0;
};

} // namespace device

#endif
