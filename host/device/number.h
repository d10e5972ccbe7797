// SPDX-License-Identifier: MIT
#ifndef DEVICE_NUMBER_H
#define DEVICE_NUMBER_H

#include "device/device_host_export.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace device
{

/// The number that a value text holds, or nothing. This is what trends and statistics count as a number: digits with a
/// decimal point or an exponent ("87.5", "-1e3", ".5", "+5"), blanks and tabs around them allowed. A unit, a decimal
/// comma, "nan", "inf", hexadecimal digits and what a double cannot hold ("1e999") are no numbers.
DEVICE_HOST_EXPORT std::optional<double> number(const QString &text);
/// The same for a text in UTF-8, as the file holds it.
DEVICE_HOST_EXPORT std::optional<double> number(const QByteArray &utf8);

/// The number in the fewest digits that number() reads back as the same double, with a decimal point in every locale.
/// Not a number and the infinities become "nan", "inf" and "-inf", which number() takes for no number.
DEVICE_HOST_EXPORT QString numberText(double value);

} // namespace device

#endif
