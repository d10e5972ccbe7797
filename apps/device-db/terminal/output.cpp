// SPDX-License-Identifier: MIT
#include "terminal/output.h"

#include "terminal/text.h"

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

void say(const QString &line)
{
    std::fprintf(stdout, "%s\n", visible(line).toUtf8().constData());
}

void complain(const QString &line)
{
    std::fflush(stdout); // so that the order is right when both go to one place
    std::fprintf(stderr, "device-db: %s\n", visible(line).toUtf8().constData());
}

} // namespace device_db
