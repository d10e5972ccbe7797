// SPDX-License-Identifier: MIT
//
// Every operation of the interface on a model of a file. Long because there are 30 of them.
#include "model.h"

#include <QVariant>

#include <cmath>
#include <cstdlib>

namespace
{

// --- Texts on their way in

/// The page's "re-read": UTF-8 bytes as Latin-1, up to a U+0000.
QString again(const QString &text)
{
    QString out;
    for (const char byte : text.toUtf8()) {
        if (byte == '\0')
            break;
        out += QChar(ushort(uchar(byte)));
    }
    return out;
}

/// Through Latin-1: a "?" for what it does not have.
QString narrowed(const QString &text)
{
    QString out;
    for (const QChar unit : text) {
        if (unit.isNull())
            break;
        out += unit.unicode() > 0xff ? QChar('?') : unit;
    }
    return out;
}

QString dashed(const QString &time)
{
    QString out = time;
    for (QChar &unit : out) {
        if (unit == QChar('/'))
            unit = QChar('-');
    }
    return out;
}

/// What stands between two quotes as a text: doubled quotes are one, a single one is no text at all.
struct Literal {
    explicit Literal(const QString &written)
    {
        for (auto i = 0; i < written.size(); ++i) {
            if (written.at(i) == QChar('\'') && (++i == written.size() || written.at(i) != QChar('\''))) {
                isOk = false;
                return;
            }
            text += written.at(i);
        }
    }
    QString text;
    bool isOk = true;
};

bool isDigit(const QString &text, int at)
{
    return at < text.size() && text.at(at) >= QChar('0') && text.at(at) <= QChar('9');
}

/// The marker at a place in a text: its number and its size; 0 when there is none.
int markerAt(const QString &text, int at, int *size)
{
    int next = at + 1;
    if (text.at(at) != QChar('%'))
        return 0;
    if (next < text.size() && text.at(next) == QChar('L'))
        ++next;
    if (!isDigit(text, next))
        return 0;
    int number = text.at(next++).digitValue();
    if (isDigit(text, next))
        number = 10 * number + text.at(next++).digitValue();
    *size = next - at;
    return number + 1; // %0 is a marker, too
}

/// Fills a template: each argument takes the place of the lowest marker that is there by then.
QString filled(QString text, const QStringList &arguments)
{
    for (const QString &argument : arguments) {
        int lowest = 1000;
        int size = 0;
        for (int at = 0; at < text.size(); ++at) {
            const int marker = markerAt(text, at, &size);
            if (marker != 0)
                lowest = std::min(lowest, marker);
        }
        QString next;
        for (int at = 0; at < text.size();) {
            if (markerAt(text, at, &size) == lowest) {
                next += argument;
                at += size;
            } else {
                next += text.at(at++);
            }
        }
        text = next;
    }
    return text;
}

QString doubled(const QString &text)
{
    QString out;
    for (const QChar unit : text)
        out += unit == QChar('\'') ? "''"_q : QString(unit);
    return out;
}

/// Whether an order word can be pasted; the generator knows one that cannot.
bool isOrder(const QString &word)
{
    return word.isEmpty() || word.compare("asc"_q, Qt::CaseInsensitive) == 0 ||
           word.compare("desc"_q, Qt::CaseInsensitive) == 0;
}

// A name without quotes around it must not be a word of SQL.
bool isBareName(const QString &name)
{
    return !name.isEmpty() && name != "order"_q;
}

// --- Texts on their way out

int part(const QString &text, int at, int size)
{
    int value = 0;
    for (int i = at; i < at + size; ++i) {
        if (!isDigit(text, i))
            return -1;
        value = 10 * value + text.at(i).digitValue();
    }
    return value;
}

/// A cell's time as tests show it, for zones without a change.
QString shownTime(const QString &cell, bool milliseconds)
{
    const QDate day(part(cell, 0, 4), part(cell, 5, 2), part(cell, 8, 2));
    const QTime time(part(cell, 11, 2), part(cell, 14, 2), part(cell, 17, 2), milliseconds ? part(cell, 20, 3) : 0);
    const QString marks = milliseconds ? "----:-- ::.#"_q : ""_q;
    const bool isTime = cell.size() == (milliseconds ? 23 : 19) && cell.at(4) == QChar('-') &&
                        cell.at(7) == QChar('-') && cell.at(10) == QChar(' ') && cell.at(13) == QChar(':') &&
                        cell.at(16) == QChar(':') && (!milliseconds || cell.at(19) == QChar('.'));
    if (!isTime || !day.isValid() || !time.isValid())
        return "invalid"_q;
    return milliseconds ? cell : cell + ".000"_q;
}

QString shownNumber(const QString &cell)
{
    const QByteArray bytes = cell.toUtf8();
    char *end = nullptr;
    const double value = std::strtod(bytes.constData(), &end);
    const bool isNumber = !bytes.isEmpty() && *end == '\0' && std::isfinite(value); // out of range: none, too
    return QString::number(isNumber ? value : 0, 'g', 17);
}

} // namespace

