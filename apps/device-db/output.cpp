// SPDX-License-Identifier: MIT
#include "output.h"

#include <QLocale>

#include <cstdlib>

#include <sys/ioctl.h>
#include <unistd.h>

namespace device_db
{

namespace
{

int terminalWidth()
{
    if (const int given = qEnvironmentVariableIntValue("COLUMNS"); given > 0)
        return given;
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

QByteArray pager()
{
    const QByteArray wanted = qEnvironmentVariableIsSet("PAGER") ? qgetenv("PAGER") : QByteArray("less");
    return wanted == "cat" ? QByteArray() : wanted;
}

} // namespace

void addOutput(CLI::App *command, OutputOptions &options)
{
    const auto format = [&](const char *name, Format value, const char *description) {
        return command->add_flag_callback(
            name, [&options, value] { options.format = value; }, description);
    };
    CLI::Option *const csv = format("--csv", Format::Csv, "Print CSV, each cell exactly as it stands in the file");
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
        ->type_name("N");
    addText(command, "--color", options.colours, "auto, always or never; default: auto")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "always", "never"}, CLI::ignore_case));
    command->add_flag("--no-pager", options.noPager, "Print straight to the terminal");
}

Output::Output(const OutputOptions &options) : m_stream(stdout)
{
    const bool terminal = isatty(STDOUT_FILENO);
    m_width = options.width >= 0 ? options.width : terminal ? terminalWidth() : 0;
    m_colours = options.colours == QLatin1String("always") ||
                (options.colours == QLatin1String("auto") && terminal && qEnvironmentVariableIsEmpty("NO_COLOR") &&
                 qgetenv("TERM") != "dumb");
    if (!terminal || options.noPager || pager().isEmpty())
        return;
    if (!qEnvironmentVariableIsSet("LESS"))
        qputenv("LESS", "FRSX"); // quits by itself when all fits, shows colours, does not break lines
    if (std::FILE *const stream = popen(pager().constData(), "w")) {
        m_stream = stream;
        m_isPager = true;
    }
}

Output::~Output()
{
    if (m_isPager)
        pclose(m_stream);
    else
        std::fflush(m_stream);
}

bool Output::write(const QByteArray &text)
{
    return std::fwrite(text.constData(), 1, std::size_t(text.size()), m_stream) == std::size_t(text.size());
}

bool Output::flush()
{
    return std::fflush(m_stream) == 0;
}

bool errorsAreSeen()
{
    return isatty(STDERR_FILENO);
}

QString grouped(qint64 number)
{
    return QLocale(QLocale::English, QLocale::UnitedStates).toString(number);
}

QString rowsText(qint64 rows)
{
    return grouped(rows) + QLatin1String(rows == 1 ? " row" : " rows");
}

QString bytesText(qint64 bytes)
{
    if (bytes < 1000)
        return QStringLiteral("%1 B").arg(bytes);
    double value = double(bytes);
    const char *unit = "B";
    for (const char *next : {"kB", "MB", "GB"}) {
        if (value < 999.5)
            break;
        value /= 1000;
        unit = next;
    }
    return QStringLiteral("%1 %2").arg(value, 0, 'f', value < 99.95 ? 1 : 0).arg(QLatin1String(unit));
}

} // namespace device_db
