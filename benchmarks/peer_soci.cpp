// SPDX-License-Identifier: MIT
#include "peer.h"

#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <soci/version.h>

#include <cstdlib>
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

private:
    soci::session m_session;
};

} // namespace

const PeerType sociPeer{"SOCI",
                        [](const QString &path) -> std::unique_ptr<Peer> { return std::make_unique<Soci>(path); },
                        [] { return std::string(SOCI_LIB_VERSION); }};
