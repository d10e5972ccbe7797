// SPDX-License-Identifier: MIT
#include "peer.h"

#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Session.h>
#include <Poco/Environment.h>

#include <cstdlib>
#include <memory>
#include <vector>

using namespace Poco::Data::Keywords;

namespace
{

using Texts = std::vector<std::string>;

struct Cells {
    const std::vector<Texts> &columns;
    size_t row;

    QString text(int column) const
    {
        const std::string &bytes = columns[size_t(column)][row];
        return QString::fromUtf8(bytes.data(), int(bytes.size()));
    }
    int integer(int column) const { return std::atoi(columns[size_t(column)][row].c_str()); }
    double real(int column) const { return std::strtod(columns[size_t(column)][row].c_str(), nullptr); }
    int size() const { return int(columns.size()); }
};

struct TypedCells : Cells {
    const std::vector<Poco::Int64> &ids;
    device::TimeReader times;

    qint64 id() const { return ids[row]; }
    device::LocalTime time(int column)
    {
        const std::string &bytes = columns[size_t(column)][row];
        return times.read(bytes.data(), qint64(bytes.size()));
    }
};

/// Into the variables that are bound.
struct Binder {
    Texts &texts;

    void operator()(int column, int number) const { texts[size_t(column)] = std::to_string(number); }
    void operator()(int column, const TimeText &time) const
    {
        texts[size_t(column)].assign(time.bytes, size_t(time.size));
    }
    void operator()(int column, const QString &text) const
    {
        const QByteArray bytes = text.toUtf8();
        texts[size_t(column)].assign(bytes.constData(), size_t(bytes.size()));
    }
};

void prepare(Poco::Data::Statement &insert, Texts &texts, const QString &sql)
{
    insert << sql.toStdString();
    for (std::string &text : texts)
        insert, use(text);
}

class PocoData : public PeerBase<PocoData>
{
public:
    explicit PocoData(const QString &path) : m_session(registered(), path.toStdString()) {}

    void insertPrepared(const Kind &kind, const Rows &rows) override
    {
        m_session.begin();
        Texts texts(size_t(kind.columns));
        Poco::Data::Statement insert(m_session);
        insert << preparedInsert(kind).toStdString();
        for (std::string &text : texts)
            insert, use(text);
        for (const QStringList &row : rows) {
            forEachColumn(kind, row, [&](int column, const QString &text) {
                const QByteArray bytes = text.toUtf8();
                texts[size_t(column)].assign(bytes.constData(), size_t(bytes.size()));
            });
            insert.execute();
        }
        m_session.commit();
    }

    void insertText(const Kind &kind, const Rows &rows) override
    {
        m_session.begin();
        for (const QStringList &row : rows)
            m_session << textInsert(kind, row).toStdString(), now;
        m_session.commit();
    }

    // Whole columns at once: four times as fast as one execute() a row.
    template<typename Record>
    void readInto(const Kind &kind, const QString &sql, QList<Record> &list)
    {
        std::vector<Texts> columns(size_t(kind.columns) + 1);
        Poco::Data::Statement query(m_session);
        query << sql.toStdString();
        for (Texts &column : columns)
            query, into(column);
        query.execute();
        for (Cells cells{columns, 0}; cells.row < columns[0].size(); ++cells.row) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

    template<typename Record>
    void appendRecords(const QList<Record> &records)
    {
        m_session.begin();
        Texts texts(size_t(typedKind<Record>().columns));
        Poco::Data::Statement insert(m_session);
        prepare(insert, texts, preparedInsert(typedKind<Record>()));
        for (const Record &record : records) {
            forEachCell(record, Binder{texts});
            insert.execute();
        }
        m_session.commit();
    }

    template<typename Record>
    void appendTexts(const QList<Record> &records)
    {
        m_session.begin();
        for (const Record &record : records)
            m_session << typedTextInsert(record).toStdString(), now;
        m_session.commit();
    }

    template<typename Record>
    void readRecords(const QString &sql, QList<Record> &list)
    {
        std::vector<Poco::Int64> ids;
        std::vector<Texts> columns(size_t(typedKind<Record>().columns) + 1); // the first for the ID, unused
        Poco::Data::Statement query(m_session);
        query << sql.toStdString(), into(ids);
        for (size_t column = 1; column < columns.size(); ++column)
            query, into(columns[column]);
        query.execute();
        TypedCells cells{{columns, 0}, ids, device::TimeReader(&typedKind<Record>() == &logKind)};
        for (; cells.row < ids.size(); ++cells.row) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

    void appendRoundRobin(const QStringList &tables, const QList<device::Sample> &samples) override
    {
        for (int i = int(m_kept.size()); i < tables.size(); ++i) {
            m_kept.push_back(std::make_unique<Poco::Data::Statement>(m_session));
            prepare(*m_kept.back(), m_texts, preparedInsert(historyKind, tables.at(i)));
        }
        m_session.begin();
        for (int i = 0; i < samples.size(); ++i) {
            forEachCell(samples.at(i), Binder{m_texts});
            m_kept[size_t(i % tables.size())]->execute();
        }
        m_session.commit();
    }

private:
    static const std::string &registered()
    {
        Poco::Data::SQLite::Connector::registerConnector();
        return Poco::Data::SQLite::Connector::KEY;
    }

    Poco::Data::Session m_session;
    Texts m_texts = Texts(2);
    std::vector<std::unique_ptr<Poco::Data::Statement>> m_kept;
};

std::string version()
{
    const Poco::UInt32 number = Poco::Environment::libraryVersion();
    return std::to_string(number >> 24) + '.' + std::to_string(number >> 16 & 255) + '.' +
           std::to_string(number >> 8 & 255);
}

} // namespace

const PeerType pocoPeer{
    "POCO", [](const QString &path) -> std::unique_ptr<Peer> { return std::make_unique<PocoData>(path); }, version};
