// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_COLUMNS_H
#define DEVICE_DB_COLUMNS_H

#include "import/row_reader.h"
#include "import/time_forms.h"
#include "storefile/tables.h"

#include <optional>

namespace device_db
{

/// Where the cells of an input go.
struct Assignment {
    /// In columnOfCell, beside the places of columns.
    enum Place { LeftOut = -1, DateOfTime = -2, ClockOfTime = -3, WholeEnd = -4 };

    Kind kind = Kind::Foreign;
    QStringList columns; ///< Of a row to be stored: the keys of the kind; or the time and, for each series, its table.
    QVector<int> columnOfCell;     ///< A place in columns, or one of Place.
    QVector<QByteArray> constants; ///< For each column what it holds when the input lacks it.

    int timeColumn() const;
    bool isWide = false; ///< Several series.
};

/// The names of the columns of a kind, as import and export call them.
QStringList keysOf(Kind kind);

/// The columns of an input by the names that it or a person gives; "-" leaves one out. A date and a time may be in two
/// columns, and the end of an alarm in one. `constants`: "level=1" for a column that the input lacks.
/// `input`: what an Error is about.
Result<Assignment> assigned(const QString &input, Kind kind, const QStringList &names, const QStringList &constants);

/// The columns of an input with many series: the time, and else each column is the series whose table it names.
Result<Assignment> assignedSeries(const QString &input, const QStringList &names);

/// Makes the rows of an input ready to be stored, or says why they cannot be.
class RowCheck
{
public:
    /// `null`: the text that stands for NULL. `asIs`: times, levels and ends of any form are taken.
    RowCheck(Assignment assignment, TimeForms times, std::optional<QByteArray> null, bool asIs);

    /// Empty, and `cells` holds a cell for each of the assignment's columns; or the reason why the row is refused.
    QByteArray refusal(const InputRow &row, QVector<QByteArray> &cells) const;

private:
    QByteArray misfit(QVector<QByteArray> &cells) const;
    QByteArray misfitOfEnd(QByteArray &date, QByteArray &time) const;

    Assignment m_assignment;
    TimeForms m_times;
    std::optional<QByteArray> m_null;
    bool m_asIs;
};

/// Whether a row, as refusal() gives it, is an alarm with an end before its start: a clock was set, or columns are
/// mixed up.
bool endsBeforeItBegins(Kind kind, const QVector<QByteArray> &cells);

} // namespace device_db

#endif
