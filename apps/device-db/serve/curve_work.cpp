// SPDX-License-Identifier: MIT
#include "serve/curve_work.h"

#include "storefile/times.h"

#include "device/number.h"

#include <algorithm>

namespace device_db
{

namespace
{

using Clock = std::chrono::steady_clock;

/// A row that the index on time has found.
struct FoundRow {
    qint64 id;
    std::optional<qint64> time;
    std::optional<double> value;
};

class CurveWork : public Work
{
public:
    CurveWork(std::shared_ptr<ServedTable> table, const PictureRange &range)
        : m_table(std::move(table)), m_range(range), m_curve(range)
    {
    }

    Result<QByteArray> run(SliceEnd until, const Seen &seen) override
    {
        const auto database = databaseOf(*m_table);
        if (!database)
            return database.error();
        if (m_pass != m_table->pass)
            begin();
        switch (m_stage) {
        case Stage::Begin:
            return lookAround(**database);
        case Stage::BySums:
            return readSums(**database, until);
        case Stage::ByIndex:
            return readByIndex(**database, until);
        case Stage::Pass:
            return readPass(**database, until, seen);
        case Stage::ByBlocks:
            break;
        }
        return readBlocks(**database, until, seen);
    }

private:
    enum class Stage { Begin, BySums, ByIndex, Pass, ByBlocks };

    // Also again, if more than new rows has come in the meantime.
    void begin()
    {
        m_pass = m_table->pass;
        m_stage = Stage::Begin;
        m_curve = Curve(m_range);
        m_picture.reset();
        m_found.clear();
        m_time.clear();
        m_id = 0;
        m_block = 0;
    }

    // By sums that the file keeps, or by the index on time if that finds few enough rows.
    Result<QByteArray> lookAround(const Database &database)
    {
        if (const auto sums = TrendPoints::of(database, m_table->table.name);
            sums && sums->helps(m_range.from, m_range.to, m_range.columns)) {
            m_picture.emplace(m_range.from, m_range.to, m_range.columns);
            m_stage = Stage::BySums;
            return QByteArray();
        }
        return chooseRows(database);
    }

    Result<QByteArray> readSums(const Database &database, SliceEnd until)
    {
        const auto sums = TrendPoints::of(database, m_table->table.name); // there may be another one by now
        while (!m_picture->isDone()) {
            if (!sums || !sums->read(*m_picture))
                return chooseRows(database); // which say it, too
            if (Clock::now() >= until)
                return QByteArray();
        }
        for (const SummedColumn &each : m_picture->columns())
            m_curve.add(each);
        return answer(m_curve, true);
    }

    Result<QByteArray> chooseRows(const Database &database)
    {
        m_stage = m_pass->isDone() ? Stage::ByBlocks : Stage::Pass;
        if (m_stage == Stage::Pass && m_pass->isIndexed()) {
            constexpr qint64 rowsByIndex = 300000; // more are read faster in the order of recording
            auto count = database.prepare("select count(*) from (select 1 from " + identifier(m_table->table.name) +
                                          " where DATETIME>=?1 and DATETIME<=?2 limit " +
                                          QByteArray::number(rowsByIndex + 1) + ')');
            if (!count)
                return count.error();
            count->bind(1, timeText(m_range.from, false));
            count->bind(2, timeText(m_range.to, false));
            if (count->step() && count->number(0) <= rowsByIndex)
                m_stage = Stage::ByIndex;
        }
        return QByteArray();
    }

    // The index has them in the order of time; a picture takes them in that of recording.
    Result<QByteArray> readByIndex(const Database &database, SliceEnd until)
    {
        const bool isFirst = m_time.isNull();
        auto rows = database.prepare("select ID,DATETIME,Value from " + identifier(m_table->table.name) +
                                     (isFirst ? " where DATETIME>=?1" : " where (DATETIME,ID)>(?1,?3)") +
                                     " and DATETIME<=?2 order by DATETIME,ID");
        if (!rows)
            return rows.error();
        rows->bind(1, isFirst ? timeText(m_range.from, false) : m_time);
        rows->bind(2, timeText(m_range.to, false));
        if (!isFirst)
            rows->bind(3, m_id);
        device::TimeReader reader(false);
        for (int count = 1; rows->step(); ++count) {
            m_id = rows->number(0);
            m_time = rows->cell(1);
            m_found.push_back({m_id, timeIn(m_time, reader), device::number(rows->cell(2))});
            if (count % 256 == 0 && Clock::now() >= until)
                return QByteArray();
        }
        if (const Status status = rows->status(); !status)
            return status.error();
        std::sort(m_found.begin(), m_found.end(), [](const FoundRow &a, const FoundRow &b) { return a.id < b.id; });
        int run = 0;
        qint64 before = -1;
        for (const FoundRow &row : m_found) {
            if (!row.time)
                continue;
            if (*row.time < before)
                ++run;
            if (*row.time >= 0)
                before = *row.time;
            m_curve.add(run, *row.time, row.value);
        }
        return answer(m_curve, true);
    }

    Result<QByteArray> readPass(const Database &database, SliceEnd until, const Seen &seen)
    {
        if (!m_isShown) {
            if (const Status read = m_table->hasDots ? Status() : readDots(database, *m_table); !read)
                return read.error();
            m_isShown = true;
            seen(dots());
            return QByteArray();
        }
        if (const Status read = m_pass->read(database, until); !read)
            return read.error();
        if (m_pass->isDone())
            m_stage = Stage::ByBlocks;
        else if (m_pace.isTime())
            seen(m_pass->share() > 0.5 ? roughly() : dots());
        return QByteArray();
    }

