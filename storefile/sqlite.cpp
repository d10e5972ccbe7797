// SPDX-License-Identifier: MIT
#include "storefile/sqlite.h"

#include <QFileInfo>

#include <sqlite3.h>

namespace device_db
{

namespace
{

Error sqliteError(sqlite3 *connection, int code, const QString &site)
{
    const QString words =
        connection ? QString::fromUtf8(sqlite3_errmsg(connection)) : QString::fromUtf8(sqlite3_errstr(code));
    switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return failure(site, words + QStringLiteral("; another process holds it, try again or stop that process"));
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return failure(site, words + QStringLiteral("; \"device-db check\" says more, \"device-db salvage\" gets "
                                                    "rows out"));
    case SQLITE_FULL:
        return failure(site, words + QStringLiteral("; make room on its disk"));
    case SQLITE_IOERR:
    case SQLITE_READONLY:
    case SQLITE_CANTOPEN:
        return failure(site, words + QStringLiteral("; check rights, free space and the medium"));
    default:
        return failure(site, words);
    }
}

} // namespace

Statement::Statement(sqlite3_stmt *statement, QString site) : m_statement(statement), m_site(std::move(site)) {}

void Statement::Finalize::operator()(sqlite3_stmt *statement) const
{
    sqlite3_finalize(statement);
}

bool Statement::step()
{
    m_code = sqlite3_step(m_statement.get());
    return m_code == SQLITE_ROW;
}

void Statement::reset()
{
    sqlite3_reset(m_statement.get());
}

Status Statement::status() const
{
    if (m_code == SQLITE_ROW || m_code == SQLITE_DONE || m_code == SQLITE_OK)
        return {};
    return sqliteError(sqlite3_db_handle(m_statement.get()), m_code, m_site);
}

bool Statement::wasTooBig() const
{
    return (m_code & 0xff) == SQLITE_TOOBIG;
}

int Statement::columns() const
{
    return sqlite3_column_count(m_statement.get());
}

QString Statement::nameOf(int column) const
{
    return QString::fromUtf8(sqlite3_column_name(m_statement.get(), column));
}

bool Statement::onlyReads() const
{
    return sqlite3_stmt_readonly(m_statement.get()) != 0;
}

std::string_view Statement::bytes(int column) const
{
    sqlite3_stmt *const statement = m_statement.get();
    const int type = sqlite3_column_type(statement, column);
    if (type == SQLITE_NULL)
        return {};
    const void *const bytes =
        type == SQLITE_BLOB ? sqlite3_column_blob(statement, column) : sqlite3_column_text(statement, column);
    const int size = sqlite3_column_bytes(statement, column);
    return size == 0 ? std::string_view("") : std::string_view(static_cast<const char *>(bytes), size_t(size));
}

QByteArray Statement::cell(int column) const
{
    const std::string_view found = bytes(column);
    return found.data() ? QByteArray(found.data(), int(found.size())) : QByteArray();
}

qint64 Statement::number(int column) const
{
    return sqlite3_column_int64(m_statement.get(), column);
}

double Statement::real(int column) const
{
    return sqlite3_column_double(m_statement.get(), column);
}

int Statement::type(int column) const
{
    return sqlite3_column_type(m_statement.get(), column);
}

void Statement::bind(int place, const QByteArray &text)
{
    if (text.isNull())
        sqlite3_bind_null(m_statement.get(), place);
    else
        sqlite3_bind_text(m_statement.get(), place, text.constData(), int(text.size()), SQLITE_TRANSIENT);
}

void Statement::bind(int place, qint64 number)
{
    sqlite3_bind_int64(m_statement.get(), place, number);
}

void Statement::bind(int place, double number)
{
    sqlite3_bind_double(m_statement.get(), place, number);
}

void Statement::bind(int place, const Statement &row, int column)
{
    sqlite3_bind_value(m_statement.get(), place, sqlite3_column_value(row.m_statement.get(), column));
}

void Statement::bindBlob(int place, const QByteArray &bytes)
{
    sqlite3_bind_blob(m_statement.get(), place, bytes.constData(), int(bytes.size()), SQLITE_TRANSIENT);
}

Database::Database(sqlite3 *connection, QString name) : m_connection(connection), m_name(std::move(name)) {}

void Database::Close::operator()(sqlite3 *connection) const
{
    sqlite3_close_v2(connection);
}

Result<Database> Database::open(const QString &path, Mode mode, const QString &name)
{
    if (mode == Immutable) {
        const QByteArray whole = QFileInfo(path).canonicalFilePath().toUtf8().toPercentEncoding("/");
        return opened("file:" + whole + "?immutable=1", mode, name.isEmpty() ? path : name);
    }
    // SQLite takes file:NAME for a URI and :memory: for no file at all.
    const QByteArray file = (path.startsWith(QLatin1Char('/')) ? QByteArray() : QByteArray("./")) + path.toUtf8();
    return opened(file, mode, name.isEmpty() ? path : name);
}

