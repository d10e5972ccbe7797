// SPDX-License-Identifier: MIT
#ifndef STOREFILE_FINDINGS_H
#define STOREFILE_FINDINGS_H

#include "storefile/statistics.h"
#include "storefile/tables.h"

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
    QString table;      ///< Empty: the file.
    QString what;       ///< With its consequence.
    qint64 rows = 0;    ///< That it is true of; 0: it is not about rows.
    qint64 firstId = 0; ///< Of these.
    QString detail;     ///< About the worst or the first of them; may be empty.

    /// "2 rows: WHAT; DETAIL"
    QString text() const;
};

/// The one judge of rows: every limit of what is odd is here. Takes the rows of a table in the order of recording.
class RowJudge
{
public:
    explicit RowJudge(const Table &table);

    /// The cells of the time and, of an alarm, of its end.
    void add(qint64 id, const QByteArray &time, const QByteArray &endDate, const QByteArray &endTime);

    QList<Finding> findings() const;

private:
    void addTime(qint64 id, const QByteArray &time);
    void addEnd(qint64 id, const QByteArray &time, const QByteArray &endDate, const QByteArray &endTime);
    void note(Finding &finding, qint64 id, const QString &detail);

    QString m_table;
    Kind m_kind;
    QByteArray m_future;
    qint64 m_before = 0; ///< The last time that was plausible.
    QByteArray m_beforeText;
    qint64 m_longestBack = 0;
    SampleDistances m_distances;
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
