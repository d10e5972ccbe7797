// SPDX-License-Identifier: MIT
#include "peer.h"

#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QVariant>

#include <memory>
#include <stdexcept>
#include <vector>

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

struct TypedCells : Cells {
    device::TimeReader times;

    qint64 id() const { return query.value(0).toLongLong(); }
    device::LocalTime time(int column)
    {
        const QString text = this->text(column);
        return times.read(text.constData(), text.size());
    }
};

struct Binder {
    QSqlQuery &insert;

    void operator()(int column, int number) const { insert.bindValue(column, number); }
    void operator()(int column, const TimeText &time) const
    {
        insert.bindValue(column, QString(QLatin1String(time.bytes, time.size)));
    }
    void operator()(int column, const QString &text) const { insert.bindValue(column, text); }
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
        m_kept.clear();
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

    template<typename Record>
    void appendRecords(const QList<Record> &records)
    {
        m_database.transaction();
        {
            QSqlQuery insert(m_database);
            require(insert.prepare(preparedInsert(typedKind<Record>())), insert.lastError());
            for (const Record &record : records) {
                forEachCell(record, Binder{insert});
                require(insert.exec(), insert.lastError());
            }
        }
        require(m_database.commit(), m_database.lastError());
    }

    template<typename Record>
    void appendTexts(const QList<Record> &records)
    {
        m_database.transaction();
        {
            QSqlQuery insert(m_database);
            for (const Record &record : records)
                require(insert.exec(typedTextInsert(record)), insert.lastError());
        }
        require(m_database.commit(), m_database.lastError());
    }

    template<typename Record>
    void readRecords(const QString &sql, QList<Record> &list)
    {
        QSqlQuery query(m_database);
        query.setForwardOnly(true);
        require(query.exec(sql), query.lastError());
        TypedCells cells{{query, query.record().count()}, device::TimeReader(&typedKind<Record>() == &logKind)};
        while (query.next()) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

    void appendRoundRobin(const QStringList &tables, const QList<device::Sample> &samples) override
    {
        for (int i = int(m_kept.size()); i < tables.size(); ++i) {
            m_kept.push_back(std::make_unique<QSqlQuery>(m_database));
            require(m_kept.back()->prepare(preparedInsert(historyKind, tables.at(i))), m_kept.back()->lastError());
        }
        m_database.transaction();
        for (int i = 0; i < samples.size(); ++i) {
            QSqlQuery &insert = *m_kept[size_t(i % tables.size())];
            forEachCell(samples.at(i), Binder{insert});
            require(insert.exec(), insert.lastError());
        }
        require(m_database.commit(), m_database.lastError());
    }

private:
    QString m_name;
    QSqlDatabase m_database;
    std::vector<std::unique_ptr<QSqlQuery>> m_kept;
};

} // namespace

const PeerType qtSqlPeer{"Qt SQL",
                         [](const QString &path) -> std::unique_ptr<Peer> { return std::make_unique<QtSql>(path); },
                         [] { return std::string(qVersion()); }};
