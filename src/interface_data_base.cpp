// SPDX-License-Identifier: MIT
#include "interface_data_base.h"

#include <QDebug>
#include <QMutexLocker>

#include <sqlite3.h>

#if QT_VERSION < QT_VERSION_CHECK(5, 0, 0)
#include <QTextCodec>
#endif

#include <cfloat>
#include <climits>
#include <cstring>

// Only Qt 4 lets a host choose the codec of C strings.
#if QT_VERSION < QT_VERSION_CHECK(5, 0, 0)
static bool cStringsAreLatin1()
{
    return !QTextCodec::codecForCStrings();
}

QString fromCString(const QByteArray &bytes)
{
    return QString(bytes.constData());
}
#else
static bool cStringsAreLatin1()
{
    return true;
}

QString fromCString(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.constData());
}
#endif

// Writes each unit's low byte; true when all were ASCII. In steps of eight, which compilers turn into a few
// vector instructions, but only from and into variables, for `bytes` could be part of `units`; the last step overlaps
// the one before it, for a loop over the rest costs more than all steps.
static bool narrow(const QChar *units, int size, char *bytes)
{
    const ushort *const unit = reinterpret_cast<const ushort *>(units);
    ushort seen = 0;
    if (size < 8) {
        for (int i = 0; i < size; ++i) {
            seen |= unit[i];
            bytes[i] = char(unit[i]);
        }
        return seen < 0x80;
    }
    ushort lanes[8] = {};
    for (int i = 0;; i = i + 16 <= size ? i + 8 : size - 8) {
        ushort from[8];
        char to[8];
        std::memcpy(from, unit + i, sizeof from);
        for (int j = 0; j < 8; ++j)
            to[j] = char(from[j]);
        for (int j = 0; j < 8; ++j)
            lanes[j] |= from[j];
        std::memcpy(bytes + i, to, sizeof to);
        if (i + 8 == size)
            break;
    }
    for (int j = 0; j < 8; ++j)
        seen |= lanes[j];
    return seen < 0x80;
}

// ASCII without a NUL: every conversion leaves such a text as it is.
static bool isPlainAscii(const QString &text)
{
    const ushort *const unit = reinterpret_cast<const ushort *>(text.constData());
    const int size = int(text.size());
    ushort outside = 0;
    int i = 0;
    for (; i + 8 <= size; i += 8) {
        for (int j = 0; j < 8; ++j)
            outside |= ushort(unit[i + j] > 0x7f) | ushort(unit[i + j] == 0);
    }
    for (; i < size; ++i)
        outside |= ushort(unit[i] > 0x7f) | ushort(unit[i] == 0);
    return outside == 0;
}

QString rereadUtf8(const QString &text)
{
    return cStringsAreLatin1() && isPlainAscii(text) ? text : fromCString(text.toUtf8());
}

QString rereadLatin1(const QString &text)
{
    return cStringsAreLatin1() && isPlainAscii(text) ? text : fromCString(text.toLatin1());
}

StatementTemplate::StatementTemplate(const char *text) : m_text(text), m_markers(0), m_end(nullptr)
{
    const char *piece = text;
    for (const char *mark = std::strchr(text, '%'); mark; mark = std::strchr(piece, '%')) {
        m_pieces[m_markers++] = size_t(mark - piece);
        piece = mark + 2;
    }
    m_pieces[m_markers] = std::strlen(piece) + 1;
}

const char *StatementTemplate::fill(const QString *const *cells)
{
    if (const char *const spliced = splice(cells))
        return spliced;
    QString text = QString::fromLatin1(m_text);
    for (int i = 0; i < m_markers; ++i)
        text = text.arg(*cells[i]);
    m_chained = text.toUtf8();
    return m_chained.constData();
}

const char *StatementTemplate::splice(const QString *const *cells)
{
    size_t most = std::strlen(m_text) + 1;
    for (int i = 0; i < m_markers; ++i)
        most += 3 * size_t(cells[i]->size()); // UTF-8 takes at most three bytes for a UTF-16 unit
    if (most > size_t(INT_MAX) / 2)           // more than the buffer can count
        return nullptr;
    if (size_t(m_bytes.size()) < most)
        m_bytes.resize(int(2 * most));

    m_end = m_bytes.data();
    const char *piece = m_text;
    for (int i = 0; i < m_markers; ++i) {
        append(piece, m_pieces[i]);
        // Nothing is substituted behind the last cell: its markers stay what they are.
        if (!appendCell(*cells[i], i + 1 == m_markers))
            return nullptr;
        piece += m_pieces[i] + 2;
    }
    append(piece, m_pieces[m_markers]);
    return m_bytes.data();
}

