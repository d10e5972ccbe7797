// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_COMMANDS_H
#define DEVICE_DB_COMMANDS_H

namespace device_db
{

class Program;

// Each adds one command, or a family, with its options; each is in the file of its name.
void addInfo(Program &program);
void addRows(Program &program); ///< show, newest, range, find, tail
void addCount(Program &program);
void addImport(Program &program);
void addExport(Program &program);
void addDeletion(Program &program);    ///< trim, purge, clear
void addMaintenance(Program &program); ///< vacuum, checkpoint, tune
void addTrends(Program &program);
void addKeep(Program &program);
void addStats(Program &program);
void addPlot(Program &program);
void addViewer(Program &program);
void addServe(Program &program);
void addCheck(Program &program);
void addBackup(Program &program);
void addSalvage(Program &program);
void addSql(Program &program);

/// All of them, in the order of the help.
void addCommands(Program &program);

} // namespace device_db

#endif