    Result<QByteArray> readBlocks(const Database &database, SliceEnd until, const Seen &seen)
    {
        auto rows = database.prepare("select DATETIME,Value from " + identifier(m_table->table.name) +
                                     " where ID>=?1 and ID<=?2 order by ID");
        if (!rows)
            return rows.error();
        device::TimeReader reader(false);
        const std::deque<Block> &blocks = m_pass->blocks().all();
        for (; m_block < blocks.size(); ++m_block) {
            const Block &block = blocks[m_block];
            if (block.timed == 0 || block.earliest > m_range.to || block.latest < m_range.from ||
                m_curve.addWhole(block))
                continue;
            rows->bind(1, block.firstId);
            rows->bind(2, block.lastId);
            while (rows->step()) {
                if (const auto time = timeIn(rows->cell(0), reader))
                    m_curve.add(block.run, *time, device::number(rows->cell(1)));
            }
            if (const Status status = rows->status(); !status)
                return status.error();
            rows->reset();
            if (Clock::now() >= until) {
                ++m_block;
                if (!m_isRoughShown)
                    seen(roughly());
                m_isRoughShown = true;
                return QByteArray();
            }
        }
        return answer(m_curve, true);
    }

    // What the blocks say without a look at the rows; nothing is lost but where exactly within a block it lies.
    QByteArray roughly() const
    {
        Curve curve(m_range);
        for (const Block &block : m_pass->blocks().all()) {
            if (block.timed > 0 && block.earliest <= m_range.to && block.latest >= m_range.from &&
                !curve.addWhole(block))
                curve.addRoughly(block);
        }
        return answer(curve, false);
    }

    QByteArray dots() const
    {
        Curve curve(m_range);
        std::vector<Point> shown;
        for (const Point &dot : m_table->dots) {
            curve.add(0, dot.time, dot.value);
            if (dot.time >= m_range.from && dot.time <= m_range.to)
                shown.push_back(dot);
        }
        return answer(curve, false, &shown);
    }

    static void write(Json &json, const std::vector<Point> &points)
    {
        json.beginArray();
        for (const Point &point : points)
            json.number(point.time).number(point.value);
        json.endArray();
    }

    // `dots`: in place of lines.
    QByteArray answer(const Curve &curve, bool exact, const std::vector<Point> *dots = nullptr) const
    {
        const SampleTotal &total = curve.total();
        Json json;
        json.beginObject().key("kind").text("samples").key("exact").boolean(exact);
        json.key("share").number(exact ? 1.0 : m_pass->share()).key("isSample").boolean(dots != nullptr);
        json.key("seen").number(dots ? qint64(m_table->dots.size()) : m_pass->rows());
        json.key("of").number(m_pass->expectedRows()).key("lines").beginArray();
        for (const auto &line : dots ? std::vector<std::vector<Point>>() : curve.lines())
            write(json, line);
        write(json.endArray().key("points"), dots ? *dots : curve.points());
        json.key("others").beginArray();
        for (const double time : curve.otherTimes())
            json.number(time);
        json.endArray().key("rows").number(total.rows).key("numbers").number(total.numbers);
        for (const auto &[key, point] : {std::pair{"lowest", &total.lowest}, std::pair{"highest", &total.highest},
                                         std::pair{"first", &total.first}, std::pair{"last", &total.last}}) {
            json.key(key);
            if (total.numbers > 0)
                json.beginObject().key("time").number(point->time).key("value").number(point->value).endObject();
            else
                json.null();
        }
        return json.key("mean").number(total.mean()).endObject().written();
    }

    std::shared_ptr<ServedTable> m_table;
    PictureRange m_range;
    std::shared_ptr<TablePass> m_pass;
    Stage m_stage = Stage::Begin;
    Curve m_curve;
    std::optional<TrendPicture> m_picture;
    std::vector<FoundRow> m_found;
    QByteArray m_time; ///< Of the last row that the index has found.
    qint64 m_id = 0;
    size_t m_block = 0;
    bool m_isShown = false;
    bool m_isRoughShown = false;
    Pace m_pace;
};

} // namespace

std::unique_ptr<Work> curveWork(std::shared_ptr<ServedTable> table, const PictureRange &range)
{
    return std::make_unique<CurveWork>(std::move(table), range);
}

Status readDots(const Database &database, ServedTable &table)
{
    constexpr qint64 probes = 400;
    table.hasDots = true;
    table.dots.clear();
    auto probe = database.prepare("select DATETIME,Value from " + identifier(table.table.name) +
                                  " where ID>=?1 order by ID limit 1");
    if (!probe)
        return probe.error();
    device::TimeReader reader(false);
    const TableEnds &ends = table.pass->ends();
    for (qint64 i = 0; i < probes; ++i) {
        const double part = double(i) / double(probes - 1);
        probe->bind(1, ends.firstId + qint64(double(ends.lastId - ends.firstId) * part));
        if (probe->step()) {
            const auto time = timeIn(probe->cell(0), reader);
            const auto value = device::number(probe->cell(1));
            if (time && *time >= 0 && value) {
                table.dots.push_back({*time, *value});
                table.pass->addTime(*time);
            }
        }
        probe->reset();
    }
    std::stable_sort(table.dots.begin(), table.dots.end(),
                     [](const Point &a, const Point &b) { return a.time < b.time; });
    return {};
}

} // namespace device_db
