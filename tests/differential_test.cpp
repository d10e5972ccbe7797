// SPDX-License-Identifier: MIT
//
// The library's fast paths against the plain algorithm of support/plain.cpp, on random and nasty input:
// the same statement texts, the same records, null texts and invalid times included. The number of rows for
// each test is DEVICE_DATABASE_CASES; the seed is printed and can be given as DEVICE_DATABASE_SEED. Long
// because every operation is compared.
#include "plain.h"
#include "sqlite_calls.h"
#include "store_test.h"

#include <cmath>
#include <cstring>
#include <random>

namespace
{

long numberFrom(const char *variable, long otherwise)
{
    const QByteArray text = qgetenv(variable);
    return text.isEmpty() ? otherwise : text.toLong();
}

class Random
{
public:
    Random() : m_seed(static_cast<unsigned long>(numberFrom("DEVICE_DATABASE_SEED", long(std::random_device()()))))
    {
        m_engine.seed(m_seed);
    }
    unsigned long seed() const { return m_seed; }

    int below(int limit) { return int(m_engine() % std::uint64_t(limit)); }
    bool oneIn(int count) { return below(count) == 0; }
    std::uint64_t bits() { return m_engine(); }
    template<typename Container>
    typename Container::value_type of(const Container &choices)
    {
        return choices[below(int(choices.size()))];
    }

    /// What people write, what substitution stumbles over, and noise.
    QString text()
    {
        static const QList<QString> pieces = {QString(),
                                              "",
                                              "a",
                                              "Pump 1",
                                              "90 %",
                                              "100% sure",
                                              "%",
                                              "%L",
                                              "L1",
                                              "1",
                                              "%1",
                                              "%2",
                                              "%3",
                                              "%4",
                                              "%5",
                                              "%6",
                                              "%7",
                                              "%8",
                                              "%9",
                                              "%0",
                                              "%10",
                                              "%99",
                                              "%L1",
                                              "%L4",
                                              "%%1",
                                              "%1%2",
                                              "'",
                                              "''",
                                              "/",
                                              "2024/05/06",
                                              " ",
                                              "  ",
                                              "\n",
                                              "\t",
                                              "-7",
                                              "+7",
                                              "007",
                                              "7.5",
                                              "1e3",
                                              "0x10",
                                              "2147483647",
                                              "2147483648",
                                              "-2147483648",
                                              QString(QChar(0)),
                                              QString("x") + QChar(0) + "y",
                                              QString(QChar(0xfeff)),
                                              QString(QChar(0xfeff)) + "bom",
                                              QString(QChar(0xd83d)),
                                              QString(QChar(0xde00)),
                                              QString::fromUtf8("😀"),
                                              QString::fromUtf8("é"),
                                              QString::fromUtf8("Ünïcödé"),
                                              QString::fromUtf8("日本語"),
                                              QString("%") + QChar(0x0661),
                                              QString("%L") + QChar(0x0967),
                                              QString("%") + QChar(0xe9),
                                              QString(QChar(0x80)),
                                              QString(9, QChar(0x80))};
        if (oneIn(4))
            return of(pieces);
        QString text;
        for (int count = below(5); count > 0; --count) {
            if (!oneIn(3)) {
                text += of(pieces);
                continue;
            }
            for (int units = below(8); units > 0; --units)
                text += QChar(ushort(oneIn(10) ? below(0x10000) : 32 + below(95)));
        }
        return text;
    }

    /// Mostly a well-formed time, often near a change of a zone's offset, sometimes damaged. Days recur.
    QByteArray time(bool milliseconds)
    {
        QByteArray bytes = newTime(milliseconds);
        if (bytes.size() >= m_day.size() && oneIn(2))
            bytes.replace(0, m_day.size(), m_day);
        m_day = bytes.left(10);
        return bytes;
    }

