// SPDX-License-Identifier: MIT
#include "storefile/trend_review.h"

#include "device/number.h"

#include "host/time_text.h"

#include <algorithm>
#include <cmath>

namespace device_db
{

namespace
{

using device::Bucket;

// Buckets of the trend's number, but of no level and time that it has.
QByteArray strangeKeys(const RollupState &state)
{
    QByteArray keys = device::keysOf(state.number).toLatin1();
    for (const qint64 width : state.levels) {
        const qint64 first = device::bucketKey(state.number, width, 0);
        keys += " and not (K>=" + QByteArray::number(first) + " and K<" +
                QByteArray::number(first + device::lastSecond / width + 1) + ')';
    }
    return keys;
}

// The buckets of one level as they are in the file, one after the other.
class BucketsInFile
{
public:
    static Result<BucketsInFile> open(const Database &database, qint64 number, qint64 width)
    {
        auto statement = database.prepare("select K,D from \"device trend\" where K>=?1 and K<?2 order by K");
        if (!statement)
            return statement.error();
        BucketsInFile buckets(std::move(statement).value(), device::bucketKey(number, width, 0), width);
        buckets.m_statement.bind(1, buckets.m_first);
        buckets.m_statement.bind(2, buckets.m_first + device::lastSecond / width + 1);
        buckets.next();
        return buckets;
    }

    bool isAtEnd() const { return m_isAtEnd; }
    Status status() const { return m_statement.status(); }
    qint64 start() const { return (m_key - m_first) * m_width; }
    /// Nothing if it cannot be read.
    std::optional<Bucket> bucket() const
    {
        Bucket read;
        const QByteArray text = m_statement.cell(1);
        return read.add(text.constData(), text.constData() + text.size(), {start(), start() + m_width})
                   ? std::optional<Bucket>(read)
                   : std::nullopt;
    }
    void next()
    {
        m_isAtEnd = !m_statement.step();
        if (!m_isAtEnd)
            m_key = m_statement.number(0);
    }

private:
    BucketsInFile(Statement statement, qint64 first, qint64 width)
        : m_statement(std::move(statement)), m_first(first), m_width(width)
    {
    }

    Statement m_statement;
    qint64 m_first;
    qint64 m_width;
    qint64 m_key = 0;
    bool m_isAtEnd = false;
};

// Rows in the order of time go through the levels: a bucket that is complete is compared, and what it should be goes on
// to the next level.
class Review
{
public:
    Review(const Database &database, const RollupState &state,
           const std::function<Status(const TrendDifference &)> &differs)
        : m_database(database), m_state(state), m_differs(differs)
    {
    }

    Result<TrendReview> run(const QString &table, const std::function<void(qint64, qint64)> &seen);

private:
    struct Level {
        qint64 width;
        BucketsInFile inFile;
        qint64 start = 0;
        std::optional<Bucket> bucket; ///< The one that is being added up.
    };

    Status open(const QByteArray &name);
    Status add(size_t level, qint64 start, const Bucket &bucket);
    Status complete(size_t level);
    Status compareBefore(size_t level, qint64 start);
    Status compare(size_t level, qint64 start, bool isInFile, std::optional<Bucket> expected);
    Bucket *bucketFor(size_t level, qint64 start, Status &status);

