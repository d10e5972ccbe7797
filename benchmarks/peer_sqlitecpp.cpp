// SPDX-License-Identifier: MIT
#include "peer.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <array>

namespace
{

struct Cells {
    SQLite::Statement &query;

    QString text(int column) const
    {
        const SQLite::Column cell = query.getColumn(column);
        const char *bytes = cell.getText();
        return QString::fromUtf8(bytes, cell.getBytes());
    }
    int integer(int column) const { return query.getColumn(column).getInt(); }
    double real(int column) const { return query.getColumn(column).getDouble(); }
    int size() const { return query.getColumnCount(); }
};

class SqliteCpp : public PeerBase<SqliteCpp>
{
public:
    explicit SqliteCpp(const QString &path) : m_database(path.toStdString(), SQLite::OPEN_READWRITE | SQLite::OPEN_URI)
    {
    }

    void insertPrepared(const Kind &kind, const Rows &rows) override
    {
        SQLite::Transaction transaction(m_database);
        SQLite::Statement insert(m_database, preparedInsert(kind).toStdString());
        std::array<QByteArray, 9> texts; // bound without a copy
        for (const QStringList &row : rows) {
            forEachColumn(kind, row, [&](int column, const QString &text) {
                texts[size_t(column)] = text.toUtf8();
                insert.bindNoCopy(column + 1, texts[size_t(column)].constData());
            });
            insert.exec();
            insert.reset();
        }
        transaction.commit();
    }

    void insertText(const Kind &kind, const Rows &rows) override
    {
        SQLite::Transaction transaction(m_database);
        for (const QStringList &row : rows)
            m_database.exec(textInsert(kind, row).toStdString());
        transaction.commit();
    }

    void insertJoined(const Kind &kind, const Rows &rows) override
    {
        SQLite::Transaction transaction(m_database);
        for (const QStringList &row : rows)
            m_database.exec(joinedInsert(kind, row));
        transaction.commit();
    }

    template<typename Record>
    void readInto(const Kind &, const QString &sql, QList<Record> &list)
    {
        SQLite::Statement query(m_database, sql.toStdString());
        const Cells cells{query};
        while (query.executeStep()) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

private:
    SQLite::Database m_database;
};

} // namespace

const PeerType sqliteCppPeer{
    "SQLiteCpp", [](const QString &path) -> std::unique_ptr<Peer> { return std::make_unique<SqliteCpp>(path); },
    [] { return std::string(SQLITECPP_VERSION); }};