    /// Numbers in every form, and what is none.
    QByteArray number()
    {
        switch (below(10)) {
        case 0:
            return QByteArray::number(below(100000) / 1000.0, 'f', below(8));
        case 1:
            return QByteArray::number(double(bits()) / 1e10, 'g', 17);
        case 2:
            return '-' + QByteArray::number(below(10000) / 100.0);
        case 3:
            return text().toUtf8();
        case 4:
            return QByteArray::number(qlonglong(bits()));
        case 5:
            return of(QList<QByteArray>{"1e400", "-0", "-", ".", "-.5", "7.", "inf", "nan", "+1", " 3 ", "0.1e-5",
                                        "4294967297", "-4294967297", "007"});
        case 6: {
            QByteArray digits = QByteArray::number(qlonglong(bits() % 1000000000000000ULL));
            return digits.insert(below(int(digits.size()) + 1), '.');
        }
        case 7: {
            QByteArray noise;
            for (int count = below(20); count > 0; --count)
                noise += "0123456789.-+ e"[below(15)];
            return noise;
        }
        default:
            return QByteArray::number(below(200) - 100);
        }
    }

private:
    QByteArray newTime(bool milliseconds)
    {
        static const QList<QDate> changes = {{2024, 3, 31}, {2024, 10, 27}, {2024, 3, 10}, {2024, 11, 3}, {2023, 3, 26},
                                             {2021, 3, 14}, {2000, 4, 2},   {1980, 4, 6},  {2037, 3, 29}, {1974, 1, 6}};
        QString text;
        if (oneIn(4)) {
            text = of(changes).addDays(below(3) - 1).toString("yyyy-MM-dd ") + padded(below(oneIn(2) ? 4 : 24), 2);
        } else {
            text = padded(oneIn(6) ? below(10001) : 1968 + below(75), 4) + '-' + padded(part(1, 12), 2) + '-' +
                   padded(part(1, 31), 2) + ' ' + padded(part(0, 23), 2);
        }
        text += ':' + padded(part(0, 59), 2) + ':' + padded(part(0, 59), 2);
        if (milliseconds != oneIn(30))
            text += '.' + padded(below(1000), 3);
        QByteArray bytes = text.toLatin1();
        switch (below(400)) {
        case 0:
            return QByteArray();
        case 1:
            return bytes + ' ';
        case 2:
            return ' ' + bytes;
        case 3:
            return bytes.replace('-', '/');
        case 4:
            return bytes.replace(' ', "  ");
        case 5:
            return bytes.replace(' ', "\xc2\xa0");
        case 6:
            return "\xef\xbb\xbf" + bytes;
        case 7:
            return bytes + "\xc3\xa9";
        case 8:
            return bytes.left(below(20));
        default:
            break;
        }
        if (oneIn(25))
            bytes[below(int(bytes.size()))] = char(33 + below(90));
        return bytes;
    }

    static QString padded(int number, int width) { return QString::number(number).rightJustified(width, QChar('0')); }
    int part(int first, int last) { return oneIn(20) ? below(last + 5) : first + below(last - first + 1); }

    unsigned long m_seed;
    std::mt19937_64 m_engine;
    QByteArray m_day; ///< Of the last time.
};

struct Kind {
    const char *key;
    const char *table;
    const char *create;
    int columns;
};

const Kind historyKind{"historyDB", "T", "create table T(ID INTEGER PRIMARY KEY,DATETIME,Value)", 3};
const Kind alarmKind{
    "alarmDB", "AlarmData",
    "create table AlarmData(ID INTEGER PRIMARY KEY,LevelID,DATETIME,AlarmObject,AlarmType,CurrentValue,"
    "LimitValue,AlarmDescription,EndDate,EndTime)",
    10};
const Kind logKind{"operatorLogDB", "L", "create table L(ID INTEGER PRIMARY KEY,DATETIME,userName,logName,message)", 5};

bool identical(const QString &one, const QString &other)
{
    return one == other && one.isNull() == other.isNull();
}

bool identical(double one, double other)
{
    return std::memcmp(&one, &other, sizeof one) == 0 || (std::isnan(one) && std::isnan(other));
}

bool identical(const QDateTime &one, const QDateTime &other)
{
    return one.isValid() == other.isValid() && one.isNull() == other.isNull() && one.date() == other.date() &&
           one.time() == other.time() && one.timeSpec() == other.timeSpec() &&
           (!one.isValid() || (one == other && one.offsetFromUtc() == other.offsetFromUtc() &&
                               one.toMSecsSinceEpoch() == other.toMSecsSinceEpoch()));
}

bool identical(const DataContent &one, const DataContent &other)
{
    return identical(one.date, other.date) && identical(one.time, other.time) &&
           identical(one.extraText, other.extraText) && identical(one.value, other.value);
}

bool identical(const AlarmData &one, const AlarmData &other)
{
    return one.level == other.level && identical(one.limitValue, other.limitValue) &&
           identical(one.description, other.description) && identical(one.alarmObject, other.alarmObject) &&
           identical(one.alarmType, other.alarmType) && identical(one.currentValue, other.currentValue) &&
           identical(one.extraText, other.extraText) && identical(one.startTime, other.startTime) &&
           identical(one.endTime, other.endTime);
}

bool identical(const OperatorLogData &one, const OperatorLogData &other)
{
    return identical(one.userName, other.userName) && identical(one.logName, other.logName) &&
           identical(one.message, other.message) && identical(one.dateTime, other.dateTime);
}

template<typename T>
bool identical(const QList<T> &one, const QList<T> &other)
{
    if (one.size() != other.size())
        return false;
    for (int i = 0; i < int(one.size()); ++i) {
        if (!identical(one.at(i), other.at(i)))
            return false;
    }
    return true;
}

class Differential : public StoreTest
{
protected:
    Differential() { RecordProperty("seed", std::to_string(random.seed())); }
    ~Differential() override
    {
        if (HasFailure())
            std::printf("DEVICE_DATABASE_SEED=%lu\n", random.seed());
    }