// A marker is '%', perhaps 'L', a digit of any script. Any non-ASCII unit counts as one here: to take the chain
// without need is slower, not wrong.
static bool startsMarker(ushort unit)
{
    return unit == 'L' || unit >= 0x80 || ushort(unit - '0') < 10;
}

bool StatementTemplate::appendCell(const QString &cell, bool mayHoldMarkers)
{
    const int size = int(cell.size());
    if (narrow(cell.constData(), size, m_end)) {
        const char *byte = m_end;
        m_end += size;
        *m_end = '\0';
        while (!mayHoldMarkers) {
            byte = static_cast<const char *>(std::memchr(byte, '%', size_t(m_end - byte)));
            if (!byte)
                break;
            if (startsMarker(uchar(*++byte)))
                return false;
        }
        return true;
    }
    for (int i = 0; i < size; ++i) {
        const QChar unit = cell.at(i);
        if (unit.isHighSurrogate() || unit.isLowSurrogate()) // a lone one's bytes depend on what stands beside it
            return false;
        if (!mayHoldMarkers && unit == QLatin1Char('%') && i + 1 < size && startsMarker(cell.at(i + 1).unicode()))
            return false;
    }
    const QByteArray utf8 = cell.toUtf8();
    append(utf8.constData(), size_t(utf8.size()));
    return true;
}

void StatementTemplate::append(const char *bytes, size_t size)
{
    std::memcpy(m_end, bytes, size);
    m_end += size;
}

static quint64 eightAt(const char *bytes)
{
    quint64 eight;
    std::memcpy(&eight, bytes, sizeof eight);
    return eight;
}

static bool isAscii(const char *bytes, size_t size)
{
    quint64 seen = 0;
    if (size >= 8) {
        const char *const last = bytes + size - 8; // overlaps the one before it
        for (; bytes < last; bytes += 8)
            seen |= eightAt(bytes);
        seen |= eightAt(last);
    } else {
        for (; size > 0; ++bytes, --size)
            seen |= uchar(*bytes);
    }
    return (seen & Q_UINT64_C(0x8080808080808080)) == 0;
}

static QString sizedText(const char *cell, size_t size)
{
    return isAscii(cell, size) ? QString::fromLatin1(cell, int(size)) : QString::fromUtf8(cell, int(size));
}

QString toText(const char *cell)
{
    return cell ? sizedText(cell, std::strlen(cell)) : QString();
}

static bool isDigit(char byte)
{
    return byte >= '0' && byte <= '9';
}

// The value of `count` digits; -1 when there is something else among them.
static int digits(const char *bytes, int count)
{
    int value = 0;
    for (int i = 0; i < count; ++i) {
        if (!isDigit(bytes[i]))
            return -1;
        value = 10 * value + (bytes[i] - '0');
    }
    return value;
}

int toInt(const char *cell)
{
    if (cell) {
        const bool negative = *cell == '-';
        const char *const first = cell + negative;
        const size_t size = std::strlen(first);
        const int value = size >= 1 && size <= 9 ? digits(first, int(size)) : -1;
        if (value >= 0)
            return negative ? -value : value;
    }
    return QString::fromUtf8(cell).toInt();
}

double toDouble(const char *cell)
{
    // Up to 15 digits and a power of ten of up to 22 are exact doubles, so one division rounds correctly,
    // unless the machine calculates with more bits than a double has.
    if (cell && FLT_EVAL_METHOD == 0) {
        const bool negative = *cell == '-';
        const char *byte = cell + negative;
        double value = 0;
        double scale = 1;
        int count = 0;
        for (; isDigit(*byte) && count <= 15; ++byte, ++count)
            value = 10 * value + (*byte - '0');
        const bool plain = count > 0;
        if (*byte == '.') {
            for (++byte; isDigit(*byte) && count <= 15; ++byte, ++count) {
                value = 10 * value + (*byte - '0');
                scale *= 10;
            }
        }
        if (plain && count <= 15 && *byte == '\0')
            return negative ? -(value / scale) : value / scale;
    }
    bool isNumber = false;
    const double value = QString::fromUtf8(cell).toDouble(&isNumber);
    return isNumber ? value : 0; // out of range: 0 with every Qt
}

TimeReader::TimeReader(Form form) : m_form(form), m_dayIsPlain(false), m_dayStart(0)
{
    std::memset(m_dayText, 0, sizeof m_dayText);
}

