// SPDX-License-Identifier: MIT
#include "import/bookkeeping.h"

#include "storefile/texts.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>

namespace device_db
{

namespace
{

const QByteArray table = identifier(Bookkeeping::tableName);

Result<bool> hasBookkeeping(const Database &database)
{
    const auto tables =
        database.number("select count(*) from sqlite_master where name='" +
                        QByteArray(Bookkeeping::tableName.latin1()) + "' and type='table' and rootpage>0");
    return tables ? Result<bool>(*tables > 0) : tables.error();
}

// A row's ID alone may have been given again since to a row of another import.
QByteArray rowMark(const QString &of)
{
    return "select ID||' '||hex(DATETIME) from " + identifier(of);
}

} // namespace

Bookkeeping::Bookkeeping(const Database &database, const QFile &input, const QString &target, const QStringList &tables,
                         const QJsonObject &form)
    : m_database(database),
      m_input(input.fileName()),
      m_source(QFileInfo(m_input).absoluteFilePath().toUtf8()),
      m_target(target.toUtf8()),
      m_marks(QByteArray::number(input.size()) + ' ' +
              QFileInfo(m_input).lastModified().toUTC().toString(Qt::ISODateWithMs).toLatin1()),
      m_tables(tables),
      m_form(form)
{
}

Result<Place> Bookkeeping::find(bool restart) const
{
    const auto any = hasBookkeeping(m_database);
    if (!any)
        return any.error();
    if (!*any || restart)
        return Place();
    auto row = m_database.prepare("select marks,offset,line,stored,refused,refused_bytes,form,newest from " + table +
                                  " where source=? and target=?");
    if (!row)
        return row.error();
    row->bind(1, m_source);
    row->bind(2, m_target);
    if (!row->step())
        return row->status() ? Result<Place>(Place()) : row->status().error();
    const QString begun = QStringLiteral("an import of it stopped at line %1, ").arg(grouped(row->number(2)));
    if (row->cell(0) != m_marks)
        return failure(m_input, begun + QStringLiteral("and it was changed since; --restart begins at its first line "
                                                       "again"));
    if (const Status same = sameForm(row->cell(6), begun); !same)
        return same.error();
    if (const Status there = hasRows(QString::fromUtf8(row->cell(7)).split(QLatin1Char(',')), begun); !there)
        return there.error();
    return Place{row->number(1), row->number(2), row->number(3), row->number(4), row->number(5)};
}

Status Bookkeeping::sameForm(const QByteArray &earlier, const QString &begun) const
{
    const QJsonObject before = QJsonDocument::fromJson(earlier).object();
    QStringList others;
    for (const QString &option : m_form.keys()) {
        if (m_form.value(option) != before.value(option))
            others << option;
    }
    if (others.isEmpty())
        return {};
    return failure(m_input, begun + QStringLiteral("with another %1; give what was given then, or begin at its first "
                                                   "line again with --restart")
                                        .arg(others.join(QLatin1String(", "))));
}

/// For each table its newest row; empty where there is none.
Result<QStringList> Bookkeeping::newestRows() const
{
    QStringList rows;
    for (const QString &each : m_tables) {
        const auto row =
            m_database.text(rowMark(each) + " where ID=(select max(ID) from " + identifier(each) + ") limit 1");
        if (!row)
            return row.error();
        rows << QString::fromUtf8(*row);
    }
    return rows;
}

// The newest rows alone: older ones may have been deleted on purpose, but a table without the newest was emptied or
// made anew.
Status Bookkeeping::hasRows(const QStringList &newest, const QString &begun) const
{
    for (int i = 0; i < newest.size(); ++i) {
        const QString &mark = newest.at(i);
        if (mark.isEmpty())
            continue;
        const auto row = i < m_tables.size()
                             ? m_database.text(rowMark(m_tables.at(i)) + " where ID=" +
                                               QByteArray::number(mark.section(QLatin1Char(' '), 0, 0).toLongLong()))
                             : Result<QByteArray>(QByteArray());
        if (!row)
            return row.error();
        if (*row != mark.toUtf8())
            return failure(m_input,
                           begun + QStringLiteral("and rows that it stored in %1 are no longer there; --restart begins "
                                                  "at its first line again")
                                       .arg(m_tables.value(i)));
    }
    return {};
}

Status Bookkeeping::keep(const Place &place) const
{
    if (const Status made = m_database.run("create table if not exists " + table +
                                           "(source text,target text,marks text,offset integer,line integer,stored "
                                           "integer,refused integer,refused_bytes integer,form text,newest text,"
                                           "primary key(source,target))");
        !made)
        return made;
    const auto newest = newestRows();
    if (!newest)
        return newest.error();
    auto row = m_database.prepare("insert or replace into " + table + " values(?,?,?,?,?,?,?,?,?,?)");
    if (!row)
        return row.error();
    row->bind(1, m_source);
    row->bind(2, m_target);
    row->bind(3, m_marks);
    int column = 4;
    for (const qint64 number : {place.offset, place.line, place.stored, place.refused, place.refusedBytes})
        row->bind(column++, number);
    row->bind(9, QJsonDocument(m_form).toJson(QJsonDocument::Compact));
    row->bind(10, newest->join(QLatin1Char(',')).toUtf8());
    row->step();
    return row->status();
}

Status Bookkeeping::forget() const
{
    const auto any = hasBookkeeping(m_database);
    if (!any || !*any)
        return any ? Status() : any.error();
    auto row = m_database.prepare("delete from " + table + " where source=? and target=?");
    if (!row)
        return row.error();
    row->bind(1, m_source);
    row->bind(2, m_target);
    row->step();
    if (!row->status())
        return row->status();
    const auto left = m_database.number("select count(*) from " + table);
    if (!left)
        return left.error();
    return *left == 0 ? m_database.run("drop table " + table) : Status();
}

Result<QStringList> unfinishedImports(const Database &database)
{
    const auto any = hasBookkeeping(database);
    if (!any)
        return any.error();
    QStringList imports;
    if (!*any)
        return imports;
    auto rows = database.prepare("select source,target,stored,line from " + table);
    while (rows && rows->step()) // a table of the name with other columns is somebody else's
        imports << QStringLiteral("%1 into %2: %3 stored, stopped at line %4")
                       .arg(QString::fromUtf8(rows->cell(0)), QString::fromUtf8(rows->cell(1)),
                            rowsText(rows->number(2)), grouped(rows->number(3)));
    return imports;
}

} // namespace device_db
