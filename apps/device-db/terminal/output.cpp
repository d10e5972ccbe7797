// SPDX-License-Identifier: MIT
#include "terminal/output.h"

#include "storefile/texts.h"
#include "terminal/text.h"

#include <QFile>
#include <QStandardPaths>

#include <cerrno>
#include <cstdlib>

#include <poll.h>
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

bool isDumb()
{
    const QByteArray terminal = qgetenv("TERM");
    return terminal.isEmpty() || terminal == "dumb";
}

// The pager to run; empty when none is wanted, when the terminal is none for it, or when it is not there: rows that are
// handed to a missing program are lost.
QByteArray pager()
{
    const QByteArray wanted = qEnvironmentVariableIsSet("PAGER") ? qgetenv("PAGER") : QByteArray("less");
    if (wanted == "cat" || isDumb())
        return QByteArray();
    for (const QByteArray &word : wanted.simplified().split(' ')) {
        if (word.contains('=')) // LESS=... less
            continue;
        return QStandardPaths::findExecutable(QFile::decodeName(word)).isEmpty() ? QByteArray() : wanted;
    }
    return QByteArray();
}

const char *colourOf(Tone tone)
{
    switch (tone) {
    case Tone::Faint:
        return "\033[2m";
    case Tone::Notice:
        return "\033[36m";
    case Tone::Warning:
        return "\033[33m";
    case Tone::Danger:
        return "\033[31m";
    case Tone::Plain:
        break;
    }
    return "";
}

// Why a write to standard output failed first; 0: none did, or nobody looked any more.
int lostOutput = 0;

bool taken(bool written)
{
    if (!written && lostOutput == 0 && errno != EPIPE)
        lostOutput = errno;
    return written;
}

} // namespace

Output::Output(const OutputOptions &options) : m_stream(stdout), m_isTerminal(outputIsSeen())
{
    m_width = options.width >= 0 ? options.width : m_isTerminal ? terminalWidth() : 0;
    m_colours =
        options.colours == QLatin1String("always") || (options.colours == QLatin1String("auto") && m_isTerminal &&
                                                       qEnvironmentVariableIsEmpty("NO_COLOR") && !isDumb());
    if (!m_isTerminal || options.noPager || pager().isEmpty())
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
    if (m_isPager && pclose(m_stream) != 0 && lostOutput == 0) {
        complain(QStringLiteral("the pager %1 failed; --no-pager prints straight to the terminal")
                     .arg(QString::fromLocal8Bit(pager())));
        lostOutput = EPIPE;
    }
    if (!m_isPager)
        flush();
}

bool Output::put(const QByteArray &text)
{
    const auto size = std::size_t(text.size());
    return taken(std::fwrite(text.constData(), 1, size, m_stream) == size);
}

bool Output::write(const QByteArray &text, Tone tone)
{
    const QByteArray shown = visibleLines(text);
    if (!m_colours || tone == Tone::Plain)
        return put(shown);
    const bool endsLine = shown.endsWith('\n');
    return put(colourOf(tone) + (endsLine ? shown.chopped(1) : shown) + "\033[0m" + (endsLine ? "\n" : ""));
}

bool Output::writeData(const QByteArray &text)
{
    return put(m_isTerminal ? visibleLines(text) : text);
}

bool Output::flush()
{
    return taken(std::fflush(m_stream) == 0);
}

bool Output::waitFor(int milliseconds)
{
    // Nothing is waited for but the news that the reader is gone.
    pollfd reader{fileno(m_stream), 0, 0};
    return poll(&reader, 1, milliseconds) <= 0 || (reader.revents & (POLLERR | POLLHUP)) == 0;
}

bool errorsAreSeen()
{
    return isatty(STDERR_FILENO);
}

bool outputIsSeen()
{
    return isatty(STDOUT_FILENO);
}

void say(const QString &line)
{
    taken(std::fprintf(stdout, "%s\n", visible(line).toUtf8().constData()) >= 0);
}

void complain(const QString &line)
{
    std::fflush(stdout); // so that the order is right when both go to one place
    std::fprintf(stderr, "device-db: %s\n", visible(line).toUtf8().constData());
}

bool outputIsComplete()
{
    taken(std::fflush(stdout) == 0);
    errno = lostOutput;
    return lostOutput == 0;
}

} // namespace device_db
