// SPDX-License-Identifier: MIT
#include "archive/archive_connection.h"

#include <libpq-fe.h>

#include <vector>

namespace device_db
{

namespace
{

// libpq ends its messages with a line break and breaks them before the hint.
QString oneLine(const char *message)
{
    return QString::fromUtf8(message).simplified();
}

std::vector<const char *> valuesOf(const QList<QByteArray> &parameters)
{
    std::vector<const char *> values;
    for (const QByteArray &parameter : parameters)
        values.push_back(parameter.isNull() ? nullptr : parameter.constData());
    return values;
}

QList<QByteArray> cellsOf(const pg_result *answer, int row)
{
    QList<QByteArray> cells;
    for (int column = 0; column < PQnfields(answer); ++column)
        cells << (PQgetisnull(answer, row, column)
                      ? QByteArray()
                      : QByteArray(PQgetvalue(answer, row, column), PQgetlength(answer, row, column)));
    return cells;
}

} // namespace

void ArchiveConnection::Close::operator()(pg_conn *connection) const
{
    PQfinish(connection);
}

void ArchiveConnection::Clear::operator()(pg_result *result) const
{
    PQclear(result);
}

Result<QMap<QByteArray, QByteArray>> connectionSettings(const QByteArray &conninfo, const QString &name)
{
    char *problem = nullptr;
    PQconninfoOption *const options = PQconninfoParse(conninfo.constData(), &problem);
    const QString why = problem ? oneLine(problem) : QStringLiteral("out of memory");
    PQfreemem(problem);
    if (!options)
        return failure(name, QStringLiteral("its connection string cannot be read: %1").arg(why));
    QMap<QByteArray, QByteArray> settings;
    for (const PQconninfoOption *option = options; option->keyword; ++option) {
        if (option->val)
            settings.insert(option->keyword, option->val);
    }
    PQconninfoFree(options);
    return settings;
}

Result<ArchiveConnection> ArchiveConnection::open(QMap<QByteArray, QByteArray> settings, const QString &name)
{
    const auto byDefault = [&](const char *keyword, const char *value) {
        if (!settings.contains(keyword))
            settings.insert(keyword, value);
    };
    byDefault("application_name", "device-ship");
    byDefault("connect_timeout", "10");
    byDefault("keepalives_idle", "10");
    byDefault("keepalives_interval", "5");
    byDefault("keepalives_count", "4");
    byDefault("tcp_user_timeout", "30000");
    // In the environment, which counts after the settings and after a service file that they name. libpq asks for no
    // TLS on a Unix socket, and only libpq knows whether there will be one.
    if (qEnvironmentVariableIsEmpty("PGSSLMODE"))
        qputenv("PGSSLMODE", "verify-full");
    settings.insert("client_encoding", "UTF8");
    std::vector<const char *> keywords;
    std::vector<const char *> values;
    for (auto each = settings.constBegin(); each != settings.constEnd(); ++each) {
        keywords.push_back(each.key().constData());
        values.push_back(each.value().constData());
    }
    keywords.push_back(nullptr);
    values.push_back(nullptr);
    ArchiveConnection connection(PQconnectdbParams(keywords.data(), values.data(), 0), name);
    if (!connection.isOpen())
        return failure(name, oneLine(PQerrorMessage(connection.m_connection.get())));
    PQsetNoticeProcessor(
        connection.m_connection.get(), [](void *, const char *) {}, nullptr);
    return connection;
}

Result<ArchiveConnection> ArchiveConnection::openTyped(const QByteArray &conninfo, const QString &name)
{
    const auto settings = connectionSettings(conninfo, name);
    if (!settings)
        return settings.error();
    if (settings->contains("password"))
        return failure(name, QStringLiteral("a password on a command line is seen by everybody; use "
                                            "~/.pgpass or $PGPASSFILE"));
    return open(*settings, name);
}

bool ArchiveConnection::isOpen() const
{
    return PQstatus(m_connection.get()) == CONNECTION_OK;
}

QByteArray ArchiveConnection::database() const
{
    return PQdb(m_connection.get());
}

Result<QByteArray> ArchiveConnection::identity()
{
    const auto answer = query("select system_identifier || ' ' || oid from pg_control_system(), pg_database"
                              " where datname = current_database()");
    return answer ? Result<QByteArray>(answer->first().first()) : answer.error();
}

Error ArchiveConnection::error(const pg_result *answer)
{
    const char *const state = answer ? PQresultErrorField(answer, PG_DIAG_SQLSTATE) : nullptr;
    m_sqlState = state;
    m_constraint = answer ? PQresultErrorField(answer, PG_DIAG_CONSTRAINT_NAME) : nullptr;
    if (const char *const words = answer ? PQresultErrorField(answer, PG_DIAG_MESSAGE_PRIMARY) : nullptr) {
        QString cause = oneLine(words);
        if (const char *const hint = PQresultErrorField(answer, PG_DIAG_MESSAGE_HINT))
            cause += QStringLiteral("; ") + oneLine(hint);
        return failure(m_name, QStringLiteral("%1 (%2)").arg(cause, QString::fromLatin1(m_sqlState)));
    }
    return failure(m_name, oneLine(PQerrorMessage(m_connection.get())));
}

Result<Rows> ArchiveConnection::query(const QByteArray &sql, const QList<QByteArray> &parameters)
{
    const std::vector<const char *> values = valuesOf(parameters);
    const Answer answer(parameters.isEmpty() ? PQexec(m_connection.get(), sql.constData())
                                             : PQexecParams(m_connection.get(), sql.constData(), int(values.size()),
                                                            nullptr, values.data(), nullptr, nullptr, 0));
    const ExecStatusType status = PQresultStatus(answer.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
        return error(answer.get());
    Rows rows;
    for (int row = 0; row < PQntuples(answer.get()); ++row)
        rows << cellsOf(answer.get(), row);
    return rows;
}

Status ArchiveConnection::ask(const QByteArray &sql, const QList<QByteArray> &parameters)
{
    const std::vector<const char *> values = valuesOf(parameters);
    if (!PQsendQueryParams(m_connection.get(), sql.constData(), int(values.size()), nullptr, values.data(), nullptr,
                           nullptr, 0) ||
        !PQsetSingleRowMode(m_connection.get()))
        return error(nullptr);
    return {};
}

Result<bool> ArchiveConnection::next(QList<QByteArray> &cells)
{
    while (const Answer answer{PQgetResult(m_connection.get())}) {
        switch (PQresultStatus(answer.get())) {
        case PGRES_SINGLE_TUPLE:
            cells = cellsOf(answer.get(), 0);
            return true;
        case PGRES_TUPLES_OK: // behind the last one
            break;
        default:
            return error(answer.get());
        }
    }
    if (!isOpen())
        return error(nullptr);
    return false;
}

Status ArchiveConnection::copy(const QByteArray &sql, const QList<QByteArray> &data)
{
    PGconn *const connection = m_connection.get();
    Status result;
    if (!PQsendQuery(connection, sql.constData()))
        return error(nullptr);
    int next = 0;
    while (const Answer answer{PQgetResult(connection)}) {
        switch (PQresultStatus(answer.get())) {
        case PGRES_COPY_IN: {
            const QByteArray &rows = data.at(next++);
            if (PQputCopyData(connection, rows.constData(), int(rows.size())) != 1 ||
                PQputCopyEnd(connection, nullptr) != 1) {
                const Error failed = error(nullptr);
                m_connection.reset(); // else the COPY would still be under way
                return failed;
            }
            break;
        }
        case PGRES_COMMAND_OK:
        case PGRES_TUPLES_OK:
            break;
        default:
            if (result)
                result = error(answer.get());
        }
    }
    if (!result && isOpen() && PQtransactionStatus(connection) != PQTRANS_IDLE) {
        const QByteArray state = m_sqlState;
        const QByteArray constraint = m_constraint;
        (void)query("rollback");
        m_sqlState = state;
        m_constraint = constraint;
    }
    if (result && !isOpen())
        return error(nullptr);
    return result;
}

Result<QByteArray> ArchiveConnection::encryptedPassword(const QByteArray &password, const QByteArray &role)
{
    const std::unique_ptr<char, void (*)(void *)> text(
        PQencryptPasswordConn(m_connection.get(), password.constData(), role.constData(), "scram-sha-256"), PQfreemem);
    if (!text)
        return error(nullptr);
    return QByteArray(text.get());
}

QByteArray arrayText(const QList<QByteArray> &elements)
{
    QByteArray text("{");
    for (const QByteArray &element : elements) {
        if (text.size() > 1)
            text += ',';
        if (element.isNull()) {
            text += "NULL";
            continue;
        }
        text += '"';
        for (const char c : element) {
            if (c == '"' || c == '\\')
                text += '\\';
            text += c;
        }
        text += '"';
    }
    return text + '}';
}

QByteArray arrayText(const QList<qint64> &elements)
{
    QByteArray text("{");
    for (const qint64 element : elements) {
        if (text.size() > 1)
            text += ',';
        text += QByteArray::number(element);
    }
    return text + '}';
}

} // namespace device_db
