// SPDX-License-Identifier: MIT
#include "commands/commands.h"

#include "commands/importer.h"
#include "commands/options.h"

#include <utility>

namespace device_db
{

void addImport(Program &program)
{
    CLI::App *const command = program.add(
        "import", "Store the rows of a CSV or JSON file in a table",
        "The first row, or the keys of JSON lines, name the columns: samples have time,value; alarms "
        "level,start,object,type,value,limit,description,end_date,end_time; the log time,user,log,message. Two columns "
        "date,time are taken for the time, and a column end for the end of an alarm. Cells are stored as they are; times "
        "in the usual forms are turned into that of the table. An import that was stopped goes on where it was when the "
        "same command is run again. With --wide each column but the time is a series in a table of its own, and no TABLE "
        "is given.");
    const auto options = std::make_shared<ImportOptions>();
    addWritableFile(command, options->target);
    addText(command, "TABLE", options->table, "The table; not with --wide")->type_name("");
    addPath(command, "INPUT", options->input.path, "The CSV or JSON file; - for standard input")->type_name("");
    command->parse_complete_callback([options] {
        if (options->wide && !options->input.path.isEmpty())
            throw CLI::ExtrasError({options->table.toStdString() + " (--wide takes no TABLE)"});
        if (options->wide)
            options->input.path = pathOf(std::exchange(options->table, QString()));
        if (options->input.path.isEmpty())
            throw CLI::RequiredError("INPUT");
    });
    command->add_flag("--create", options->create, "Make the file or the table when it is missing");
    CLI::Option *const kind = addText(command, "--kind", options->kind, "Of a new table: samples, alarms or log");
    kind->type_name("KIND")->check(CLI::IsMember({"samples", "alarms", "log"}));
    CLI::Option *const name =
        addText(command, "--name", options->name, "The name of a new table of samples in the configuration table");
    CLI::Option *const wide =
        command
            ->add_flag("--wide", options->wide,
                       "One time and many series: each further column goes into the table that its heading names")
            ->excludes(name)
            ->excludes(kind);
    addSeparator(command, options->input.separator);
    addText(command, "--encoding", options->input.encoding,
            "Of INPUT, such as windows-1252; default: UTF-8, or UTF-16 where its mark comes first")
        ->type_name("NAME");
    command->add_option("--skip", options->input.skip, "Leave out this many lines at the beginning")
        ->type_name("N")
        ->check(wholeNumber());
    command->add_flag("--no-header", options->input.noHeader,
                      "The first row holds data; the columns are those of the table");
    addText(command, "--columns", options->columns, "The names of the columns, in order; - leaves one out")
        ->type_name("NAME,...");
    addTexts(command, "--default", options->constants,
             "What a column holds that INPUT lacks, such as level=1; may be given several times")
        ->type_name("COLUMN=TEXT")
        ->excludes(wide);
    addText(command, "--time-format", options->timeFormat,
            "The form of the times, such as \"dd/MM/yyyy h:mm AP\"; default: the usual ones, in which the day comes "
            "first only with dots (6.5.2024)")
        ->type_name("FORM");
    addText(command, "--zone", options->zone,
            "The device's zone, such as Europe/Berlin: for times with a Z, an offset, or in seconds since 1970")
        ->type_name("ZONE");
    addNull(command, options->null, "The text that means NULL; default: there is none");
    command->add_flag("--as-is", options->asIs, "Store times and levels of any form, which the device may not find");
    command->add_flag("--dry-run", options->dryRun, "Store nothing; print the first rows that would be refused");
    command->add_flag("--restart", options->restart, "Begin at the first row although an earlier run stored some");
    addPath(command, "--refused", options->refused,
            "The file to make for refused rows; default: INPUT.refused.csv, or with a number where that exists");
    program.onRun(command, [options] { return importRows(*options); });
}

} // namespace device_db
