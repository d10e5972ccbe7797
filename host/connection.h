// SPDX-License-Identifier: MIT
#ifndef DEVICE_CONNECTION_H
#define DEVICE_CONNECTION_H

#include "device/store.h"
#include "sql_channel.h"

namespace device
{

class MessageCapture;

/// Which file a path names, as far as the system can say. Asked by stat() alone: a second open and close of the file in
/// this process would drop SQLite's locks.
struct FileIdentity {
    quint64 device = 0;
    quint64 inode = 0; ///< 0: there is none.

    static FileIdentity of(const QString &path);
    friend bool operator==(const FileIdentity &a, const FileIdentity &b)
    {
        return a.device == b.device && a.inode == b.inode;
    }
};

/// The pages of a file.
struct PageCounts {
    qint64 pages = 0;
    qint64 free = 0;
    qint64 pageSize = 0;

    qint64 usedBytes() const { return (pages - free) * pageSize; }
};

/// Whether a file can be opened with these options; the Error names the option that cannot work.
Status checkOptions(const Site &site, const OpenOptions &options);

/// The one channel to one file: SQL through execSQL() of a history store, whatever the kind of table.
///
/// That slot answers for each statement by itself, rows or no rows, which no other slot does. Only the words of a
/// failure come by the debug output. Of one thread at a time.
class Connection : public SqlChannel
{
    enum Role { Writer, Reader };

public:
    static Result<std::shared_ptr<Connection>> open(const Library &library, const QString &path,
                                                    const OpenOptions &options);
    /// A connection that changes nothing: it neither creates the file nor sets it up, and its operations that write
    /// fail. Error::FileMoved when the path does not name `file` any more.
    static Result<std::shared_ptr<Connection>> openReader(const Library &library, const QString &path,
                                                          const OpenOptions &options, const FileIdentity &file);
    ~Connection() override;

    QString path() const { return m_path; }
    FileIdentity file() const { return m_file; }
    const OpenOptions &options() const { return m_options; }
    bool isReader() const override { return m_role == Reader; }
    qint64 failedCommits() const { return m_failedCommits; }
    /// In write-ahead mode a reader and the writer do not lock each other out.
    bool writesAhead() const { return m_writesAhead; }
    bool hasJson() const { return m_hasJson; } ///< SQLite has json_each().
    /// Whether the path still names the file that this connection opened, its write-ahead log included.
    bool moved() const;
    /// Moves what the write-ahead log holds into the file that is open, wherever that is now. To be done before another
    /// file is opened by the same path: the log keeps its name, and SQLite would take it for that of the other file. An
    /// Error when the log still holds something and still has that name.
    Status takeLogIntoFile();

    /// While it holds, the connection refuses to write and gives up when `cancelled` turns true.
    class Question
    {
    public:
        Question(Connection &connection, const std::atomic_bool *cancelled);
        ~Question();

    private:
        Q_DISABLE_COPY(Question)
        Connection &m_connection;
        const Role m_role;
    };

    /// The rows of a query, tried until the deadline.
    Result<QList<QStringList>> query(const Site &site, const QString &sql) override;
    Result<qint64> number(const Site &site, const QString &sql);

    /// Runs `body` in one transaction: all of it, or nothing and an Error. Inside use run() and ask(). While
    /// the file is locked it is tried again, the body too, until the deadline.
    Status transaction(const Site &site, const std::function<Status()> &body) override;
    Status run(const Site &site, const QString &sql) override;
    Result<QList<QStringList>> ask(const Site &site, const QString &sql) override;

    /// Whether a transaction is open at this moment.
    bool isInTransaction();
    /// Whether SQLite said why the last run() or ask() failed.
    bool explained() const { return m_explained; }
    /// The last transaction() failed in its very last step, so that only the file can show whether it is stored.
    bool commitInDoubt() const { return m_commitInDoubt; }

    /// Outside a transaction: VACUUM and the like, tried until the deadline.
    Status alone(const Site &site, const QString &sql);
    /// Whether all of the write-ahead log is in the file now.
    Result<bool> checkpoint();
    /// `patiently`: while the file is locked it is tried again until the deadline.
    Result<PageCounts> pageCounts(bool patiently = true);

private:
    class Patience;

    static Result<std::shared_ptr<Connection>> open(const Library &library, const QString &path,
                                                    const OpenOptions &options, Role role,
                                                    const FileIdentity *expected);
    Connection(Library library, interface_data_base *store, QString path, const OpenOptions &options, Role role);
    Q_DISABLE_COPY(Connection)

    Status mayWrite(const Site &site) const;
    Status applyProfile();
    bool logIsInPlace() const { return m_log.inode != 0 && FileIdentity::of(m_logPath) == m_log; }
    Status emptyLog();
    Error left(const Site &site);
    Error failed(const Site &site, const MessageCapture &capture);
    Error asLock(const Site &site) const;
    Status attempt(const Site &site, const std::function<Status()> &body, Patience &patience);
    Status commit(const Site &site, Patience &patience);
    bool isReadable();

    Library m_library;
    interface_data_base *m_store;
    QString m_path;
    OpenOptions m_options;
    Role m_role;
    const std::atomic_bool *m_cancelled = nullptr; ///< Of the question that is being answered.
    bool m_writesAhead = false;
    bool m_hasJson = false;
    bool m_explained = true;
    bool m_commitInDoubt = false;
    FileIdentity m_file;
    FileIdentity m_log;
    QString m_logPath;
    qint64 m_failedCommits = 0;
};

} // namespace device

#endif
