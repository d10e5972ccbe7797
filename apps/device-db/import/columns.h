// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_COLUMNS_H
#define DEVICE_DB_COLUMNS_H

#include "import/csv_reader.h"
#include "storefile/tables.h"

#include <optional>

namespace device_db
{

/// Which columns of the table the cells of a row go to.
struct Assignment {
    Kind kind = Kind::Foreign;
    QVector<int> columnOfCell; ///< A place in columnsOf(kind); -1: left out.
    int cells() const { return int(columnOfCell.size()); }
};

/// The names of the columns of a kind, as import and export call them.
QStringList keysOf(Kind kind);

/// The columns of an input by the names that it or a person gives; "-" leaves one out. `input`: what an Error is about.
Result<Assignment> assigned(const QString &input, Kind kind, const QStringList &names);

/// Makes the rows of an input ready to be stored, or says why they cannot be.
class RowCheck
{
public:
    /// `null`: the text that stands for NULL. `asIs`: times, levels and ends of any form are taken.
    RowCheck(Assignment assignment, std::optional<QByteArray> null, bool asIs);

    /// Empty, and `cells` holds a cell for each column of the table after ID, empty texts for those that the input
    /// lacks; or the reason why the row is refused.
    QByteArray refusal(const CsvRow &row, QVector<QByteArray> &cells) const;

private:
    QByteArray misfit(QVector<QByteArray> &cells) const;
    QByteArray nameOfColumn(int column) const { return columnsOf(m_assignment.kind).at(column).key; }

    Assignment m_assignment;
    std::optional<QByteArray> m_null;
    bool m_asIs;
};

/// Whether a row, as refusal() gives it, is an alarm with an end before its start: a clock was set, or columns are
/// mixed up.
bool endsBeforeItBegins(Kind kind, const QVector<QByteArray> &cells);

} // namespace device_db

#endif
