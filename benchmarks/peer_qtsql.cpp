// SPDX-License-Identifier: MIT
#include "peer.h"

#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QVariant>

#include <stdexcept>

namespace
{

void require(bool done, const QSqlError &error)
{
    if (!done)
        throw std::runtime_error(error.text().toStdString());
}

struct Cells {
    const QSqlQuery &query;
    int columns;

    QString text(int column) const { return query.value(column).toString(); }
    int integer(int column) const { return query.value(column).toInt(); }
    double real(int column) const { return query.value(column).toDouble(); }
    int size() const { return columns; }
};

class QtSql : public PeerBase<QtSql>
{
public:
    explicit QtSql(const QString &path)
    {
        static int connections = 0;
        m_name = QString::number(++connections);
        m_database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_name);
        m_database.setDatabaseName(path);
        require(m_database.open(), m_database.lastError());
    }
    ~QtSql() override
    {
        m_database = QSqlDatabase();
        QSqlDatabase::removeDatabase(m_name);
    }

    void insertPrepared(const Kind &kind, const Rows &rows) override
    {
        m_database.transaction();
        {
            QSqlQuery insert(m_database);
            require(insert.prepare(preparedInsert(kind)), insert.lastError());
            for (const QStringList &row : rows) {
                forEachColumn(kind, row,
                              [&insert](int column, const QString &text) { insert.bindValue(column, text); });
                require(insert.exec(), insert.lastError());
            }
        }
        require(m_database.commit(), m_database.lastError());
    }

    void insertText(const Kind &kind, const Rows &rows) override
    {
        m_database.transaction();
        {
            QSqlQuery insert(m_database);
            for (const QStringList &row : rows)
                require(insert.exec(textInsert(kind, row)), insert.lastError());
        }
        require(m_database.commit(), m_database.lastError());
    }

    template<typename Record>
    void readInto(const Kind &, const QString &sql, QList<Record> &list)
    {
        QSqlQuery query(m_database);
        query.setForwardOnly(true);
        require(query.exec(sql), query.lastError());
        const Cells cells{query, query.record().count()};
        while (query.next()) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

private:
    QString m_name;
    QSqlDatabase m_database;
};

} // namespace

const PeerType qtSqlPeer{"Qt SQL",
                         [](const QString &path) -> std::unique_ptr<Peer> { return std::make_unique<QtSql>(path); },
                         [] { return std::string(qVersion()); }};
