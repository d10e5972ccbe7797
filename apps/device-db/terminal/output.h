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

struct OutputOptions {
    Format format = Format::Table;
    bool utc = false;
    int width = -1; ///< Of the lines, in columns; 0: as long as they are; negative: the terminal's.
    bool noPager = false;
    QString colours = QStringLiteral("auto");
};

/// Standard output, by way of a pager when it is a terminal.
class Output
{
public:
    explicit Output(const OutputOptions &options);
    ~Output(); ///< Waits until the pager was quit.
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /// False when nobody takes it any more: a pager that was quit, a closed pipe. Then stop.
    bool write(const QByteArray &text);
    bool flush();

    int width() const { return m_width; } ///< In columns; 0: without limit.
    bool colours() const { return m_colours; }

private:
    std::FILE *m_stream;
    bool m_isPager = false;
    int m_width = 0;
    bool m_colours = false;
};

/// Standard error is a terminal: progress may be shown there.
bool errorsAreSeen();

/// A line for people on standard output. Control characters in it, which come from files and names, are made visible.
void say(const QString &line);
/// The same on standard error, with the name of the program before it.
void complain(const QString &line);

} // namespace device_db

#endif
