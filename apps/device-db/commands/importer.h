// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_IMPORTER_H
#define DEVICE_DB_IMPORTER_H

#include "commands/writing.h"
#include "import/input.h"
#include "program/program.h"

#include <optional>

namespace device_db
{

struct ImportOptions {
    WriteOptions target;
    QString table;
    InputOptions input;
    QString kind;
    QString name;
    bool create = false;
    bool wide = false;
    QString columns;
    QStringList constants;
    QString timeFormat;
    QString zone;
    std::optional<QByteArray> null;
    bool asIs = false;
    bool dryRun = false;
    bool restart = false;
    QString refused;
};

/// Stores the rows of the input, refuses those that do not fit and says how many of both. An Error when it could not
/// begin or go on; what was committed until then stays.
Outcome importRows(const ImportOptions &options);

} // namespace device_db

#endif