    /// Batches of random rows: what SQLite is handed is what the plain algorithm builds.
    template<typename Statement>
    void inserts(const Kind &kind, int cells, Statement statement)
    {
        interface_data_base &store = open(kind.key);
        SqliteCalls calls;
        for (long done = 0; done < cases; done += 100) {
            QList<QStringList> rows;
            for (int i = 0; i < 100; ++i) {
                QStringList row;
                for (int cell = random.oneIn(10) ? random.below(cells + 4) : cells; cell > 0; --cell)
                    row.append(random.text());
                rows.append(row);
            }
            const QString table = random.oneIn(3) ? random.text() : QString(kind.table);
            const QList<QStringList> before = rows;
            calls.take();
            log.take();
            store.insertManyDatas(rows, table);
            const QStringList messages = log.take();
            const QStringList texts = calls.take();

            QStringList expected{"begin transaction"};
            for (const QStringList &row : rows) {
                const QString text = statement(row, table);
                if (!text.isNull()) // SQLite reads up to the first NUL
                    expected.append(QString::fromUtf8(text.toUtf8().constData()));
            }
            expected.append("commit transaction");
            ASSERT_EQ(texts, expected);
            ASSERT_EQ(messages, log.take()) << "warnings of QString::arg";
            ASSERT_EQ(rows, before);
        }
    }

    /// Tables of random cells: the records are what the plain algorithm makes of them.
    template<typename Record, typename Read>
    void records(const Kind &kind, Read read)
    {
        PlainConnection connection(path());
        connection.run(kind.create);
        interface_data_base &store = open(kind.key);
        QList<Record> fast;
        QList<Record> plain;
        QList<QStringList> fastTable;
        QList<QStringList> plainTable;
        for (long done = 0; done < cases; done += batch) {
            fill(connection, kind);
            if (random.oneIn(3)) { // else both append to what they hold
                fast.clear();
                plain.clear();
                fastTable.clear();
                plainTable.clear();
            }
            for (int offset = 0; offset < batch; offset += 25) {
                const QString sql = read(store, fast, offset);
                plainly(connection, sql, plain);
            }
            ASSERT_TRUE(identical(fast, plain));
            store.selectDataOfRows(kind.table, 0, -1, fastTable, true);
            plainly(connection, QString("select * from '%1' order by DATETIME desc , ID limit 0,-1 ").arg(kind.table),
                    plainTable);
            ASSERT_TRUE(identical(fastTable, plainTable));
        }
    }

    const long cases = numberFrom("DEVICE_DATABASE_CASES", 4000);
    Random random;

private:
    static constexpr int batch = 500;

    template<typename List>
    void plainly(PlainConnection &connection, const QString &sql, List &list)
    {
        plain::CellTable cells{};
        ASSERT_EQ(sqlite3_get_table(connection.handle(), sql.toUtf8().constData(), &cells.cells, &cells.rows,
                                    &cells.columns, nullptr),
                  SQLITE_OK);
        plain::append(cells, list);
        sqlite3_free_table(cells.cells);
    }

    void fill(PlainConnection &connection, const Kind &kind)
    {
        connection.run(QString("begin;delete from %1").arg(kind.table));
        const QByteArray insert = "insert into " + QByteArray(kind.table) + " values(NULL" +
                                  QByteArray(",?").repeated(kind.columns - 1) + ")";
        sqlite3_stmt *statement = nullptr;
        sqlite3_prepare_v2(connection.handle(), insert.constData(), -1, &statement, nullptr);
        for (int row = 0; row < batch; ++row) {
            for (int column = 1; column < kind.columns; ++column) {
                const QByteArray bytes = cell(kind, column);
                if (random.oneIn(60) && !isEnd(kind, column))
                    sqlite3_bind_null(statement, column);
                else
                    sqlite3_bind_text(statement, column, bytes.constData(), int(bytes.size()), SQLITE_TRANSIENT);
            }
            sqlite3_step(statement);
            sqlite3_reset(statement);
        }
        sqlite3_finalize(statement);
        connection.run("commit");
    }

    static bool isEnd(const Kind &kind, int column) { return &kind == &alarmKind && column >= 8; }

