// SPDX-License-Identifier: MIT
#include "terminal/text.h"

#include "storefile/texts.h"

#include <algorithm>

#include <wchar.h>

namespace device_db
{

std::string wrapped(const std::string &text, std::size_t lineWidth, const std::string &indent)
{
    std::string result;
    std::size_t column = 0;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] == '\n') {
            result += "\n" + indent;
            column = 0;
            ++at;
            continue;
        }
        std::size_t end = text.find_first_of(" \n", at);
        end = end == std::string::npos ? text.size() : end;
        const std::size_t length = end - at;
        if (column > 0 && column + 1 + length > lineWidth) {
            result += "\n" + indent;
            column = 0;
        } else if (column > 0) {
            result += ' ';
            ++column;
        }
        result.append(text, at, length);
        column += length;
        at = end < text.size() && text[end] == ' ' ? end + 1 : end;
    }
    return result;
}

int displayWidth(const QString &text)
{
    int width = 0;
    for (const char32_t c : text.toStdU32String()) {
        if (c < 0x80)
            ++width;
        else
            width += std::max(0, wcwidth(wchar_t(c)));
    }
    return width;
}

QString cutTo(const QString &text, int columns)
{
    if (text.size() * 2 <= columns || displayWidth(text) <= columns)
        return text;
    QString cut;
    int width = 1; // the dots
    for (const char32_t c : text.toStdU32String()) {
        const QString each = QString::fromStdU32String(std::u32string(1, c));
        width += displayWidth(each);
        if (width > columns)
            break;
        cut += each;
    }
    return cut + QChar(0x2026);
}

QByteArray visibleLines(const QByteArray &text)
{
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c >= 0x20 && c < 0x7f) || c == '\n' || c == '\t'; }))
        return text;
    QString result;
    for (const QChar c : QString::fromUtf8(text))
        result += c == QLatin1Char('\n') || c == QLatin1Char('\t') ? QString(c) : visible(QString(c));
    return result.toUtf8();
}

} // namespace device_db
