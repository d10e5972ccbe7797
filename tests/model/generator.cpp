// SPDX-License-Identifier: MIT
#include "generator.h"

QStringList Generator::tables(Kind kind)
{
    // An ASCII name, one that re-reading breaks, one that is a word of SQL, one with other columns.
    switch (kind) {
    case History:
        return {"T1"_q, "T2"_q, "Öl"_q, "order"_q, "Other"_q, "tb_config"_q};
    case Alarm:
        return {"AlarmData"_q, "Alarm2"_q, "Öl"_q, "order"_q, "Other"_q};
    default:
        return {"OperatorLog"_q, "Log2"_q, "Öl"_q, "order"_q, "Other"_q};
    }
}

QString Generator::table()
{
    const QStringList names = tables(m_kind);
    if (!oneIn(5))
        return names.first();
    return oneIn(4) ? of({"missing"_q, "sqlite_sequence"_q, names.first().toLower(), ""_q}) : of(names);
}

QString Generator::time(bool isCell)
{
    if (oneIn(25))
        return of({""_q, "2024"_q, "2025"_q, "2024-05-06"_q, "2024-05-06 07:08"_q, "2024-02-30 07:08:09"_q,
                   "2024-05-06 25:00:00"_q, "1e3"_q, "it''s late"_q, "it's late"_q, "2024-05-06  07:08:09"_q,
                   "9999-12-31 23:59:59"_q});
    // Few seconds, so that rows have the same time.
    const int second = below(40);
    QString text = "2024-05-06 07:08:%1"_q.arg(second, 2, 10, QLatin1Char('0'));
    if (m_kind == OperatorLog && isCell)
        text += ".%1"_q.arg(below(3) * 499, 3, 10, QLatin1Char('0'));
    else if (oneIn(8))
        text.replace(QLatin1Char('-'), QLatin1Char('/'));
    return text;
}

QString Generator::text()
{
    static const QStringList texts{"87.5"_q,  "80"_q,       "-7"_q,    "Pump 1"_q, "Level above limit"_q,
                                   ""_q,      "Öl 90 °C"_q, "温度"_q,  "😀"_q,      "100 % sure"_q,
                                   "it''s"_q, "it's"_q,     "a|b@c"_q, "5_"_q,     "line\nend"_q,
                                   "\\"_q,    QString(),    "007"_q,   "\"q\""_q,  "7e2"_q};
    if (oneIn(60))
        return "long "_q.repeated(below(400));
    return oneIn(3) ? QString::number(below(1000)) : of(texts);
}

QString Generator::oddText()
{
    static const QStringList texts{"%1"_q, "%2"_q, "%9"_q, "%L3"_q, "%12"_q,           "%%1"_q,
                                   "%0"_q, "'"_q,  "''"_q, "','"_q, QString(QChar(0)), QString(QChar(0xd83d))};
    return oneIn(2) ? text() : text() + of(texts) + text();
}

QStringList Generator::row(bool isOdd)
{
    const auto any = [&] { return isOdd ? oddText() : text(); };
    QStringList row;
    if (m_kind == History) {
        row = QStringList{time(true), any()};
    } else if (m_kind == Alarm) {
        const QString start = time(true);
        row = QStringList{oneIn(10) ? any() : QString::number(below(5)), start.left(10), start.mid(11)};
        for (int i = 3; i < 8; ++i)
            row.append(i < 5 && !oneIn(5) ? "Pump %1"_q.arg(below(4)) : any());
        const bool isActive = !oneIn(4);
        row.append(isActive ? ""_q : "2024-05-06"_q);
        row.append(isActive != oneIn(20) ? ""_q : "08:00:00"_q);
    } else {
        row = QStringList{time(true), of({"admin"_q, "it's"_q, "Jürgen"_q, "operator"_q}), any(), any()};
    }
    if (oneIn(30))
        row.append(any());
    if (oneIn(30))
        row.removeLast();
    if (oneIn(60))
        row.clear();
    return row;
}

