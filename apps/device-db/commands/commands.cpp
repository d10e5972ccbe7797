// SPDX-License-Identifier: MIT
#include "commands/commands.h"

namespace device_db
{

void addCommands(Program &program)
{
    addInfo(program);
    addRows(program);
    addCount(program);
    addImport(program);
    addExport(program);
    addDeletion(program);
    addMaintenance(program);
    addTrends(program);
    addKeep(program);
    addStats(program);
    addSql(program);
    addPlot(program);
    addViewer(program);
    addServe(program);
    addCheck(program);
    addBackup(program);
    addSalvage(program);
}

} // namespace device_db
