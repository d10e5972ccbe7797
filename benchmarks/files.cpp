// SPDX-License-Identifier: MIT
#include "files.h"

#include "connection.h"
#include "loaded_library.h"
#include "peer.h"

#include <QFile>

#include <sqlite3.h>

#include <stdexcept>

namespace
{

QString create(const Kind &kind, const QString &path)
{
    if (!openStore(kind, path)->createTable(QLatin1String(kind.table), QString()))
        throw std::runtime_error("createTable failed");
    return path;
}

} // namespace

Store openStore(const Kind &kind, const QString &path)
{
    const Store store = library::store(kind.key);
    if (store->openDB(path) != SQLITE_OK)
        throw std::runtime_error("openDB failed");
    return store;
}

Files::Files(const Data &data, const QString &folder) : m_data(data), m_folder(folder) {}
Files::~Files() = default;

QString Files::empty(const Kind &kind)
{
    return create(kind, QStringLiteral("%1/%2.db").arg(m_folder).arg(++m_count));
}

QString Files::emptyInMemory(const Kind &kind)
{
    const QString path = QStringLiteral("file:/%1?vfs=memdb").arg(++m_count);
    m_inMemory.push_back(std::make_unique<Connection>(path)); // keeps it alive
    return create(kind, path);
}

QString Files::filled(const Kind &kind, int rows, bool indexed)
{
    QString &path = m_filled[{QLatin1String(kind.name), QString::number(rows), QString::number(indexed)}];
    if (!path.isEmpty())
        return path;
    if (indexed) {
        path = filledCopy(kind, rows);
        Connection(path).run("create index byTime on " + QByteArray(kind.table) + " (DATETIME)");
        return path;
    }
    path = empty(kind);
    Connection connection(path);
    connection.run("begin");
    sqlite3_stmt *insert = nullptr;
    sqlite3_prepare_v2(connection.handle(), preparedInsert(kind).toUtf8().constData(), -1, &insert, nullptr);
    for (int row = 0; row < rows; ++row) {
        forEachColumn(kind, m_data.row(kind, row), [insert](int column, const QString &text) {
            const QByteArray bytes = text.toUtf8();
            sqlite3_bind_text(insert, column + 1, bytes.constData(), int(bytes.size()), SQLITE_TRANSIENT);
        });
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    connection.run("commit");
    return path;
}

QString Files::filledCopy(const Kind &kind, int rows)
{
    const QString path = QStringLiteral("%1/%2.db").arg(m_folder).arg(++m_count);
    QFile::copy(filled(kind, rows), path);
    return path;
}
