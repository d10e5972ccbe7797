// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_ROW_QUERY_H
#define DEVICE_DB_ROW_QUERY_H

#include "program.h"
#include "tables.h"

#include <CLI/CLI.hpp>

namespace device_db
{

/// Which rows of a table, as the options of a command say it.
struct RowFilter {
    QString from; ///< As typed; empty: open.
    QString to;
    bool active = false;
    bool ended = false;
    std::vector<int> levels;
    QStringList users;
    QString containing; ///< In any text of the row, whatever the case of its letters.
    qint64 afterId = -1;

    /// The kinds of tables that have what is asked for; empty: any.
    QVector<Kind> kinds() const;
};

/// --active, --ended, --level, --user.
void addFilter(CLI::App *command, RowFilter &filter);
/// --from and --to.
void addRange(CLI::App *command, RowFilter &filter);

enum class Order { OldestFirst, NewestFirst, AsRecorded };

struct RowQuery {
    RowFilter filter;
    Order order = Order::OldestFirst;
    qint64 limit = -1; ///< Negative: all.
    qint64 offset = 0;
    bool utc = false; ///< The bounds were given in UTC.
};

/// The rows of a table: ID, then its columns as in the file.
Result<Statement> rowsOf(const Database &database, const Table &table, const RowQuery &query);
Result<qint64> countOf(const Database &database, const Table &table, const RowFilter &filter, bool utc);

/// The WHERE that removes what a filter finds, with its places filled: for the commands that delete.
Result<Statement> prepared(const Database &database, const Table &table, const RowFilter &filter, bool utc,
                           const QByteArray &head, const QByteArray &tail);

} // namespace device_db

#endif
