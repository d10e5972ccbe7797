// SPDX-License-Identifier: MIT
#include "import/bookkeeping.h"

#include "storefile/texts.h"

#include <QDateTime>
#include <QFileInfo>

namespace device_db
{

namespace
{

Result<bool> hasBookkeeping(const Database &database)
{
    const auto tables = database.number("select count(*) from sqlite_master where name='device_db_import' and "
                                        "type='table' and rootpage>0");
    return tables ? Result<bool>(*tables > 0) : tables.error();
}

} // namespace

Bookkeeping::Bookkeeping(const Database &database, const QFile &input, const QString &table)
    : m_database(database),
      m_input(input.fileName()),
      m_source(QFileInfo(m_input).absoluteFilePath().toUtf8()),
      m_table(table.toUtf8()),
      m_marks(QByteArray::number(input.size()) + ' ' +
              QFileInfo(m_input).lastModified().toUTC().toString(Qt::ISODateWithMs).toLatin1())
{
}

Result<Place> Bookkeeping::find(bool restart) const
{
    const auto any = hasBookkeeping(m_database);
    if (!any)
        return any.error();
    if (!*any || restart)
        return Place();
    auto row = m_database.prepare("select marks,offset,line,stored,refused,refused_bytes from device_db_import "
                                  "where source=? and target=?");
    if (!row)
        return row.error();
    row->bind(1, m_source);
    row->bind(2, m_table);
    if (!row->step())
        return row->status() ? Result<Place>(Place()) : row->status().error();
    if (row->cell(0) != m_marks)
        return failure(m_input,
                       QStringLiteral("an import of it stopped at line %1, and it was changed since; --restart "
                                      "begins at its first line again")
                           .arg(row->number(2)));
    return Place{row->number(1), row->number(2), row->number(3), row->number(4), row->number(5)};
}

Status Bookkeeping::keep(const Place &place) const
{
    if (const Status made = m_database.run("create table if not exists device_db_import(source text,target text,"
                                           "marks text,offset integer,line integer,stored integer,refused "
                                           "integer,refused_bytes integer,primary key(source,target))");
        !made)
        return made;
    auto row = m_database.prepare("insert or replace into device_db_import values(?,?,?,?,?,?,?,?)");
    if (!row)
        return row.error();
    row->bind(1, m_source);
    row->bind(2, m_table);
    row->bind(3, m_marks);
    int column = 4;
    for (const qint64 number : {place.offset, place.line, place.stored, place.refused, place.refusedBytes})
        row->bind(column++, number);
    row->step();
    return row->status();
}

Status Bookkeeping::forget() const
{
    const auto any = hasBookkeeping(m_database);
    if (!any || !*any)
        return any ? Status() : any.error();
    auto row = m_database.prepare("delete from device_db_import where source=? and target=?");
    if (!row)
        return row.error();
    row->bind(1, m_source);
    row->bind(2, m_table);
    row->step();
    if (!row->status())
        return row->status();
    const auto left = m_database.number("select count(*) from device_db_import");
    if (!left)
        return left.error();
    return *left == 0 ? m_database.run("drop table device_db_import") : Status();
}

Result<QStringList> unfinishedImports(const Database &database)
{
    const auto any = hasBookkeeping(database);
    if (!any)
        return any.error();
    QStringList imports;
    if (!*any)
        return imports;
    auto rows = database.prepare("select source,target,stored,line from device_db_import");
    while (rows && rows->step()) // a table of the name with other columns is somebody else's
        imports << QStringLiteral("%1 into %2: %3 stored, stopped at line %4")
                       .arg(QString::fromUtf8(rows->cell(0)), QString::fromUtf8(rows->cell(1)),
                            rowsText(rows->number(2)), grouped(rows->number(3)));
    return imports;
}

} // namespace device_db
