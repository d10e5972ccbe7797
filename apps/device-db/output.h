// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_OUTPUT_H
#define DEVICE_DB_OUTPUT_H

#include "program.h"

#include <QByteArray>

#include <cstdio>

namespace device_db
{

enum class Format { Table, Full, Csv, Json };

struct OutputOptions {
    Format format = Format::Table;
    bool utc = false;
    int width = -1; ///< Of the lines, in columns; 0: as long as they are; negative: the terminal's.
    bool noPager = false;
    QString colours = QStringLiteral("auto");
};

/// --csv, --json, --full, --utc, --width, --color, --no-pager.
void addOutput(CLI::App *command, OutputOptions &options);

/// Those that go with any form: --utc, --width, --color, --no-pager.
void addLook(CLI::App *command, OutputOptions &options);

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

/// 1234567 as "1,234,567".
QString grouped(qint64 number);
/// "1 row", "1,234 rows".
QString rowsText(qint64 rows);
/// "12.3 MB".
QString bytesText(qint64 bytes);

} // namespace device_db

#endif
