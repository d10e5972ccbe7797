// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_OUTPUT_H
#define DEVICE_DB_OUTPUT_H

#include <QByteArray>
#include <QString>

#include <cstdio>

namespace device_db
{

enum class Format { Table, Full, Csv, Json };
inline bool isForPeople(Format format)
{
    return format == Format::Table || format == Format::Full;
}

enum class Tone { Plain, Faint, Notice, Warning, Danger };

struct OutputOptions {
    Format format = Format::Table;
    bool utc = false;
    int width = -1; ///< Of the lines, in columns; 0: as long as they are; negative: the terminal's.
    bool noPager = false;
    QString colours = QStringLiteral("auto");
};

/// Standard output, by way of a pager when it is a terminal and there is one.
class Output
{
public:
    explicit Output(const OutputOptions &options);
    ~Output(); ///< Waits until the pager was quit.
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /// Lines for people, in UTF-8; control characters in them, which come from files and names, are made visible.
    /// False when nobody takes it any more: a pager that was quit, a closed pipe. Then stop.
    bool write(const QByteArray &text, Tone tone = Tone::Plain);
    /// What a program reads, to the byte; as write() on a terminal.
    bool writeData(const QByteArray &text);
    bool flush();
    /// Waits; false as soon as nobody takes it any more.
    bool waitFor(int milliseconds);

    int width() const { return m_width; } ///< In columns; 0: without limit.

private:
    bool put(const QByteArray &text);

    std::FILE *m_stream;
    bool m_isPager = false;
    bool m_isTerminal;
    int m_width = 0;
    bool m_colours = false;
};

/// Standard error is a terminal: progress may be shown there.
bool errorsAreSeen();
/// Standard output is a terminal.
bool outputIsSeen();

/// A line for people on standard output. Control characters in it, which come from files and names, are made visible.
void say(const QString &line);
/// The same on standard error, with the name of the program before it.
void complain(const QString &line);

/// Flushes standard output. False when something that was written to it is lost, as on a full disk; a pipe that was
/// closed has not lost anything that somebody wanted. errno then says why.
bool outputIsComplete();

} // namespace device_db

#endif