Result<Database> Database::inMemory()
{
    return opened(":memory:", ReadWrite, QStringLiteral("memory"));
}

Result<Database> Database::temporary()
{
    return opened("", ReadWrite, QStringLiteral("temporary database"));
}

Result<Database> Database::opened(const QByteArray &file, Mode mode, const QString &site)
{
    sqlite3 *connection = nullptr;
    const int flags = mode == ReadWrite   ? SQLITE_OPEN_READWRITE
                      : mode == Immutable ? SQLITE_OPEN_READONLY | SQLITE_OPEN_URI
                                          : SQLITE_OPEN_READONLY;
    const int code = sqlite3_open_v2(file.constData(), &connection, flags, nullptr);
    Database database(connection, site);
    if (code != SQLITE_OK)
        return sqliteError(connection, code, site);
    sqlite3_extended_result_codes(connection, 1);
    sqlite3_busy_timeout(connection, 2000);
    sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    if (mode != ReadWrite) {
        sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
        sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    }
    // SQLite looks at a file when it is first read.
    if (const auto tables = database.number("select count(*) from sqlite_master"); !tables)
        return tables.error();
    return database;
}

Result<Statement> Database::prepare(const QByteArray &sql) const
{
    sqlite3_stmt *prepared = nullptr;
    const char *rest = nullptr;
    const int code = sqlite3_prepare_v2(handle(), sql.constData(), int(sql.size()), &prepared, &rest);
    if (code != SQLITE_OK)
        return sqliteError(handle(), code, m_name);
    Statement statement(prepared, m_name);
    // Else the others would be left out silently.
    while (*rest) {
        sqlite3_stmt *next = nullptr;
        const int nextCode = sqlite3_prepare_v2(handle(), rest, -1, &next, &rest);
        sqlite3_finalize(next);
        if (nextCode != SQLITE_OK || next) // else it is a comment
            return failure(m_name, QStringLiteral("this is more than one statement; give one"));
    }
    return statement;
}

Status Database::run(const QByteArray &sql) const
{
    const int code = sqlite3_exec(handle(), sql.constData(), nullptr, nullptr, nullptr);
    if (code != SQLITE_OK)
        return sqliteError(handle(), code, m_name);
    return {};
}

// The first row; nothing when there is none.
Result<std::optional<Statement>> Database::row(const QByteArray &sql) const
{
    auto statement = prepare(sql);
    if (!statement)
        return statement.error();
    if (!statement->step()) {
        if (const Status status = statement->status(); !status)
            return status.error();
        return std::optional<Statement>();
    }
    return std::optional<Statement>(std::move(statement).value());
}

Result<qint64> Database::number(const QByteArray &sql) const
{
    const auto found = row(sql);
    if (!found)
        return found.error();
    if (!*found)
        return failure(m_name, QStringLiteral("no row from: ") + QString::fromUtf8(sql));
    return (*found)->number(0);
}

Result<QByteArray> Database::text(const QByteArray &sql) const
{
    const auto found = row(sql);
    if (!found)
        return found.error();
    return *found ? (*found)->cell(0) : QByteArray();
}

qint64 Database::changes() const
{
    return sqlite3_changes(handle());
}

bool Database::isDiskFull() const
{
    return (sqlite3_errcode(handle()) & 0xff) == SQLITE_FULL;
}

Result<qint64> copyPages(const Database &from, const Database &to, const std::function<void(qint64, qint64)> &progress)
{
    constexpr int pagesAStep = 256;
    if (const Status begun = from.run("begin; select count(*) from sqlite_master"); !begun)
        return begun.error();
    sqlite3_backup *const backup = sqlite3_backup_init(to.handle(), "main", from.handle(), "main");
    if (!backup)
        return failure(to.name(), QString::fromUtf8(sqlite3_errmsg(to.handle())));
    int code = SQLITE_OK;
    while (code == SQLITE_OK) {
        code = sqlite3_backup_step(backup, pagesAStep);
        const qint64 all = sqlite3_backup_pagecount(backup);
        if (progress)
            progress(all - sqlite3_backup_remaining(backup), all);
    }
    const qint64 pages = sqlite3_backup_pagecount(backup);
    sqlite3_backup_finish(backup);
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
        return failure(
            from.name(),
            QStringLiteral("%1; \"device-db salvage\" gets rows out").arg(QString::fromUtf8(sqlite3_errstr(code))));
    if (code != SQLITE_DONE)
        return failure(to.name(), QString::fromUtf8(sqlite3_errstr(code)) +
                                      QStringLiteral("; check free space, rights and the medium"));
    if (const Status ended = from.run("commit"); !ended)
        return ended.error();
    return pages;
}

QByteArray identifier(const QString &name)
{
    QByteArray inside = name.toUtf8();
    inside.replace('"', "\"\"");
    return '"' + inside + '"';
}

} // namespace device_db
