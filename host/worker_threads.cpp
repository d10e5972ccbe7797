// SPDX-License-Identifier: MIT
//
// What the writer's thread of a recorder does: opening, batches, and what becomes of them.
#include "worker.h"

#include <algorithm>
#include <numeric>

namespace device
{

namespace
{

constexpr size_t latenciesKept = 1000;

} // namespace

void Recorder::Worker::write()
{
    t_ofThisThread = this;
    if (open())
        serve();
    finish();
    m_connection.reset();
    const std::lock_guard lock(m_mutex);
    m_finished = true;
    m_settled.notify_all();
    m_asked.notify_all();
}

// Opens the file, and makes the tables again in one that takes the place of another. False when the recorder stops.
bool Recorder::Worker::open()
{
    for (;;) {
        const Status opened = openFile();
        if (opened) {
            const auto pages = m_connection->pageCounts();
            m_bytesBefore = pages ? pages->usedBytes() : 0;
            m_storedInFile = 0;
            works();
            tell(&Recorder::ready);
            const std::lock_guard lock(m_mutex);
            ++m_openings;
            m_file = m_connection->file();
            m_readsApart = m_connection->writesAhead();
            if (m_readsApart && !m_reader.joinable())
                m_reader = std::thread([this] { read(); });
            m_asked.notify_all();
            return true;
        }
        if (opened.error().code() != Error::Cancelled) {
            fails(opened.error());
            answerAll(opened.error());
        }
        std::unique_lock lock(m_mutex);
        m_wake.wait_for(lock, retryPause, [this] { return m_cancel.load(); });
        if (m_cancel || (m_stopping && m_waiting.empty() && m_batch.empty())) {
            m_connection.reset();
            return false;
        }
    }
}

Status Recorder::Worker::openFile()
{
    if (m_connection) {
        if (const Status left = m_connection->takeLogIntoFile(); !left)
            return left;
        m_connection.reset();
    }
    const auto connection = Connection::open(m_library, m_path, m_options.file);
    if (!connection)
        return connection.error();
    if (const Status made = remakeTables(**connection); !made)
        return made;
    if (const Status prepared = m_retention.open(**connection, [this] { return m_cancel.load(); }); !prepared)
        return prepared;
    m_connection = *connection;
    m_rollupsAreKnown = false;
    return {};
}

Status Recorder::Worker::remakeTables(Connection &connection)
{
    Batch batch;
    for (const Write &table : m_tables)
        batch.writes.append(table);
    const Status made = store(connection, {QStringLiteral("create"), QString()}, batch);
    if (made && !batch.refused.isEmpty())
        tell(&Recorder::tableFailed, batch.refused.first().error.table(), batch.refused.first().error);
    return made;
}

void Recorder::Worker::serve()
{
    std::unique_lock lock(m_mutex);
    while (!m_cancel && m_connection) {
        const bool again = !m_batch.empty();
        const bool due = again ? Clock::now() >= m_nextTry : !m_waiting.empty() && isDue();
        if (std::exchange(m_fileIsMissed, false)) {
            lock.unlock();
            lookForFile();
            lock.lock();
            continue;
        }
        // A due batch goes first; between two of them one question or one slice of a deletion has its turn.
        if (due && !(m_dutyFirst && hasDuty())) {
            if (!again)
                takeBatch();
            lock.unlock();
            storeBatch();
            lock.lock();
            m_dutyFirst = true;
        } else if (hasDuty()) {
            m_dutyFirst = false;
            duty(lock);
        } else if (m_stopping && !again && m_waiting.empty()) {
            return;
        } else {
            Deadline next(Clock::time_point::max());
            if (again)
                next = Deadline(m_nextTry);
            else if (!m_waiting.empty())
                next = Deadline(m_options.batchTime, m_waiting.front().taken);
            if (!m_stopping && rollupsWait())
                next = next.orAt(m_nextRollups);
            if (!m_stopping)
                next = next.orAt(std::min(nextRetention(), nextAudit()));
            next.waitForNews(m_wake, lock); // whatever woke it: the loop looks anew
        }
    }
}

bool Recorder::Worker::isDue() const
{
    return m_stopping || m_rowsWaiting >= m_options.batchRows || isFull() || m_flushThrough > oldestUnsettled() ||
           Deadline(m_options.batchTime, m_waiting.front().taken).isOver();
}

bool Recorder::Worker::mayBegin(qint64 after) const
{
    return after <= oldestUnsettled() || m_trouble;
}

bool Recorder::Worker::hasDuty()
{
    return !m_stopping &&
           (removalWaits() || (!m_readsApart && !m_questions.empty() && mayBegin(m_questions.front().after)) ||
            rollupsAreDue() || retentionIsDue() || Clock::now() >= nextAudit());
}

bool Recorder::Worker::rollupsWait() const
{
    return !m_rollupsAreKnown || m_rollups.isBehind();
}

bool Recorder::Worker::rollupsAreDue() const
{
    return rollupsWait() && Clock::now() >= m_nextRollups;
}

// What is in hand can no longer make room. So that the oldest rows can be dropped, and not the newest refused, it takes
// at most half of it.
size_t Recorder::Worker::stepsOfABatch()
{
    size_t most = std::min(m_waiting.size(), size_t(m_options.batchRows));
    if (m_retention.room().isLimited())
        most = stepsThatFit(most);
    if (m_options.whenFull != WhenFull::DropOldest)
        return most;
    const size_t half = std::max<size_t>(1, size_t(m_options.capacity) / 2);
    size_t steps = 0;
    qint64 bytes = 0;
    while (steps < std::min(most, half) && (steps == 0 || bytes < m_options.capacityBytes / 2))
        bytes += m_waiting[steps++].bytes();
    return steps;
}

// So many that the log has room for them, but one at least.
size_t Recorder::Worker::stepsThatFit(size_t most) const
{
    const Room &room = m_retention.room();
    qint64 bytes = 0;
    size_t steps = 0;
    do
        bytes += m_waiting[steps].bytes();
    while (++steps < most && room.fits(qint64(steps) + 1, bytes + m_waiting[steps].bytes()) &&
           !room.isMuch(bytes + m_waiting[steps].bytes()));
    return steps;
}

qint64 Recorder::Worker::bytesOfBatch() const
{
    return std::accumulate(m_batch.begin(), m_batch.end(), qint64(0),
                           [](qint64 bytes, const Item &item) { return bytes + item.bytes(); });
}

void Recorder::Worker::takeBatch()
{
    const size_t steps = stepsOfABatch();
    const auto end = m_waiting.begin() + std::ptrdiff_t(steps);
    m_batch.assign(std::make_move_iterator(m_waiting.begin()), std::make_move_iterator(end));
    m_waiting.erase(m_waiting.begin(), end);
    m_tried.writes.clear();
    m_tried.refused.clear();
    m_tried.changed.clear();
    m_tried.inDoubt.reset();
    m_tried.writes.reserve(int(steps));
    m_rowsInBatch = 0;
    for (const Item &item : m_batch) {
        m_tried.writes.append(item.write);
        m_rowsInBatch += item.isRow();
    }
    m_rowsWaiting -= m_rowsInBatch;
    m_nextTry = Clock::now();
    m_giveUp =
        m_options.giveUpAfter.count() == 0 ? Deadline(Clock::time_point::max()) : Deadline(m_options.giveUpAfter);
}

void Recorder::Worker::storeBatch()
{
    Status stored = tryToStore();
    // The log can begin anew, and rows can go: what was full is not for long.
    if (!stored && device::isFull(stored.error()) && m_retention.room().isLimited()) {
        const Status made = makeRoomInFile();
        if (made)
            stored = tryToStore();
        else if (made.error().code() == Error::StorageFailed && !device::isFull(made.error()))
            stored = made;
    }
    if (stored) {
        m_rollups.written();
        works();
        settleBatch();
        return;
    }
    const Error &why = stored.error();
    {
        const std::lock_guard lock(m_mutex);
        ++m_health.failedBatches;
        m_health.failedCommits = m_connection->failedCommits();
        m_nextTry = Clock::now() + retryPause;
    }
    if (why.code() == Error::Cancelled)
        return;
    if (why.code() == Error::FileMoved || m_connection->moved()) {
        reopen();
        return;
    }
    fails(why);
    // What is not of the file would fail for ever, and all rows after it with it.
    if (!isOfTheFile(why.code()) || m_giveUp.isOver())
        dropBatch(why);
}

// The file that is open is no longer the one that the path names. The batch stays what is stored next.
void Recorder::Worker::reopen()
{
    fails(leftBehind());
    (void)open(); // or the recorder stops: serve() sees that
}

// Counts the rows in the file that was moved or deleted.
Error Recorder::Worker::leftBehind()
{
    QString cause = QStringLiteral("the file was moved or deleted while it was open");
    if (m_storedInFile > 0)
        cause += QStringLiteral("; %1 rows that were stored before are in that file").arg(m_storedInFile);
    const std::lock_guard lock(m_mutex);
    m_health.movedAway += std::exchange(m_storedInFile, 0);
    m_readsApart = false;
    return Error(Error::FileMoved, QStringLiteral("record"), QString(), cause);
}

// The reader found that the path does not name the file any more. It may do so again by now.
void Recorder::Worker::lookForFile()
{
    if (m_connection->moved()) {
        reopen();
        return;
    }
    const std::lock_guard lock(m_mutex);
    m_readsApart = m_connection->writesAhead();
    m_asked.notify_all();
}

void Recorder::Worker::settleBatch()
{
    std::vector<Item> batch;
    std::vector<const Error *> refused(m_batch.size());
    int refusedRows = 0;
    for (const Refusal &refusal : m_tried.refused) {
        refused[size_t(refusal.row)] = &refusal.error;
        refusedRows += m_batch[size_t(refusal.row)].isRow();
    }
    {
        const std::lock_guard lock(m_mutex);
        batch.swap(m_batch);
        m_reporting = batch.front().number;
        const int rows = m_rowsInBatch - refusedRows;
        m_rowsInBatch = 0;
        ++m_health.batches;
        m_health.stored += rows;
        m_newlyStored += rows;
        m_storedInFile += rows;
        for (size_t i = 0; i < batch.size(); ++i) {
            if (batch[i].isRow()) {
                m_bytes -= batch[i].bytes();
                if (refused[i])
                    countDropped(1, *refused[i]);
            }
        }
        m_health.failedCommits = m_connection->failedCommits();
        const std::chrono::duration<double, std::milli> latency = Clock::now() - batch.front().taken;
        if (m_latencies.size() < latenciesKept)
            m_latencies.push_back(latency.count());
        else
            m_latencies[size_t(m_health.batches) % latenciesKept] = latency.count();
        m_room.notify_all();
    }
    std::map<QString, int> storedRows;
    const auto now = Clock::now();
    for (size_t i = 0; i < batch.size(); ++i) {
        const Item &item = batch[i];
        if (refused[i]) {
            if (item.isRow())
                reportLoss(item.write.table, 1, *refused[i], false);
            if (item.failed)
                item.failed(*refused[i]);
            continue;
        }
        if (item.isRow()) {
            ++storedRows[item.write.table];
            m_rollups.stored(item.write);
            m_retention.stored(item.write, item.time, now);
        } else {
            m_tables.push_back(item.write);
            m_retention.lookAgain();
        }
        if (item.afterwards)
            item.afterwards(m_tried.changed.at(int(i)));
    }
    tellStored(storedRows);
    tellOfRetention();
    {
        const std::lock_guard lock(m_mutex);
        m_reporting.reset();
        m_settled.notify_all();
        m_asked.notify_all();
    }
    // Asked once and after the reports: it is a figure, and another program may hold a lock by now.
    const auto pages = m_connection->pageCounts(false);
    if (pages)
        m_retention.room().measure(*pages);
    m_lastStored = Clock::now();
    m_nextRetention = {};
    const std::lock_guard lock(m_mutex);
    m_health.fileBytes = m_retention.room().fileBytes();
    m_health.logBytes = m_retention.room().logBytes();
    if (pages && m_storedInFile > 0)
        m_health.bytesPerRow = double(pages->usedBytes() - m_bytesBefore) / double(m_storedInFile);
}

Status Recorder::Worker::tryToStore()
{
    if (const Status fits = m_retention.room().prepare(*m_connection, qint64(m_batch.size()), bytesOfBatch()); !fits)
        return fits;
    m_tried.before = nullptr;
    if (m_rollups.isDue())
        m_tried.before = [this](Connection &connection) { return m_rollups.write(connection, false); };
    m_tried.after = nullptr;
    if (m_rollupsAreKnown && m_retention.isDue())
        m_tried.after = [this](Connection &connection) {
            return trim(connection, Room::removedPerRow * qint64(m_batch.size()));
        };
    return store(*m_connection, {QStringLiteral("record"), QString()}, m_tried);
}

// Drops the batch under way.
void Recorder::Worker::dropBatch(const Error &why)
{
    std::vector<Item> batch;
    std::map<QString, int> rows;
    {
        const std::lock_guard lock(m_mutex);
        batch.swap(m_batch);
        if (batch.empty())
            return;
        m_reporting = batch.front().number;
        for (const Item &item : batch) {
            if (!item.isRow())
                continue;
            ++rows[item.write.table];
            m_bytes -= item.bytes();
        }
        countDropped(m_rowsInBatch, why);
        m_rowsInBatch = 0;
        m_room.notify_all();
    }
    for (const Item &item : batch) {
        if (item.failed)
            item.failed(why);
    }
    for (const auto &[table, count] : rows)
        reportLoss(table, count, why, false);
    const std::lock_guard lock(m_mutex);
    m_reporting.reset();
    m_settled.notify_all();
    m_asked.notify_all();
}

// The end: what is still there is dropped, what is still asked is answered.
void Recorder::Worker::finish()
{
    if (m_connection && m_connection->moved())
        fails(leftBehind());
    else if (m_connection && !m_cancel && m_rollups.isInMemory())
        (void)writeRollups();
    std::optional<Error> trouble;
    {
        const std::lock_guard lock(m_mutex);
        trouble = m_trouble;
        m_batch.insert(m_batch.end(), std::make_move_iterator(m_waiting.begin()),
                       std::make_move_iterator(m_waiting.end()));
        m_waiting.clear();
        m_rowsInBatch += std::exchange(m_rowsWaiting, 0);
    }
    dropBatch(trouble ? *trouble
                      : Error(Error::Stopped, QStringLiteral("record"), QString(),
                              QStringLiteral("the recorder was stopped before they could be stored")));
    answerAll(stopped(QStringLiteral("ask")));
    warn(true);
}

} // namespace device
