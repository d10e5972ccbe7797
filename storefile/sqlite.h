// SPDX-License-Identifier: MIT
#ifndef STOREFILE_SQLITE_H
#define STOREFILE_SQLITE_H

#include "storefile/error.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace device_db
{

/// A prepared statement. Cells are the very bytes of the file: the typed stores would hide what is not a record.
class Statement
{
public:
    /// Goes to the next row; false at the end and on a failure, which status() reports.
    bool step();
    void reset();
    Status status() const;
    /// It failed because a cell is larger than the connection's limit.
    bool wasTooBig() const;

    int columns() const;
    QString nameOf(int column) const;
    bool onlyReads() const;
    /// The cell's bytes, UTF-8 for a text; a null array for NULL. Valid for ever (a copy).
    QByteArray cell(int column) const;
    /// The same without a copy; valid until the next step. Its data() is null for NULL.
    std::string_view bytes(int column) const;
    qint64 number(int column) const;
    double real(int column) const;
    int type(int column) const; ///< SQLITE_TEXT and the like.

    void bind(int place, const QByteArray &text); ///< NULL for a null array.
    void bind(int place, qint64 number);
    void bind(int place, double number);
    void bind(int place, const Statement &row, int column); ///< A cell as it is, with its type.
    void bindBlob(int place, const QByteArray &bytes);

private:
    friend class Database;
    Statement(sqlite3_stmt *statement, QString site);

    struct Finalize {
        void operator()(sqlite3_stmt *statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
    QString m_site;
    int m_code = 0;
};

/// A plain SQLite connection, for what the stores of the host layer cannot express. Files come from elsewhere and may
/// be hostile: nothing that a file's schema defines can do more than compute (SQLite's defensive mode, no trusted
/// schema), and a connection that only reads runs no trigger and no view.
class Database
{
public:
    /// Immutable: without a lock, and without a look at the journal or the log; for a file that does not change.
    enum Mode { ReadOnly, ReadWrite, Immutable };

    /// Never creates a file: a mistyped name is an error. `name`: what messages call the file, when it is a copy.
    static Result<Database> open(const QString &path, Mode mode, const QString &name = QString());
    static Result<Database> inMemory();
    /// One of its own, on the disk as far as it does not fit into memory, and gone when it is closed.
    static Result<Database> temporary();

    /// An Error if there is more than one statement, too.
    Result<Statement> prepare(const QByteArray &sql) const;
    Status run(const QByteArray &sql) const;
    Result<qint64> number(const QByteArray &sql) const;
    Result<QByteArray> text(const QByteArray &sql) const;

    qint64 changes() const; ///< Rows that the last insert, update or delete has changed.

    /// Whether it was for want of space that what was done last failed.
    bool isDiskFull() const;

    QString name() const { return m_name; }
    sqlite3 *handle() const { return m_connection.get(); }

private:
    static Result<Database> opened(const QByteArray &file, Mode mode, const QString &site);
    Result<std::optional<Statement>> row(const QByteArray &sql) const;
    struct Close {
        void operator()(sqlite3 *connection) const;
    };
    Database(sqlite3 *connection, QString name);

    std::unique_ptr<sqlite3, Close> m_connection;
    QString m_name;
};

/// Copies one committed state of a file over another, page by page and whatever is on the pages. Holds one read
/// transaction from the first page to the last, so that a writer neither waits nor makes it begin anew. The number of
/// pages. `progress` is called with the pages that are done and all; may be empty.
Result<qint64> copyPages(const Database &from, const Database &to,
                         const std::function<void(qint64, qint64)> &progress = {});

/// An identifier between double quotes.
QByteArray identifier(const QString &name);

} // namespace device_db

#endif
