// SPDX-License-Identifier: MIT
#include "device/number.h"

#include <charconv>
#include <cmath>

namespace device
{

std::optional<double> number(const QString &text)
{
    return number(text.toUtf8());
}

std::optional<double> number(const QByteArray &utf8)
{
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    const char *begin = utf8.constData();
    const char *end = begin + utf8.size();
    while (begin != end && isBlank(*begin))
        ++begin;
    while (begin != end && isBlank(end[-1]))
        --end;
    if (end - begin > 1 && *begin == '+' && begin[1] != '-') // from_chars() takes no plus
        ++begin;
    double value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value);
    if (begin == end || stop != end || error != std::errc() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

QString numberText(double value)
{
    if (std::isnan(value)) // to_chars() gives a sign to some
        return QStringLiteral("nan");
    char text[32];
    const auto [end, error] = std::to_chars(text, text + sizeof text, value);
    Q_ASSERT(error == std::errc()); // 24 characters are the longest
    return QString::fromLatin1(text, int(end - text));
}

} // namespace device