void TimeReader::read(const char *cell, QDateTime &time)
{
    const size_t size = m_form == Seconds ? 19 : 23;
    if (cell && std::strlen(cell) == size && cell[10] == ' ' && cell[13] == ':' && cell[16] == ':' &&
        (m_form == Seconds || cell[19] == '.')) {
        if (std::memcmp(cell, m_dayText, sizeof m_dayText) != 0)
            startDay(cell);
        const int hour = digits(cell + 11, 2);
        const int minute = digits(cell + 14, 2);
        const int second = digits(cell + 17, 2);
        const int milliseconds = m_form == Seconds ? 0 : digits(cell + 20, 3);
        if (m_dayIsPlain && QTime::isValid(hour, minute, second, milliseconds)) {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
            // The same time in two thirds of the instructions that the other way takes; with Qt 5 it would take more.
            time.setMSecsSinceEpoch(m_dayStart + 1000 * (60 * (60 * hour + minute) + second) + milliseconds);
#else
            time = QDateTime(m_day, QTime(hour, minute, second, milliseconds));
#endif
            return;
        }
    }
    time = QDateTime::fromString(QString::fromUtf8(cell),
                                 QLatin1String(m_form == Seconds ? "yyyy-MM-dd hh:mm:ss" : "yyyy-MM-dd hh:mm:ss.zzz"));
}

// The seconds by which local time is ahead of UTC when a day starts in UTC.
static int offsetAt(const QDate &day)
{
    const QDateTime local = QDateTime(day, QTime(0, 0), Qt::UTC).toLocalTime();
    return int(86400 * day.daysTo(local.date())) + QTime(0, 0).secsTo(local.time());
}

// Near a change of the zone's offset a local time may not exist, or exist twice; which one it is then only
// fromString() says. The years are those for which every Qt asks the system.
void TimeReader::startDay(const char *text)
{
    std::memcpy(m_dayText, text, sizeof m_dayText);
    m_day = QDate(digits(text, 4), digits(text + 5, 2), digits(text + 8, 2));
    m_dayIsPlain = text[4] == '-' && text[7] == '-' && m_day.isValid() && m_day.year() > 1970 && m_day.year() < 2037;
    if (!m_dayIsPlain)
        return;
    const int offset = offsetAt(m_day.addDays(-1));
    m_dayIsPlain = offset == offsetAt(m_day.addDays(2));
    m_dayStart = QDateTime(m_day, QTime(0, 0), Qt::UTC).toMSecsSinceEpoch() - Q_INT64_C(1000) * offset;
}

// Descriptions may differ anywhere, so all of a long text counts; of a name its size and two bytes do.
static int hashed(const char *text, size_t size, int bits)
{
    const quint64 factor = Q_UINT64_C(0x9e3779b97f4a7c15);
    quint64 hash = size;
    if (size >= 16) {
        const char *const last = text + size - 8; // overlaps the one before it
        for (; text < last; text += 8)
            hash = (hash ^ eightAt(text)) * factor;
        hash ^= eightAt(last);
    } else if (size > 0) {
        hash |= quint64(uchar(text[size / 2]) << 8 | uchar(text[size - 1]) << 16);
    }
    return int((hash * factor) >> (64 - bits));
}

RecurringTexts::RecurringTexts()
{
    for (int i = 0; i < Slots; ++i)
        m_cells[i] = nullptr;
}

QString RecurringTexts::read(const char *cell)
{
    if (!cell)
        return QString();
    const size_t size = std::strlen(cell);
    const int slot = hashed(cell, size, SlotBits);
    if (!m_cells[slot] || m_sizes[slot] != size || std::memcmp(m_cells[slot], cell, size) != 0) {
        m_cells[slot] = cell;
        m_sizes[slot] = size;
        m_texts[slot] = sizedText(cell, size);
    }
    return m_texts[slot];
}

TableQuery::TableQuery(sqlite3 *connection, const char *sql)
    : m_cells(nullptr), m_error(nullptr), m_rows(0), m_columns(0), m_code(0)
{
    m_code = sqlite3_get_table(connection, sql, &m_cells, &m_rows, &m_columns, &m_error);
}

TableQuery::~TableQuery()
{
    sqlite3_free_table(m_cells);
    sqlite3_free(m_error);
}

int TableQuery::count() const
{
    // A table name may turn the text into one without rows; then there is no cell to read.
    return m_rows < 1 ? 0 : QString::fromUtf8(cell(0, 0)).toInt();
}

void TableQuery::appendTo(QList<QStringList> &result) const
{
    reserveFor(result, m_rows);
    for (int row = 0; row < m_rows; ++row) {
        QStringList &texts = appendNew(result);
        texts.reserve(m_columns);
        for (int column = 0; column < m_columns; ++column)
            texts.append(toText(cell(row, column)));
    }
}

