// SPDX-License-Identifier: MIT
#include "peer.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <array>
#include <cstring>
#include <vector>

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

struct TypedCells : Cells {
    device::TimeReader times;

    qint64 id() const { return query.getColumn(0).getInt64(); }
    device::LocalTime time(int column)
    {
        const SQLite::Column cell = query.getColumn(column);
        const char *bytes = cell.getText();
        return times.read(bytes, cell.getBytes());
    }
};

/// Binds without a copy what must live until the row is stored.
struct Binder {
    SQLite::Statement &insert;
    char time[device::longestTime + 1] = {};
    std::array<QByteArray, 9> texts = {};

    void operator()(int column, int number) { insert.bind(column + 1, number); }
    void operator()(int column, const TimeText &text)
    {
        std::memcpy(time, text.bytes, size_t(text.size));
        insert.bindNoCopy(column + 1, time);
    }
    void operator()(int column, const QString &text)
    {
        texts[size_t(column)] = text.toUtf8();
        insert.bindNoCopy(column + 1, texts[size_t(column)].constData());
    }
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

    template<typename Record>
    void appendRecords(const QList<Record> &records)
    {
        SQLite::Transaction transaction(m_database);
        SQLite::Statement insert(m_database, preparedInsert(typedKind<Record>()).toStdString());
        Binder binder{insert};
        for (const Record &record : records) {
            forEachCell(record, binder);
            insert.exec();
            insert.reset();
        }
        transaction.commit();
    }

    template<typename Record>
    void appendTexts(const QList<Record> &records)
    {
        SQLite::Transaction transaction(m_database);
        for (const Record &record : records)
            m_database.exec(typedTextInsert(record).toStdString());
        transaction.commit();
    }

    template<typename Record>
    void readRecords(const QString &sql, QList<Record> &list)
    {
        SQLite::Statement query(m_database, sql.toStdString());
        TypedCells cells{{query}, device::TimeReader(&typedKind<Record>() == &logKind)};
        while (query.executeStep()) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

    void appendRoundRobin(const QStringList &tables, const QList<device::Sample> &samples) override
    {
        for (int i = int(m_kept.size()); i < tables.size(); ++i)
            m_kept.emplace_back(m_database, preparedInsert(historyKind, tables.at(i)).toStdString());
        SQLite::Transaction transaction(m_database);
        for (int i = 0; i < samples.size(); ++i) {
            SQLite::Statement &insert = m_kept[size_t(i % tables.size())];
            Binder binder{insert};
            forEachCell(samples.at(i), binder);
            insert.exec();
            insert.reset();
        }
        transaction.commit();
    }

private:
    SQLite::Database m_database;
    std::vector<SQLite::Statement> m_kept;
};

} // namespace

const PeerType sqliteCppPeer{
    "SQLiteCpp", [](const QString &path) -> std::unique_ptr<Peer> { return std::make_unique<SqliteCpp>(path); },
    [] { return std::string(SQLITECPP_VERSION); }};