    const Database &m_database;
    const RollupState &m_state;
    const std::function<Status(const TrendDifference &)> &m_differs;
    std::vector<Level> m_levels;
    TrendReview m_review;
    qint64 m_all = 0;
    qint64 m_frozenRows = 0;
};

Status Review::open(const QByteArray &name)
{
    for (const qint64 width : m_state.levels) {
        auto buckets = BucketsInFile::open(m_database, m_state.number, width);
        if (!buckets)
            return buckets.error();
        m_levels.push_back({width, std::move(buckets).value(), 0, std::nullopt});
    }
    const QByteArray mark = QByteArray::number(m_state.mark);
    const auto all = m_database.number("select count(*) from " + name + " where ID>0 and ID<=" + mark);
    if (!all)
        return all.error();
    m_all = *all;
    m_review.removed = m_state.mark - m_all;
    const auto strange = m_database.number("select count(*) from \"device trend\" where " + strangeKeys(m_state));
    if (!strange)
        return strange.error();
    m_review.strange = *strange;
    return {};
}

Result<TrendReview> Review::run(const QString &table, const std::function<void(qint64, qint64)> &seen)
{
    const QByteArray name = identifier(table);
    if (const Status opened = open(name); !opened)
        return opened.error();
    auto rows =
        m_database.prepare("select DATETIME,Value from " + name + " where typeof(DATETIME)<>'blob' and ID>0 and ID<=" +
                           QByteArray::number(m_state.mark) + " order by DATETIME,ID");
    if (!rows)
        return rows.error();
    device::TimeReader times(false);
    Status status;
    while (status && rows->step()) {
        if (++m_review.rows % 4096 == 0 && seen)
            seen(m_review.rows, m_all);
        const QByteArray text = rows->cell(0);
        const device::LocalTime time = times.read(text.constData(), qint64(qstrlen(text.constData())));
        if (!time.isValid())
            continue;
        const qint64 seconds = device::secondsOf(time);
        if (Bucket *const bucket = bucketFor(0, seconds, status))
            bucket->add(seconds, QString::fromUtf8(rows->cell(1).constData()));
    }
    if (status)
        status = rows->status();
    for (size_t level = 0; status && level < m_levels.size(); ++level) {
        status = complete(level);
        if (status)
            status = compareBefore(level, device::lastSecond + 1);
        if (status)
            status = m_levels[level].inFile.status();
    }
    if (!status)
        return status.error();
    m_review.tooMany = std::max<qint64>(0, m_frozenRows - m_review.removed);
    return m_review;
}

// The bucket of a level that a time belongs to, when all before it are compared.
Bucket *Review::bucketFor(size_t number, qint64 time, Status &status)
{
    Level &level = m_levels[number];
    const qint64 start = time / level.width * level.width;
    if (!level.bucket || level.start != start) {
        status = complete(number);
        if (status)
            status = compareBefore(number, start);
        level.start = start;
        level.bucket.emplace();
    }
    return status ? &*level.bucket : nullptr;
}

Status Review::add(size_t level, qint64 start, const Bucket &bucket)
{
    Status status;
    if (level < m_levels.size()) {
        if (Bucket *const wider = bucketFor(level, start, status))
            wider->add(bucket);
    }
    return status;
}

Status Review::complete(size_t number)
{
    Level &level = m_levels[number];
    if (!level.bucket)
        return {};
    const std::optional<Bucket> bucket = std::exchange(level.bucket, std::nullopt);
    const bool isInFile = !level.inFile.isAtEnd() && level.inFile.start() == level.start;
    return compare(number, level.start, isInFile, bucket);
}

// Those of the file that no row belongs to.
Status Review::compareBefore(size_t number, qint64 start)
{
    BucketsInFile &inFile = m_levels[number].inFile;
    Status status;
    while (status && !inFile.isAtEnd() && inFile.start() < start)
        status = compare(number, inFile.start(), true, std::nullopt);
    return status;
}

Status Review::compare(size_t number, qint64 start, bool isInFile, std::optional<Bucket> expected)
{
    Level &level = m_levels[number];
    TrendDifference difference;
    difference.width = level.width;
    difference.start = start;
    difference.key = device::bucketKey(m_state.number, level.width, start);
    if (isInFile) {
        difference.inFile = level.inFile.bucket();
        difference.isReadable = difference.inFile.has_value();
        level.inFile.next();
    }
    if (start >= m_state.closed(number)) // the wider ones do not have it yet
        expected.reset();
    if (start < m_state.floors.at(number)) // no longer kept; the wider ones are of the rows all the same
        return expected ? add(number + 1, start, *expected) : Status();
    if (!isInFile && !expected)
        return {};
    ++m_review.buckets;
    std::optional<Bucket> right = expected;
    const qint64 rows = expected ? expected->rows() : 0;
    if (difference.inFile && difference.inFile->rows() > rows && m_review.removed > 0 &&
        start < m_state.closed(number)) {
        ++m_review.frozen;
        if (number == 0)
            m_frozenRows += difference.inFile->rows() - rows;
        right = difference.inFile;
    } else if (!difference.inFile || !expected || !isSame(*difference.inFile, *expected)) {
        ++m_review.wrong;
        difference.expected = std::move(expected);
        if (const Status told = m_differs(difference); !told)
            return told;
    }
    if (!right)
        return {};
    if (number == 0)
        m_review.front = std::max(m_review.front, start);
    return add(number + 1, start, *right);
}

QString textOf(qint64 seconds)
{
    return QString::fromLatin1(timeOfTrend(seconds));
}

QString pointText(const Bucket::Point &point)
{
    return QStringLiteral("%1 at %2").arg(QString::fromStdString(point.text), textOf(point.time));
}

} // namespace

QString TrendDifference::text() const
{
    const QString place = levelName(width) + QLatin1String(", ") + textOf(start) + QLatin1String(": ");
    if (!isReadable)
        return place + QStringLiteral("what the file says cannot be read");
    if (!inFile)
        return place + QStringLiteral("it is missing; the rows are %1").arg(expected->rows());
    if (!expected)
        return place + QStringLiteral("the file says %1 rows; there are none").arg(inFile->rows());
    QStringList file;
    QStringList rows;
    const auto note = [&](const char *what, const QString &ofFile, const QString &ofRows) {
        if (ofFile == ofRows)
            return;
        file << QLatin1String(what) + ofFile;
        rows << QLatin1String(what) + ofRows;
    };
    note("rows ", QString::number(inFile->rows()), QString::number(expected->rows()));
    note("numbers ", QString::number(inFile->numbers()), QString::number(expected->numbers()));
    if (inFile->numbers() > 0 && expected->numbers() > 0) {
        if (!isSameSum(*inFile, *expected))
            note("sum ", device::numberText(inFile->sum()), device::numberText(expected->sum()));
        note("lowest ", pointText(inFile->lowest()), pointText(expected->lowest()));
        note("highest ", pointText(inFile->highest()), pointText(expected->highest()));
        note("first ", pointText(inFile->first()), pointText(expected->first()));
        note("last ", pointText(inFile->last()), pointText(expected->last()));
    }
    return place + QStringLiteral("the file says %1; the rows say %2")
                       .arg(file.join(QLatin1String(", ")), rows.join(QLatin1String(", ")));
}

Result<TrendReview> reviewTrend(const Database &database, const QString &table, const RollupState &state,
                                const std::function<Status(const TrendDifference &)> &differs,
                                const std::function<void(qint64, qint64)> &seen)
{
    return Review(database, state, differs).run(table, seen);
}

Result<TrendRepair> repairTrend(const Database &database, const QString &table, const RollupState &state,
                                const std::function<void(qint64, qint64)> &seen)
{
    auto write = database.prepare("insert or replace into \"device trend\"(K,D) values(?1,?2)");
    auto remove = database.prepare("delete from \"device trend\" where K=?1");
    if (!write || !remove)
        return !write ? write.error() : remove.error();
    TrendRepair repair;
    const auto mend = [&](const TrendDifference &difference) -> Status {
        Statement &statement = difference.expected ? *write : *remove;
        statement.reset();
        statement.bind(1, difference.key);
        if (difference.expected)
            statement.bind(2, difference.expected->text({difference.start, difference.start + difference.width}));
        statement.step();
        ++(difference.expected ? repair.written : repair.removed);
        return statement.status();
    };
    RollupState now = state;
    // Which of the wider buckets there are depends on the latest one of the finest level, which may be wrong as well.
    for (;;) {
        const auto review = reviewTrend(database, table, now, mend, seen);
        if (!review)
            return review.error();
        repair.frozen = review->frozen;
        if (review->front == now.front)
            break;
        now.front = review->front;
    }
    const QByteArray number = QByteArray::number(state.number);
    for (const QByteArray &sql :
         {"delete from \"device trend\" where " + strangeKeys(state),
          "update \"device trend series\" set FRONT=" + QByteArray::number(now.front) + " where N=" + number}) {
        if (const Status done = database.run(sql); !done)
            return done.error();
    }
    return repair;
}

} // namespace device_db
