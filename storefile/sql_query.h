// SPDX-License-Identifier: MIT
#ifndef STOREFILE_SQL_QUERY_H
#define STOREFILE_SQL_QUERY_H

#include "storefile/sqlite.h"

namespace device_db
{

/// A statement of a person's own that only reads: this file, and nothing else. An Error for any other, for more than
/// one, and for one that SQLite does not understand. From then on the connection runs nothing but such statements.
Result<Statement> queryOf(const Database &database, const QString &sql);

} // namespace device_db

#endif
