// SPDX-License-Identifier: MIT
#ifndef DEVICE_SHIP_ROW_ENCODER_H
#define DEVICE_SHIP_ROW_ENCODER_H

#include "storefile/tables.h"

#include <QByteArray>

#include <array>
#include <string>
#include <string_view>

namespace device_ship
{

/// A cell that is larger, or makes its row larger with the cells before it, is recorded as refused: rows pass through
/// memory.
constexpr qint64 largestCell = 4 * 1024 * 1024;

/// Whether PostgreSQL takes these bytes for a text: UTF-8 without surrogates and without NUL.
bool isText(std::string_view bytes);

/// Rows of the store's files as the archive has them.
///
/// Texts stay texts, those that the store library encodes twice as they were meant. A time in exactly the store's form,
/// of a day and an hour that exist, is a timestamp; the archive never reads one by a cast that knows "now". Beside a
/// value is its number, if it is one. Everything else travels in the column "odd": {"Value": {"blob": "00ff"}}.
class RowEncoder
{
public:
    explicit RowEncoder(device_db::Kind kind) : m_kind(kind) {}

    /// Reads a row of device_db::columnList(). False: it is too large, and to be given cell by cell.
    bool read(const device_db::Statement &row);
    /// A row of which a cell is too large to be read: each cell is given as it is, or by its size.
    struct Cell {
        int type = 0;        ///< SQLITE_TEXT and the like.
        QByteArray bytes;    ///< As Statement::cell().
        qint64 refused = -1; ///< The size of a cell that is not read.
        QByteArray why;      ///< Why it is refused.
    };
    void read(qint64 id, QList<Cell> cells);

    qint64 id() const { return m_id; }
    /// An alarm that both of the store's and the archive's rules call active.
    bool isActive() const;
    /// Appends the row in the text form of COPY.
    void appendTo(QByteArray &lines, int stream, int generation) const;
    /// fleet.digest() of the row.
    qint64 digest() const;

    /// fleet.rest() of the row.
    qint64 rest() const;

    /// What fleet.end_alarms() takes.
    struct End {
        QByteArray date;
        QByteArray time;
        QByteArray odd;
        qint64 size() const { return date.size() + time.size() + odd.size(); } ///< Bytes.
        friend bool operator==(const End &a, const End &b)
        {
            return a.date == b.date && a.time == b.time && a.odd == b.odd;
        }
    };
    /// EndDate and EndTime of an alarm, at two columns of a row.
    static End readEnd(const device_db::Statement &row, int dateColumn, int timeColumn);
    static End readEnd(const Cell &date, const Cell &time);

    static const char *tableOf(device_db::Kind kind);   ///< "sample", "alarm" or "log".
    static const char *columnsOf(device_db::Kind kind); ///< In the order of appendTo().

private:
    struct Field {
        std::string_view text; ///< data() is null for NULL.
        std::string kept;      ///< Where the text is not that of the file.
        void keep(std::string_view bytes)
        {
            kept = bytes;
            text = kept;
        }
    };

    void begin(qint64 id);
    void take(int column, const Cell &cell);
    void take(int column, int type, std::string_view bytes);
    void finish();

    const device_db::Kind m_kind;
    qint64 m_id = 0;
    std::string m_idText;
    std::array<Field, 10> m_cells; ///< By the places of the kind's columns.
    QList<Cell> m_given;           ///< What they show, where the row was given cell by cell.
    std::string m_number;
    std::string m_odd;    ///< JSON; empty: NULL.
    std::string m_endOdd; ///< The same of an alarm's end.
};

} // namespace device_ship

#endif
