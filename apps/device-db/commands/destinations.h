// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_DESTINATIONS_H
#define DEVICE_DB_DESTINATIONS_H

#include "commands/writing.h"
#include "storefile/tables.h"

namespace device_db
{

/// A table that rows go to.
struct Destination {
    QString table;
    QString title;             ///< Of a new series, in the configuration table.
    Kind kind = Kind::Foreign; ///< Foreign: it is still to be made.
};

struct Lookup {
    bool create = false;      ///< What is missing may be.
    bool samplesOnly = false; ///< Tables of another kind will not do.
    bool onlyRead = false;
};

/// Gives each destination the name and the kind that its table has in the file; the kind of a missing one stays
/// Kind::Foreign.
Status lookUp(const WriteOptions &file, const Lookup &lookup, QVector<Destination> &destinations);

/// An Error when a table that is missing has a name that is kept for another kind.
Status mayBeMade(const QVector<Destination> &destinations, Kind kind);

/// Makes those that are missing, and the file. The device's own store does it, so that they are the same to the word as
/// on a device.
Status makeTables(const WriteOptions &file, const QVector<Destination> &destinations, Kind kind);

} // namespace device_db

#endif
