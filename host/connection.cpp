// SPDX-License-Identifier: MIT
#include "connection.h"

#include "inserts.h"
#include "message_capture.h"

#include "interface_data_base.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <thread>

namespace device
{

namespace
{

using Clock = std::chrono::steady_clock;

struct Meaning {
    const char *words;
    Error::Code code;
};

// SQLite's own words, as the store library passes them on.
constexpr Meaning meanings[] = {
    {"is locked", Error::Locked},
    {"no such table", Error::TableMissing},
    {"no such column", Error::TableLayout},
    {"has no column", Error::TableLayout},
    {"values were supplied", Error::TableLayout},
    {"is full", Error::StorageFailed},
    {"disk I/O error", Error::StorageFailed},
    {"readonly", Error::StorageFailed},
    {"out of memory", Error::StorageFailed},
    {"unable to open", Error::FileError},
    {"not a database", Error::FileError},
    {"malformed", Error::FileError},
};

Error failure(const Site &site, const QString &cause)
{
    for (const Meaning &meaning : meanings) {
        if (cause.contains(QLatin1String(meaning.words)))
            return site.error(meaning.code, cause);
    }
    return site.error(Error::Failed, cause.isEmpty() ? QStringLiteral("the store library did not say why: its debug "
                                                                      "output is switched off")
                                                     : cause);
}

// The file or the medium stood in the way, not the statement.
bool isOfTheFile(Error::Code code)
{
    return code == Error::Locked || code == Error::StorageFailed || code == Error::FileError ||
           code == Error::Cancelled;
}

QString openingCause(int code)
{
    switch (code & 0xff) {
    case 7:
        return QStringLiteral("out of memory");
    case 14:
        return QStringLiteral("unable to open database file");
    default:
        return QStringLiteral("SQLite answered %1").arg(code);
    }
}

} // namespace

// Waits between two tries until the deadline or until the host cancels.
class Connection::Patience
{
public:
    explicit Patience(const OpenOptions &options)
        : m_cancel(options.cancel), m_deadline(Clock::now() + options.deadline)
    {
    }

