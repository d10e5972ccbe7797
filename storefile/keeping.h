// SPDX-License-Identifier: MIT
#ifndef STOREFILE_KEEPING_H
#define STOREFILE_KEEPING_H

#include "storefile/tables.h"

#include "host/keep_file.h"
#include "host/shipped_file.h"

#include <optional>

namespace device_db
{

/// What takes away rules that cannot be read, for messages.
constexpr const char *keepRemedy = "a recorder removes no rows until it can; \"device-db keep FILE --for-ever\" "
                                   "takes all rules away";

/// "90d", "36h", "2y": the form that spanOf() takes.
QString spanText(std::chrono::hours span);
/// A whole number and h, d, w or y, a year of 365 days. The Error is about `text`.
Result<std::chrono::hours> spanOf(const QString &text);
/// "1min=90d,10min=2y", empty without ages of sums.
QString sumsText(const device::Keep &keep);
/// For people: "age 90d, rows 10,000, at least 30d, sums 1min=90d", or "for ever".
QString keepText(const device::Keep &keep);
/// What nothing undercuts: the rule, or without one what a recorder takes for this kind of table.
std::chrono::hours leastOf(Kind kind, const device::Keep &keep);

/// What the file says of how long its rows are kept. Error::TableLayout for what cannot be read, without a remedy.
Result<device::KeepFile> keepFileOf(const Database &database);

/// What a recorder knows when it opens a file.
struct Keeping {
    QList<Table> tables; ///< Of records.
    device::KeepFile file;
    device::ShippedFile shipped;
    std::optional<qint64> believed; ///< The device's time, in seconds.

    /// The entry of a table, if there is one.
    const device::Kept *entryOf(const QString &table) const;
};
/// `path`: beside which FILE.shipped is looked for, also when `database` is a copy.
Result<Keeping> keepingOf(const Database &database, const QString &path);

/// What a recorder that opens the file now would remove by a rule, before rows come.
struct KeepOutlook {
    qint64 rows = 0;          ///< In the table.
    qint64 going = 0;         ///< Of those: removed.
    qint64 heldAsTooMany = 0; ///< Too old, but more than a tenth at once: held until the host allows it.
    qint64 heldForShipper = 0;
};
Result<KeepOutlook> outlookOf(const Database &database, const Keeping &keeping, const Table &table,
                              const device::Keep &keep);

} // namespace device_db

#endif