Execution::Execution(sqlite3 *connection, const char *sql) : m_error(nullptr), m_code(0)
{
    m_code = sqlite3_exec(connection, sql, nullptr, nullptr, &m_error);
}

Execution::~Execution()
{
    sqlite3_free(m_error);
}

interface_data_base::interface_data_base() : m_connection(nullptr) {}

interface_data_base::~interface_data_base()
{
    qDebug() << "~interface_data_base";
    interface_data_base::closeDB();
}

int interface_data_base::openDB(QString path)
{
    // No pragma, no busy timeout: the file's settings are the host's.
    QMutexLocker lock(&m_mutex);
    return sqlite3_open(path.toUtf8().constData(), &m_connection);
}

int interface_data_base::closeDB()
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    if (!m_connection)
        return 0;
    const int code = sqlite3_close(m_connection);
    m_connection = nullptr; // even when SQLite refused: a closed store stays closed
    return code;
}

void interface_data_base::dbWalCheckPoint()
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const Execution checkpoint(m_connection, "PRAGMA wal_checkpoint = passive;");
    if (checkpoint.failed())
        qDebug() << checkpoint.errorText();
}

// Row callback of tableIsExist: anything but a count that starts with '0' means that the table is there.
// A table name may turn the text into one that answers NULL; that is no table.
static int isExisted(void *flag, int, char **texts, char **)
{
    *static_cast<bool *>(flag) = texts[0] && texts[0][0] != '0';
    return 0;
}

bool interface_data_base::tableIsExist(QString table)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const QByteArray sql = statement("select count(type) from sqlite_master where type='table' and name ='%1'", table);
    bool exists = false;
    char *error = nullptr;
    sqlite3_exec(m_connection, sql.constData(), isExisted, &exists, &error);
    sqlite3_free(error); // silent: a failure and a missing table answer the same
    return exists;
}

bool interface_data_base::deleteTable(QString table, QString)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const Execution clear(m_connection, statement("delete from '%1'", table));
    if (clear.failed())
        qDebug() << "delete Table " << table << " fail!";
    return !clear.failed();
}

bool interface_data_base::vacuumSqliteDB()
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const Execution vacuum(m_connection, "VACUUM");
    if (vacuum.failed())
        qDebug() << "VACUUM fail!";
    return !vacuum.failed();
}

bool interface_data_base::resetID(QString table)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const Execution reset(m_connection, statement("update sqlite_sequence SET seq = 0 where name = '%1';", table));
    if (reset.failed())
        qDebug() << "reset " << table << " ID fail!";
    return !reset.failed();
}

bool interface_data_base::deleteDataForMax(int count, QString table)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    const QString name = rereadUtf8(table);
    // A negative count is no limit to SQLite and empties the table; the caller's number is not guarded.
    const Execution trim(
        m_connection,
        statement("delete from '%1' where ID in (select ID from %2 order by ID limit 0,%3);", name, name, count));
    if (trim.failed())
        qDebug() << "Delete many data fail";
    return !trim.failed();
}

int interface_data_base::getDataCountOfTable(QString table)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection, statement("select count(*) from '%1' ", rereadUtf8(table)));
    if (query.failed()) {
        qDebug() << "database getDataCountOfTable failed;" << query.errorText();
        return 0;
    }
    return query.count();
}

int interface_data_base::getDataCountOfTableEndDate(QString table, QString end)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement("select count(*) from '%1' where DATETIME <= '%2'", rereadUtf8(table), end));
    if (query.failed()) {
        qDebug() << "database getDataCountOfTableEndDate failed;" << query.errorText();
        return 0;
    }
    return query.count();
}

int interface_data_base::getDataCountOfTimeQuery(QString start, QString end, QString table)
{
    if (!m_connection)
        return 0;
    QMutexLocker lock(&m_mutex);
    // Bounds given to the second take in every millisecond of both seconds.
    start.append(QLatin1String(".000"));
    end.append(QLatin1String(".999"));
    const TableQuery query(
        m_connection, statement("select count(*) from '%1' where DATETIME Between '%2' and  '%3'", table, start, end));
    if (query.failed()) {
        qDebug("database getDataCountOfTimeQuery failed\n");
        return 0;
    }
    return query.count();
}

QStringList interface_data_base::selectConfigInfo()
{
    QMutexLocker lock(&m_mutex);
    QStringList pairs;
    if (!m_connection)
        return pairs;
    const TableQuery query(m_connection, "select COLLECTOR,NAME from 'tb_config'");
    if (query.failed()) {
        qDebug() << "database selectConfigInfo failed;" << query.errorText();
        return pairs;
    }
    for (int row = 0; row < query.rowCount(); ++row) {
        QString pair;
        for (int column = 0; column < query.columnCount(); ++column)
            pair.append(QLatin1String("@")).append(toText(query.cell(row, column)));
        pairs.append(pair);
    }
    return pairs;
}