    bool cancelled() const { return m_cancel && *m_cancel; }
    /// Sleeps a little; false when it is over.
    bool again()
    {
        if (cancelled() || Clock::now() >= m_deadline)
            return false;
        std::this_thread::sleep_for(m_pause);
        m_pause = std::min(m_pause * 2, std::chrono::milliseconds(20));
        return true;
    }
    Error stopped(const Site &site, const Error &last) const
    {
        return cancelled() ? site.error(Error::Cancelled, QStringLiteral("cancelled while: ") + last.cause()) : last;
    }

private:
    const std::atomic_bool *m_cancel;
    Clock::time_point m_deadline;
    std::chrono::milliseconds m_pause{1};
};

Connection::Connection(Library library, interface_data_base *store, QString path, const OpenOptions &options)
    : m_library(std::move(library)), m_store(store), m_path(std::move(path)), m_options(options)
{
}

Connection::~Connection()
{
    const MessageCapture capture; // the destructor's farewell is no news to the host
    m_library.closeStore(m_store);
}

Result<std::shared_ptr<Connection>> Connection::open(const Library &library, const QString &path,
                                                     const OpenOptions &options)
{
    const Site site{QStringLiteral("open %1").arg(path), QString()};
    const QFileInfo file(path);
    if (path.isEmpty() || path.contains(QChar(0)))
        return site.error(Error::FileError, QStringLiteral("this is no file name"));
    if (file.isDir())
        return site.error(Error::FileError, QStringLiteral("this is a folder"));
    if (!file.exists() && !options.create)
        return site.error(Error::FileError, QStringLiteral("there is no such file"));
    if (!file.absoluteDir().exists())
        return site.error(Error::FileError, QStringLiteral("there is no folder ") + file.absolutePath());

    interface_data_base *store = library.createStore(QStringLiteral("historyDB"));
    if (!store)
        return site.error(Error::LibraryError, QStringLiteral("the library makes no history store"));
    const std::shared_ptr<Connection> connection(new Connection(library, store, path, options));
    const int code = [&] {
        const MessageCapture capture;
        return store->openDB(path);
    }();
    if (code != 0)
        return site.error(Error::FileError, openingCause(code));
    // SQLite opens a file when it is first read.
    if (const auto tables = connection->number(site, QStringLiteral("select count(*) from sqlite_master")); !tables)
        return tables.error();
    if (const Status prepared = connection->applyProfile(); !prepared)
        return prepared.error();
    connection->m_hasJson = connection->query(site, jsonTrial()).ok();
    return connection;
}

Status Connection::applyProfile()
{
    if (m_options.profile == Profile::AsIs)
        return {};
    const Site site{QStringLiteral("prepare %1").arg(m_path), QString()};
    const auto mode = query(site, QStringLiteral("pragma journal_mode=wal"));
    if (!mode)
        return mode.error();
    if (mode->isEmpty() || mode->first().value(0) != QLatin1String("wal"))
        return site.error(Error::FileError, QStringLiteral("the file system takes no write-ahead log"));
    for (const QString &pragma : {m_options.profile == Profile::Durable ? QStringLiteral("pragma synchronous=full")
                                                                        : QStringLiteral("pragma synchronous=normal"),
                                  QStringLiteral("pragma wal_autocheckpoint=%1").arg(m_options.checkpointPages)}) {
        if (const auto set = query(site, pragma); !set)
            return set.error();
    }
    return {};
}

Status Connection::run(const Site &site, const QString &sql)
{
    const MessageCapture capture;
    QList<QStringList> none;
    if (m_store->execSQL({sql}, none, 0))
        return {};
    return failure(site, capture.text());
}

Result<QList<QStringList>> Connection::ask(const Site &site, const QString &sql)
{
    const MessageCapture capture;
    QList<QStringList> rows;
    if (m_store->execSQL({sql}, rows, 1))
        return rows;
    return failure(site, capture.text());
}

Result<QList<QStringList>> Connection::query(const Site &site, const QString &sql)
{
    Patience patience(m_options);
    for (;;) {
        auto rows = ask(site, sql);
        if (rows || rows.error().code() != Error::Locked)
            return rows;
        if (!patience.again())
            return patience.stopped(site, rows.error());
    }
}

Result<qint64> Connection::number(const Site &site, const QString &sql)
{
    const auto rows = query(site, sql);
    if (!rows)
        return rows.error();
    if (rows->isEmpty())
        return site.error(Error::Failed, QStringLiteral("the query gave no row"));
    return rows->first().value(0).toLongLong();
}

Status Connection::alone(const Site &site, const QString &sql)
{
    Patience patience(m_options);
    for (;;) {
        const Status done = run(site, sql);
        if (done || done.error().code() != Error::Locked)
            return done;
        if (!patience.again())
            return patience.stopped(site, done.error());
    }
}

Status Connection::transaction(const Site &site, const std::function<Status()> &body)
{
    Patience patience(m_options);
    for (;;) {
        const Status done = attempt(site, body, patience);
        if (done || done.error().code() != Error::Locked)
            return done;
        if (!patience.again())
            return patience.stopped(site, done.error());
    }
}

Status Connection::attempt(const Site &site, const std::function<Status()> &body, Patience &patience)
{
    // "immediate": whoever writes waits here, before anything was done, and not in the middle.
    Status begun = run(site, QStringLiteral("begin immediate"));
    if (!begun && isInTransaction()) {
        (void)run(site, QStringLiteral("rollback")); // left over from a rollback that failed
        begun = run(site, QStringLiteral("begin immediate"));
    }
    if (!begun)
        return begun;
    if (const Status done = body(); !done) {
        (void)run(site, QStringLiteral("rollback")); // fails when SQLite rolled back itself
        return done;
    }
    return commit(site, patience);
}

Status Connection::commit(const Site &site, Patience &patience)
{
    Status done = run(site, QStringLiteral("commit"));
    if (done)
        return done;
    ++m_failedCommits;
    // A reader of another connection: the transaction is still open and whole, so only the commit is tried again.
    while (!done && isInTransaction() && patience.again())
        done = run(site, QStringLiteral("commit"));
    if (done)
        return done;
    (void)run(site, QStringLiteral("rollback"));
    return patience.stopped(site, done.error());
}

// SQLite answers a second "begin" with an error; after a begin that went through there was none.
bool Connection::isInTransaction()
{
    const Site site;
    if (!run(site, QStringLiteral("begin")))
        return true;
    (void)run(site, QStringLiteral("rollback"));
    return false;
}

Result<qint64> Connection::change(const Site &site, const QStringList &statements)
{
    qint64 changed = 0;
    const Status done = transaction(site, [&]() -> Status {
        changed = 0;
        for (const QString &statement : statements) {
            if (const Status each = run(site, statement); !each)
                return each;
            const auto rows = ask(site, QStringLiteral("select changes()"));
            if (!rows)
                return rows.error();
            changed += rows->first().first().toLongLong();
        }
        return {};
    });
    if (!done)
        return done.error();
    return changed;
}

Result<Written> Connection::write(const Site &site, const QVector<Write> &writes)
{
    Written written;
    if (writes.isEmpty())
        return written;
    Status done = transaction(site, [&] { return all(site, writes, written); });
    if (!done && !isOfTheFile(done.error().code()))
        done = transaction(site, [&] { return eachAlone(site, writes, written); });
    if (!done)
        return done.error();
    return written;
}

Status Connection::all(const Site &site, const QVector<Write> &writes, Written &written)
{
    written = Written();
    for (int i = 0; i < writes.size();) {
        if (writes.at(i).table.isEmpty()) {
            if (const Status done = run(site, writes.at(i).text); !done)
                return done;
            const auto changed = ask(site, QStringLiteral("select changes()"));
            if (!changed)
                return changed.error();
            written.changed.append(changed->first().first().toLongLong());
            ++i;
            continue;
        }
        QVector<int> rows;
        for (; i < writes.size() && !writes.at(i).table.isEmpty(); ++i)
            rows.append(i);
        const QVector<Insert> inserts = insertsOf(writes, rows, m_hasJson);
        for (const Insert &insert : inserts) {
            if (const Status done = run(site, insert.sql); !done)
                return done;
        }
    }
    written.stored = int(writes.size());
    return {};
}

Status Connection::eachAlone(const Site &site, const QVector<Write> &writes, Written &written)
{
    Written none;
    written = none;
    for (int i = 0; i < writes.size(); ++i) {
        const Status done = all({site.operation, writes.at(i).table}, {writes.at(i)}, none);
        if (done) {
            ++written.stored;
            written.changed += none.changed;
            continue;
        }
        if (isOfTheFile(done.error().code()) || !isInTransaction())
            return done;
        written.refused.append({i, done.error()});
        if (writes.at(i).table.isEmpty())
            written.changed.append(0);
    }
    return {};
}

Result<qint64> Connection::usedBytes()
{
    return number({QStringLiteral("measure"), QString()},
                  QStringLiteral("select (page_count-freelist_count)*page_size from pragma_page_count,"
                                 "pragma_freelist_count,pragma_page_size"));
}

void Connection::checkpoint()
{
    const MessageCapture capture;
    m_store->dbWalCheckPoint();
}

} // namespace device
