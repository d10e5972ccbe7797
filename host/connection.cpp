// SPDX-License-Identifier: MIT
#include "connection.h"

#include "deadline.h"
#include "inserts.h"
#include "message_capture.h"

#include "interface_data_base.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <thread>

#include <sys/stat.h>

namespace device
{

namespace
{

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
    explicit Patience(const Connection &connection)
        : m_host(connection.m_options.cancel),
          m_question(connection.m_cancelled),
          m_deadline(connection.m_options.deadline)
    {
    }

    bool cancelled() const { return (m_host && *m_host) || (m_question && *m_question); }
    /// Sleeps a little; false when it is over.
    bool again()
    {
        if (cancelled() || m_deadline.isOver())
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
    const std::atomic_bool *m_host;
    const std::atomic_bool *m_question;
    const Deadline m_deadline;
    std::chrono::milliseconds m_pause{1};
};

FileIdentity FileIdentity::of(const QString &path)
{
    struct stat found;
    if (::stat(QFile::encodeName(path).constData(), &found) != 0)
        return {};
    return {quint64(found.st_dev), quint64(found.st_ino)};
}

Status checkOptions(const Site &site, const OpenOptions &options)
{
    if (options.checkpointPages < 1)
        return site.error(Error::OptionRefused,
                          QStringLiteral("checkpointPages is %1; the least is 1").arg(options.checkpointPages));
    if (options.profile < Profile::AsIs || options.profile > Profile::Flash)
        return site.error(Error::OptionRefused, QStringLiteral("profile is none of its values"));
    return {};
}

Connection::Question::Question(Connection &connection, const std::atomic_bool *cancelled)
    : m_connection(connection), m_role(connection.m_role)
{
    m_connection.m_role = Reader;
    m_connection.m_cancelled = cancelled;
}

Connection::Question::~Question()
{
    m_connection.m_role = m_role;
    m_connection.m_cancelled = nullptr;
}

Connection::Connection(Library library, interface_data_base *store, QString path, const OpenOptions &options, Role role)
    : m_library(std::move(library)), m_store(store), m_path(std::move(path)), m_options(options), m_role(role)
{
}

Connection::~Connection()
{
    const MessageCapture capture; // the messages of closing are not for the application
    if (moved())
        (void)emptyLog(); // SQLite itself leaves the log of a moved file where it is
    m_library.closeStore(m_store);
}

Result<std::shared_ptr<Connection>> Connection::open(const Library &library, const QString &path,
                                                     const OpenOptions &options)
{
    return open(library, path, options, Writer, nullptr);
}

Result<std::shared_ptr<Connection>> Connection::openReader(const Library &library, const QString &path,
                                                           const OpenOptions &options, const FileIdentity &file)
{
    return open(library, path, options, Reader, &file);
}

Result<std::shared_ptr<Connection>> Connection::open(const Library &library, const QString &path,
                                                     const OpenOptions &options, Role role,
                                                     const FileIdentity *expected)
{
    const Site site{QStringLiteral("open %1").arg(path), QString()};
    if (const Status checked = checkOptions(site, options); !checked)
        return checked.error();
    const QFileInfo file(path);
    if (path.isEmpty() || path.contains(QChar(0)))
        return site.error(Error::FileError, QStringLiteral("this is not a file name"));
    if (file.isDir())
        return site.error(Error::FileError, QStringLiteral("this is a folder"));
    if (!file.exists() && (!options.create || role == Reader))
        return site.error(Error::FileError, QStringLiteral("there is no such file"));
    if (!file.absoluteDir().exists())
        return site.error(Error::FileError, QStringLiteral("there is no folder ") + file.absolutePath());

    interface_data_base *store = library.createStore(QStringLiteral("historyDB"));
    if (!store)
        return site.error(Error::LibraryError, QStringLiteral("the library makes no history store"));
    // Absolute: the file is looked for again after each commit, wherever the application has changed to by then.
    const std::shared_ptr<Connection> connection(
        new Connection(library, store, file.absoluteFilePath(), options, role));
    const int code = [&] {
        const MessageCapture capture;
        return store->openDB(path);
    }();
    if (code != 0)
        return site.error(Error::FileError, openingCause(code));
    connection->m_file = FileIdentity::of(connection->m_path);
    // Before the first read, which opens the log: that of the expected file may still have the name that another's has.
    if (expected && !(connection->m_file == *expected))
        return site.error(Error::FileMoved, QStringLiteral("%1 was moved or deleted").arg(path));
    // SQLite opens a file when it is first read.
    if (const auto tables = connection->number(site, QStringLiteral("select count(*) from sqlite_master")); !tables)
        return tables.error();
    if (role == Writer) {
        if (const Status prepared = connection->applyProfile(); !prepared)
            return prepared.error();
    }
    const auto mode = connection->query(site, QStringLiteral("pragma journal_mode"));
    if (!mode)
        return mode.error();
    connection->m_writesAhead = !mode->isEmpty() && mode->first().value(0) == QLatin1String("wal");
    connection->m_hasJson = connection->query(site, jsonTrial()).ok();
    if (connection->m_writesAhead) {
        // Beside the file itself, as SQLite has it, when the path is a symbolic link.
        connection->m_logPath = QFileInfo(connection->m_path).canonicalFilePath() + QLatin1String("-wal");
        connection->m_log = FileIdentity::of(connection->m_logPath);
    }
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

bool Connection::moved() const
{
    return m_file.inode != 0 && (!(FileIdentity::of(m_path) == m_file) || (m_writesAhead && !logIsInPlace()));
}

// One try.
Status Connection::emptyLog()
{
    const Site site{QStringLiteral("leave %1").arg(m_path), QString()};
    if (!m_writesAhead)
        return {};
    const auto answer = ask(site, QStringLiteral("pragma wal_checkpoint(truncate)"));
    if (!answer)
        return answer.error();
    if (answer->first().value(0) != QLatin1String("0"))
        return site.error(Error::Locked, QStringLiteral("it was moved while its write-ahead log is being read"));
    return {};
}

Status Connection::takeLogIntoFile()
{
    Patience patience(*this);
    for (;;) {
        const Status done = emptyLog();
        if (done || !logIsInPlace())
            return {};
        if (!patience.again())
            return patience.stopped(Site(), done.error());
    }
}

Status Connection::mayWrite(const Site &site) const
{
    if (m_role == Writer)
        return {};
    return site.error(Error::ReadOnly, QStringLiteral("a question to a recorder only reads"));
}

Error Connection::failed(const Site &site, const MessageCapture &capture)
{
    m_explained = !capture.text().isEmpty();
    if (!m_explained)
        MessageCapture::install(); // the application has put a handler of its own in front since
    return failure(site, capture.text());
}

Status Connection::run(const Site &site, const QString &sql)
{
    const MessageCapture capture;
    QList<QStringList> none;
    if (m_store->execSQL({sql}, none, 0))
        return {};
    return failed(site, capture);
}

Result<QList<QStringList>> Connection::ask(const Site &site, const QString &sql)
{
    const MessageCapture capture;
    QList<QStringList> rows;
    if (m_store->execSQL({sql}, rows, 1))
        return rows;
    return failed(site, capture);
}

Result<QList<QStringList>> Connection::query(const Site &site, const QString &sql)
{
    Patience patience(*this);
    if (m_cancelled && *m_cancelled)
        return site.error(Error::Cancelled, QStringLiteral("cancelled before it began"));
    for (;;) {
        auto rows = ask(site, sql);
        if (rows)
            return rows;
        Error why = rows.error();
        if (!m_explained && !isReadable())
            why = asLock(site);
        if (why.code() != Error::Locked)
            return why;
        if (!patience.again())
            return patience.stopped(site, why);
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
    if (const Status may = mayWrite(site); !may)
        return may;
    Patience patience(*this);
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
    if (const Status may = mayWrite(site); !may)
        return may;
    Patience patience(*this);
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
    m_commitInDoubt = false;
    if (moved())
        return left(site);
    // "immediate": whoever writes waits here, before anything was done, and not in the middle.
    Status begun = run(site, QStringLiteral("begin immediate"));
    if (!begun && isInTransaction()) {
        (void)run(site, QStringLiteral("rollback")); // left over from a rollback that failed
        begun = run(site, QStringLiteral("begin immediate"));
    }
    if (!begun)
        return m_explained ? begun.error() : asLock(site);
    if (const Status done = body(); !done) {
        (void)run(site, QStringLiteral("rollback")); // fails when SQLite rolled back itself
        return done;
    }
    if (const Status done = commit(site, patience); !done)
        return done;
    return moved() ? left(site) : Status(); // moved since this began: only then can it be in the wrong file
}

// Whoever gets this Error opens the path again, so the log must not wait for that.
Error Connection::left(const Site &site)
{
    (void)takeLogIntoFile();
    return site.error(Error::FileMoved, QStringLiteral("%1 was moved or deleted while it was open").arg(m_path));
}

Status Connection::commit(const Site &site, Patience &patience)
{
    Status done = run(site, QStringLiteral("commit"));
    if (done)
        return done;
    ++m_failedCommits;
    // A reader of another connection: the transaction is still open and whole, so only the commit is tried again.
    bool open = isInTransaction();
    while (!done && open && patience.again()) {
        done = run(site, QStringLiteral("commit"));
        open = !done && isInTransaction();
    }
    if (done)
        return done;
    const Error why = m_explained || !open ? done.error() : asLock(site);
    if (open)
        (void)run(site, QStringLiteral("rollback"));
    else
        m_commitInDoubt = true;
    return patience.stopped(site, why);
}

// SQLite answers a second "begin" with an error; after a begin that went through there was none.
bool Connection::isInTransaction()
{
    const bool explained = m_explained;
    const Site site;
    const bool open = !run(site, QStringLiteral("begin"));
    if (!open)
        (void)run(site, QStringLiteral("rollback"));
    m_explained = explained;
    return open;
}

bool Connection::isReadable()
{
    return ask(Site(), QStringLiteral("select count(*) from sqlite_master")).ok();
}

// Without words from SQLite: what neither begins nor reads is locked, as far as can be asked. It is tried again.
Error Connection::asLock(const Site &site) const
{
    return site.error(Error::Locked, QStringLiteral("the file does not answer, so it is taken to be locked"));
}

Result<bool> Connection::checkpoint()
{
    const Site site{QStringLiteral("checkpoint"), QString()};
    if (const Status may = mayWrite(site); !may)
        return may.error();
    // The slot for checkpoints does not answer. The pragma does: pages in the log, pages moved, -1 without a log.
    return query(site, QStringLiteral("pragma wal_checkpoint")).map([](const QList<QStringList> &rows) {
        const QStringList answer = rows.value(0);
        return answer.value(0) == QLatin1String("0") && answer.value(1) == answer.value(2);
    });
}

Result<PageCounts> Connection::pageCounts(bool patiently)
{
    const Site site{QStringLiteral("measure"), QString()};
    const QString sql = QStringLiteral("select page_count,freelist_count,page_size from pragma_page_count,"
                                       "pragma_freelist_count,pragma_page_size");
    const auto rows = patiently ? query(site, sql) : ask(site, sql);
    if (!rows)
        return rows.error();
    const QStringList &cells = rows->first();
    return PageCounts{cells.at(0).toLongLong(), cells.at(1).toLongLong(), cells.at(2).toLongLong()};
}

} // namespace device