Model::Model(Kind kind, const QString &path) : m_kind(kind), m_path(path)
{
    open();
}

Model::~Model()
{
    close();
}

void Model::open()
{
    EXPECT_EQ(sqlite3_open(m_path.toUtf8().constData(), &m_connection), SQLITE_OK);
}

void Model::close()
{
    for (sqlite3_stmt *statement : std::as_const(m_prepared))
        sqlite3_finalize(statement);
    m_prepared.clear();
    EXPECT_EQ(sqlite3_close(m_connection), SQLITE_OK);
    m_connection = nullptr;
}

namespace
{

int stepThrough(sqlite3_stmt *statement, QList<QStringList> *rows)
{
    int code;
    while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
        QStringList row;
        for (int column = 0; column < sqlite3_column_count(statement); ++column)
            row.append(QString::fromUtf8(reinterpret_cast<const char *>(sqlite3_column_text(statement, column))));
        rows->append(row);
    }
    return code;
}

} // namespace

Model::Result Model::run(const QString &sql, const QVariantList &values)
{
    sqlite3_stmt *&statement = m_prepared[sql];
    if (!statement && sqlite3_prepare_v2(m_connection, sql.toUtf8().constData(), -1, &statement, nullptr) != SQLITE_OK)
        return {};
    for (int i = 0; i < values.size(); ++i) {
        const QVariant &value = values.at(i);
        if (value.userType() == QMetaType::Int) {
            sqlite3_bind_int(statement, i + 1, value.toInt());
        } else {
            const QByteArray utf8 = value.toString().toUtf8();
            sqlite3_bind_text(statement, i + 1, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
        }
    }
    Result result;
    result.isOk = stepThrough(statement, &result.rows) == SQLITE_DONE;
    if (sqlite3_reset(statement) != SQLITE_OK || !result.isOk)
        return {};
    return result;
}

Model::Result Model::runText(const QString &sql)
{
    const QByteArray utf8 = sql.toUtf8();
    Result result{true, {}};
    for (const char *next = utf8.constData(); *next && result.isOk;) {
        sqlite3_stmt *statement = nullptr;
        result.isOk = sqlite3_prepare_v2(m_connection, next, -1, &statement, &next) == SQLITE_OK &&
                      (!statement || stepThrough(statement, &result.rows) == SQLITE_DONE);
        sqlite3_finalize(statement);
    }
    if (!result.isOk)
        result.rows.clear();
    return result;
}

int Model::number(const QString &sql, const QString &table)
{
    if (!m_connection)
        return 0;
    return counted(run(QString(sql).replace("%1"_q, table)));
}

int Model::counted(const Result &result) const
{
    return result.rows.isEmpty() ? 0 : result.rows.first().first().toInt();
}

Answer Model::rowsBehindMark(const Result &result) const
{
    Answer answer{0, {rowBefore}};
    answer.rows += result.rows;
    return answer;
}

// Records as call.cpp shows them.
Answer Model::records(const Result &result) const
{
    Answer answer{0, {rowBefore}};
    const int columns = m_kind == History ? 3 : m_kind == Alarm ? 10 : 5;
    if (!result.rows.isEmpty() && result.rows.first().size() != columns)
        return answer;
    for (const QStringList &row : result.rows) {
        if (m_kind == History) {
            const QString &time = row.at(1);
            if (time.count(QChar(' ')) != 1) // ends the output
                return answer;
            const auto blank = time.indexOf(QChar(' '));
            answer.rows.append({time.left(blank), time.mid(blank + 1), QString(), row.at(2)});
        } else if (m_kind == Alarm) {
            answer.rows.append({QString::number(row.at(1).toInt()), shownNumber(row.at(6)), row.at(7), row.at(3),
                                row.at(4), row.at(5), QString(), shownTime(row.at(2), false), "invalid"_q});
        } else {
            answer.rows.append({row.at(2), row.at(3), row.at(4), shownTime(row.at(1), true)});
        }
    }
    return answer;
}

bool Model::create(const QString &table, const QString &configName)
{
    const auto exists = [this](const QString &name) {
        return counted(run("SELECT 1 FROM sqlite_master WHERE type IS 'table' AND name IS ?"_q, {name})) != 0;
    };
    if (exists(table))
        return false;
    const bool isConfig = m_kind == History && table == "tb_config"_q;
    const QString columns = isConfig            ? "COLLECTOR text, NAME text"_q
                            : m_kind == History ? "DATETIME dateTime, Value text"_q
                            : m_kind == Alarm
                                ? "LevelID INTEGER, DATETIME dateTime, AlarmObject text, AlarmType text, "
                                  "CurrentValue text, LimitValue text, AlarmDescription text, "
                                  "EndDate text, EndTime text"_q
                                : "DATETIME dateTime NOT NULL, userName text, logName text, message text"_q;
    if (!isBareName(table) ||
        !runText("CREATE TABLE \""_q + table + "\" (ID INTEGER PRIMARY KEY AUTOINCREMENT, "_q + columns + ")"_q).isOk)
        return false;
    if (m_kind == History && !isConfig) {
        create("tb_config"_q, QString());
        insertConfig(table, configName);
    }
    return true;
}

void Model::insertConfig(const QString &collector, const QString &name)
{
    run("BEGIN"_q);
    const Literal first(again(collector)), second(again(name));
    if (first.isOk && second.isOk)
        run("INSERT INTO tb_config VALUES(NULL, ?, ?)"_q, {first.text, second.text});
    run("COMMIT"_q);
}

void Model::insert(const Call &c)
{
    if (m_kind == Alarm && c.rows.isEmpty())
        return;
    run("BEGIN"_q);
    for (const QStringList &row : c.rows) {
        QString table = c.table;
        QStringList cells; // as they stand between the quotes
        const char *text = nullptr;
        if (m_kind == History) {
            table = narrowed(c.table);
            const bool isWhole = row.size() == 2;
            cells = QStringList{isWhole ? narrowed(dashed(row.at(0))) : QString(),
                                isWhole ? narrowed(row.at(1)) : QString()};
            text = "insert into %1 values(NULL,'%2','%3')";
        } else if (m_kind == Alarm) {
            if (row.size() < 10)
                continue;
            table = "AlarmData"_q;
            cells = QStringList{QString::number(row.at(0).toInt()), dashed(row.at(1)) + " "_q + dashed(row.at(2))};
            cells += row.mid(3, 4);
            cells += QStringList{again(doubled(row.at(7))), row.at(8), row.at(9)};
            text = "insert into AlarmData values(NULL,'%1','%2','%3','%4','%5','%6','%7','%8','%9')";
        } else {
            if (row.size() < 4)
                continue;
            cells = QStringList{row.at(0), doubled(row.at(1)), doubled(row.at(2)), doubled(row.at(3))};
            text = "insert into %1 values(NULL, '%2', '%3', '%4', '%5');";
        }
        if (c.operation == Operation::InsertOdd) {
            // The page gives the text and how it is filled. What SQLite makes of it then is not ours.
            runText(filled(QString::fromLatin1(text), m_kind == Alarm ? cells : QStringList(table) + cells));
            continue;
        }
        QVariantList values;
        bool isOk = isBareName(table);
        QString marks;
        for (const QString &cell : std::as_const(cells)) {
            const Literal literal(cell);
            isOk = isOk && literal.isOk;
            values.append(literal.text);
            marks += ", ?"_q;
        }
        if (isOk)
            run("INSERT INTO \""_q + table + "\" VALUES(NULL"_q + marks + ")"_q, values);
    }
    run("COMMIT"_q);
}

Answer Model::statements(const Call &c)
{
    if (m_kind == OperatorLog)
        return {false, {rowBefore}};
    if (c.operation == Operation::EndAlarm)
        return {run("UPDATE AlarmData SET EndDate = ?, EndTime = ? WHERE ID = ?"_q, {c.start, c.end, c.count}).isOk,
                {rowBefore}};
    if (c.mode == 0 || c.mode == 1) {
        if (c.statements.isEmpty())
            return {false, {rowBefore}};
        const Result result = runText(c.statements.first());
        Answer answer = c.mode == 1 ? rowsBehindMark(result) : Answer{0, {rowBefore}};
        answer.number = result.isOk;
        return answer;
    }
    bool isOk = true;
    if (c.mode == 2) {
        run("BEGIN"_q);
        for (const QString &statement : c.statements)
            isOk = runText(statement).isOk && isOk;
        run("COMMIT"_q);
    }
    return {isOk, {rowBefore}};
}

// Slots 11 and 12.
Model::Result Model::range(const Call &c, const QString &order, bool isPage)
{
    Literal start(dashed(c.start)), end(dashed(c.end));
    if (!isBareName(c.table) || !start.isOk || !end.isOk)
        return {};
    const bool isLog = m_kind == OperatorLog;
    QVariantList values{start.text + (isLog ? ".000"_q : ""_q), end.text + (isLog ? ".999"_q : ""_q)};
    const QString where = "FROM \""_q + c.table + "\" WHERE DATETIME BETWEEN ? AND ?"_q +
                          (m_kind == Alarm ? " AND EndDate = '' AND EndTime = ''"_q : ""_q);
    if (!isPage || !isLog || order == "desc"_q) {
        if (!isOrder(order))
            return {};
        if (isPage)
            values += {c.count, c.offset};
        return run("SELECT * "_q + where + " ORDER BY DATETIME "_q + order + (isPage ? " LIMIT ? OFFSET ?"_q : ""_q),
                   values);
    }
    values += {c.span, c.count, c.offset};
    return run("SELECT * FROM (SELECT * "_q + where +
                   " ORDER BY DATETIME DESC LIMIT ?) ORDER BY DATETIME LIMIT ? OFFSET ?"_q,
               values);
}

Answer Model::askClosed(const Call &c) const
{
    switch (c.operation) {
    case Operation::ConfigInfo:
        return {0, {QStringList()}};
    case Operation::Statements:
    case Operation::EndAlarm:
    case Operation::RowsByTime:
    case Operation::RowsNewest:
    case Operation::RowsOldest:
    case Operation::RowsPage:
    case Operation::RowsPageTo:
    case Operation::RowsActive:
    case Operation::ByValue:
    case Operation::ByUser:
    case Operation::ByUserPage:
    case Operation::ByTime:
    case Operation::ByTimePage:
    case Operation::All:
    case Operation::Newest:
        return {0, {rowBefore}};
    default:
        return {};
    }
}

Answer Model::ask(const Call &c)
{
    if (c.operation == Operation::Open)
        open();
    if (!m_connection)
        return askClosed(c);

    const auto from = [](const QString &table) { return " FROM \""_q + table + "\" "_q; };
    const QString table = from(c.table);
    const QString tableAgain = from(again(c.table));
    const bool isLog = m_kind == OperatorLog;
    const bool isDescending = c.order == "desc"_q;
    const Literal start(c.start), end(c.end), user(c.user), value(c.value);
    const Answer nothing{0, {rowBefore}};

    switch (c.operation) {
    case Operation::Create:
        return {create(c.table, c.value), {}};
    case Operation::Insert:
    case Operation::InsertOdd:
        insert(c);
        return {};
    case Operation::Statements:
    case Operation::EndAlarm:
        return statements(c);
    case Operation::InsertConfig:
        insertConfig(c.table, c.value);
        return {};
    case Operation::ConfigInfo: {
        QStringList pairs;
        for (const QStringList &row : run("SELECT * FROM tb_config"_q).rows)
            pairs.append("@"_q + row.at(1) + "@"_q + row.at(2));
        return {0, {pairs}};
    }
    case Operation::TableIsExist:
        return {counted(run("SELECT 1 FROM sqlite_master WHERE type IS 'table' AND name IS ?"_q, {c.table})), {}};
    case Operation::Purge:
        if (m_kind != Alarm)
            return {run("DELETE"_q + table).isOk, {}};
        if (!end.isOk)
            return {};
        return {
            run("DELETE"_q + tableAgain + "WHERE (EndDate <> '' AND EndTime <> '') OR DATETIME < ?"_q, {end.text}).isOk,
            {}};
    case Operation::Trim:
        return {isBareName(again(c.table)) &&
                    run("DELETE"_q + tableAgain + "WHERE ID IN (SELECT ID"_q + tableAgain + "ORDER BY ID LIMIT ?)"_q,
                        {c.count})
                        .isOk,
                {}};
    case Operation::Reset:
        return {run("UPDATE sqlite_sequence SET seq = 0 WHERE name IS ?"_q, {c.table}).isOk, {}};
    case Operation::Vacuum:
        return {runText("VACUUM"_q).isOk, {}};
    case Operation::Checkpoint:
        sqlite3_wal_checkpoint_v2(m_connection, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
        return {};
    case Operation::Count:
        return {counted(run("SELECT count(*)"_q + tableAgain)), {}};
    case Operation::CountTo:
        return {end.isOk ? counted(run("SELECT count(*)"_q + tableAgain + "WHERE DATETIME <= ?"_q, {end.text})) : 0,
                {}};
    case Operation::CountRange: {
        if (!start.isOk || !end.isOk)
            return {};
        const QString low = m_kind == History ? start.text : start.text + ".000"_q;
        const QString high = m_kind == History ? end.text : end.text + ".999"_q;
        return {counted(run("SELECT count(*)"_q + table + "WHERE DATETIME BETWEEN ? AND ?"_q, {low, high})), {}};
    }
    case Operation::CountUser:
        return {isLog && user.isOk ? counted(run("SELECT count(*)"_q + table + "WHERE userName = ?"_q, {user.text}))
                                   : 0,
                {}};
    case Operation::RowsByTime: {
        if (isLog)
            return nothing;
        const Literal low(dashed(c.start)), high(dashed(c.end));
        if (!low.isOk || !high.isOk)
            return {};
        const QString sql = "SELECT *"_q + table + "WHERE DATETIME BETWEEN ? AND ? ORDER BY ID"_q;
        if (m_kind == History && (c.offset == -1 || c.count == -1))
            return {0, run(sql, {low.text, high.text}).rows};
        const qint64 product = qint64(c.offset) * c.count;
        const int skipped = int(quint32(quint64(product) & 0xffffffffU));
        return {0, run(sql + " LIMIT ? OFFSET ?"_q, {low.text, high.text, c.count, skipped}).rows};
    }
    case Operation::RowsNewest:
        return rowsBehindMark(run("SELECT *"_q + table + "ORDER BY DATETIME DESC LIMIT ?"_q, {c.count}));
    case Operation::RowsOldest:
        return rowsBehindMark(run("SELECT *"_q + table + "ORDER BY DATETIME LIMIT ?"_q, {c.count}));
    case Operation::RowsPage:
        return rowsBehindMark(run("SELECT *"_q + tableAgain + "ORDER BY DATETIME"_q +
                                      (c.newestFirst ? " DESC"_q : ""_q) + ", ID LIMIT ? OFFSET ?"_q,
                                  {c.count, c.offset}));
    case Operation::RowsPageTo:
        if (!end.isOk)
            return nothing;
        return rowsBehindMark(run("SELECT *"_q + tableAgain + "WHERE DATETIME <= ? ORDER BY DATETIME"_q +
                                      (c.newestFirst ? " DESC"_q : ""_q) + ", ID LIMIT ? OFFSET ?"_q,
                                  {end.text, c.count, c.offset}));
    case Operation::RowsActive:
        return rowsBehindMark(run("SELECT *"_q + table + "WHERE EndDate IS '' AND EndTime IS ''"_q));
    case Operation::ByValue:
        if (m_kind != History || !isBareName(c.table) || !end.isOk || !value.isOk || !isOrder(c.order))
            return nothing;
        return records(run("SELECT *"_q + table + "WHERE Value LIKE ? AND DATETIME <= ? ORDER BY DATETIME "_q + c.order,
                           {"%"_q + value.text + "%"_q, end.text}));
    case Operation::ByUser:
        if (!isLog || !isBareName(c.table) || !user.isOk || !isOrder(c.order))
            return nothing;
        return records(run("SELECT *"_q + table + "WHERE userName = ? ORDER BY DATETIME "_q + c.order, {user.text}));
    case Operation::ByUserPage:
        if (!isLog || !isBareName(c.table) || !user.isOk)
            return nothing;
        return records(isDescending
                           ? run("SELECT *"_q + table + "WHERE userName = ? ORDER BY DATETIME DESC LIMIT ? OFFSET ?"_q,
                                 {user.text, c.count, c.offset})
                           : run("SELECT * FROM (SELECT *"_q + table +
                                     "WHERE userName = ? ORDER BY DATETIME DESC LIMIT ?) "_q +
                                     "ORDER BY DATETIME LIMIT ? OFFSET ?"_q,
                                 {user.text, c.span, c.count, c.offset}));
    case Operation::ByTime:
        return records(range(c, c.order, false));
    case Operation::ByTimePage:
        return records(range(c, c.order, true));
    case Operation::All:
        if (m_kind == Alarm)
            return isOrder(c.order) ? records(run("SELECT *"_q + table +
                                                  "WHERE EndDate = '' AND EndTime = '' ORDER BY DATETIME "_q + c.order))
                                    : nothing;
        return records(
            isDescending ? run("SELECT *"_q + table + "ORDER BY DATETIME DESC LIMIT ? OFFSET ?"_q, {c.count, c.offset})
                         : run("SELECT * FROM (SELECT *"_q + table +
                                   "ORDER BY DATETIME DESC LIMIT ?) ORDER BY DATETIME LIMIT ? OFFSET ?"_q,
                               {c.span, c.count, c.offset}));
    case Operation::Newest:
        if (m_kind == Alarm || (m_kind == History && !isDescending))
            return nothing;
        return records(isDescending ? run("SELECT *"_q + table + "ORDER BY DATETIME DESC LIMIT ?"_q, {c.count})
                                    : run("SELECT * FROM (SELECT *"_q + table +
                                              "ORDER BY DATETIME DESC LIMIT ?) ORDER BY DATETIME"_q,
                                          {c.count}));
    case Operation::Close:
        close();
        break;
    case Operation::Open:
    case Operation::StartReader:
    case Operation::EndReader:
        break;
    }
    return {};
}
