// SPDX-License-Identifier: MIT
#ifndef STOREFILE_SALVAGE_H
#define STOREFILE_SALVAGE_H

#include "storefile/salvage/damaged_file.h"
#include "storefile/tables.h"

#include <QVector>

#include <functional>

namespace device_db
{

struct SalvageOptions {
    quint32 pageSize = 0; ///< 0: found out.
    /// Called from time to time with the part that is done, from 0 to 1.
    std::function<void(double)> progress;
};

/// A table that rows came out of.
struct SalvagedTable {
    enum NameFrom {
        FromSchema, ///< The file still says it.
        LastId,     ///< Its last ID is that of this name in SQLite's list of IDs.
        MadeUp      ///< Nothing says it.
    };
    QString name;
    Kind kind = Kind::Foreign;
    NameFrom nameFrom = MadeUp;
    qint64 rows = 0;
    qint64 rejected = 0;  ///< Rows that exist in part only.
    qint64 lostPages = 0; ///< Pages that the table's tree still names and that are gone or hold no rows any more.
    qint64 firstId = 0;
    qint64 lastId = 0;
};

/// What was found. Each page counts once.
struct SalvageReport {
    quint32 pageSize = 0;
    bool headerIntact = false;
    bool schemaIntact = false;
    qint64 pages = 0;
    qint64 logPages = 0;         ///< Taken from the write-ahead log.
    qint64 journalPages = 0;     ///< Taken from the rollback journal of a transaction that was never committed.
    bool journalDamaged = false; ///< Not all of them could be had, so rows of that transaction may be among the others.
    qint64 rowPages = 0;         ///< Table leaves, whole.
    qint64 damagedPages = 0;     ///< Table leaves, not whole; rows that are there in full were taken.
    qint64 treePages = 0;        ///< Interior pages and indexes.
    qint64 overflowPages = 0;
    qint64 freePages = 0;    ///< On the free list: what they hold was deleted.
    qint64 unknownPages = 0; ///< Overwritten, or of no use.
    qint64 deletedRows = 0;  ///< Rows on free pages and on pages of no table; they are not taken.
    qint64 foreignRows = 0;  ///< Rows of tables that are not a store's.
    qint64 rejectedCells = 0;
    qint64 duplicates = 0;    ///< Rows whose ID was there already.
    qint64 trendSums = 0;     ///< Taken, of trends.
    qint64 trendSumsMade = 0; ///< Made anew from the rows, where they were lost or cannot be right.
    qint64 trendPagesLost = 0;
    qint64 keepRules = 0; ///< Taken, of how long rows are kept.
    qint64 keepPagesLost = 0;
    qint64 keepRulesLeft = 0; ///< Left out, because a recorder could not keep to them.
    QVector<SalvagedTable> tables;

    qint64 rows() const
    {
        qint64 all = 0;
        for (const SalvagedTable &table : tables)
            all += table.rows;
        return all;
    }
};

/// Gets the rows of the stores' tables out of the bytes of a damaged file and puts them, with their IDs, into tables of
/// the stores' layouts in `target`, in one transaction. The rules of how long rows are kept, too, and the sums of
/// trends; what is lost of these is then made anew from the rows, each table in a transaction of its own.
/// Whatever the bytes are, this returns; rows that exist in part only are left out and counted. An Error
/// only when `target` cannot be written; its transaction is rolled back then.
Result<SalvageReport> salvage(const DamagedFiles &files, const Database &target, const SalvageOptions &options = {});

} // namespace device_db

#endif
