// SPDX-License-Identifier: MIT
#ifndef DEVICE_ROLLUPS_H
#define DEVICE_ROLLUPS_H

#include "batch.h"
#include "deadline.h"
#include "rollup_file.h"
#include "table_places.h"
#include "time_text.h"

#include <vector>

namespace device
{

/// The rollups of a file, as the thread that stores its rows keeps them.
///
/// Rows are summed up in memory and go into the file with the rows of a later batch, together with the mark. So the
/// buckets in the file are at every commit those of the rows up to the mark, and a reader adds the rows above it. A
/// trigger would be three to fourteen times as slow, and lose rows when it is broken.
class Rollups
{
public:
    /// Looks which tables have rollups. They are behind until catchUp() says otherwise.
    Status open(Connection &connection);

    /// A row that is in the file now.
    void stored(const Write &row);

    QStringList tables() const;
    /// The sums of a table in the file are no longer as they were: what is in memory is read there again. False if the
    /// table is not kept up.
    bool lookAgain(const QString &table);

    /// Something waits to be written for long enough.
    bool isDue() const;
    /// Something waits to be written.
    bool isInMemory() const;
    /// Writes what is due, or all, of some tables, within the caller's transaction and in front of its rows. Where rows
    /// were added behind its back, a table is behind afterwards.
    Status write(Connection &connection, bool all);
    /// The transaction of write() is in the file.
    void written();

    /// Rows or left-over buckets wait for catchUp().
    bool isBehind() const;
    bool isBehind(const QString &table);
    /// Which rows of a table are in the file's buckets.
    struct Summed {
        qint64 throughId = 0;
        qint64 newest = 0;      ///< So many of the newest rows are not, wherever their IDs begin by now.
        bool isGivenUp = false; ///< It does not go on.
    };
    /// Nothing for a table without rollups.
    std::optional<Summed> summed(const QString &table);
    /// One slice of some milliseconds, in a transaction of its own. After an Error it is to be tried again later.
    Status catchUp(Connection &connection);

    /// Why a table is not kept up, once. Empty when all goes well.
    std::optional<Error> takeTrouble();

private:
    enum class Standing {
        Behind,
        Kept,
        GivenUp, ///< It failed, and would again, until somebody mends it: its rows are not to be removed unsummed.
    };
    struct Table {
        QString name;
        RollupState state;
        Standing standing = Standing::Behind;
        Buckets buckets;              ///< Of the finest level, since the mark.
        qint64 rows = 0;              ///< In them.
        QString newest;               ///< The last of these, as RowText has it.
        Clock::time_point since = {}; ///< The first of these was stored.
        bool isEnded = false;         ///< The file has no trend of it any more.
        bool isReported = false;
        bool isWritten = false; ///< By the transaction under way,
        qint64 newMark = 0;     ///< up to here.
    };

    static bool isDue(const Table &table);
    static void forget(Table &table);
    Status forgetAllAfter(const Error &error);
    Table *tableOf(const QString &name);
    Status catchUp(Connection &connection, Table &table);

    TimeReader m_times{false};
    qint64 m_rowsOfASlice = 5000;
    size_t m_next = 0; ///< Of m_tables: who comes first when not all can be written at once.
    std::vector<Table> m_tables;
    TablePlaces<Table> m_places;
    QVector<qint64> m_gone; ///< Numbers whose buckets nobody needs.
    std::optional<Error> m_trouble;
};

} // namespace device

#endif
