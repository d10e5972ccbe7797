// SPDX-License-Identifier: MIT
#include "commands/options.h"

#include "fleet/fleet.h"

#include <cstring>

namespace device_db
{

namespace
{

// A script's empty variable must not mean that the option was left out: the whole table would come.
const CLI::Validator
    notEmpty([](const std::string &given) { return given.empty() ? std::string("it is empty") : std::string(); }, "");

const CLI::Validator noFleet(
    [](const std::string &given) {
        return isFleet(QString::fromStdString(given))
                   ? std::string("this command takes a file; newest, range, find and count take a fleet")
                   : std::string();
    },
    "");

constexpr const char *aboutLock =
    "Read the file itself, with locks: a device that writes it at that moment may lose a commit";

} // namespace

CLI::Option *addText(CLI::App *command, const std::string &name, QString &value, const std::string &description)
{
    return command
        ->add_option_function<std::string>(
            name, [&value](const std::string &given) { value = QString::fromStdString(given); }, description)
        ->type_name("TEXT")
        ->check(notEmpty);
}

QString pathOf(const QString &given)
{
    const bool isOfAFile = !given.startsWith(QLatin1Char(':')) && !given.startsWith(QLatin1String("file:"));
    return isOfAFile ? given : QLatin1String("./") + given;
}

CLI::Option *addPath(CLI::App *command, const std::string &name, QString &path, const std::string &description)
{
    return command
        ->add_option_function<std::string>(
            name, [&path](const std::string &given) { path = pathOf(QString::fromStdString(given)); }, description)
        ->type_name("PATH")
        ->check(notEmpty);
}

CLI::Option *addTexts(CLI::App *command, const std::string &name, QStringList &value, const std::string &description)
{
    return command
        ->add_option_function<std::vector<std::string>>(
            name,
            [&value](const std::vector<std::string> &given) {
                for (const std::string &each : given)
                    value << QString::fromStdString(each);
            },
            description)
        ->type_name("TEXT")
        ->check(notEmpty)
        ->allow_extra_args(name.front() != '-'); // --user NAME must not take the TABLE after it
}

CLI::Validator wholeNumber()
{
    return CLI::Validator(
        [](const std::string &given) {
            const bool fits =
                !given.empty() && given.size() < 19 && given.find_first_not_of("0123456789") == std::string::npos;
            return fits ? std::string() : "\"" + given + "\" is not a whole number";
        },
        "");
}

void addSeparator(CLI::App *command, std::optional<char> &separator)
{
    const CLI::Validator oneCharacter(
        [](const std::string &given) {
            const bool fits = given == "tab" || (given.size() == 1 && given[0] > 0 && !std::strchr("\"\r\n", given[0]));
            return fits ? std::string() : "one character, or the word tab";
        },
        "");
    command
        ->add_option_function<std::string>(
            "--separator", [&separator](const std::string &given) { separator = given == "tab" ? '\t' : given[0]; },
            "Between the cells of CSV: one character, or tab; default: a comma")
        ->type_name("CHAR")
        ->check(oneCharacter);
}

CLI::Option *addFile(CLI::App *command, QString &path, ReadOptions &options)
{
    CLI::Option *const file =
        addPath(command, "FILE", path, "The database file")->type_name("")->required()->check(noFleet);
    command->add_flag("--lock", options.lock, aboutLock);
    return file;
}

void addSource(CLI::App *command, QString &path, ReadOptions &options, QStringList &devices)
{
    addPath(command, "FILE", path, "The database file, or a fleet: postgresql://HOST/DATABASE")
        ->type_name("")
        ->required();
    CLI::Option *const lock = command->add_flag("--lock", options.lock, aboutLock);
    CLI::Option *const device = addTexts(command, "--device", devices,
                                         "This device of a fleet, by its name or number; may be given several times")
                                    ->type_name("NAME");
    command->parse_complete_callback([&path, lock, device] {
        if (isFleet(path) && lock->count() > 0)
            throw CLI::ValidationError("--lock", "a fleet has no file to lock; leave it out");
        if (!isFleet(path) && device->count() > 0)
            throw CLI::ValidationError("--device", "a file is of one device; leave it out, or name a fleet "
                                                   "(postgresql://HOST/DATABASE)");
    });
}

void addRange(CLI::App *command, RowFilter &filter)
{
    addText(command, "--from", filter.from, "From this time on")->type_name("TIME");
    addText(command, "--to", filter.to, "Up to this time; a day is taken in whole")->type_name("TIME");
}

void addFilter(CLI::App *command, RowFilter &filter)
{
    CLI::Option *const active = command->add_flag("--active", filter.active, "Alarms that have not ended");
    command->add_flag("--ended", filter.ended, "Alarms that have ended")->excludes(active);
    command->add_option("--level", filter.levels, "Alarms of this level; may be given several times")
        ->type_name("N")
        ->check(notEmpty)
        ->allow_extra_args(false);
    addTexts(command, "--object", filter.objects, "Alarms of this object; may be given several times")
        ->type_name("NAME");
    addTexts(command, "--type", filter.types, "Alarms of this type; may be given several times")->type_name("NAME");
    addTexts(command, "--value", filter.values,
             "Samples whose value compares so: \">80\", \"<=5\", \"!=0\", \"=ON\"; all that are given must hold")
        ->type_name("COMPARISON");
    addTexts(command, "--user", filter.users, "Log entries of this user; may be given several times")
        ->type_name("NAME");
}

void addNull(CLI::App *command, std::optional<QByteArray> &null, const std::string &description)
{
    command
        ->add_option_function<std::string>(
            "--null", [&null](const std::string &text) { null = QByteArray::fromStdString(text); }, description)
        ->type_name("TEXT");
}

void addOutput(CLI::App *command, OutputOptions &options)
{
    const auto format = [&](const char *name, Format value, const char *description) {
        return command->add_flag_callback(
            name, [&options, value] { options.format = value; }, description);
    };
    CLI::Option *const csv = format("--csv", Format::Csv, "Print CSV, each cell exactly as it is in the file");
    CLI::Option *const json = format("--json", Format::Json, "Print JSON, one object a line");
    CLI::Option *const full = format("--full", Format::Full, "Print each row as a block, nothing cut off");
    csv->excludes(json)->excludes(full);
    json->excludes(full);
    addLook(command, options);
}

void addLook(CLI::App *command, OutputOptions &options)
{
    command->add_flag("--utc", options.utc,
                      "Times in UTC, given and printed; the device's zone is that of this computer, or $TZ");
    command->add_option("--width", options.width, "Columns of a line; 0: no limit; default: the terminal's")
        ->type_name("N")
        ->check(wholeNumber());
    addText(command, "--color", options.colours, "auto, always or never; default: auto")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "always", "never"}, CLI::ignore_case));
    command->add_flag("--no-pager", options.noPager, "Print straight to the terminal");
}

} // namespace device_db
