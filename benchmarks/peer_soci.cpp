// SPDX-License-Identifier: MIT
#include "peer.h"

#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <soci/version.h>

#include <cstdlib>
#include <memory>
#include <vector>

namespace
{

using Texts = std::vector<std::string>;

struct Cells {
    const Texts &texts;

    QString text(int column) const
    {
        const std::string &bytes = texts[size_t(column)];
        return QString::fromUtf8(bytes.data(), int(bytes.size()));
    }
    int integer(int column) const { return std::atoi(texts[size_t(column)].c_str()); }
    double real(int column) const { return std::strtod(texts[size_t(column)].c_str(), nullptr); }
    int size() const { return int(texts.size()); }
};

struct TypedCells : Cells {
    const long long &number;
    device::TimeReader times;

    qint64 id() const { return number; }
    device::LocalTime time(int column)
    {
        const std::string &bytes = texts[size_t(column)];
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

void prepare(soci::statement &insert, Texts &texts, const QString &sql)
{
    for (std::string &text : texts)
        insert.exchange(soci::use(text));
    insert.alloc();
    insert.prepare(sql.toStdString());
    insert.define_and_bind();
}

class Soci : public PeerBase<Soci>
{
public:
    explicit Soci(const QString &path) : m_session(soci::sqlite3, "dbname=" + path.toStdString()) {}

    void insertPrepared(const Kind &kind, const Rows &rows) override
    {
        soci::transaction transaction(m_session);
        Texts texts(size_t(kind.columns));
        soci::statement insert(m_session);
        for (std::string &text : texts)
            insert.exchange(soci::use(text));
        insert.alloc();
        insert.prepare(preparedInsert(kind).toStdString());
        insert.define_and_bind();
        for (const QStringList &row : rows) {
            forEachColumn(kind, row, [&](int column, const QString &text) {
                const QByteArray bytes = text.toUtf8();
                texts[size_t(column)].assign(bytes.constData(), size_t(bytes.size()));
            });
            insert.execute(true);
        }
        transaction.commit();
    }

    void insertText(const Kind &kind, const Rows &rows) override
    {
        soci::transaction transaction(m_session);
        for (const QStringList &row : rows)
            m_session << textInsert(kind, row).toStdString();
        transaction.commit();
    }

    template<typename Record>
    void readInto(const Kind &kind, const QString &sql, QList<Record> &list)
    {
        Texts texts(size_t(kind.columns) + 1);
        soci::statement query(m_session);
        for (std::string &text : texts)
            query.exchange(soci::into(text));
        query.alloc();
        query.prepare(sql.toStdString());
        query.define_and_bind();
        query.execute();
        const Cells cells{texts};
        while (query.fetch()) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

    template<typename Record>
    void appendRecords(const QList<Record> &records)
    {
        soci::transaction transaction(m_session);
        Texts texts(size_t(typedKind<Record>().columns));
        soci::statement insert(m_session);
        prepare(insert, texts, preparedInsert(typedKind<Record>()));
        for (const Record &record : records) {
            forEachCell(record, Binder{texts});
            insert.execute(true);
        }
        transaction.commit();
    }

    template<typename Record>
    void appendTexts(const QList<Record> &records)
    {
        soci::transaction transaction(m_session);
        for (const Record &record : records)
            m_session << typedTextInsert(record).toStdString();
        transaction.commit();
    }

    template<typename Record>
    void readRecords(const QString &sql, QList<Record> &list)
    {
        long long id = 0;
        Texts texts(size_t(typedKind<Record>().columns) + 1); // the first for the ID, unused
        soci::statement query(m_session);
        query.exchange(soci::into(id));
        for (size_t column = 1; column < texts.size(); ++column)
            query.exchange(soci::into(texts[column]));
        query.alloc();
        query.prepare(sql.toStdString());
        query.define_and_bind();
        query.execute();
        TypedCells cells{{texts}, id, device::TimeReader(&typedKind<Record>() == &logKind)};
        while (query.fetch()) {
            list.append(Record());
            fill(list.last(), cells);
        }
    }

    void appendRoundRobin(const QStringList &tables, const QList<device::Sample> &samples) override
    {
        for (int i = int(m_kept.size()); i < tables.size(); ++i) {
            m_kept.push_back(std::make_unique<soci::statement>(m_session));
            prepare(*m_kept.back(), m_texts, preparedInsert(historyKind, tables.at(i)));
        }
        soci::transaction transaction(m_session);
        for (int i = 0; i < samples.size(); ++i) {
            forEachCell(samples.at(i), Binder{m_texts});
            m_kept[size_t(i % tables.size())]->execute(true);
        }
        transaction.commit();
    }

private:
    soci::session m_session;
    Texts m_texts = Texts(2);
    std::vector<std::unique_ptr<soci::statement>> m_kept;
};

} // namespace

const PeerType sociPeer{"SOCI",
                        [](const QString &path) -> std::unique_ptr<Peer> { return std::make_unique<Soci>(path); },
                        [] { return std::string(SOCI_LIB_VERSION); }};
