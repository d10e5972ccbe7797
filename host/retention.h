// SPDX-License-Identifier: MIT
#ifndef DEVICE_RETENTION_OF_A_FILE_H
#define DEVICE_RETENTION_OF_A_FILE_H

#include "batch.h"
#include "deadline.h"
#include "keep_file.h"
#include "old_rows.h"
#include "plausible_time.h"
#include "rollups.h"
#include "room.h"
#include "shipped_file.h"
#include "table_places.h"

#include <map>
#include <mutex>
#include <vector>

namespace device
{

/// Removes the oldest rows of a file, as the thread that stores its rows does it: in slices within the transactions of
/// the batches, so that it costs no sync and IDs are never given again.
///
/// What nothing undercuts comes first: `atLeast`, alarms that last, and rows whose sums are not in the file yet. Then
/// the ceiling, then what shippers hold, then ages and numbers of rows.
class Retention
{
public:
    Retention(const QString &path, const RetentionOptions &options, int batchRows)
        : m_options(options), m_room(options, batchRows), m_shipped(path)
    {
    }

    // From any thread: a shipper of this program.
    void hold(const QString &table, const QString &owner, qint64 throughId);
    void release(const QString &table, const QString &owner);
    /// The host's word: what the rules of this table say is removed, even if it is much.
    void allow(const QString &table);

    // Of the thread that stores.
    Status open(Connection &connection, const std::function<bool()> &cancelled);
    /// Rules or tables changed.
    void lookAgain() { m_isKnown = false; }
    Room &room() { return m_room; }
    const Room &room() const { return m_room; }
    /// There is something to keep to.
    bool isActive() const { return m_hasEntries || m_room.isLimited() || !m_isKnown; }

    /// A row that is in the file now.
    void stored(const Write &row, LocalTime time, Clock::time_point now);
    /// Whether allow(), hold() or release() was called since the last time.
    bool hearsWord();
    /// Something is to be removed.
    bool isDue() const;
    /// Something is to be removed even if no rows come.
    bool isUrgent() const { return m_isUrgent; }

    using SummedRows = std::function<std::optional<Rollups::Summed>(const QString &table)>;
    /// Within the caller's transaction: removes about so many rows of what is due.
    Status trim(Connection &connection, qint64 rows, const SummedRows &summed);
    /// The transaction of trim() is in the file: what it removed.
    std::vector<TrimmedRows> trimmed();

    /// What stopped since the last call, for people.
    std::vector<Error> takeTroubles();
    /// Why a file that is full cannot become emptier.
    QString whyFull() const;

private:
    struct Table {
        QString name;
        bool isAlarm = false;
        bool isLog = false;
        Keep keep;
        SumFloors floors;
        bool isLookedAt = false;
        TableEnds ends;
        qint64 sinceTrim = 0; ///< Rows stored.
        qint64 notBefore = 0; ///< Rows stored in the file: a try before would find nothing again.
        Clock::time_point orAt = {};
        qint64 sumsOfHour = 0;
        bool isAllowed = false;
        bool isHeld = false;
        bool isHoldOld = false;
    };
    struct Bounds {
        qint64 id = 0;                ///< The highest that may go.
        qint64 shipped = 0;           ///< The highest that nobody waits for.
        std::optional<qint64> before; ///< Only rows before this second may go.
    };
    struct Done {
        Table *table;
        TrimmedRows rows;
        qint64 sinceTrim;
    };

    Status lookAtTables(Connection &connection);
    Status look(Connection &connection, Table &table);
    Status trimSome(Connection &connection, qint64 rows, const SummedRows &summed);
    std::optional<Hold> holdOn(const QString &table);
    bool isPaused(const Table &table) const;
    void pause(Table &table);
    std::optional<qint64> cutoff(const Table &table) const;
    qint64 atLeastSince(const Table &table) const;
    bool sumsAreDue(const Table &table) const;
    bool isDue(const Table &table) const;
    Table *oldest();
    Result<Bounds> bounds(Table &table, const SummedRows &summed, bool forCeiling);
    Status trimByRules(Connection &connection, Table &table, qint64 &rows, const SummedRows &summed);
    Status trimForCeiling(Connection &connection, Table &table, qint64 &rows, const SummedRows &summed);
    Status trimSums(Connection &connection, Table &table);
    AgingTable aging(const Table &table) const { return {table.name, table.isAlarm, m_time.believed()}; }
    Status remove(Connection &connection, Table &table, const Bounds &bounds, qint64 &rows);
    void held(Table &table, const QString &why);

    static constexpr qint64 secondsOfHour = 3600;
    static qint64 secondsOf(std::chrono::hours time) { return std::chrono::seconds(time).count(); }

    const RetentionOptions m_options;
    Room m_room;
    ShippedFile m_shipped;
    QString m_reportedProblem;
    QString m_reportedFailure;
    PlausibleTime m_time;
    qint64 m_notedTime = 0;
    const Clock::time_point m_began = Clock::now();
    bool m_isKnown = false;
    bool m_hasEntries = false;
    bool m_isUrgent = false;
    qint64 m_stored = 0;
    qint64 m_rowsAtOnce = 1000;
    qint64 m_wanted = 0; ///< By the caller of trim().
    size_t m_next = 0;
    std::vector<Table> m_tables;
    TablePlaces<Table> m_places;
    std::vector<Done> m_done;
    std::vector<Error> m_troubles;

    mutable std::mutex m_mutex; // guards what other threads say
    std::map<QString, std::map<QString, Hold>> m_holds;
    QStringList m_allowed;
    bool m_holdsMoved = false;
};

} // namespace device

#endif
