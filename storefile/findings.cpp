// SPDX-License-Identifier: MIT
#include "storefile/findings.h"

#include "storefile/texts.h"
#include "storefile/times.h"

#include <QDateTime>

#include <algorithm>

namespace device_db
{

namespace
{

// Before it there were no such files; a clock that lost its battery begins in 1970 or 1980.
constexpr qint64 clockIsSetSince = 946684800000;
constexpr size_t stepsKept = 1000;

QString quoted(const QByteArray &text, qint64 id)
{
    return QStringLiteral("the first: \"%2\", ID %1").arg(id).arg(QString::fromUtf8(text).left(40));
}

Finding aboutRows(const Table &table, Severity severity, const char *cause, const char *what)
{
    Finding finding;
    finding.severity = severity;
    finding.cause = cause;
    finding.table = table.name;
    finding.what = QString::fromLatin1(what);
    return finding;
}

// Definitions are compared without regard to what SQLite does not regard.
QByteArray plain(const QByteArray &sql)
{
    return sql.simplified().replace(", ", ",").replace(" ,", ",").replace("( ", "(").replace(" )", ")").toLower();
}

} // namespace

QString Finding::text() const
{
    QString text = rows > 0 ? rowsText(rows) + QLatin1String(": ") + what : what;
    if (!detail.isEmpty())
        text += QLatin1String("; ") + detail;
    return text;
}

RowJudge::RowJudge(const Table &table)
    : m_table(table.name),
      m_kind(table.kind),
      m_times(hasMilliseconds(table.kind)),
      m_malformed(aboutRows(table, Severity::Attention, "malformed",
                            "time in another form than the store's: it does not sort, and some queries end at it")),
      m_unset(aboutRows(table, Severity::Attention, "unset", "before the year 2000: the clock was not set")),
      m_ahead(aboutRows(table, Severity::Attention, "ahead", "in the future, seen from this computer")),
      m_back(aboutRows(table, Severity::Note, "back", "clock went back")),
      m_gap(aboutRows(table, Severity::Note, "gap", "")),
      m_half(aboutRows(table, Severity::Attention, "half",
                       "neither active nor ended: no query finds them and no purge removes them")),
      m_otherEnd(aboutRows(table, Severity::Note, "otherEnd",
                           "end in a form of its own: figures and pictures do not know it")),
      m_endsBefore(aboutRows(table, Severity::Note, "endsBefore", "ended before it began"))
{
    readClock();
}

void RowJudge::readClock()
{
    const QDateTime tomorrow = QDateTime::currentDateTime().addDays(1);
    m_future = millisecondsOf(tomorrow.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")).toLatin1(), false);
}

bool RowJudge::isPlausible(qint64 time) const
{
    // A text with milliseconds comes after the one without.
    return time >= clockIsSetSince && (time < m_future || (time == m_future && m_kind != Kind::Log));
}

void RowJudge::note(Finding &finding, qint64 id, const QString &detail)
{
    if (finding.rows++ > 0)
        return;
    finding.firstId = id;
    finding.detail = detail;
}

std::optional<qint64> RowJudge::add(qint64 id, const QByteArray &time, const QByteArray &endDate,
                                    const QByteArray &endTime)
{
    const auto found = addTime(id, time);
    if (m_kind == Kind::Alarms)
        addEnd(id, time, endDate, endTime);
    return found;
}

std::optional<qint64> RowJudge::addTime(qint64 id, const QByteArray &time)
{
    const auto found = timeIn(time, m_times);
    if (!found) {
        note(m_malformed, id, quoted(time, id));
        return found;
    }
    const qint64 now = *found;
    // Such a clock says nothing about steps and gaps either.
    if (!isPlausible(now)) {
        note(now < clockIsSetSince ? m_unset : m_ahead, id, quoted(time, id));
        return found;
    }
    if (!m_beforeText.isEmpty() && now < m_before) {
        note(m_back, id, QString());
        if (m_steps.size() < stepsKept)
            m_steps.push_back({id, m_before, now});
        if (m_before - now > m_longestBack) {
            m_longestBack = m_before - now;
            m_back.detail = QStringLiteral("the furthest by %1: %3 after %4, ID %2")
                                .arg(duration(m_longestBack))
                                .arg(id)
                                .arg(QString::fromUtf8(time), QString::fromUtf8(m_beforeText));
        }
    } else if (!m_beforeText.isEmpty() && m_kind == Kind::Samples && m_distances.add(m_before, now)) {
        m_gap.firstId = id;
        m_gap.detail = QStringLiteral("the longest %1, from %2 to %3")
                           .arg(duration(now - m_before), QString::fromUtf8(m_beforeText), QString::fromUtf8(time));
    }
    m_before = now;
    m_beforeText = time;
    return found;
}

void RowJudge::addEnd(qint64 id, const QByteArray &time, const QByteArray &endDate, const QByteArray &endTime)
{
    // As the store's queries ask: NULL is neither equal to an empty text nor different from it.
    const bool isActive = !endDate.isNull() && !endTime.isNull() && endDate.isEmpty() && endTime.isEmpty();
    if (isActive)
        return;
    if (endDate.isEmpty() || endTime.isEmpty())
        return note(m_half, id, QStringLiteral("the first: ID %1").arg(id));
    const QByteArray end = endOfAlarm(endDate, endTime);
    if (!isTime(end, false))
        note(m_otherEnd, id, quoted(endDate + ' ' + endTime, id));
    else if (isTime(time, false) && end < time)
        note(m_endsBefore, id, quoted(end, id));
}

QList<Finding> RowJudge::findings() const
{
    Finding gap = m_gap;
    gap.rows = m_distances.gaps();
    gap.what = m_distances.usual() == 0 ? QStringLiteral("after a gap, while most have the time of the row before")
                                        : QStringLiteral("after a gap of more than %1 times the usual %2")
                                              .arg(SampleDistances::gapFactor)
                                              .arg(duration(m_distances.usual()));
    QList<Finding> found;
    for (const Finding &each : {m_malformed, m_unset, m_ahead, m_back, gap, m_half, m_otherEnd, m_endsBefore}) {
        if (each.rows > 0)
            found << each;
    }
    return found;
}

Result<QList<Finding>> definitionFindings(const Database &database, const Table &table)
{
    auto objects = database.prepare("select type,name,coalesce(sql,'') from sqlite_master where tbl_name=?1");
    if (!objects)
        return objects.error();
    objects->bind(1, table.name.toUtf8());
    QList<Finding> found;
    const auto add = [&](const char *cause, const QString &what) {
        found.append({Severity::Attention, table.name, what, 0, 0, QString(), cause});
    };
    while (objects->step()) {
        const QByteArray type = objects->cell(0);
        const QString object = QString::fromUtf8(objects->cell(1));
        const QByteArray sql = objects->cell(2);
        if (type == "table" && !plain(sql).endsWith('(' + plain(definitionOf(table.kind)) + ')'))
            add("definition",
                QStringLiteral("its columns have the right names, but other types or rules than the store's: rows that "
                               "break a rule are lost silently"));
        if (type == "trigger")
            add("trigger", QStringLiteral("the trigger %1 acts on it").arg(object));
        if (type == "index" && (sql.isEmpty() || plain(sql).startsWith("create unique")))
            add("unique", QStringLiteral("the unique index %1: rows that break it are lost silently").arg(object));
    }
    if (const Status status = objects->status(); !status)
        return status.error();
    return found;
}

QList<Finding> configurationFindings(const QList<Table> &tables, const QList<Registration> &registrations)
{
    QList<Finding> found;
    QStringList listed;
    for (const Registration &each : registrations) {
        const QString collector = QString::fromUtf8(each.collector);
        if (!each.hasTable && !listed.contains(collector, Qt::CaseInsensitive))
            found.append({Severity::Attention, QStringLiteral("tb_config"),
                          QStringLiteral("it lists %1, which is not a table of samples").arg(collector), 0, 0,
                          QString(), "noTable"});
        listed << collector;
    }
    const bool hasList = std::any_of(tables.begin(), tables.end(), [](const Table &table) {
        return table.kind == Kind::Configuration && table.name == QLatin1String("tb_config");
    });
    int unlisted = 0;
    for (const Table &table : tables) {
        if (table.kind != Kind::Samples || listed.contains(table.name, Qt::CaseInsensitive))
            continue;
        ++unlisted;
        if (hasList)
            found.append({Severity::Attention, table.name, QStringLiteral("tb_config does not list it"), 0, 0,
                          QString(), "notListed"});
    }
    if (!hasList && unlisted > 0)
        found.append({Severity::Attention, QString(),
                      QStringLiteral("there is no tb_config to name its %1 series").arg(unlisted), 0, 0, QString(),
                      "noConfiguration"});
    return found;
}

Result<QList<Finding>> integrityFindings(const Database &database)
{
    auto verdicts = database.prepare("pragma integrity_check");
    if (!verdicts)
        return verdicts.error();
    QList<Finding> found;
    while (verdicts->step()) {
        QString verdict = QString::fromUtf8(verdicts->cell(0));
        verdict.remove(QLatin1String("*** in database main ***\n"));
        if (verdict == QLatin1String("ok"))
            continue;
        // SQLite lists a broken rule of a column here as well.
        const bool rule = verdict.contains(QLatin1String("NULL value in")) ||
                          verdict.contains(QLatin1String("value in")) || verdict.contains(QLatin1String("CHECK"));
        found.append({rule ? Severity::Attention : Severity::Damage, QString(), verdict, 0, 0, QString(),
                      rule ? "rule" : "damaged"});
    }
    if (const Status status = verdicts->status(); !status) {
        found.append({Severity::Damage, QString(), status.error().cause().section(QLatin1Char(';'), 0, 0), 0, 0,
                      QString(), "damaged"});
        return found;
    }
    const auto pages = database.number("pragma page_count");
    const auto free = database.number("pragma freelist_count");
    if (!pages || !free)
        return pages ? free.error() : pages.error();
    if (*free > 100 && *free * 2 > *pages)
        found.append({Severity::Note, QString(),
                      QStringLiteral("%1 of its pages are free; \"device-db vacuum\" gives them back").arg(*free), 0, 0,
                      QString(), "freePages"});
    return found;
}

} // namespace device_db
