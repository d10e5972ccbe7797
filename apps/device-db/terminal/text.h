// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_TEXT_H
#define DEVICE_DB_TEXT_H

#include <QString>

#include <string>

namespace device_db
{

/// visible() of a text of several lines in UTF-8; line ends and tabs stay.
QByteArray visibleLines(const QByteArray &text);

/// The columns that a text takes on a terminal.
int displayWidth(const QString &text);
/// Cut to this many columns, with "…" at the end when something is left out.
QString cutTo(const QString &text, int columns);
/// The text broken at blanks into lines of at most `width` characters; lines that it has stay.
std::string wrapped(const std::string &text, std::size_t width, const std::string &indent);

} // namespace device_db

#endif