// For the stores that run SQL of the host.
QStringList Generator::statements(const Call &call, Model &model)
{
    const QString name = of({tables(m_kind).first(), call.table});
    const QStringList choices{
        "select * from \"%1\" order by ID desc limit 5"_q.replace("%1"_q, name),
        "select count(*), max(ID) from \"%1\""_q.replace("%1"_q, name),
        "delete from \"%1\" where ID <= %2"_q.replace("%1"_q, name)
            .replace("%2"_q, QString::number(model.lastId(name) - below(100))),
        "update \"%1\" set DATETIME = '2024-05-06 07:08:30' where ID % 7 = 3"_q.replace("%1"_q, name),
        "selekt"_q,
        "select * from missing"_q,
        "drop table \"%1\""_q.replace("%1"_q, tables(m_kind).at(1)),
        "insert into tb_config values(NULL,'%L1','%2')"_q,
        "insert into Spare values(1); select 1"_q,
        "begin"_q,
        "rollback"_q,
        "commit transaction"_q,
        "  "_q,
    };
    QStringList list;
    for (int count = oneIn(12) ? 0 : call.mode == 2 ? 1 + below(4) : 1; count > 0; --count)
        list.append(of(choices));
    return list;
}

Call Generator::next(Model &model, bool isClosed, bool isReading)
{
    Call c;
    c.table = table();
    c.start = time(false);
    c.end = oneIn(3) ? "2024-05-06 07:08:%1"_q.arg(20 + below(40)) : time(false);
    c.user = of({"admin"_q, "it''s"_q, "it's"_q, "Jürgen"_q, "nobody"_q});
    c.value = text();
    c.order = of({"desc"_q, "desc"_q, "asc"_q, ""_q, "DESC"_q, "sideways"_q});
    const QList<int> counts{-1, 0, 1, 2, 5, 10, 20, 1000000};
    c.count = counts.at(below(int(counts.size())));
    c.offset = oneIn(2) ? 0 : oneIn(20) ? 1073741824 : below(30) - 1;
    c.span = counts.at(below(int(counts.size())));
    c.newestFirst = oneIn(2);
    c.mode = below(4);

    // What keeps the run going comes first.
    if (isClosed ? oneIn(4) : oneIn(500)) {
        c.operation = isClosed ? Operation::Open : Operation::Close;
        return c;
    }
    if (isReading ? oneIn(12) : oneIn(300)) {
        c.operation = isReading ? Operation::EndReader : Operation::StartReader;
        return c;
    }
    for (const QString &name : isClosed || !oneIn(8) ? QStringList() : tables(m_kind)) {
        const int rows = model.count(name);
        if (rows > 60) {
            c.operation = Operation::Trim;
            c.table = name;
            c.count = rows - 20;
            return c;
        }
    }

    const int choice = below(100);
    if (choice < 22) {
        c.operation = oneIn(4) ? Operation::InsertOdd : Operation::Insert;
        for (int count = oneIn(10) ? 0 : 1 + below(4); count > 0; --count)
            c.rows.append(row(c.operation == Operation::InsertOdd));
    } else if (choice < 30) {
        c.operation = Operation::Statements;
        c.statements = statements(c, model);
    } else if (choice < 34 && m_kind == Alarm) {
        c.operation = Operation::EndAlarm;
        c.count = model.lastId("AlarmData"_q) - below(60);
        c.start = "2024-05-06"_q;
        c.end = "08:%1:00"_q.arg(10 + below(50));
        c.statements = QStringList{
            "update AlarmData set EndDate = '%1', EndTime = '%2' where ID = %3"_q.arg(c.start).arg(c.end).arg(c.count)};
        c.mode = 0;
    } else if (choice < 38) {
        const Operation rare[] = {Operation::Create, Operation::InsertConfig, Operation::Purge, Operation::Reset,
                                  Operation::Trim,   Operation::Checkpoint,   Operation::Create};
        c.operation = oneIn(40) ? Operation::Vacuum : rare[below(7)];
        if (c.operation == Operation::Trim && c.count == -1 && !oneIn(4))
            c.count = 3;
    } else {
        const int first = int(Operation::Count);
        c.operation = choice < 40 ? Operation(below(2) ? int(Operation::ConfigInfo) : int(Operation::TableIsExist))
                                  : Operation(first + below(int(Operation::FirstOfTheTest) - first));
    }
    return c;
}
