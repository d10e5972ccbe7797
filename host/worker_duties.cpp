// SPDX-License-Identifier: MIT
//
// What the threads of a recorder do between batches: slices of deletions and of trends, questions.
#include "worker.h"

#include <algorithm>

namespace device
{

namespace
{

constexpr int pausesUntilNextLook = 60; // whether another program has written since

} // namespace

// One slice of a deletion or one question, by turns.
void Recorder::Worker::duty(std::unique_lock<std::mutex> &lock)
{
    // Rows are summed up before they are deleted.
    const bool sumsFirst =
        rollupsAreDue() &&
        (!m_rollupsAreKnown || (removalWaits() && m_rollups.isBehind(m_removals.front().removal.site.table)));
    if (removalWaits() && !sumsFirst) {
        Removing removing = std::move(m_removals.front());
        m_removals.pop_front();
        lock.unlock();
        removeSlice(removing);
        lock.lock();
    }
    if (rollupsAreDue()) {
        lock.unlock();
        keepRollups();
        lock.lock();
    }
    if (retentionIsDue()) {
        lock.unlock();
        keepRows();
        lock.lock();
    }
    if (Clock::now() >= nextAudit()) {
        lock.unlock();
        auditTrends();
        lock.lock();
    }
    if (!m_stopping && !m_readsApart && !m_questions.empty() && mayBegin(m_questions.front().after)) {
        const Asked asked = std::move(m_questions.front());
        m_questions.pop_front();
        m_running = asked.handle;
        lock.unlock();
        answer(asked, m_connection);
        lock.lock();
        m_running.reset();
    }
}

// What failed may have failed because the path names another file by now.
void Recorder::Worker::lookWhetherMoved(const Status &done)
{
    if (done || done.error().code() != Error::FileMoved)
        return;
    const std::lock_guard lock(m_mutex);
    m_fileIsMissed = true;
}

void Recorder::Worker::removeSlice(Removing &removing)
{
    Removal &removal = removing.removal;
    Status done;
    if (m_retention.room().isLimited())
        removal.widest = m_options.batchRows;
    if (!removal.next) {
        (void)writeRollups(); // a crash would lose what is only in memory; on a full disk the deletion counts more
        if (rollupsAreDue() && m_rollups.isBehind(removal.site.table)) {
            const std::lock_guard lock(m_mutex);
            m_removals.push_front(std::move(removing));
            return;
        }
    }
    if (removing.handle.isCancelled())
        done = removal.site.error(Error::Cancelled, QStringLiteral("cancelled"));
    else if (const Status fits = m_retention.room().prepare(*m_connection, m_options.batchRows); !fits)
        done = fits;
    else
        done = device::removeSlice(*m_connection, removal);
    m_audit.rowsRemoved(removal.site.table);
    if (done && !removal.done) {
        const std::lock_guard lock(m_mutex);
        if (!m_stopping) {
            m_removals.push_back(std::move(removing)); // several take turns
            return;
        }
        done = removal.site.error(Error::Stopped, QStringLiteral("the recorder was stopped"));
    }
    if (removal.resetsIds)
        m_rollups.lookAgain(removal.site.table);
    if (removal.removed > 0)
        tell(&Recorder::removed, removal.site.table, removal.removed);
    lookWhetherMoved(done);
    if (done)
        mail(removing.answer(removal.removed));
    else
        mail(removing.answer(
            removal.site.error(done.error().code(), QStringLiteral("%1; %2 rows were deleted before")
                                                        .arg(done.error().cause(), QString::number(removal.removed)))));
}

// One slice of what the rollups lack. What does not work is tried again later: a reader does without.
void Recorder::Worker::keepRollups()
{
    Status done;
    if (!m_rollupsAreKnown) {
        done = m_rollups.open(*m_connection);
        m_rollupsAreKnown = done || !isOfTheFile(done.error().code());
        m_audit.begin(*m_connection, m_rollups.tables());
        m_nextAudit = {};
    } else if (const Status fits = m_retention.room().prepare(*m_connection, m_options.batchRows); !fits) {
        m_nextRollups = Clock::now() + retryPause;
        return;
    } else {
        const Room::LastPages pages(m_retention.room(), *m_connection);
        done = m_rollups.catchUp(*m_connection);
    }
    if (!done) {
        m_nextRollups = Clock::now() + retryPause;
        lookWhetherMoved(done);
    }
    std::optional<Error> trouble = m_rollups.takeTrouble();
    if (!trouble && !done && !isOfTheFile(done.error().code()))
        trouble = done.error();
    if (trouble)
        tell(&Recorder::trendFailed, *trouble);
}

Clock::time_point Recorder::Worker::nextAudit() const
{
    const bool isWanted = m_options.auditPause.count() >= 0 &&
                          m_options.auditPause != std::chrono::milliseconds::max() && m_audit.hasTables();
    return isWanted && m_rollupsAreKnown && !m_rollups.isBehind() ? m_nextAudit : Clock::time_point::max();
}

void Recorder::Worker::auditTrends()
{
    const std::chrono::milliseconds pause = std::clamp<std::chrono::milliseconds>(
        m_options.auditPause, std::chrono::milliseconds(1), std::chrono::hours(1));
    m_nextAudit = Clock::now() + pausesUntilNextLook * pause;
    if (const Status fits = m_retention.room().prepare(*m_connection, m_options.batchRows); !fits)
        return;
    const auto step = m_audit.step(*m_connection);
    if (!step) {
        lookWhetherMoved(step.error());
        return;
    }
    if (step->goesOn)
        m_nextAudit = Clock::now() + pause;
    for (const QString &table : step->tables) {
        if (!m_rollups.lookAgain(table) && step->mended > 0)
            m_rollupsAreKnown = false; // it was dropped, and somebody made it anew
    }
    const std::lock_guard lock(m_mutex);
    m_health.mended += step->mended;
}

// What is still in memory: before its rows go, and at the end, where the next recorder would read the rows instead.
Status Recorder::Worker::writeRollups()
{
    const Site site{QStringLiteral("record"), QString()};
    Status done;
    while (done && m_rollups.isInMemory()) {
        done = m_retention.room().prepare(*m_connection, m_options.batchRows);
        if (done)
            done = m_connection->transaction(site, [this] { return m_rollups.write(*m_connection, true); });
        if (done)
            m_rollups.written();
    }
    return done;
}

// Rows take what is old with them. Without rows, or after the host's word, it goes by itself.
bool Recorder::Worker::retentionIsDue()
{
    if (m_retention.hearsWord())
        m_nextRetention = {};
    if (Clock::now() < nextRetention())
        return false;
    if (m_retention.isDue())
        return true;
    m_nextRetention = Clock::now() + retentionPause;
    return false;
}

Clock::time_point Recorder::Worker::nextRetention()
{
    if (!m_rollupsAreKnown || !m_retention.isActive())
        return Clock::time_point::max();
    return m_retention.isUrgent() ? m_nextRetention : std::max(m_nextRetention, m_lastStored + quietTime);
}

Status Recorder::Worker::trim(Connection &connection, qint64 rows)
{
    return m_retention.trim(connection, rows, [this](const QString &table) { return m_rollups.summed(table); });
}

void Recorder::Worker::keepRows()
{
    const Site site{QStringLiteral("keep"), QString()};
    Status done = m_retention.room().prepare(*m_connection, m_options.batchRows);
    if (done)
        done = m_connection->transaction(site, [this] { return trim(*m_connection, m_options.batchRows); });
    lookWhetherMoved(done);
    if (const auto pages = m_connection->pageCounts(false); done && pages)
        m_retention.room().measure(*pages);
    const bool goesOn = done && tellOfRetention() > 0;
    m_nextRetention = Clock::now() + (goesOn ? std::chrono::milliseconds(0) : done ? retentionPause : retryPause);
}

// The transaction that trimmed is in the file.
qint64 Recorder::Worker::tellOfRetention()
{
    qint64 rows = 0;
    for (const TrimmedRows &each : m_retention.trimmed()) {
        rows += each.rows;
        m_audit.rowsRemoved(each.table);
        tell(&Recorder::trimmed, each.table, each.rows);
    }
    for (const Error &why : m_retention.takeTroubles())
        tell(&Recorder::retentionHeld, why);
    const std::lock_guard lock(m_mutex);
    m_health.trimmed += rows;
    return rows;
}

// After the disk or the file was full.
Status Recorder::Worker::makeRoomInFile()
{
    const Site site{QStringLiteral("record"), QString()};
    if (const Status begun = m_retention.room().startLogAnew(*m_connection); !begun)
        return begun;
    const Room::LastPages last(m_retention.room(), *m_connection);
    bool isSummedUp = false;
    for (;;) {
        const auto pages = m_connection->pageCounts();
        if (!pages)
            return pages.error();
        m_retention.room().measure(*pages);
        m_retention.room().need(qint64(m_batch.size()), bytesOfBatch());
        if (!m_retention.room().isShort())
            return {};
        const Status done = m_connection->transaction(
            site, [this] { return trim(*m_connection, Room::removedPerRow * qint64(m_batch.size())); });
        if (!done)
            return done;
        if (tellOfRetention() > 0)
            continue;
        if (std::exchange(isSummedUp, true))
            break;
        (void)writeRollups(); // what is not summed up yet cannot go
    }
    return site.error(Error::StorageFailed, m_retention.whyFull());
}

// --- The reader

void Recorder::Worker::read()
{
    t_ofThisThread = this;
    std::shared_ptr<Connection> connection;
    int opening = 0;
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_asked.wait(lock, [this] {
            return m_stopping || (m_readsApart && !m_questions.empty() && mayBegin(m_questions.front().after));
        });
        if (m_stopping)
            break;
        const Asked asked = std::move(m_questions.front());
        m_questions.pop_front();
        m_running = asked.handle;
        const bool reopened = std::exchange(opening, m_openings) != m_openings;
        const FileIdentity file = m_file;
        lock.unlock();
        if (reopened)
            connection.reset();
        std::optional<Error> why;
        if (!connection) {
            const auto opened = Connection::openReader(m_library, m_path, m_options.file, file);
            if (opened)
                connection = *opened;
            else
                why = opened.error();
        }
        if (connection ? connection->moved() : why->code() == Error::FileMoved) {
            // The writer leaves the file first, with its log: then the next one can be opened.
            connection.reset();
            lock.lock();
            m_running.reset();
            m_questions.push_front(asked);
            m_readsApart = false;
            m_fileIsMissed = true;
            m_wake.notify_all();
            continue;
        }
        if (why)
            mail(asked.asking(*why));
        else
            answer(asked, connection);
        lock.lock();
        m_running.reset();
    }
}

void Recorder::Worker::answer(const Asked &asked, const std::shared_ptr<Connection> &connection)
{
    if (asked.handle.isCancelled()) {
        mail(asked.asking(
            Error(Error::Cancelled, QStringLiteral("ask"), QString(), QStringLiteral("cancelled before it began"))));
        return;
    }
    const Connection::Question scope(*connection, asked.handle.m_cancelled.get());
    mail(asked.asking(connection));
}

void Recorder::Worker::answerAll(const Error &why)
{
    std::deque<Asked> questions;
    std::deque<Removing> removals;
    {
        const std::lock_guard lock(m_mutex);
        questions.swap(m_questions);
        removals.swap(m_removals);
    }
    for (const Asked &asked : questions)
        mail(asked.asking(why));
    for (const Removing &removing : removals)
        mail(removing.answer(why));
}

} // namespace device
