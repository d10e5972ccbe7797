// SPDX-License-Identifier: MIT
#ifndef STOREFILE_FINDINGS_H
#define STOREFILE_FINDINGS_H

#include "storefile/statistics.h"
#include "storefile/tables.h"
#include "storefile/times.h"

#include "host/time_text.h"

#include <vector>

namespace device_db
{

enum class Severity {
    Note,      ///< Worth knowing; nothing is wrong.
    Attention, ///< Rows that are lost, not found or not removed, or will be.
    Damage     ///< The file is not what SQLite wrote.
};

/// Something odd. The texts are for people; what they quote from the file is not escaped.
struct Finding {
    Severity severity = Severity::Note;
    QString table;          ///< Empty: the file.
    QString what;           ///< With its consequence.
    qint64 rows = 0;        ///< That it is true of; 0: it is not about rows.
    qint64 firstId = 0;     ///< Of these.
    QString detail;         ///< About the worst or the first of them; may be empty.
    const char *cause = ""; ///< A word for programs: what it is about, whatever the numbers.

    /// "2 rows: WHAT; DETAIL"
    QString text() const;
};

/// A moment at which the clock went back, in milliseconds.
struct ClockStep {
    qint64 id = 0; ///< Of the first row after it.
    qint64 before = 0;
    qint64 after = 0;
};

/// The one judge of rows: every limit of what is odd is here. Takes the rows of a table in the order of recording.
class RowJudge
{
public:
    explicit RowJudge(const Table &table);

    /// The cells of the time and, of an alarm, of its end. The time in milliseconds, or nothing if it is not one.
    std::optional<qint64> add(qint64 id, const QByteArray &time, const QByteArray &endDate, const QByteArray &endTime);

    QList<Finding> findings() const;
    /// The first thousand.
    const std::vector<ClockStep> &steps() const { return m_steps; }
    /// Neither of a clock that was not set nor of one that is ahead.
    bool isPlausible(qint64 time) const;
    /// What is in the future is judged by the clock of this computer at the last call, and before that at the making.
    void readClock();

private:
    std::optional<qint64> addTime(qint64 id, const QByteArray &time);
    void addEnd(qint64 id, const QByteArray &time, const QByteArray &endDate, const QByteArray &endTime);
    void note(Finding &finding, qint64 id, const QString &detail);

    QString m_table;
    Kind m_kind;
    device::TimeReader m_times;
    qint64 m_future = 0;
    qint64 m_before = 0; ///< The last time that was plausible.
    QByteArray m_beforeText;
    qint64 m_longestBack = 0;
    SampleDistances m_distances;
    std::vector<ClockStep> m_steps;
    Finding m_malformed;
    Finding m_unset;
    Finding m_ahead;
    Finding m_back;
    Finding m_gap;
    Finding m_half;
    Finding m_otherEnd;
    Finding m_endsBefore;
};

/// What of a table's definition, indexes and triggers differs from what the store library makes.
Result<QList<Finding>> definitionFindings(const Database &database, const Table &table);

/// What tb_config lists beside what there is.
QList<Finding> configurationFindings(const QList<Table> &tables, const QList<Registration> &registrations);

/// SQLite's own check of the file, and its free pages. Slow: it reads everything.
Result<QList<Finding>> integrityFindings(const Database &database);

} // namespace device_db

#endif