void interface_data_base::insertConfig(QString collector, QString name)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    Execution(m_connection, "begin transaction");
    Execution(m_connection,
              statement("insert into tb_config values(NULL,'%1','%2')", rereadUtf8(collector), rereadUtf8(name)));
    const Execution commit(m_connection, "commit transaction");
    if (commit.failed())
        qDebug() << "insertManyDatas fail"; // no rollback: the transaction stays open until a later commit
}

void interface_data_base::selectNewDataOfRows(QString table, int count, QList<QStringList> &result)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement("select * from '%1' order by DATETIME desc limit 0,'%2' ", table, count));
    if (query.failed()) {
        qDebug() << "database selectNewDataOfRows failed";
        return;
    }
    query.appendTo(result);
}

void interface_data_base::selectOldDataOfRows(QString table, int count, QList<QStringList> &result)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement("select * from '%1' order by DATETIME asc limit 0,'%2' ", table, count));
    if (query.failed()) {
        qDebug() << "database selectOldDataOfRows failed";
        return;
    }
    query.appendTo(result);
}

void interface_data_base::selectDataOfRows(QString table, int offset, int count, QList<QStringList> &result,
                                           bool newestFirst)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection,
                           statement(newestFirst ? "select * from '%1' order by DATETIME desc , ID limit %2,%3 "
                                                 : "select * from '%1' order by DATETIME  , ID limit %2,%3 ",
                                     rereadUtf8(table), offset, count));
    if (query.failed()) {
        qDebug() << "database selectDataOfRows failed" << query.errorText();
        return;
    }
    query.appendTo(result);
}

void interface_data_base::selectDataOfDateRows(QString table, QString end, int offset, int count,
                                               QList<QStringList> &result, bool newestFirst)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    if (table.isEmpty()) {
        qDebug() << "database TableName is empty!";
        return;
    }
    const QString sql =
        QString::fromLatin1(newestFirst
                                ? "select * from '%1' where DATETIME <= '%2' order by DATETIME desc , ID limit %3,%4 "
                                : "select * from '%1' where DATETIME <= '%2' order by DATETIME , ID limit %3,%4 ")
            .arg(rereadUtf8(table))
            .arg(end)
            .arg(offset)
            .arg(count);
    const TableQuery query(m_connection, sql.toUtf8());
    if (query.failed()) {
        qDebug() << "database selectDataOfDateRows failed";
        qDebug() << sql;
        qDebug() << query.errorText();
        return;
    }
    query.appendTo(result);
}

void interface_data_base::findNoRecoveryAlarm(QList<QStringList> &result, QString table)
{
    if (!m_connection)
        return;
    QMutexLocker lock(&m_mutex);
    const TableQuery query(m_connection, statement("select * from '%1' where EndDate == '' and EndTime == '';", table));
    if (query.failed()) {
        qDebug() << "findNoRecoveryAlarm" << QString::fromLatin1(query.errorText());
        return;
    }
    query.appendTo(result);
}

bool interface_data_base::runStatements(const QStringList &statements, QList<QStringList> &result, int mode)
{
    if (!m_connection)
        return false;
    QMutexLocker lock(&m_mutex);
    if (mode == 0) {
        if (statements.isEmpty())
            return false;
        const Execution first(m_connection, statements.first().toUtf8());
        if (first.failed())
            qDebug() << first.errorText();
        return !first.failed();
    }
    if (mode == 1) {
        if (statements.isEmpty())
            return false;
        const TableQuery query(m_connection, statements.first().toUtf8());
        if (query.failed()) {
            qDebug() << query.errorText();
            return false;
        }
        query.appendTo(result);
        return true;
    }
    if (mode != 2)
        return true;

    bool allSucceeded = true;
    Execution(m_connection, "begin transaction");
    for (int i = 0; i < statements.size(); ++i) {
        const Execution each(m_connection, statements.at(i).toUtf8());
        if (each.failed()) {
            qDebug() << QString::fromLatin1("SQL=%1   error:%2")
                            .arg(rereadUtf8(statements.at(i)))
                            .arg(QString::fromLatin1(each.errorText()));
            allSucceeded = false;
        }
    }
    const Execution commit(m_connection, "commit transaction");
    if (commit.failed())
        qDebug() << "sql fail"; // no rollback, and the answer is about the statements alone
    return allSucceeded;
}