    QByteArray cell(const Kind &kind, int column)
    {
        if (column == (&kind == &alarmKind ? 2 : 1))
            return random.time(&kind == &logKind);
        if (isEnd(kind, column))
            return QByteArray(""); // an ended alarm is never read as a record
        if (&kind == &alarmKind && (column == 1 || column == 6))
            return random.number();
        if (random.oneIn(300)) { // not even UTF-8
            QByteArray noise;
            for (int count = random.below(8); count > 0; --count)
                noise += char(1 + random.below(255));
            return noise;
        }
        return random.oneIn(3) ? random.text().toUtf8() : "Pump " + QByteArray::number(random.below(30));
    }
};

TEST_F(Differential, HistoryStatements)
{
    inserts(historyKind, 2, plain::historyStatement);
}

TEST_F(Differential, AlarmStatements)
{
    inserts(alarmKind, 10, [](const QStringList &row, const QString &) { return plain::alarmStatement(row); });
}

TEST_F(Differential, OperatorLogStatements)
{
    inserts(logKind, 4, plain::logStatement);
}

// One of each kind of query: texts alone, numbers alone, both, a text used twice or changed before.
TEST_F(Differential, QueryStatements)
{
    interface_data_base &alarms = open("alarmDB");
    SqliteCalls calls;
    const auto number = [this] { return random.oneIn(3) ? int(random.bits()) : random.below(200) - 100; };
    for (long done = 0; done < cases; ++done) {
        const QString table = random.text();
        const QString start = random.text();
        const QString end = random.text();
        const QString order = random.text();
        const int offset = number();
        const int count = number();
        QList<AlarmData> list;
        QList<QStringList> result;
        calls.take();
        alarms.findDataOfTimePage(start, end, &list, table, order, offset, count, 0);
        alarms.getAllDataPage(table, &list, order, 0, 0, 0);
        alarms.selectDataOfRows(table, offset, count, result, done % 2 == 0);
        alarms.selectNewDataOfRows(table, count, result);
        alarms.getDataCountOfTimeQuery(start, end, table);
        alarms.deleteDataForMax(count, table);
        const QStringList texts = calls.take();

        const QString once = QString::fromLatin1(table.toUtf8().constData());
        const QStringList chains = {
            QString("select * from %1 where DATETIME Between '%2' and  '%3' and EndDate = '' and EndTime = '' "
                    "order by DATETIME %4 limit %5, %6;")
                .arg(table)
                .arg(QString(start).replace("/", "-"))
                .arg(QString(end).replace("/", "-"))
                .arg(order)
                .arg(offset)
                .arg(count),
            QString("select * from '%1' where EndDate = '' and EndTime = '' order by DATETIME %2")
                .arg(table)
                .arg(order),
            QString(done % 2 == 0 ? "select * from '%1' order by DATETIME desc , ID limit %2,%3 "
                                  : "select * from '%1' order by DATETIME  , ID limit %2,%3 ")
                .arg(once)
                .arg(offset)
                .arg(count),
            QString("select * from '%1' order by DATETIME desc limit 0,'%2' ").arg(table).arg(count),
            QString("select count(*) from '%1' where DATETIME Between '%2' and  '%3'")
                .arg(table)
                .arg(start + ".000")
                .arg(end + ".999"),
            QString("delete from '%1' where ID in (select ID from %2 order by ID limit 0,%3);")
                .arg(once)
                .arg(once)
                .arg(count)};
        QStringList expected;
        for (const QString &chain : chains)
            expected.append(QString::fromUtf8(chain.toUtf8().constData())); // SQLite reads up to the first NUL
        ASSERT_EQ(texts, expected);
        log.take(); // what the failures say is told elsewhere
    }
}

TEST_F(Differential, HistoryRecords)
{
    records<DataContent>(historyKind, [](interface_data_base &store, QList<DataContent> &list, int offset) {
        store.getAllDataPage("T", &list, "desc", offset, 25, 0);
        return QString("select * from 'T' order by DATETIME desc limit %1, 25;").arg(offset);
    });
}

TEST_F(Differential, AlarmRecords)
{
    records<AlarmData>(alarmKind, [](interface_data_base &store, QList<AlarmData> &list, int offset) {
        store.findDataOfTimePage("", "~", &list, "AlarmData", "", offset, 25, 0);
        return QString("select * from AlarmData where DATETIME Between '' and  '~' and EndDate = '' and EndTime = '' "
                       "order by DATETIME  limit %1, 25;")
            .arg(offset);
    });
}

TEST_F(Differential, OperatorLogRecords)
{
    records<OperatorLogData>(logKind, [](interface_data_base &store, QList<OperatorLogData> &list, int offset) {
        store.getAllDataPage("L", &list, "desc", offset, 25, 0);
        return QString("select * from 'L' order by DATETIME desc limit %1, 25;").arg(offset);
    });
}

} // namespace
